// Local time for the log. The C library's functions take a lock: a child that is forked while another
// thread holds it would wait for ever.
//
// Thread-safety: thread-safe, also in forked children of a process with several threads.
#pragma once

#include <string>

namespace znlib
{

// Appends the current time: "2026-11-22 21:10:05.123 +0100".
void AppendLocalTime(std::string& line);

} // namespace znlib
