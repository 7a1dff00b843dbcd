// The file under the log: whole lines of many threads and processes, set aside when it has grown large.
//
// It is our own because no packaged log library that we know of appends from several processes to one
// file and rotates it without losing lines, and keeps hostile text in one line.
#pragma once

#include <string>

namespace znhost
{

// `text` with every control character written as an escape, so that no text can forge a line or drive a
// terminal. A backslash is doubled: what was escaped can be told from what was not.
std::string EscapeControls(const std::string& text);

// Appends `line` and its line end to `path` ("-" is standard error). Before the file grows past
// `maxSizeBytes` (0 is no limit) it is renamed to PATH.1, over an older one. Nothing is kept open
// between two lines: another process may rename or remove the file at any time.
//
// Returns 0, or the errno of what failed. Thread-safe, and safe among processes.
int AppendLine(const std::string& path, const std::string& line, unsigned long long maxSizeBytes);

} // namespace znhost
