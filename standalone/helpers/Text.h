// Escaping of untrusted text for the log, terminals and JSON, and parsing of decimal numbers.
//
// Thread-safety: the functions share nothing.
#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace znlib
{

// Appends `text` to `line` with escapes (\n, \x1b, \xe2\x80\xae) for control characters, bytes that are
// not UTF-8, and characters that are invisible or reorder others. The result is valid UTF-8 in one
// line. Backslashes are doubled, so that different texts stay different.
void AppendPrintable(std::string& line, std::string_view text);

// Returns `text` in that form.
std::string Printable(std::string_view text);

// Parses a decimal number with an optional sign. Nothing if `text` contains anything else, or the
// number is out of the range of `Number`.
template <class Number>
std::optional<Number> ParseNumber(std::string_view text)
{
    if (text.size() > 1 && text[0] == '+' && text[1] != '-')
        text.remove_prefix(1);
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, number);
    return stop == end && failure == std::errc() ? std::optional(number) : std::nullopt;
}

} // namespace znlib
