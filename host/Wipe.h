// Removal of secrets from memory.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <numeric>
#include <string>
#include <string_view>

// Overwrites `size` bytes. The compiler cannot leave this out, although nobody reads them afterwards.
inline void WipeBytes(void* bytes, std::size_t size)
{
    std::memset(bytes, 0, size);
    __asm__ volatile("" : : "r"(bytes) : "memory");
}

// Overwrites `text` and its spare capacity, which may hold an earlier value, and empties it.
inline void Wipe(std::string& text)
{
    const std::size_t size = text.size();
    WipeBytes(text.data(), size);
    text.resize(text.capacity());
    WipeBytes(text.data() + size, text.size() - size);
    text.clear();
}

// Grows the capacity of `text` to `size`, at least by a factor of two, and wipes the old buffer.
inline void ReserveWiping(std::string& text, std::size_t size)
{
    if (size <= text.capacity())
        return;
    std::string grown;
    grown.reserve(std::max(size, 2 * text.capacity()));
    grown.append(text);
    Wipe(text);
    text.swap(grown);
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
