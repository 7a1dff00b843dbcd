// The process runner on hosts and kernels of many kinds.
#include "standalone/znlib/ProcessRunner.h"

#include "host/ZnProcess.h"

#include <boost/algorithm/string/replace.hpp>
#include <gmock/gmock-matchers.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <iostream>
#include <string>
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

// What "flood" writes: '0' to its output, ' ' to its error output.
std::string Flood(int blocks, char fill)
{
    std::string text;
    for (int block = 1; block <= blocks; ++block)
    {
        const std::string number = std::to_string(block);
        text.append(65536 - number.size(), fill).append(number);
    }
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

// Most of these tests refuse system calls.
class ProcessRunner : public testing::Test
{
protected:
    void SetUp() override
    {
        if (prctl(PR_GET_SECCOMP, 0, 0, 0, 0) < 0)
            GTEST_SKIP() << "an emulator of another processor: no system call can be refused";
    }
};

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

struct Condition
{
    const char* name;
    void (*prepare)();
};

constexpr Condition kKernels[] = {{"today's", RefuseNothing},
                                  {"5.14", PretendLinux5_14},
                                  {"5.2", PretendLinux5_2},
                                  {"an emulator's", RefusePidfds}};

// Runs a tool that leaves a daemon behind, and prints nothing, one full pipe, or more.
bool GetsTheOutcome(int blocks, int status, bool mayBeTaken)
{
    const std::string command =
        DATA "tool flood " + std::to_string(blocks) + ' ' + std::to_string(status) + " hold";
    const auto [result, output, errorOutput] = RunTool(command.c_str());
    const std::string words = Flood(blocks, ' ');
    const bool isTold = result == status &&
                        errorOutput == (blocks > 0 ? words
                                                   : DATA "tool: ended with exit status " +
                                                         std::to_string(status) + " and said nothing");
    const bool isTaken =
        result == -1 && errorOutput == words + (blocks > 0 ? "\n" : "") +
                                           "cannot tell the exit status of " DATA
                                           "tool: taken away by this process, which ignores SIGCHLD or "
                                           "reaps every child";
    if (output == Flood(blocks, '0') && (isTold || (isTaken && mayBeTaken)))
        return true;
    std::cerr << "result " << result << ", " << output.size() << " bytes of output, "
              << errorOutput.size() << " of error output: " << errorOutput.substr(0, 99) << '\n';
    return false;
}

// Whether the kernel does not tell the status of a process that another thread has reaped.
bool IsBeforeLinux6_15()
{
    utsname name{};
    uname(&name);
    return strverscmp(name.release, "6.15") < 0;
}

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
        for (const int blocks : {0, 1, 20})
        {
            if (!GetsTheOutcome(blocks, status, mayBeTaken))
                isRight = false;
        }
    };
    std::vector<std::thread> threads(3);
    for (size_t number = 0; number < threads.size(); ++number)
        threads[number] = std::thread(runTools, static_cast<int>(number) + 1);
    runTools(7); // on the thread that gets the signals of the process
    for (std::thread& thread : threads)
        thread.join();
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    const bool isClean = sigismember(&blocked, SIGALRM) == 0 && !HasChildren() && !g_isInherited;
    _exit(isRight && isClean && CountDescriptors() == descriptors ? 0 : 1);
}

TEST_F(ProcessRunner, GetsTheWholeOutcomeOnAnyHost)
{
    for (const Condition& host :
         {Condition{"plain", RefuseNothing}, Condition{"ignores SIGCHLD", IgnoreChildren},
          Condition{"reaps all", ReapEveryChild},
          Condition{"no standard descriptors", CloseStandardDescriptors},
          Condition{"interrupted", InterruptWithoutEnd}})
        for (const Condition& kernel : kKernels)
            EXPECT_EXIT(RunInHost(host, kernel), testing::ExitedWithCode(0), "")
                << "host: " << host.name << ", kernel: " << kernel.name;
}

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
    for (const bool endsWithHost : {false, true})
    {
        znhost::LimitRuns({endsWithHost, std::nullopt});
        std::cerr << RunTool(DATA "tool state").output;
    }
    _exit(0);
}

TEST_F(ProcessRunner, GivesTheToolNothingElseOfItsHost)
{
    const auto refuseProc = [] {
        PretendLinux5_2();
        Refuse(SYS_getdents64, ENOENT);
    };
    const std::string state =
        "/dev/null\n0\n1\n2\n"
        "SigBlk:\t0000000000000000\n"
        "SigIgn:\t0000000000000001\n" // SIGHUP: it survives a hang-up like its host
        "RUNNER_TEST=kept\n"
        "LC_ALL=C\n"
        "(.*\n)*Parent death signal: ";
    for (const Condition& kernel :
         {kKernels[0], Condition{"5.2", PretendLinux5_2}, Condition{"without /proc", refuseProc}})
        EXPECT_EXIT(RunInUncleanHost(kernel), testing::ExitedWithCode(0),
                    testing::MatchesRegex(state + "\\[none\\]\n" + state + "KILL\n"))
            << kernel.name;
}

// Single runs

void LimitDescriptors()
{
    const rlimit few{5, 5};
    setrlimit(RLIMIT_NOFILE, &few);
}

void RefuseStream()
{
    Refuse(SYS_dup3, EBUSY, 1, 1, ~0U);
}

void RefuseStatus()
{
    Refuse(SYS_waitid, EPERM, 0, kByPidfd, ~0U);
}

void ChangeParent()
{
    znhost::LimitRuns({true, std::nullopt});
    Refuse(SYS_getppid, EPERM);
}

// The tool writes and ends after the runner has looked at the pipes, before it looks for the end.
void SeeTheEndOnly()
{
    g_seesEndOnly = true;
}

template <int LIMIT_MS>
void LimitTime()
{
    g_isTimed = true;
    znhost::LimitRuns({false, std::chrono::milliseconds(LIMIT_MS)});
}

void InterruptInTime()
{
    LimitTime<1050>();
    InterruptWithoutEnd();
}

void CannotKill()
{
    LimitTime<5000>();
    Refuse(kPidfdSendSignal, 0);
    for (const int signal : {SIGTERM, SIGKILL})
        Refuse(SYS_kill, 0, 1, static_cast<unsigned>(signal), ~0U);
    g_longWaits = 3;
}

// Its pauses are too short for a clock that stands still.
void RefusePidfdsInTime()
{
    LimitTime<100>();
    RefusePidfds();
    g_isTimed = false;
}

TEST_F(ProcessRunner, TellsTheOutcomeOfARun)
{
    struct Row
    {
        std::string command; // TOOL is the tool, as below
        std::string outcome; // "<RESULT OUTPUT[ERROR OUTPUT]", or the end of that
        void (*prepare)() = RefuseNothing;
        int zombies = 0;
    };
    const Row rows[] = {
        {"TOOL echo $HOME ${HOME} `id` $(id) a;b && || | & >out <in * ? [a] {a,b} ~ ! # \" ' \\ %s ^ "
         "=\ttab\nline",
         "<0 "
         "$HOME\n${HOME}\n`id`\n$(id)\na;b\n&&\n||\n|\n&\n>out\n<in\n*\n?\n[a]\n{a,b}\n~\n!\n#\n\"\n'"
         "\n\\\n%s\n^\n=\ttab\nline\n[]"},
        {"  TOOL  echo   one  two ", "<0 one\ntwo\n[]"},
        {"TOOL unknown", "<2 [no such action: unknown\n]"},
        {"TOOL flood 0 7", "<7 [TOOL: ended with exit status 7 and said nothing]"},
        {"TOOL signal 9", "<137 [TOOL: killed by signal 9]"},
        {"TOOL signal 15 bye", "<143 [bye\nTOOL: killed by signal 15]"},
        {"TOOL signal 15 bye\n", "<143 [bye\nTOOL: killed by signal 15]"},
        {"TOOL flood 1 0", "<0 " + Flood(1, '0') + '[' + Flood(1, ' ') + ']', SeeTheEndOnly},
        {"TOOL flood 0 0 write", "[]"},
        {"/no/tool secret", "<-1 [cannot run /no/tool: No such file or directory]"},
        {"/etc/passwd secret", "<-1 [cannot run /etc/passwd: Permission denied]"},
        {"true secret", "<-1 [cannot run true: not a full path]"},
        {"  ", "<-1 [cannot run a tool: the command line is empty]"},
        {"TOOL echo", "<-1 [cannot run TOOL: cannot make a pipe: Too many open files]",
         LimitDescriptors},
        {"TOOL echo",
         "<-1 [cannot run TOOL: cannot give it its standard streams: Device or resource busy]",
         RefuseStream},
        {"TOOL echo", "<-1 [cannot run TOOL: cannot start a process: No such process]", ChangeParent},
        {"TOOL echo", "TOOL: Operation not permitted]", RefuseStatus, 1},
        {"TOOL echo x", "<0 x\n[]", LimitTime<3600000>},
        {"TOOL linger", "<-1 [bye\nTOOL: did not end within 5 s]", LimitTime<5000>},
        {"TOOL linger deaf", "<-1 [bye\ndeaf\nTOOL: did not end within 1.05 s]", InterruptInTime},
        {"TOOL linger flood", "did not end within 0.5 s]", LimitTime<500>},
        {"TOOL linger", "within 0.1 s]", RefusePidfdsInTime},
        {"TOOL linger", "within 5 s]", CannotKill, 1}};
    const auto named = [](const std::string& text) {
        return boost::replace_all_copy(text, "TOOL", DATA "tool");
    };
    for (const Row& row : rows)
    {
        const auto run = [&] {
            row.prepare();
            const auto [result, output, errorOutput] = RunTool(named(row.command).c_str());
            std::cerr << '<' << result << ' ' << output << '[' << errorOutput << ']';
            _exit(HasChildren() ? 1 : 0);
        };
        EXPECT_EXIT(run(), testing::ExitedWithCode(row.zombies), testing::EndsWith(named(row.outcome)))
            << row.command;
    }
    EXPECT_EQ(RunTool(nullptr).errorOutput, "cannot run a tool: the command line is empty");
}

} // namespace
