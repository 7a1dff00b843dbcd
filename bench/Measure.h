// How everything here is measured: in turn with what it is compared with, so that whatever else the
// machine does meets both. Each writes a line for bench.sh: the row's key and both figures.
#pragma once

#include <functional>
#include <string>

namespace bench
{

using Work = std::function<void()>;

// The seconds that the shortest of many rounds of each takes. `before` is done before every round, and
// not measured.
void CompareTimes(
    const std::string& key, const Work& ours, const Work& peers, const Work& before = [] {});

// The page faults of one round of each: the mean of many.
void CompareFaults(
    const std::string& key, const Work& ours, const Work& peers, const Work& before = [] {});

// The system calls of one round of each and, until they become a tool, of the processes that it starts.
// Throws std::runtime_error where no process may be traced.
void CompareSystemCalls(const std::string& key, const Work& ours, const Work& peers);

} // namespace bench
