// The registry's store: an INI file, read anew at every use, so that a change holds from the next use
// on.
//
// Thread-safety: any number of threads may read at once.
#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace znhost
{

// The path of the registry's file: the environment variable ZN_REGISTRY, or
// /etc/zniscsi/registry.ini where that is unset or empty.
std::string RegistryFile();

// The value `key` of `section`, never empty; one in double quotes comes without them, its blanks kept.
// Nothing when the file, the section or the key is not there, or the key is set to nothing.
//
// When the file is there and can't be read as an INI file, the result is nothing too and `error` gets
// the whole sentence; otherwise `error` is emptied. No log line is written: the log itself reads its
// settings here.
std::optional<std::string> ReadRegistryValue(const std::string& section, const std::string& key,
                                             std::string& error);

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
