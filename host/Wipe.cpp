#include "host/Wipe.h"

#include <cstring>
#include <numeric>

void Wipe(std::string& text)
{
    text.resize(text.capacity());
    explicit_bzero(text.data(), text.size());
    text.clear();
}

WipedString::WipedString(std::initializer_list<std::string_view> pieces)
{
    m_text.reserve(
        std::accumulate(pieces.begin(), pieces.end(), std::size_t{0},
                        [](std::size_t sum, std::string_view piece) { return sum + piece.size(); }));
    for (const std::string_view piece : pieces)
        m_text += piece;
}
