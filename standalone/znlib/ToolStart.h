// Starts a tool as posix_spawn does: the child shares this process's memory, and the starting thread
// waits, until the child has executed the tool or failed. So the cost does not depend on the size of
// this process.
#pragma once

#include <sys/types.h>

namespace znlib
{

struct ToolStart
{
    char* const* words; // the tool's full path and its arguments, ended by a null
    char* const* environment;
    int streams[3];      // descriptors above 2, for the child's 0, 1 and 2
    bool endsWithThread; // the child is killed when the thread that calls StartTool ends

    // Why the child did not execute the tool: errno (0: it did), and what failed (null: the execution).
    int error = 0;
    const char* failure = "cannot start a process";
};

// Starts `start`. Returns the child's number, or -1 if there is no child; a child that failed must be
// reaped. The child gets default signal actions, no blocked signals, and no other descriptors. SIGHUP
// stays ignored if this process ignores it (nohup).
//
// `pidfd` becomes a descriptor of the child where the kernel has such (5.2), and stays as it is
// elsewhere. Thread-safe.
pid_t StartTool(ToolStart& start, int& pidfd);

} // namespace znlib
