#include "standalone/helpers/Text.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace
{

struct Character
{
    std::size_t length; // bytes
    char32_t code;
};

unsigned char Byte(char c)
{
    return static_cast<unsigned char>(c);
}

bool IsPlain(char c)
{
    return Byte(c) >= 0x20 && Byte(c) < 0x7f && c != '\\';
}

// The number of plain characters at the beginning of `text`.
std::size_t CountPlain(std::string_view text)
{
    return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), IsPlain) - text.begin());
}

// Decodes the first character. Nothing if it is not valid UTF-8: truncated, overlong, a surrogate, or
// above U+10FFFF.
std::optional<Character> Decode(std::string_view text)
{
    constexpr std::array<char32_t, 5> kLowest{0, 0, 0x80, 0x800, 0x10000}; // of each length
    const unsigned char first = Byte(text.front());
    if (first < 0x80)
        return Character{1, first};
    if (first < 0xc0 || first > 0xf4)
        return std::nullopt;
    const std::size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if (text.size() < length)
        return std::nullopt;
    char32_t code = first & (0x7fU >> length);
    for (const char next : text.substr(1, length - 1))
    {
        if ((Byte(next) & 0xc0U) != 0x80)
            return std::nullopt;
        code = code << 6U | (Byte(next) & 0x3fU);
    }
    const bool isSurrogate = code >= 0xd800 && code <= 0xdfff;
    if (code < kLowest.at(length) || isSurrogate || code > 0x10ffff)
        return std::nullopt;
    return Character{length, code};
}

// Control and format characters of Unicode: invisible ones, bidirectional controls, line and paragraph
// separators.
bool IsHidden(char32_t code)
{
    struct Range
    {
        char32_t first, last;
    };
    constexpr Range kHidden[] = {{0x00, 0x1f},     {0x7f, 0x9f},       {0xad, 0xad},
                                 {0x61c, 0x61c},   {0x180e, 0x180e},   {0x200b, 0x200f},
                                 {0x2028, 0x202e}, {0x2060, 0x206f},   {0xfeff, 0xfeff},
                                 {0xfff9, 0xfffb}, {0x1d173, 0x1d17a}, {0xe0000, 0xe007f}};
    return std::any_of(std::begin(kHidden), std::end(kHidden), [code](const Range& range) {
        return code >= range.first && code <= range.last;
    });
}

void AppendEscape(std::string& line, char c)
{
    constexpr char kDigits[] = "0123456789abcdef";
    switch (c)
    {
    case '\n':
        line += "\\n";
        break;
    case '\r':
        line += "\\r";
        break;
    case '\t':
        line += "\\t";
        break;
    case '\\':
        line += "\\\\";
        break;
    default:
        line += "\\x";
        line += kDigits[Byte(c) >> 4U];
        line += kDigits[Byte(c) & 0xfU];
    }
}

} // namespace

void znlib::AppendPrintable(std::string& line, std::string_view text)
{
    while (!text.empty())
    {
        const std::size_t plain = CountPlain(text);
        line.append(text, 0, plain);
        text.remove_prefix(plain);
        if (text.empty())
            return;

        const std::optional<Character> character = Decode(text);
        const std::string_view bytes = text.substr(0, character ? character->length : 1);
        if (character && !IsHidden(character->code) && bytes != "\\")
            line += bytes;
        else
            for (const char byte : bytes)
                AppendEscape(line, byte);
        text.remove_prefix(bytes.size());
    }
}

std::string znlib::Printable(std::string_view text)
{
    std::string line;
    line.reserve(text.size());
    AppendPrintable(line, text);
    return line;
}
