// A tool that runs as a child process.
#pragma once

#include "standalone/helpers/Descriptor.h"
#include "standalone/znlib/ProcessRunner.h"

#include <sys/types.h>
#include <sys/wait.h>

namespace znlib
{

// How a child ended.
struct ChildEnd
{
    int result = -1; // exit status, 128 plus the signal's number, or -1 if unknown
    int signal = 0;  // the signal that killed it, or 0
    int error = 0;   // errno if the result is unknown: ECHILD if this process ignores SIGCHLD or reaps
                     // all children on another thread
};

// The process and the pipes from its two streams.
//
// Thread-safety: an object belongs to one thread; any number of threads may have one.
class ChildProcess
{
public:
    // Starts the program with the full path `words[0]`, without a shell. `words` are its arguments,
    // ended by a null. It gets /dev/null as standard input, no other descriptors, default signal
    // actions, no blocked signals, and this process's environment with LC_ALL=C. SIGHUP stays ignored
    // if this process ignores it (nohup).
    //
    // Throws std::system_error if it cannot be started.
    ChildProcess(char* const* words, const znhost::RunLimits& limits);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    // Closes the pipes and waits for the child, so that no zombie remains after an exception. With a
    // time limit, kills it first.
    ~ChildProcess();

    // Whether the child has ended; reaps it then. Call this when EndEvent is readable and not before,
    // or repeatedly if EndEvent is closed.
    bool HasEnded();

    // Sends `signal` to the child. Call this before HasEnded has returned true.
    void Signal(int signal) const;

    // Gives up waiting for a child that even SIGKILL does not end. It stays a zombie of this process.
    void Abandon() { m_hasEnded = true; }

    // Valid after HasEnded has returned true.
    const ChildEnd& End() const { return m_end; }

    // Becomes readable when the child ends. Closed if the kernel has no pidfd to wait on (before 5.4).
    const Descriptor& EndEvent() const { return m_pidfd; }

    // The read ends of the child's standard output and standard error. May be closed.
    Descriptor& Output() { return m_output; }
    Descriptor& ErrorOutput() { return m_errorOutput; }

private:
    int Wait(siginfo_t& answer, int options) const;

    Descriptor m_output;
    Descriptor m_errorOutput;
    pid_t m_pid = 0;
    Descriptor m_pidfd;
    bool m_mustEnd;
    bool m_hasEnded = false;
    ChildEnd m_end;
};

} // namespace znlib
