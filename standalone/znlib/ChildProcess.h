// A tool that runs as a child process, from its start until it is reaped.
#pragma once

#include "standalone/znlib/Descriptor.h"

#include <sys/types.h>
#include <sys/wait.h>

#include <optional>

namespace znlib
{

// The process and the pipes from its two streams.
//
// Thread-safety: an object belongs to one thread; any number of threads may have one.
class ChildProcess
{
public:
    // Starts the program whose full path is `words[0]`, without a shell; `words` are its arguments, a
    // null ends them. It gets /dev/null as input and no descriptor above its error output, the default
    // action of every signal and none blocked, and this process's environment with LC_ALL=C.
    //
    // Throws std::system_error, which says why, when it cannot be started.
    explicit ChildProcess(char* const* words);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    // Closes the pipes and waits for the child's end: whatever went wrong, no zombie is left.
    ~ChildProcess();

    // Whether the child has ended. The call that finds it so reaps it.
    bool HasEnded();

    // The exit status of a child that has ended, or 128 plus the number of the signal that killed it.
    // None when it was lost: a process that ignores SIGCHLD, or reaps every child on another thread,
    // takes it away, and not every kernel tells it again.
    std::optional<int> Result() const { return m_result; }

    // Can be read from the child's end on. Closed where the kernel has no such descriptor (before
    // Linux 5.4); there HasEnded is to be asked now and then.
    const Descriptor& EndEvent() const { return m_pidfd; }

    // What the child writes. The reader may close them.
    Descriptor& Output() { return m_output; }
    Descriptor& ErrorOutput() { return m_errorOutput; }

private:
    int Wait(siginfo_t& end, int options) const;

    Descriptor m_output;
    Descriptor m_errorOutput;
    pid_t m_pid = 0;
    Descriptor m_pidfd;
    bool m_ended = false;
    std::optional<int> m_result;
};

} // namespace znlib
