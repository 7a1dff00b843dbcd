// How many system calls something takes.
#pragma once

#include <functional>

namespace bench
{

// Those of `work` and, until they become a tool, of the processes that it starts. It is done once
// before it is counted, in a forked child. Throws std::runtime_error where no process may be traced.
int CountSystemCalls(const std::function<void()>& work);

} // namespace bench
