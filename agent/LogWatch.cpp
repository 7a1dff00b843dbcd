#include "agent/LogWatch.h"

#include "agent/Terminal.h"
#include "standalone/znlib/Text.h"

#include <algorithm>
#include <iostream>
#include <sstream>

namespace
{

constexpr const char* kFailed = "Failed to run ";

bool BeginsWith(const std::string& text, const char* beginning)
{
    return text.rfind(beginning, 0) == 0;
}

bool Contains(const std::vector<std::string>& lines, const char* line)
{
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// Not why an operation failed: words that the failure message repeats, a tool that may be missing, and
// the end of a report.
bool IsIdle(const std::string& error)
{
    return BeginsWith(error, "Error returned by command is: ") ||
           error == "/usr/sbin/ehcmcli not found!!" ||
           BeginsWith(error, "Unable to parse the input or end of input string");
}

// Failed to run /sbin/iscsiadm -m session -P3: iscsiadm: No active sessions.
//  ... Trying /sbin/iscsiadm -m session -i
std::string ParseLines(const std::string& error)
{
    std::string lines = error.substr(0, error.rfind(" ... Trying "));
    if (const std::size_t colon = lines.find(": ");
        BeginsWith(lines, kFailed) && colon != std::string::npos)
        lines.replace(colon, 2, "\n");
    return lines;
}

} // namespace

std::vector<std::string> ParseReasons(const std::vector<std::string>& errors)
{
    std::vector<std::string> reasons;
    for (const std::string& error : errors)
    {
        if (IsIdle(error))
            continue;
        std::istringstream lines(ParseLines(error));
        for (std::string line; std::getline(lines, line);)
            if (!line.empty() && !Contains(reasons, line.c_str()))
                reasons.push_back(line);
        // What the tool said to another command after that explains nothing.
        if (error.find("No active sessions") != std::string::npos)
            break;
    }
    return reasons;
}

LogWatch::LogWatch(int verbosity)
    : m_verbosity(verbosity),
      m_tap(verbosity < 2 ? 0 : 2, [this](const znhost::LogEntry& entry) { Hear(entry); })
{
}

bool LogWatch::ToolWasMissing() const
{
    return Contains(m_errors, "/sbin/iscsiadm not found!!");
}

bool LogWatch::LogOnFailed() const
{
    return !m_errors.empty() && BeginsWith(m_errors.back(), kFailed) &&
           m_errors.back().find(" -l: ") != std::string::npos;
}

void LogWatch::Hear(const znhost::LogEntry& entry)
{
    if (m_verbosity > 0)
    {
        EraseStatusLine();
        std::cerr << entry.tag + (": " + znhost::Printable(entry.text)) + '\n';
    }
    if (entry.level < 0)
        m_errors.push_back(entry.text);
    else if (entry.level == 0)
        m_progress(entry.text);
}
