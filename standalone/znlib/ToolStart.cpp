#include "standalone/znlib/ToolStart.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

// Another name of clone. The thread sanitizer intercepts clone as a fork, and would lose track of the
// threads of this process.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the C library's own
extern "C" int __clone(int (*start)(void*), void* stack, int flags, void* argument, ...) noexcept;

namespace znlib
{

namespace
{

// Newer than the headers of release 8; the same number on every processor.
constexpr long kCloseRange = 436;
constexpr int kClonePidfd = 0x1000;

// The kernel's struct sigaction, which is the same on x86-64, aarch64, ppc64le and s390x; all zero is
// the default action. (The C library's function refuses the two signals that it uses itself.)
struct KernelAction
{
    unsigned long handler, flags, restorer, mask;
};
constexpr unsigned long kIgnored = 1;
constexpr unsigned long kNoSignals = 0;

struct Child
{
    ToolStart& start;
    pid_t parent;
};

// What follows runs in the child, which has its own descriptors and signal actions but shares this
// process's memory. So it makes system calls only, and this file is compiled without sanitizers, which
// would attribute it to this process.

// The number that `name` is, or -1.
long ReadNumber(const char* name)
{
    long number = 0;
    for (; *name >= '0' && *name <= '9'; ++name)
        number = 10 * number + (*name - '0');
    return *name == '\0' ? number : -1;
}

// Closes what /proc lists. Returns false if it lists nothing. (The list stays right while descriptors
// are closed: the kernel continues it at a number.)
bool CloseListedFrom(long lowest)
{
    constexpr int kFlags = O_RDONLY | O_DIRECTORY;
    const long list = syscall(SYS_openat, AT_FDCWD, "/proc/self/fd", kFlags, 0);
    alignas(dirent64) char entries[1024];
    bool isListed = false;
    for (long size; (size = syscall(SYS_getdents64, list, entries, sizeof entries)) > 0;)
    {
        isListed = true;
        for (long at = 0; at < size;)
        {
            const auto* const entry = reinterpret_cast<const dirent64*>(entries + at);
            const long number = ReadNumber(entry->d_name);
            if (number >= lowest && number != list)
                syscall(SYS_close, number);
            at += entry->d_reclen;
        }
    }
    syscall(SYS_close, list);
    return isListed;
}

void CloseFrom(long lowest)
{
    if (syscall(kCloseRange, lowest, UINT_MAX, 0) == 0 || CloseListedFrom(lowest))
        return;
    rlimit limit{};
    syscall(SYS_prlimit64, 0, RLIMIT_NOFILE, nullptr, &limit);
    for (auto number = static_cast<rlim_t>(lowest); number < limit.rlim_cur; ++number)
        syscall(SYS_close, number);
}

void ResetSignalActions()
{
    static constexpr KernelAction kDefaultAction{};
    for (int signal = 1; signal < NSIG; ++signal)
    {
        KernelAction action{};
        if (signal == SIGHUP)
            syscall(SYS_rt_sigaction, signal, nullptr, &action, sizeof kNoSignals);
        if (action.handler != kIgnored)
            syscall(SYS_rt_sigaction, signal, &kDefaultAction, nullptr, sizeof kNoSignals);
    }
}

// Returns false if the parent has ended before.
bool EndWithParent(pid_t parent)
{
    syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    return syscall(SYS_getppid) == parent;
}

int BecomeTool(void* argument)
{
    const Child& child = *static_cast<Child*>(argument);
    ToolStart& start = child.start;
    if (start.endsWithThread && !EndWithParent(child.parent))
    {
        start.error = ESRCH;
        return EXIT_FAILURE;
    }
    ResetSignalActions();
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
    {
        if (syscall(SYS_dup3, start.streams[stream], stream, 0) >= 0)
            continue;
        start.failure = "cannot give it its standard streams";
        start.error = errno;
        return EXIT_FAILURE;
    }
    CloseFrom(STDERR_FILENO + 1);
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &kNoSignals, nullptr, sizeof kNoSignals);
    execve(start.words[0], start.words, start.environment);
    start.failure = nullptr;
    start.error = errno;
    return EXIT_FAILURE;
}

} // namespace

// posix_spawn itself returns no pidfd (pidfd_spawn does, from 2.39 on). Opening one afterwards is too
// late for a short run in a process that ignores SIGCHLD.
pid_t StartTool(ToolStart& start, int& pidfd)
{
    constexpr int kFlags = CLONE_VM | CLONE_VFORK | SIGCHLD;
    Child child{start, getpid()};
    // Small and not initialised: each page that is touched is a page fault in a host that forks.
    alignas(16) char stack[8192];
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before); // no handler of this process must run in the child
    pid_t pid = __clone(BecomeTool, stack + sizeof stack, kFlags | kClonePidfd, &child, &pidfd);
    if (pid < 0 && errno == EINVAL) // an emulator that has no pidfds; old kernels ignore the request
        pid = __clone(BecomeTool, stack + sizeof stack, kFlags, &child);
    if (pid < 0)
        start.error = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return pid;
}

} // namespace znlib
