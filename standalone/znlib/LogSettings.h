// Which lines reach the log file.
#pragma once

namespace znlib
{

// A level that is not shown costs a comparison. Thread-safe.
bool LogFileShows(int level);

} // namespace znlib
