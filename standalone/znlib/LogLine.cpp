#include "standalone/znlib/LogLine.h"

#include "standalone/helpers/Text.h"
#include "standalone/znlib/UtcTime.h"

#include <cstddef>
#include <cstdio>
#include <new>

namespace znlib
{

FormattedText::FormattedText(const char* format, va_list arguments)
{
    va_list copy;
    va_copy(copy, arguments);
    const int length = std::vsnprintf(m_short.data(), m_short.size(), format, copy);
    va_end(copy);
    if (length < 0)
        m_text = format;
    else if (static_cast<std::size_t>(length) < m_short.size())
        m_text = {m_short.data(), static_cast<std::size_t>(length)};
    else
    {
        m_long.resize(static_cast<std::size_t>(length) + 1); // vsnprintf writes a terminating zero
        static_cast<void>(std::vsnprintf(m_long.data(), m_long.size(), format, arguments));
        m_text = {m_long.data(), static_cast<std::size_t>(length)};
    }
}

void AppendLogLine(std::string& lines, const char* ids, const LogLine& line)
{
    const std::size_t before = lines.size();
    try
    {
        AppendUtcTime(lines);
        lines.append(" ").append(ids).append(" ");
        lines += std::to_string(line.level);
        if (line.jobId)
            lines.append(" job=").append(std::to_string(*line.jobId));
        lines += ' ';
        AppendPrintable(lines, line.tag);
        lines += ": ";
        AppendPrintable(lines, line.text);
        lines += '\n';
    }
    catch (const std::bad_alloc&)
    {
        lines.resize(before);
        throw;
    }
}

} // namespace znlib
