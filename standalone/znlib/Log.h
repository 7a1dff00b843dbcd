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

// While it lives, `listener` is called with every line that the constructing thread writes at `level`
// or below, whether or not the log file shows that level. Taps nest: the innermost alone is called.
//
// `listener` runs on the writing thread, inside the log call; it must not write to the log itself.
class LogTap
{
public:
    LogTap(int level, std::function<void(const LogEntry&)> listener);
    LogTap(const LogTap&) = delete;
    LogTap& operator=(const LogTap&) = delete;
    ~LogTap();

    int Level() const { return m_level; }
    void Hear(const LogEntry& entry) const { m_listener(entry); }

private:
    int m_level;
    std::function<void(const LogEntry&)> m_listener;
    const LogTap* m_outer;
};

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
