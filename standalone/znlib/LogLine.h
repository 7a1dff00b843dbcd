// The text of a log line.
#pragma once

#include <array>
#include <cstdarg>
#include <optional>
#include <string>
#include <string_view>

namespace znlib
{

// A text that printf's conversions made; on the stack if it is short.
class FormattedText
{
public:
    FormattedText(const char* format, va_list arguments);
    FormattedText(const FormattedText&) = delete;
    FormattedText& operator=(const FormattedText&) = delete;
    ~FormattedText() = default;

    std::string_view Text() const { return m_text; }

private:
    std::array<char, 512> m_short;
    std::string m_long;
    std::string_view m_text;
};

struct LogLine
{
    int level;
    std::optional<unsigned long long> jobId;
    const char* tag;
    std::string_view text;
};

// Appends a whole line, or nothing if memory ends (std::bad_alloc). `ids` is "[812:815]", the process
// and the thread.
//
// 2026-11-23T14:20:05.123Z [812:815] -1 job=42 ZnISCSILinux::LogOnToiSCSITarget: Invalid parameters.
void AppendLogLine(std::string& lines, const char* ids, const LogLine& line);

} // namespace znlib
