// The log file: appends whole lines from several threads and processes, and rotates.
//
// No packaged log library that we found appends to one file from several processes and rotates it
// without losing lines.
#pragma once

#include <string_view>

namespace znlib
{

// Appends `lines`, each with its line end, in one write to `path` ("-": standard error). If the file
// would exceed `maxSizeBytes` (0: no limit), it is first renamed to PATH.1, replacing an older one,
// unless another process holds its lock. The file is opened for each call: other processes may rename
// or remove it.
//
// Follows symbolic links of root and of this process's user only; others are an error (ELOOP). Blocks
// on standard error only. Raises no signal.
//
// Returns 0 or an errno value: ENOTBLK for a block device, which is neither opened nor written to. Safe
// among threads and processes.
int AppendLines(const char* path, std::string_view lines, unsigned long long maxSizeBytes) noexcept;

} // namespace znlib
