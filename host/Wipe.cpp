#include "host/Wipe.h"

#include <cstring>
#include <numeric>

void Wipe(std::string& text)
{
    const std::size_t size = text.size();
    explicit_bzero(text.data(), size);
    text.resize(text.capacity());
    explicit_bzero(text.data() + size, text.size() - size);
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
