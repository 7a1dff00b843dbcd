// Removal of secrets from memory.
#pragma once

#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <numeric>
#include <string>
#include <string_view>

// Overwrites `text` and its spare capacity, which may hold an earlier value, and empties it.
inline void Wipe(std::string& text)
{
    const std::size_t size = text.size();
    explicit_bzero(text.data(), size);
    text.resize(text.capacity());
    explicit_bzero(text.data() + size, text.size() - size);
    text.clear();
}

// A text made of pieces, wiped before its storage is freed. The whole capacity is reserved first:
// growth would leave a copy behind.
class WipedString
{
public:
    WipedString(std::initializer_list<std::string_view> pieces)
    {
        m_text.reserve(std::accumulate(
            pieces.begin(), pieces.end(), std::size_t{0},
            [](std::size_t sum, std::string_view piece) { return sum + piece.size(); }));
        for (const std::string_view piece : pieces)
            m_text += piece;
    }
    WipedString(const WipedString&) = delete;
    WipedString& operator=(const WipedString&) = delete;
    ~WipedString() { Wipe(m_text); }

    const char* c_str() const { return m_text.c_str(); }

private:
    std::string m_text;
};
