// Text from outside on its way to a log, a terminal or JSON, and numbers as people write them.
//
// Thread-safety: the functions share nothing.
#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace znhost
{

// Appends `text` to `line` as valid UTF-8 that stays in one line, drives no terminal and hides nothing:
// control characters, bytes that are not UTF-8, and characters that are invisible or change the order
// of others are written as escapes (\n, \x1b, \xe2\x80\xae). A backslash is doubled, so that two
// different texts never look the same.
void AppendPrintable(std::string& line, std::string_view text);

// `text` in that form.
std::string Printable(std::string_view text);

// The decimal number that `text` is, with or without a sign and with nothing before or behind it.
// Nothing when it is no number, or not one of `Number`'s range.
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

} // namespace znhost
