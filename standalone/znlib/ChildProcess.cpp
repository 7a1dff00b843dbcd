#include "standalone/znlib/ChildProcess.h"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

// Another name of clone. The thread sanitizer intercepts clone as a fork, and would lose track of the
// threads of this process.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the C library's own
extern "C" int __clone(int (*start)(void*), void* stack, int flags, void* argument, ...) noexcept;

namespace znlib
{

namespace
{

// P_PIDFD, defined in the C library from 2.36 on.
constexpr auto kByPidfd = static_cast<idtype_t>(3);

// The result of PIDFD_GET_INFO (Linux 6.13). It includes the status of a reaped process from
// Linux 6.15.
struct PidfdInfo
{
    std::uint64_t mask; // in: requested, out: filled in
    std::uint64_t cgroup;
    std::uint32_t pid, threadGroup, parent;
    std::uint32_t userAndGroupIds[8];
    std::int32_t waitStatus;
};
static_assert(sizeof(PidfdInfo) == 64, "the size is part of the request's number");
constexpr unsigned long kPidfdGetInfo = _IOWR(0xFF, 11, PidfdInfo);
constexpr std::uint64_t kPidfdInfoExit = 1U << 3;

// Moves `opened` above the standard descriptors, in case this process has closed these: the child's
// streams are duplicated to 0, 1 and 2 one after the other.
Descriptor AboveStandard(Descriptor opened)
{
    if (opened.Get() > STDERR_FILENO)
        return opened;
    return Descriptor(
        Checked(fcntl(opened.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "cannot move a descriptor"));
}

struct Pipe
{
    Descriptor readEnd;
    Descriptor writeEnd;
};

Pipe MakePipe()
{
    int ends[2];
    Checked(pipe2(ends, O_CLOEXEC), "cannot make a pipe");
    Pipe made{Descriptor(ends[0]), Descriptor(ends[1])};
    return {AboveStandard(std::move(made.readEnd)), AboveStandard(std::move(made.writeEnd))};
}

// This process's environment with LC_ALL=C: the parsers read untranslated messages.
std::vector<char*> ToolEnvironment()
{
    static char plainLocale[] = "LC_ALL=C";
    std::vector<char*> variables;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable)
    {
        if (std::strncmp(*variable, "LC_ALL=", 7) != 0)
            variables.push_back(*variable);
    }
    variables.push_back(plainLocale);
    variables.push_back(nullptr);
    return variables;
}

// Input and result of BecomeTool.
struct Start
{
    char* const* words;
    char* const* environment;
    int streams[3];
    int error = 0;
    const char* failure = "cannot start a process";
};

// The kernel's struct sigaction; all zero is the default action. (The C library's function refuses the
// two signals that it uses itself.)
struct KernelAction
{
    unsigned long handler, flags, restorer, mask;
};
constexpr unsigned long kIgnored = 1;

// Runs in the child, which has its own descriptors and signal actions but shares this process's memory.
// So it makes system calls only, and is not instrumented: sanitizers would attribute it to this
// process.
__attribute__((no_sanitize("address"), no_sanitize("thread"))) int BecomeTool(void* argument)
{
    static constexpr KernelAction kDefaultAction{};
    static constexpr unsigned long kNoSignals[1] = {};
    Start& start = *static_cast<Start*>(argument);
    for (int signal = 1; signal < NSIG; ++signal)
    {
        KernelAction action{};
        if (signal == SIGHUP)
            syscall(SYS_rt_sigaction, signal, nullptr, &action, sizeof kNoSignals);
        if (action.handler != kIgnored)
            syscall(SYS_rt_sigaction, signal, &kDefaultAction, nullptr, sizeof kNoSignals);
    }
    start.failure = "cannot give it its standard streams";
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO && start.error == 0; ++stream)
    {
        if (syscall(SYS_dup3, start.streams[stream], stream, 0) < 0)
            start.error = errno;
    }
    if (start.error != 0)
        return EXIT_FAILURE;
    closefrom(STDERR_FILENO + 1);
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, kNoSignals, nullptr, sizeof kNoSignals);
    start.failure = nullptr;
    execve(start.words[0], start.words, start.environment);
    start.error = errno;
    return EXIT_FAILURE;
}

// Starts a child as posix_spawn does: it shares this process's memory, and this thread waits, until the
// child has executed the tool or failed. So the cost does not depend on the size of this process.
//
// posix_spawn itself returns no pidfd (pidfd_spawn does, from 2.39 on). Opening one afterwards is too
// late for a short run in a process that ignores SIGCHLD. Kernels before 5.2 do not set `pidfd`.
pid_t CloneTool(Start& start, int& pidfd)
{
    constexpr int kFlags = CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD;
    // Small and not initialised: each page that is touched is a page fault in a host that forks.
    alignas(16) char stack[8192];
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // no handler of this process must run in the child
    const pid_t pid = __clone(BecomeTool, stack + sizeof stack, kFlags, &start, &pidfd);
    if (pid < 0)
        start.error = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return pid;
}

// The end of a process that another thread has reaped or is reaping.
ChildEnd ReadLostEnd(const Descriptor& pidfd)
{
    // The status is available at the latest when the process has been reaped and the pidfd hangs up.
    constexpr int kMaxReapingMs = 1000;
    for (const int timeoutMs : {0, kMaxReapingMs})
    {
        pollfd reaped{pidfd.Get(), 0, 0};
        Uninterrupted([&] { return poll(&reaped, 1, timeoutMs); });
        PidfdInfo info{};
        info.mask = kPidfdInfoExit;
        const bool isKnown = ioctl(pidfd.Get(), kPidfdGetInfo, &info) == 0;
        if (!isKnown && errno != ESRCH)
            break;
        const int status = info.waitStatus;
        if (isKnown && (info.mask & kPidfdInfoExit) != 0)
            return WIFEXITED(status) ? ChildEnd{WEXITSTATUS(status)}
                                     : ChildEnd{128 + WTERMSIG(status), WTERMSIG(status)};
    }
    return {-1, 0, ECHILD};
}

} // namespace

ChildProcess::ChildProcess(char* const* words)
{
    const Descriptor input = AboveStandard(
        Descriptor(Checked(open("/dev/null", O_RDONLY | O_CLOEXEC), "cannot open /dev/null")));
    Pipe output = MakePipe();
    Pipe errorOutput = MakePipe();
    std::vector<char*> environment = ToolEnvironment();
    Start start{
        words, environment.data(), {input.Get(), output.writeEnd.Get(), errorOutput.writeEnd.Get()}};
    int pidfd = -1;
    m_pid = CloneTool(start, pidfd);
    m_pidfd = Descriptor(pidfd);
    siginfo_t unused{};
    if (m_pidfd.IsOpen() && Wait(unused, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == EINVAL)
        m_pidfd.Close(); // Linux 5.2 and 5.3 have pidfds but cannot wait on them
    if (start.error != 0)
    {
        if (m_pid > 0)
            Uninterrupted([&] { return Wait(unused, WEXITED); });
        const std::error_code error(start.error, std::generic_category());
        throw start.failure == nullptr ? std::system_error(error)
                                       : std::system_error(error, start.failure);
    }
    m_output = std::move(output.readEnd);
    m_errorOutput = std::move(errorOutput.readEnd);
}

ChildProcess::~ChildProcess()
{
    // Close the pipes first: a child that is blocked on a full pipe gets SIGPIPE.
    m_output.Close();
    m_errorOutput.Close();
    siginfo_t unused{};
    if (!m_hasEnded)
        Uninterrupted([&] { return Wait(unused, WEXITED); });
}

bool ChildProcess::HasEnded()
{
    if (m_hasEnded)
        return true;
    siginfo_t answer{};
    const bool isAnswered = Uninterrupted([&] { return Wait(answer, WEXITED | WNOHANG); }) == 0;
    if (isAnswered && answer.si_pid == m_pid)
    {
        const bool isKilled = answer.si_code != CLD_EXITED;
        m_end = {isKilled ? 128 + answer.si_status : answer.si_status, isKilled ? answer.si_status : 0};
    }
    else if (!isAnswered && errno == ECHILD)
        m_end = ReadLostEnd(m_pidfd);
    else if (m_pidfd.IsOpen())
        m_end.error = isAnswered ? 0 : errno;
    else if (isAnswered)
        return false;
    else
        throw std::system_error(errno, std::generic_category(), "cannot wait for its end");
    m_hasEnded = true;
    return true;
}

int ChildProcess::Wait(siginfo_t& answer, int options) const
{
    if (m_pidfd.IsOpen())
        return waitid(kByPidfd, static_cast<id_t>(m_pidfd.Get()), &answer, options);
    return waitid(P_PID, static_cast<id_t>(m_pid), &answer, options);
}

} // namespace znlib
