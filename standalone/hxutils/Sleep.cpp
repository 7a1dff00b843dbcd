#include "host/HxSleep.h"
#include "standalone/hxutils/Pauses.h"
#include "standalone/znlib/Log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <limits>

namespace
{

using Milliseconds = unsigned long;

std::atomic<Milliseconds> g_longestPause{std::numeric_limits<Milliseconds>::max()};

timespec MonotonicDeadline(Milliseconds pause)
{
    constexpr long kNanosecondsPerSecond = 1'000'000'000;
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(pause / 1000);
    deadline.tv_nsec += static_cast<long>(pause % 1000) * 1'000'000;
    if (deadline.tv_nsec >= kNanosecondsPerSecond)
    {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= kNanosecondsPerSecond;
    }
    return deadline;
}

} // namespace

void znhost::LimitPauses(std::chrono::milliseconds longest)
{
    g_longestPause =
        static_cast<Milliseconds>(std::max<std::chrono::milliseconds::rep>(0, longest.count()));
}

void HXSLEEP_InTeRnAl(unsigned long milliseconds, const char* /*file*/, int /*line*/)
{
    znhost::FlushLog(); // all lines before the pause are in the file during it
    // An absolute deadline: an interrupted sleep continues without drift.
    const timespec deadline = MonotonicDeadline(std::min(milliseconds, g_longestPause.load()));
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR)
    {
    }
}
