// Counts system calls with ptrace.
#pragma once

#include <functional>

namespace bench
{

// The system calls of `work`, including those of its child processes before execve. Runs `work` twice
// in a forked child and counts the second time. Throws std::runtime_error if processes cannot be
// traced.
int CountSystemCalls(const std::function<void()>& work);

} // namespace bench
