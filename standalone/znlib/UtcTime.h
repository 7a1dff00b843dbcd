// The time of a log line. The C library's functions take a lock: a child that is forked while another
// thread holds it would wait for ever.
//
// Thread-safety: thread-safe, also in forked children of a process with several threads.
#pragma once

#include <string>

namespace znlib
{

// Appends the current time: "2026-11-23T14:20:05.123Z".
void AppendUtcTime(std::string& line);

} // namespace znlib
