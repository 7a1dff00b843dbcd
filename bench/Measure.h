// Measures two functions in turn, so that other load on the machine affects both, and prints a line for
// bench.sh: the key of the row and both figures.
#pragma once

#include <functional>
#include <string>

namespace bench
{

using Function = std::function<void()>;

// The seconds of the shortest of many rounds of each. `before` runs before every round and is not
// measured.
void CompareTimes(
    const std::string& key, const Function& ours, const Function& peers,
    const Function& before = [] {});

// The page faults of one round of each: the mean of many rounds.
void CompareFaults(
    const std::string& key, const Function& ours, const Function& peers,
    const Function& before = [] {});

// The system calls of one round of each, including those of its child processes before execve. Throws
// std::runtime_error if processes cannot be traced.
void CompareSystemCalls(const std::string& key, const Function& ours, const Function& peers);

} // namespace bench
