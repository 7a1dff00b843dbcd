// The file under the log: whole lines of many threads and processes, set aside when it has grown large.
//
// It is our own because no packaged log library that we know of appends from several processes to one
// file and rotates it without losing lines, and keeps hostile text in one line.
#pragma once

#include <string>
#include <string_view>

namespace znlib
{

// Appends `lines`, each with its line end, in one write to `path` ("-" is standard error). Before the
// file grows past `maxSizeBytes` (0 is no limit) it is renamed to PATH.1, over an older one, unless
// another process is just doing so. Nothing is kept open between two calls: another process may rename
// or remove the file at any time.
//
// A symbolic link is followed only if root or the user of this process owns it; another one is an error
// (ELOOP). Never blocks but on standard error, and never raises SIGPIPE.
//
// Returns 0, or the errno of what failed. Thread-safe, and safe among processes.
int AppendLines(const std::string& path, std::string_view lines, unsigned long long maxSizeBytes);

} // namespace znlib
