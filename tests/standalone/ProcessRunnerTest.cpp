#include "host/ZnProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/utsname.h>
#include <sys/wait.h>

namespace
{

std::atomic<bool> g_isInherited{false};
std::atomic<bool> g_seesEndOnly{false};

} // namespace

// The runner waits for its pipes and the end of its child. No other child of this process may inherit
// these descriptors. (Under another name, since the system's header may define this one.)
extern "C" int WatchedPoll(pollfd* files, nfds_t count, int timeoutMs) __asm__("poll");

extern "C" int WatchedPoll(pollfd* files, nfds_t count, int timeoutMs)
{
    for (nfds_t i = 0; i < count; ++i)
    {
        if (files[i].fd >= 0 && fcntl(files[i].fd, F_GETFD) != FD_CLOEXEC)
            g_isInherited = true;
        if (g_seesEndOnly && i + 1 < count)
            files[i].fd = -1;
    }
    const timespec timeout{timeoutMs / 1000, timeoutMs % 1000 * 1'000'000L};
    return ppoll(files, count, timeoutMs < 0 ? nullptr : &timeout, nullptr);
}

namespace
{

constexpr const char* kTakenAway =
    "cannot tell the exit status of " RUNNER_CHILD
    ": taken away by this process, which ignores SIGCHLD or reaps every child";

struct Outcome
{
    int result = 0;
    // The result of an earlier run.
    std::string output = "old output";
    std::string errorOutput = "old error output";
};

Outcome RunTool(const char* command)
{
    Outcome outcome;
    outcome.result = ZnProcess::system(command, &outcome.output, &outcome.errorOutput, 0, false);
    return outcome;
}

// The output of "flood" on a stream whose first block consists of `first`.
std::string Flood(int blocks, char first)
{
    std::string text;
    for (int block = 0; block < blocks; ++block)
        text.append(65536, static_cast<char>(first + block % 23));
    return text;
}

std::ptrdiff_t CountDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

bool HasChildren()
{
    siginfo_t unused{};
    return waitid(P_ALL, 0, &unused, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// Lines

struct LineCase
{
    const char* name;
    const char* command;
    int result;
    const char* output;
    const char* errorOutput;
};

void PrintTo(const LineCase& line, std::ostream* stream)
{
    *stream << line.name;
}

class CommandLine : public testing::TestWithParam<LineCase>
{
};

TEST_P(CommandLine, GivesItsOutcome)
{
    const Outcome outcome = RunTool(GetParam().command);
    EXPECT_EQ(outcome.result, GetParam().result);
    EXPECT_EQ(outcome.output, GetParam().output);
    EXPECT_EQ(outcome.errorOutput, GetParam().errorOutput);
    EXPECT_FALSE(HasChildren()) << "a zombie is left";
}

INSTANTIATE_TEST_SUITE_P(
    ProcessRunner, CommandLine,
    testing::Values(
        LineCase{"ShellCharacters",
                 RUNNER_CHILD " echo $HOME ${HOME} `id` $(id) a;b && || | & >out <in * ? [a] {a,b} ~ ! "
                              "# \" ' \\ %s ^ =\ttab\nline",
                 0,
                 "$HOME\n${HOME}\n`id`\n$(id)\na;b\n&&\n||\n|\n&\n>out\n<in\n*\n?\n[a]\n{a,b}\n~\n!\n#"
                 "\n\"\n'\n\\\n%s\n^\n=\ttab\nline\n",
                 ""},
        LineCase{"RunsOfBlanks", "  " RUNNER_CHILD "  echo   one  two ", 0, "one\ntwo\n", ""},
        LineCase{"ExitStatus", RUNNER_CHILD " unknown", 2, "",
                 "runner_child: no such action: unknown\n"},
        LineCase{"Silent", RUNNER_CHILD " flood 0 7", 7, "",
                 RUNNER_CHILD ": ended with exit status 7 and said nothing"},
        LineCase{"Signal", RUNNER_CHILD " signal 9", 137, "", RUNNER_CHILD ": killed by signal 9"},
        LineCase{"SignalAfterWords", RUNNER_CHILD " signal 15 bye", 143, "",
                 "bye\n" RUNNER_CHILD ": killed by signal 15"},
        LineCase{"SignalAfterALine", RUNNER_CHILD " signal 15 bye\n", 143, "",
                 "bye\n" RUNNER_CHILD ": killed by signal 15"},
        LineCase{"MissingTool", "/no/such/tool secret", -1, "",
                 "cannot run /no/such/tool: No such file or directory"},
        LineCase{"NotExecutable", "/etc/passwd secret", -1, "",
                 "cannot run /etc/passwd: Permission denied"},
        LineCase{"NotAFullPath", "true secret", -1, "", "cannot run true: not a full path"},
        LineCase{"NoWord", "  ", -1, "", "cannot run a tool: the command line is empty"},
        LineCase{"NoLine", nullptr, -1, "", "cannot run a tool: the command line is empty"}),
    [](const auto& row) { return row.param.name; });

// Hosts and kernels

// Makes the kernel answer `error` to `call` from now on, if the call's argument `index` is `value`.
void Refuse(unsigned call, unsigned index, unsigned value, unsigned error)
{
    const auto argument =
        static_cast<unsigned>(offsetof(seccomp_data, args) + sizeof(std::uint64_t) * index);
    sock_filter code[] = {{BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
                          {BPF_JMP | BPF_JEQ | BPF_K, 0, 3, call},
                          {BPF_LD | BPF_W | BPF_ABS, 0, 0, argument},
                          {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, value},
                          {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | error},
                          {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW}};
    const sock_fprog program{std::size(code), code};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        _exit(98);
}

struct Kernel
{
    const char* name;
    int release; // 418 is Linux 4.18
};

// Refuses this process the system calls that are newer than `release`.
void PretendKernel(int release)
{
    if (release < 615)
        Refuse(SYS_ioctl, 1, 0xC040FF0B, ENOTTY); // PIDFD_GET_INFO
    if (release < 509)
        Refuse(SYS_close_range, 0, 3, ENOSYS);
    if (release < 504)
        Refuse(SYS_waitid, 0, 3, EINVAL); // P_PIDFD: older kernels cannot wait on a pidfd
}

int RunningKernel()
{
    utsname name{};
    uname(&name);
    int major = 0, minor = 0;
    char dot = '.';
    std::istringstream(name.release) >> major >> dot >> minor;
    return major * 100 + minor;
}

struct Host
{
    const char* name;
    void (*prepare)();
    bool losesStatus;
};

void Handle(int signal, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(signal, &action, nullptr);
}

void IgnoreChildren()
{
    Handle(SIGCHLD, SIG_IGN);
}

void ReapForEver()
{
    siginfo_t unused{};
    for (;;)
    {
        if (waitid(P_ALL, 0, &unused, WEXITED) != 0)
            sched_yield();
    }
}

void ReapEveryChild()
{
    std::thread(ReapForEver).detach();
}

void CloseStandardDescriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        close(descriptor);
}

void InterruptWithoutEnd()
{
    Handle(SIGALRM, [](int) {});
    const itimerval often{{0, 500}, {0, 500}};
    setitimer(ITIMER_REAL, &often, nullptr);
}

class AnyHost : public testing::TestWithParam<std::tuple<Host, Kernel>>
{
};

// Runs tools on many threads of such a host, which is a process of its own. Each tool leaves a daemon
// behind, and prints nothing, one full pipe, or more.
[[noreturn]] void RunInHost(const Host& host, const Kernel& kernel)
{
    PretendKernel(kernel.release);
    host.prepare();
    const bool mayBeTaken = host.losesStatus && std::min(kernel.release, RunningKernel()) < 615;
    const std::ptrdiff_t descriptors = CountDescriptors();
    std::atomic<bool> isRight{true};
    const auto runTools = [&](int status) {
        for (int blocks = 0; blocks < 4; ++blocks)
        {
            const std::string command = RUNNER_CHILD " flood " + std::to_string(blocks) + ' ' +
                                        std::to_string(status) + " hold";
            const auto [result, output, errorOutput] = RunTool(command.c_str());
            const std::string words = blocks > 0 ? Flood(blocks, 'A')
                                                 : RUNNER_CHILD ": ended with exit status " +
                                                       std::to_string(status) + " and said nothing";
            const bool isTold = result == status && errorOutput == words;
            const bool isTaken =
                result == -1 &&
                errorOutput == Flood(blocks, 'A') + (blocks > 0 ? "\n" : "") + kTakenAway;
            if (output == Flood(blocks, 'a') && (isTold || (isTaken && mayBeTaken)))
                continue;
            isRight = false;
            std::cerr << "result " << result << ", " << output.size() << " bytes of output, "
                      << errorOutput.size() << " of error output: " << errorOutput.substr(0, 99)
                      << '\n';
        }
    };
    std::vector<std::thread> threads(5);
    for (size_t number = 0; number < threads.size(); ++number)
        threads[number] = std::thread(runTools, static_cast<int>(number) + 1);
    runTools(6); // on the thread that gets the signals of the process
    for (std::thread& thread : threads)
        thread.join();
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    const bool isClean = sigismember(&blocked, SIGALRM) == 0 && !HasChildren() && !g_isInherited;
    _exit(isRight && isClean && CountDescriptors() == descriptors ? 0 : 1);
}

TEST_P(AnyHost, GetsTheWholeOutcome)
{
    const auto& [host, kernel] = GetParam();
    EXPECT_EXIT(RunInHost(host, kernel), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(
    ProcessRunner, AnyHost,
    testing::Combine(
        testing::Values(Host{"Plain", [] {}, false}, Host{"IgnoringSigchld", IgnoreChildren, true},
                        Host{"ReapingAll", ReapEveryChild, true},
                        Host{"WithoutStandardDescriptors", CloseStandardDescriptors, false},
                        Host{"Interrupted", InterruptWithoutEnd, false}),
        testing::Values(Kernel{"Today", 9900}, Kernel{"Linux5_14", 514}, Kernel{"Linux4_18", 418})),
    [](const auto& row) {
        return std::string(std::get<0>(row.param).name) + "On" + std::get<1>(row.param).name;
    });

// A host with ignored and blocked signals, another locale, and descriptors that are not closed on exec.
[[noreturn]] void RunInUncleanHost()
{
    for (int number = 1; number < NSIG; ++number)
    {
        if (number != SIGCHLD)
            Handle(number, SIG_IGN);
    }
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    setenv("LC_ALL", "de_DE.UTF-8", 1);
    setenv("RUNNER_TEST", "kept", 1);
    for (const int descriptor : {3, 100, 1000})
        dup2(STDERR_FILENO, descriptor);
    const Outcome outcome = RunTool(RUNNER_CHILD " state");
    std::cerr << outcome.output << outcome.errorOutput;
    _exit(outcome.result);
}

TEST(ProcessRunner, GivesTheToolACleanEnvironment)
{
    EXPECT_EXIT(RunInUncleanHost(), testing::ExitedWithCode(0),
                "^input /dev/null at its end\n"
                "descriptors . .. 0 1 2\n"
                "SigBlk:\t0000000000000000\n"
                "SigIgn:\t0000000000000001\n" // SIGHUP: the tool survives a hang-up like its host
                "RUNNER_TEST=kept\n"
                "LC_ALL=C\n$");
}

TEST(ProcessRunner, ReadsMuchOutputOnBothStreams)
{
    const Outcome outcome = RunTool(RUNNER_CHILD " flood 1024 0");
    EXPECT_EQ(outcome.result, 0);
    EXPECT_TRUE(outcome.output == Flood(1024, 'a')) << outcome.output.size();
    EXPECT_TRUE(outcome.errorOutput == Flood(1024, 'A')) << outcome.errorOutput.size();
}

// The tool writes and ends after the runner has looked at the pipes, before it looks for the end.
TEST(ProcessRunner, ReadsTheRestAfterTheEnd)
{
    g_seesEndOnly = true;
    const Outcome outcome = RunTool(RUNNER_CHILD " flood 1 0");
    g_seesEndOnly = false;
    EXPECT_EQ(outcome.output, Flood(1, 'a'));
    EXPECT_EQ(outcome.errorOutput, Flood(1, 'A'));
}

TEST(ProcessRunner, EndsWhileADaemonStillWrites)
{
    const Outcome outcome = RunTool(RUNNER_CHILD " flood 1 0 write");
    EXPECT_EQ(outcome.result, 0);
    EXPECT_EQ(outcome.errorOutput, Flood(1, 'A'));
}

TEST(ProcessRunner, IsNotInterruptedByCancellation)
{
    Outcome outcome;
    std::thread([&] {
        pthread_cancel(pthread_self());
        outcome = RunTool(RUNNER_CHILD " flood 4 5");
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    }).join();
    EXPECT_EQ(outcome.result, 5);
    EXPECT_EQ(outcome.output, Flood(4, 'a'));
}

struct Refusal
{
    const char* name;
    void (*prepare)();
    const char* errorOutput; // its end
};

class RefusedRun : public testing::TestWithParam<Refusal>
{
};

TEST_P(RefusedRun, SaysWhy)
{
    EXPECT_EXIT(
        {
            GetParam().prepare();
            const Outcome outcome = RunTool(RUNNER_CHILD " echo");
            std::cerr << outcome.errorOutput;
            _exit(outcome.result == -1 ? 0 : 1);
        },
        testing::ExitedWithCode(0), std::string("runner_child: ") + GetParam().errorOutput + "$");
}

void LimitDescriptors()
{
    const rlimit few{5, 5};
    setrlimit(RLIMIT_NOFILE, &few);
}

INSTANTIATE_TEST_SUITE_P(
    ProcessRunner, RefusedRun,
    testing::Values(
        Refusal{"NoDescriptors", LimitDescriptors, "cannot make a pipe: Too many open files"},
        Refusal{"NoStream", [] { Refuse(SYS_dup3, 1, 1, EBUSY); },
                "cannot give it its standard streams: Device or resource busy"},
        Refusal{"NoStatus", [] { Refuse(SYS_waitid, 0, 3, EPERM); }, "Operation not permitted"},
        Refusal{"ForeignStatus", [] { Refuse(SYS_waitid, 0, 3, 0); },
                "the kernel's answer was about no child of this process"}),
    [](const auto& row) { return row.param.name; });

} // namespace
