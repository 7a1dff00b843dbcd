#include "bench/SystemCalls.h"

#include <csignal>
#include <stdexcept>

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

[[noreturn]] void DoTraced(const std::function<void()>& work)
{
    work();
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    work();
    raise(SIGSTOP);
    _exit(0);
}

// From one SIGSTOP of `child` to its next.
int CountStops(pid_t child)
{
    constexpr unsigned long kOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACEFORK |
                                       PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC;
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status) ||
        ptrace(PTRACE_SETOPTIONS, child, nullptr, kOptions) != 0)
        throw std::runtime_error("cannot trace a child");
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    for (int stops = 0;;)
    {
        const pid_t stopped = waitpid(-1, &status, __WALL);
        const int signal = WIFSTOPPED(status) ? WSTOPSIG(status) : 0;
        if (stopped < 0 || (stopped == child && signal == 0))
            throw std::runtime_error("a traced child has ended");
        if (stopped == child && signal == SIGSTOP)
            return stops;
        const bool isTool = status >> 8 == (SIGTRAP | PTRACE_EVENT_EXEC << 8);
        const bool isSystemCall = signal == (SIGTRAP | 0x80);
        const bool isSignal = !isSystemCall && signal != SIGTRAP && signal != SIGSTOP;
        stops += isSystemCall ? 1 : 0;
        ptrace(isTool ? PTRACE_DETACH : PTRACE_SYSCALL, stopped, nullptr, isSignal ? signal : 0);
    }
}

int CountStops(const std::function<void()>& work)
{
    const pid_t child = fork();
    if (child == 0)
        DoTraced(work);
    const int stops = CountStops(child);
    kill(child, SIGKILL);
    ptrace(PTRACE_DETACH, child, nullptr, nullptr);
    waitpid(child, nullptr, 0);
    return stops;
}

} // namespace

int bench::CountSystemCalls(const std::function<void()>& work)
{
    // Each call stops twice, on entry and on exit. The calls around the two signals are subtracted.
    return (CountStops(work) - CountStops([] {})) / 2;
}
