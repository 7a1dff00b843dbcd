// The library on the stand-alone host where memory ends: an exception or an answer, and no memory is
// given back that contains the CHAP secret.
#include "host/OSType.h"
#include "host/Wipe.h"
#include "interface/ZnISCSI.h"
#include "tests/WatchedHeap.h"

#include <gtest/gtest.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <new>
#include <string>
#include <utility>

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

std::int32_t g_iOsType = 1;
std::int32_t g_iOsVersion = 9;
void detectOSType() {}

// iscsiadm is installed, ehcmcli is not. Under other names, since the system's headers name the
// parameters otherwise.
extern "C" int InstalledAccess(const char* path, int mode) noexcept __asm__("access");
extern "C" int RunScript(const char* path, char* const* words, char* const* variables) noexcept
    __asm__("execve");

extern "C" int InstalledAccess(const char* path, int /*mode*/) noexcept
{
    return std::strcmp(path, "/sbin/iscsiadm") == 0 ? 0 : -1;
}

extern "C" int RunScript(const char* /*path*/, char* const* words, char* const* variables) noexcept
{
    return static_cast<int>(syscall(SYS_execve, DATA "iscsiadm", words, variables));
}

namespace
{

constexpr const char* kIqn = "iqn.2025-01.org.example:plain";

int LogOn(ZnISCSI& library, const char* secret)
{
    return library.LogOnToiSCSITargetUsingCHAP("192.0.2.10", kIqn, "user", secret);
}

int LookUp(ZnISCSI& library)
{
    std::array<char, 16> device{};
    unsigned long size = device.size();
    const int result = library.GetPhysicalDeviceForTargetIQN(kIqn, device.data(), size);
    EXPECT_STREQ(device.data(), result == 1 ? "/dev/sdb" : "");
    return result;
}

// Repeats `call` while one more of its allocations succeeds each time, until all do. Returns their
// number and the last result.
std::pair<long, int> Sweep(const std::function<int()>& call)
{
    for (long allocations = 0;; ++allocations)
    {
        int result = -1;
        g_allocationsLeft = allocations;
        try
        {
            result = call();
        }
        catch (const std::bad_alloc&)
        {
        }
        const bool isDone = g_allocationsLeft.exchange(LONG_MAX) >= 0;
        siginfo_t unused{};
        EXPECT_NE(waitid(P_ALL, 0, &unused, WEXITED | WNOHANG), 0) << "a zombie is left";
        if (isDone)
            return {allocations, result};
    }
}

TEST(Memory, EndsAtAnyAllocationOfACall)
{
    const std::string log = testing::TempDir() + "memory-" + std::to_string(getpid()) + ".log";
    setenv("ZN_LOG_FILE", log.c_str(), 1);
    setenv("ZN_LOG_LEVEL", "2", 1);
    setenv("ZN_LOG_MAX_SIZE", "0", 1);
    ZnISCSI* const library = GetInstance();
    LogOn(*library, "warming-up");
    for (const bool staysFull : {false, true})
    {
        g_staysFull = staysFull;
        const auto [allocations, result] = Sweep([&] { return LookUp(*library); });
        EXPECT_GT(allocations, 30);
        EXPECT_EQ(result, 1);
        for (const char* const secret :
             {"accepted-horse-battery-staple", "refused-horse-battery-staple"})
        {
            g_secret = secret;
            const auto chap = Sweep([&] { return LogOn(*library, secret); });
            g_secret = nullptr;
            EXPECT_GT(chap.first, 30);
            EXPECT_EQ(chap.second, secret[0] == 'a' ? 1 : 0);
            EXPECT_EQ(g_leaks, 0) << secret;
        }
    }
    ::operator delete(library);

    std::ifstream lines(log);
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(line.find("Z [") == 23 && line.rfind("Z [") == 23 && line.find(": ") < 99) << line;
    std::filesystem::remove(log);
}

// Hosts with a runner of their own leave the secret in the spare room too.
TEST(Memory, IsWipedWithItsSpareRoom)
{
    g_secret = "correct-horse-battery-staple";
    {
        std::string shrunk = std::string(100, 'x') + g_secret.load();
        shrunk.resize(1);
        Wipe(shrunk);
        std::string grown = std::string(100, 'x') + g_secret.load();
        ReserveWiping(grown, 1000);
        Wipe(grown);
    }
    g_secret = nullptr;
    EXPECT_EQ(g_leaks, 0);
}

} // namespace
