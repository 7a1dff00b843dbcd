// What a run of a tool is compared with.
#pragma once

#include <vector>

namespace bench
{

// Runs a tool with posix_spawn and does all that the process runner does for it: /dev/null as input, no
// descriptor above 2, default signals, LC_ALL=C, both streams drained as they come, waited for. What it
// prints is read and dropped. `words` is its full path and its arguments. Throws std::runtime_error
// when it fails.
void RunWithPosixSpawn(std::vector<const char*> words);

} // namespace bench
