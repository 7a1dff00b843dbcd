// Tests that need a root directory of their own.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

// Makes `root` the root directory of this process. False if that is not allowed here.
inline bool EnterRoot(const std::filesystem::path& root)
{
    if (chroot(root.c_str()) == 0)
        return true;
    const std::string user = std::to_string(getuid());
    const std::string group = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER) != 0)
        return false;
    // Files can be made only by a user and a group that the namespace knows.
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
    return chroot(root.c_str()) == 0;
}

// Runs `test`, which returns whether it passed, in a process of its own with `root` as its root
// directory.
inline void ExpectInRoot(const std::filesystem::path& root, const std::function<bool()>& test)
{
    constexpr int kNotAllowed = 77;
    int status = -1;
    const auto exit = [&] { _exit(!EnterRoot(root) ? kNotAllowed : test() ? 0 : 1); };
    const auto isRight = [&](int waitStatus) {
        status = WEXITSTATUS(waitStatus);
        return WIFEXITED(waitStatus) && (status == 0 || status == kNotAllowed);
    };
    EXPECT_EXIT(exit(), isRight, "");
    if (status == kNotAllowed)
        GTEST_SKIP() << "an ordinary user may not change its root here";
}
