// What the library writes to the log while a command runs: the only place where it says why it failed.
#pragma once

#include "standalone/znlib/Log.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

// Listens to this thread's log lines while it lives.
class LogWatch
{
public:
    // `verbosity` 1 shows on standard error what is run and found, as it is logged; 2 the parsers'
    // steps and the tools' reports too.
    explicit LogWatch(int verbosity);

    // From now on `listener` is called with the text of every line that says what is run.
    void OnRun(std::function<void(const std::string&)> listener) { m_runs = std::move(listener); }

    // What was written since the start, or since the last Forget.
    const std::vector<std::string>& Errors() const { return m_errors; }
    void Forget() { m_errors.clear(); }

private:
    bool Shows(int level, const char* tag) const;
    bool Wants(int level, const char* tag, const char* format) const;
    void Hear(const znhost::LogEntry& entry);

    int m_verbosity;
    std::function<void(const std::string&)> m_runs;
    std::vector<std::string> m_errors;
    znhost::LogTap m_tap;
};
