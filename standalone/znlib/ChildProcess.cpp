#include "standalone/znlib/ChildProcess.h"

#include "standalone/znlib/ToolStart.h"

#include <csignal>
#include <cstdint>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

namespace znlib
{

namespace
{

// P_PIDFD and SYS_pidfd_send_signal, which the headers of release 8 do not have.
constexpr auto kByPidfd = static_cast<idtype_t>(3);
constexpr long kPidfdSendSignal = 424;

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

ChildProcess::ChildProcess(char* const* words, const znhost::RunLimits& limits)
    : m_mustEnd(limits.timeLimit.has_value())
{
    const Descriptor input = AboveStandard(
        Descriptor(Checked(open("/dev/null", O_RDONLY | O_CLOEXEC), "cannot open /dev/null")));
    Pipe output = MakePipe();
    Pipe errorOutput = MakePipe();
    std::vector<char*> environment = ToolEnvironment();
    ToolStart start{words,
                    environment.data(),
                    {input.Get(), output.writeEnd.Get(), errorOutput.writeEnd.Get()},
                    limits.endWithProgram};
    int pidfd = -1;
    m_pid = StartTool(start, pidfd);
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
    if (m_hasEnded)
        return;
    if (m_mustEnd)
        Signal(SIGKILL);
    siginfo_t unused{};
    Uninterrupted([&] { return Wait(unused, WEXITED); });
}

bool ChildProcess::HasEnded()
{
    if (m_hasEnded)
        return true;
    // After its end event it may still be a tracer's (strace) for a while.
    const int options = WEXITED | (m_pidfd.IsOpen() ? 0 : WNOHANG);
    siginfo_t answer{};
    const bool isAnswered = Uninterrupted([&] { return Wait(answer, options); }) == 0;
    if (isAnswered && answer.si_pid == 0)
        return false;
    const bool isKilled = answer.si_code != CLD_EXITED;
    if (isAnswered)
        m_end = {isKilled ? 128 + answer.si_status : answer.si_status, isKilled ? answer.si_status : 0};
    else if (errno == ECHILD)
        m_end = ReadLostEnd(m_pidfd);
    else
        m_end.error = errno;
    m_hasEnded = true;
    return true;
}

void ChildProcess::Signal(int signal) const
{
    // By its number only if there is no other way: if another thread reaps it, the number is free.
    const bool isSent =
        m_pidfd.IsOpen() && syscall(kPidfdSendSignal, m_pidfd.Get(), signal, nullptr, 0) == 0;
    if (!isSent)
        kill(m_pid, signal);
}

int ChildProcess::Wait(siginfo_t& answer, int options) const
{
    if (m_pidfd.IsOpen())
        return waitid(kByPidfd, static_cast<id_t>(m_pidfd.Get()), &answer, options);
    return waitid(P_PID, static_cast<id_t>(m_pid), &answer, options);
}

} // namespace znlib
