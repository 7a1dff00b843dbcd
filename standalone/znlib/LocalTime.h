// Local time for the log, without the lock that the C library's own functions take: a child that was
// forked while another thread held it would wait for it for ever.
//
// Thread-safety: any number of threads may call this at once, in any forked child too.
#pragma once

#include <string>

namespace znlib
{

// Appends the time of this call: "2026-11-22 21:10:05.123 +0100".
void AppendLocalTime(std::string& line);

} // namespace znlib
