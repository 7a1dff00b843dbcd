// The stand-alone log beyond the writing of lines: where it goes, what was lost, and who else listens.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace znhost
{

// One line of the log before it is written: the text is as the writer gave it, nothing escaped.
struct LogEntry
{
    int level; // 0 for a line without one
    std::optional<unsigned long long> jobId;
    const char* tag;
    std::string text;
};

// While it lives, `listener` is called with every line of the constructing thread that `wants` is true
// of, whether or not the log file shows it. A line that nobody wants is not formatted: `wants` sees what
// the writer gave. Taps nest: the innermost alone is called.
//
// Both run on the writing thread, inside the log call, as the line is written; they must not write to
// the log themselves.
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

// Hands the lines that this thread has kept to the file. The log does so itself before a tool is
// started, before a pause, at every error, and when the thread's outermost log object is closed; a
// program that waits otherwise while it has one open calls this first. Thread-safe.
void FlushLog();

// Where this process's log goes and what it shows.
struct LogSettings
{
    const char* file;                // "-" is standard error
    int level;                       // the highest level that the file shows: -1 to 2
    unsigned long long maxSizeBytes; // the file becomes FILE.1 before it grows past this; 0 is no limit
    const char* fault; // why a setting that was made is not in force, in a sentence; else empty
};

// The settings in force: the registry's section [Log] (File, Level, MaxSize), overridden by
// ZN_LOG_FILE, ZN_LOG_LEVEL and ZN_LOG_MAX_SIZE. Read once, at the first line or the first call of
// this. Thread-safe. The texts are valid as long as the library is loaded.
const LogSettings& CurrentLogSettings();

// Why the last line of this process that did not reach the log was lost, in a sentence; empty when none
// was. Thread-safe.
std::string LogTrouble();

} // namespace znhost
