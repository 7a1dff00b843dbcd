// What the library writes to the log while a command runs: the only place where it says why it failed.
#pragma once

#include "standalone/znlib/Log.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

// The error lines of one operation as a user wants them: each thing once, a tool's words line by line
// behind the command that was run.
std::vector<std::string> ParseReasons(const std::vector<std::string>& errors);

// Listens to this thread's log lines while it lives.
class LogWatch
{
public:
    // `verbosity` 1 shows the lines on standard error as they are written, 2 also the tools' reports.
    explicit LogWatch(int verbosity);

    // From now on `listener` is called with the text of every line of progress.
    void OnProgress(std::function<void(const std::string&)> listener)
    {
        m_progress = std::move(listener);
    }

    // What was written since the start, or since the last Forget.
    const std::vector<std::string>& Errors() const { return m_errors; }
    void Forget() { m_errors.clear(); }

    bool ToolWasMissing() const;

    // The last thing that failed was the log-on itself.
    bool LogOnFailed() const;

private:
    void Hear(const znhost::LogEntry& entry);

    int m_verbosity;
    std::function<void(const std::string&)> m_progress = [](const std::string&) {};
    std::vector<std::string> m_errors;
    znhost::LogTap m_tap;
};
