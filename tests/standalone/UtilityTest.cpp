// The shared pointer, the error object and the sleep.

#include "host/CHxError.h"
#include "host/HxSleep.h"
#include "host/SP.h"
#include "standalone/hxutils/Pauses.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>
#include <vector>

#include <sys/time.h>

namespace
{

class Counted : public SPEnabled
{
public:
    explicit Counted(int& alive) : m_alive(alive) { ++m_alive; }
    ~Counted() override { --m_alive; }

private:
    int& m_alive;
};

TEST(SharedPointer, DeletesWithTheLastShare)
{
    int alive = 0;
    {
        SP<Counted> empty;
        EXPECT_EQ(empty.operator->(), nullptr);
        SP<Counted> one(new Counted(alive));
        one = *&one; // the only share
        const SP<Counted> two(one);
        one = SP<Counted>(new Counted(alive));
        EXPECT_EQ(alive, 2);
        empty = two;
        one = empty;
        EXPECT_EQ(alive, 1);
        EXPECT_EQ(one.operator->(), two.operator->());
    }
    EXPECT_EQ(alive, 0);
}

TEST(SharedPointer, IsSharedAmongThreads)
{
    int alive = 0;
    {
        const SP<Counted> shared(new Counted(alive));
        std::vector<std::thread> threads(4);
        for (std::thread& thread : threads)
            thread = std::thread([&] {
                for (int round = 0; round < 1'000'000; ++round)
                    SP<Counted>().assign(shared);
            });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(alive, 1);
    }
    EXPECT_EQ(alive, 0);
}

TEST(Error, IsCopiedWithItsCode)
{
    CHxError copy = CHxError::Success();
    EXPECT_EQ(copy.getCode(), 0);
    CHxError failure(copy);
    const std::int32_t code = 5; // only a host of its own makes such
    std::memcpy(static_cast<void*>(&failure), &code, sizeof code);
    copy = failure;
    EXPECT_EQ(copy.getCode(), 5);
    EXPECT_EQ(CHxError(failure).getCode(), 5);
}

std::chrono::milliseconds Slept(unsigned long milliseconds)
{
    const auto start = std::chrono::steady_clock::now();
    HXSLEEP_InTeRnAl(milliseconds, "test", __LINE__);
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start);
}

TEST(Sleep, LastsThroughSignalsAndNoLongerThanAllowed)
{
    ASSERT_NE(std::signal(SIGALRM, [](int) {}), SIG_ERR);
    const itimerval often{{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_GE(Slept(999).count(), 999); // almost always ends in another second of the clock
    const itimerval never{};
    setitimer(ITIMER_REAL, &never, nullptr);

    znhost::LimitPauses(std::chrono::milliseconds(1));
    EXPECT_LT(Slept(3600000).count(), 3600000); // an hour: the test's own time limit would end it
}

} // namespace
