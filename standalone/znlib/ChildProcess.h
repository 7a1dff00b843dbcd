// A tool that runs as a child process, from its start until it is reaped.
#pragma once

#include "standalone/znlib/Descriptor.h"

#include <sys/types.h>
#include <sys/wait.h>

namespace znlib
{

// How a child ended, as far as the kernel tells.
struct ChildEnd
{
    int result = -1; // the exit status; 128 plus the signal's number; -1: not told
    int signal = 0;  // the signal that killed it; 0: none
    int error = 0;   // why the result is not told: ECHILD where it was lost, since a process that
                     // ignores SIGCHLD, or reaps every child on another thread, takes it away; 0 where
                     // the answer was about no child of this process
};

// The process and the pipes from its two streams.
//
// Thread-safety: an object belongs to one thread; any number of threads may have one.
class ChildProcess
{
public:
    // Starts the program whose full path is `words[0]`, without a shell; `words` are its arguments, a
    // null ends them. It gets /dev/null as input and no descriptor above its error output, the default
    // action of every signal and none blocked, and this process's environment with LC_ALL=C. A SIGHUP
    // that this process ignores, as it does under nohup, stays ignored.
    //
    // Throws std::system_error, which says why, when it cannot be started.
    explicit ChildProcess(char* const* words);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    // Closes the pipes and waits for the child's end: whatever went wrong, no zombie is left.
    ~ChildProcess();

    // Whether the child has ended. The call that finds it so reaps it. To be called once EndEvent can
    // be read and not before, or now and then where that is closed.
    //
    // Throws std::system_error when that cannot be told.
    bool HasEnded();

    // How it ended, once it has.
    const ChildEnd& End() const { return m_end; }

    // Can be read from the child's end on. Closed where the kernel has no such descriptor (before
    // Linux 5.4).
    const Descriptor& EndEvent() const { return m_pidfd; }

    // What the child writes. The reader may close them.
    Descriptor& Output() { return m_output; }
    Descriptor& ErrorOutput() { return m_errorOutput; }

private:
    int Wait(siginfo_t& answer, int options) const;

    Descriptor m_output;
    Descriptor m_errorOutput;
    pid_t m_pid = 0;
    Descriptor m_pidfd;
    bool m_hasEnded = false;
    ChildEnd m_end;
};

} // namespace znlib
