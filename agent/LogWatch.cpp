#include "agent/LogWatch.h"

#include "agent/Terminal.h"
#include "standalone/znlib/Text.h"

#include <string_view>

namespace
{

// Their lines follow a report step by step.
bool IsParser(std::string_view tag)
{
    return tag == "ParseIscsiadmSessionInfoOutput" || tag == "ZnISCSIUnix::ParseDellMPIOOutput";
}

} // namespace

LogWatch::LogWatch(int verbosity)
    : m_verbosity(verbosity),
      m_tap(verbosity < 2 ? 0 : 2, [this](const znhost::LogEntry& entry) { Hear(entry); })
{
}

void LogWatch::Hear(const znhost::LogEntry& entry)
{
    if (m_verbosity > 1 || (m_verbosity == 1 && !IsParser(entry.tag)))
    {
        EraseStatusLine();
        WriteToStandardError(entry.tag + (": " + znhost::Printable(entry.text)) + '\n');
    }
    if (entry.level < 0)
        m_errors.push_back(entry.text);
    else if (entry.level == 0)
        m_progress(entry.text);
}
