// The public face of the stand-alone log: its settings, its errors, and taps.
//
// Lines are written with EvDebug and EvEvent (host/EvDebug.h).
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace znhost
{

// One line of the log. `text` is not escaped.
struct LogEntry
{
    int level; // 0 if the line has no level
    std::optional<unsigned long long> jobId;
    const char* tag;
    std::string text;
};

// During its lifetime, calls `listener` with each line of the constructing thread for which `wants` is
// true, also if the log file does not show it. `wants` is called before the line is formatted. If taps
// are nested, only the innermost is called.
//
// Both functions run on the writing thread, inside the log call. A line that they write themselves
// reaches the file, but no tap. They must not throw; a std::bad_alloc loses the line.
class LogTap
{
public:
    using Wants = std::function<bool(int level, const char* tag, const char* format)>;
    using Listener = std::function<void(const LogEntry&)>;

    LogTap(Wants wants, Listener listener);
    LogTap(const LogTap&) = delete;
    LogTap& operator=(const LogTap&) = delete;
    ~LogTap();

    const Wants& wants() const { return m_wants; }
    const Listener& listener() const { return m_listener; }

private:
    Wants m_wants;
    Listener m_listener;
    const LogTap* m_outer;
};

// Writes the lines that this thread has buffered to the file. The log does this itself before a tool is
// started, before a pause, at every error, and when the thread's outermost log object is destroyed.
// Call it before any other wait while a log object is open. Thread-safe.
void FlushLog() noexcept;

// The settings of this process's log.
struct LogSettings
{
    const char* file;                // "-" is standard error
    int level;                       // highest level in the file: -1 to 2
    unsigned long long maxSizeBytes; // limit before the file becomes FILE.1; 0: none
    const char* fault; // a sentence if a setting is invalid and its default is used; else empty
};

// Returns the settings: section [Log] of the registry (File, Level, MaxSize), overridden by
// ZN_LOG_FILE, ZN_LOG_LEVEL and ZN_LOG_MAX_SIZE. They are read once, at the first line or the first
// call. Thread-safe. Valid until the library is unloaded.
const LogSettings& CurrentLogSettings();

// Returns why a line of this process could not be written, in a sentence; empty if none was lost.
// Thread-safe.
std::string LastLogError();

} // namespace znhost
