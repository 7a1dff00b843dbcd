// The process runner on hosts and kernels of many kinds.
#include "standalone/znlib/ProcessRunner.h"

#include "host/ZnProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
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

// The clock of a host with a time limit. Each wait in which the tool does something takes a
// millisecond. Other waits last until it does; only after an error that it has written, the next wait
// takes as long as it may.
std::atomic<bool> g_isTimed{false};
std::atomic<long> g_nowMs{1};
std::atomic<int> g_longWaits{0};

int WaitTimed(pollfd* files, nfds_t count, int timeoutMs)
{
    const timespec none{};
    const int ready = ppoll(files, count, g_longWaits > 0 ? &none : nullptr, nullptr);
    if (ready > 0)
        ++g_nowMs;
    if (ready > 0 && (files[1].revents & POLLIN) != 0)
        g_longWaits = std::max<int>(g_longWaits, 1);
    if (ready == 0)
    {
        g_nowMs += timeoutMs;
        --g_longWaits;
    }
    return ready;
}

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (!g_isTimed)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = {g_nowMs / 1000, g_nowMs % 1000 * 1'000'000};
    return 0;
}

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
    if (g_isTimed)
        return WaitTimed(files, count, timeoutMs);
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

// A row of a table.
struct Row
{
    const char* name;
};

std::ostream& operator<<(std::ostream& stream, const Row& row)
{
    return stream << row.name;
}

constexpr auto kNameOf = [](const auto& info) { return std::string(info.param.name); };

struct LineCase : Row
{
    const char* command;
    int result;
    const char* output;
    const char* errorOutput;
};

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
        LineCase{"Traced", RUNNER_CHILD " traced", 5, "",
                 RUNNER_CHILD ": ended with exit status 5 and said nothing"},
        LineCase{"MissingTool", "/no/such/tool secret", -1, "",
                 "cannot run /no/such/tool: No such file or directory"},
        LineCase{"NotExecutable", "/etc/passwd secret", -1, "",
                 "cannot run /etc/passwd: Permission denied"},
        LineCase{"NotAFullPath", "true secret", -1, "", "cannot run true: not a full path"},
        LineCase{"NoWord", "  ", -1, "", "cannot run a tool: the command line is empty"},
        LineCase{"NoLine", nullptr, -1, "", "cannot run a tool: the command line is empty"}),
    kNameOf);

// Hosts and kernels

constexpr unsigned kCloseRange = 436;      // SYS_close_range
constexpr unsigned kPidfdSendSignal = 424; // SYS_pidfd_send_signal
constexpr unsigned kPidfdGetInfo = 0xC040FF0B;
constexpr unsigned kByPidfd = 3; // P_PIDFD

// Makes the kernel answer `error` to `call` from now on, if the `bits` of its argument `index` are
// `value`. Without further arguments: always.
void Refuse(unsigned call, unsigned error, unsigned index = 0, unsigned value = 0, unsigned bits = 0)
{
    constexpr unsigned kLowHalf = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 4 : 0;
    const auto argument = static_cast<unsigned>(offsetof(seccomp_data, args)) + 8 * index + kLowHalf;
    sock_filter code[] = {{BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
                          {BPF_JMP | BPF_JEQ | BPF_K, 0, 4, call},
                          {BPF_LD | BPF_W | BPF_ABS, 0, 0, argument},
                          {BPF_ALU | BPF_AND | BPF_K, 0, 0, bits},
                          {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, value},
                          {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | error},
                          {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW}};
    const sock_fprog program{std::size(code), code};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        _exit(98);
}

bool CanRefuse()
{
    return prctl(PR_GET_SECCOMP, 0, 0, 0, 0) >= 0;
}
constexpr const char* kCannotRefuse = "an emulator of another processor: no system call can be refused";

void RefuseNothing() {}

void PretendLinux5_14()
{
    Refuse(SYS_ioctl, ENOTTY, 1, kPidfdGetInfo, ~0U);
}

// It has pidfds, but cannot wait on them.
void PretendLinux5_2()
{
    PretendLinux5_14();
    Refuse(kCloseRange, ENOSYS);
    Refuse(SYS_waitid, EINVAL, 0, kByPidfd, ~0U);
}

// Emulators know no CLONE_PIDFD.
void RefusePidfds()
{
    constexpr unsigned kClonePidfd = 0x1000;
#ifdef __s390x__
    Refuse(SYS_clone, EINVAL, 1, kClonePidfd, kClonePidfd);
#else
    Refuse(SYS_clone, EINVAL, 0, kClonePidfd, kClonePidfd);
#endif
}

bool IsBeforeLinux6_15()
{
    utsname name{};
    uname(&name);
    int major = 0, minor = 0;
    std::sscanf(name.release, "%d.%d", &major, &minor); // NOLINT(cert-err34-c)
    return std::pair(major, minor) < std::pair(6, 15);
}

struct Condition : Row
{
    void (*prepare)();
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

// Runs a tool that leaves a daemon behind, and prints nothing, one full pipe, or more.
bool GetsTheOutcome(int blocks, int status, bool mayBeTaken)
{
    const std::string command =
        RUNNER_CHILD " flood " + std::to_string(blocks) + ' ' + std::to_string(status) + " hold";
    const auto [result, output, errorOutput] = RunTool(command.c_str());
    const std::string words = blocks > 0 ? Flood(blocks, 'A')
                                         : RUNNER_CHILD ": ended with exit status " +
                                               std::to_string(status) + " and said nothing";
    const bool isTold = result == status && errorOutput == words;
    const bool isTaken =
        result == -1 && errorOutput == Flood(blocks, 'A') + (blocks > 0 ? "\n" : "") + kTakenAway;
    if (output == Flood(blocks, 'a') && (isTold || (isTaken && mayBeTaken)))
        return true;
    std::cerr << "result " << result << ", " << output.size() << " bytes of output, "
              << errorOutput.size() << " of error output: " << errorOutput.substr(0, 99) << '\n';
    return false;
}

class AnyHost : public testing::TestWithParam<std::tuple<Condition, Condition>>
{
};

// Runs tools on many threads of such a host, which is a process of its own.
[[noreturn]] void RunInHost(const Condition& host, const Condition& kernel)
{
    const bool losesStatus = host.prepare == IgnoreChildren || host.prepare == ReapEveryChild;
    const bool mayBeTaken = losesStatus && (kernel.prepare != RefuseNothing || IsBeforeLinux6_15());
    kernel.prepare();
    host.prepare();
    const std::ptrdiff_t descriptors = CountDescriptors();
    std::atomic<bool> isRight{true};
    const auto runTools = [&](int status) {
        for (const int blocks : {0, 1, 2, 40})
        {
            if (!GetsTheOutcome(blocks, status, mayBeTaken))
                isRight = false;
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
    if (kernel.prepare != RefuseNothing && !CanRefuse())
        GTEST_SKIP() << kCannotRefuse;
    EXPECT_EXIT(RunInHost(host, kernel), testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(
    ProcessRunner, AnyHost,
    testing::Combine(
        testing::Values(Condition{"Plain", [] {}}, Condition{"IgnoringSigchld", IgnoreChildren},
                        Condition{"ReapingAll", ReapEveryChild},
                        Condition{"WithoutStandardDescriptors", CloseStandardDescriptors},
                        Condition{"Interrupted", InterruptWithoutEnd}),
        testing::Values(Condition{"Today", RefuseNothing}, Condition{"Linux5_14", PretendLinux5_14},
                        Condition{"Linux5_2", PretendLinux5_2}, Condition{"AnEmulator", RefusePidfds})),
    [](const auto& row) {
        return std::string(std::get<0>(row.param).name) + "On" + std::get<1>(row.param).name;
    });

class CleanTool : public testing::TestWithParam<Condition>
{
};

// A host with ignored and blocked signals, another locale, and descriptors that are not closed on exec.
[[noreturn]] void RunInUncleanHost(const Condition& kernel)
{
    kernel.prepare();
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
    const Outcome free = RunTool(RUNNER_CHILD " state");
    znhost::LimitRuns({true, std::nullopt});
    const Outcome tied = RunTool(RUNNER_CHILD " state");
    std::cerr << free.output << free.errorOutput << tied.output.substr(0, tied.output.find('\n'))
              << tied.errorOutput;
    _exit(free.result + tied.result);
}

TEST_P(CleanTool, GetsNothingElseOfItsHost)
{
    if (GetParam().prepare != RefuseNothing && !CanRefuse())
        GTEST_SKIP() << kCannotRefuse;
    EXPECT_EXIT(RunInUncleanHost(GetParam()), testing::ExitedWithCode(0),
                "^at the end of its host: 0\n"
                "input /dev/null at its end\n"
                "descriptors 0 1 2\n"
                "SigBlk:\t0000000000000000\n"
                "SigIgn:\t0000000000000001\n" // SIGHUP: the tool survives a hang-up like its host
                "RUNNER_TEST=kept\n"
                "LC_ALL=C\n"
                "at the end of its host: 9$");
}

INSTANTIATE_TEST_SUITE_P(ProcessRunner, CleanTool,
                         testing::Values(Condition{"Today", RefuseNothing},
                                         Condition{"Linux5_2", PretendLinux5_2},
                                         Condition{"WithoutProc",
                                                   [] {
                                                       PretendLinux5_2();
                                                       Refuse(SYS_getdents64, ENOENT);
                                                   }}),
                         kNameOf);

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

// Time limits

struct Delay : Row
{
    void (*prepare)();
    const char* tool;
    long limitMs;
    const char* outcome; // result and error output
    int zombies = 0;
};

class TimeLimit : public testing::TestWithParam<Delay>
{
};

TEST_P(TimeLimit, EndsTheRun)
{
    const Delay& delay = GetParam();
    if (!CanRefuse())
        GTEST_SKIP() << kCannotRefuse;
    const auto run = [&delay] {
        g_isTimed = true;
        delay.prepare();
        znhost::LimitRuns({false, std::chrono::milliseconds(delay.limitMs)});
        const Outcome outcome = RunTool((std::string(RUNNER_CHILD " ") + delay.tool).c_str());
        std::cerr << outcome.result << ' ' << outcome.errorOutput;
        _exit(HasChildren() ? 1 : 0);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(delay.zombies), delay.outcome);
}

void CannotKill()
{
    Refuse(kPidfdSendSignal, 0);
    Refuse(SYS_kill, 0);
    g_longWaits = 3;
}

// Its pauses are too short for a clock that stands still.
void RefusePidfdsInTime()
{
    RefusePidfds();
    g_isTimed = false;
}

INSTANTIATE_TEST_SUITE_P(
    ProcessRunner, TimeLimit,
    testing::Values(Delay{"NotReached", RefuseNothing, "echo", 3600000, "^0 $"},
                    Delay{"Sigterm", RefuseNothing, "linger", 5000,
                          "^-1 bye\n" RUNNER_CHILD ": did not end within 5 s$"},
                    Delay{"Sigkill", InterruptWithoutEnd, "linger deaf", 1050,
                          "^-1 bye\ndeaf\n" RUNNER_CHILD ": did not end within 1.05 s$"},
                    Delay{"Flood", RefuseNothing, "linger flood", 500, "did not end within 0.5 s$"},
                    Delay{"WithoutPidfd", RefusePidfdsInTime, "linger", 100, "within 0.1 s$"},
                    Delay{"NothingEndsIt", CannotKill, "linger", 5000, "within 5 s$", 1}),
    kNameOf);

// Refusals

struct Refusal : Row
{
    void (*prepare)();
    const char* errorOutput; // its end
};

class RefusedRun : public testing::TestWithParam<Refusal>
{
};

TEST_P(RefusedRun, SaysWhy)
{
    if (!CanRefuse())
        GTEST_SKIP() << kCannotRefuse;
    const auto run = [] {
        GetParam().prepare();
        const Outcome outcome = RunTool(RUNNER_CHILD " echo");
        std::cerr << outcome.errorOutput;
        _exit(outcome.result == -1 ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0),
                std::string("runner_child: ") + GetParam().errorOutput + "$");
}

void LimitDescriptors()
{
    const rlimit few{5, 5};
    setrlimit(RLIMIT_NOFILE, &few);
}

void ChangeParent()
{
    znhost::LimitRuns({true, std::nullopt});
    Refuse(SYS_getppid, EPERM);
}

INSTANTIATE_TEST_SUITE_P(
    ProcessRunner, RefusedRun,
    testing::Values(Refusal{"NoDescriptors", LimitDescriptors,
                            "cannot make a pipe: Too many open files"},
                    Refusal{"NoStream", [] { Refuse(SYS_dup3, EBUSY, 1, 1, ~0U); },
                            "cannot give it its standard streams: Device or resource busy"},
                    Refusal{"NoParent", ChangeParent, "cannot start a process: No such process"},
                    Refusal{"NoStatus", [] { Refuse(SYS_waitid, EPERM, 0, kByPidfd, ~0U); },
                            "Operation not permitted"}),
    kNameOf);

} // namespace
