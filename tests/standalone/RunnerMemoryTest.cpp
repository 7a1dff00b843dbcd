// The process runner and the heap.
#include "host/ZnProcess.h"
#include "tests/WatchedHeap.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

namespace
{

TEST(RunnerMemory, ReapsTheToolIfMemoryEnds)
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
    {
        std::string output = std::string(100, 'x') + secret, errorOutput = output;
        errorOutput.resize(1); // the secret is in the spare capacity
        g_secret = secret;
        EXPECT_EQ(ZnProcess::system(command.c_str(), &output, &errorOutput, 0, false), 0);
        EXPECT_EQ(ZnProcess::system(RUNNER_CHILD " echo x", &output, &errorOutput, 0, false), 0);
    }
    g_secret = "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa"; // of the first block, in a buffer that grows
    std::string output, errorOutput;
    EXPECT_EQ(ZnProcess::system(RUNNER_CHILD " flood 8 0", &output, &errorOutput, 0, false), 0);
    g_secret = nullptr;
    EXPECT_EQ(g_leaks, 0);
}

} // namespace
