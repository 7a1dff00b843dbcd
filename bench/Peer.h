// The peer of a run of a tool.
#pragma once

#include <vector>

namespace bench
{

// Runs a tool with posix_spawn and does what the process runner does: /dev/null as input, no descriptor
// above 2, default signals, LC_ALL=C, reads both streams concurrently, waits for the tool. The output
// is dropped. `words` is the full path and the arguments. Throws std::runtime_error if the tool fails.
void RunWithPosixSpawn(std::vector<const char*> words);

} // namespace bench
