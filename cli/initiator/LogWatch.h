// Collects what the library logs while a command runs: it reports the reason of a failure in the log
// only.
#pragma once

#include "standalone/znlib/Log.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace cli
{

// Receives the log lines of the constructing thread during its lifetime.
class LogWatch
{
public:
    // `verbosity` as in Request; the lines go to standard error as they are logged.
    explicit LogWatch(int verbosity);

    // Calls `listener` with every later line that says which command line is run.
    void OnRun(std::function<void(const std::string&)> listener) { m_runs = std::move(listener); }

    // The error lines since the construction or the last Forget.
    const std::vector<std::string>& Errors() const { return m_errors; }
    void Forget() { m_errors.clear(); }

private:
    bool Shows(int level, const char* tag) const;
    bool Wants(int level, const char* tag, const char* format) const;
    void OnLine(const znhost::LogEntry& entry);

    int m_verbosity;
    std::function<void(const std::string&)> m_runs;
    std::vector<std::string> m_errors;
    znhost::LogTap m_tap;
};

} // namespace cli
