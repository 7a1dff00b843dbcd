// The process runner and the heap: this program has an operator new and an operator delete of its own.
#include "host/ZnProcess.h"

#include <malloc.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace
{

std::atomic<size_t> g_largestBlock{SIZE_MAX};
// Looked for in every block that is given back.
std::atomic<const char*> g_secret{nullptr};
std::atomic<int> g_leaks{0};

} // namespace

// Not inlined: the compiler would see memory of malloc go to operator delete, and warn.
[[gnu::noinline]] void* operator new(size_t size)
{
    void* const block = size <= g_largestBlock ? std::malloc(size) : nullptr;
    return block != nullptr ? block : throw std::bad_alloc();
}

void operator delete(void* block) noexcept
{
    const char* const secret = g_secret;
    if (block != nullptr && secret != nullptr &&
        memmem(block, malloc_usable_size(block), secret, std::strlen(secret)) != nullptr)
        ++g_leaks;
    std::free(block);
}

void operator delete(void* block, size_t /*size*/) noexcept
{
    operator delete(block);
}

namespace
{

TEST(RunnerMemory, ReapsTheToolWhenMemoryEnds)
{
    std::string output, errorOutput;
    g_largestBlock = 1 << 20;
    const int result = ZnProcess::system(RUNNER_CHILD " flood 64 0", &output, &errorOutput, 0, false);
    g_largestBlock = SIZE_MAX;
    EXPECT_EQ(result, -1);
    EXPECT_EQ(output, "");
    EXPECT_EQ(errorOutput, "cannot run " RUNNER_CHILD ": std::bad_alloc");
    siginfo_t unused{};
    EXPECT_NE(waitid(P_ALL, 0, &unused, WEXITED | WNOHANG), 0) << "a zombie is left";
}

TEST(RunnerMemory, FreesNothingUnwiped)
{
    const char* const secret = "correct-horse-battery-staple";
    const std::string command = std::string(RUNNER_CHILD " echo ") + secret;
    std::string output = std::string(100, 'x') + secret, errorOutput;
    g_secret = secret;
    EXPECT_EQ(ZnProcess::system(command.c_str(), &output, &errorOutput, 0, false), 0);
    g_secret = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"; // of the first block, in a buffer that grows
    EXPECT_EQ(ZnProcess::system(RUNNER_CHILD " flood 8 0", &output, &errorOutput, 0, false), 0);
    g_secret = nullptr;
    EXPECT_EQ(g_leaks, 0);
}

} // namespace
