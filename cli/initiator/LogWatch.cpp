#include "cli/initiator/LogWatch.h"

#include "cli/initiator/Reasons.h"
#include "cli/terminal/StatusLine.h"
#include "standalone/helpers/Text.h"

#include <string_view>

namespace cli
{

namespace
{

// The parsers log every step.
bool IsParser(std::string_view tag)
{
    return tag == words::kSessionParser || tag == words::kVolumeParser;
}

} // namespace

LogWatch::LogWatch(int verbosity)
    : m_verbosity(verbosity),
      m_tap(
          [this](int level, const char* tag, const char* format) { return Wants(level, tag, format); },
          [this](const znhost::LogEntry& entry) { OnLine(entry); })
{
}

bool LogWatch::Shows(int level, const char* tag) const
{
    const znhost::LogSettings& log = znhost::CurrentLogSettings();
    if (log.file == std::string_view("-") && level <= log.level)
        return false; // the log itself shows it
    return m_verbosity > 1 || (m_verbosity == 1 && level <= 0 && !IsParser(tag));
}

bool LogWatch::Wants(int level, const char* tag, const char* format) const
{
    return level < 0 || Shows(level, tag) || (m_runs && format == words::kRun);
}

void LogWatch::OnLine(const znhost::LogEntry& entry)
{
    if (Shows(entry.level, entry.tag))
        WriteAboveStatus(entry.tag + (": " + znlib::Printable(entry.text)) + '\n');
    if (entry.level < 0)
        m_errors.push_back(entry.text);
    else if (m_runs)
        m_runs(entry.text);
}

} // namespace cli
