// Buffers that held a secret do not keep it.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

// Overwrites all that `text` holds or has room for, and empties it.
void Wipe(std::string& text);

// A text made of pieces, wiped before its storage is freed. Its size is known before the first piece is
// copied, so that no growth leaves a copy behind.
class WipedString
{
public:
    WipedString(std::initializer_list<std::string_view> pieces);
    WipedString(const WipedString&) = delete;
    WipedString& operator=(const WipedString&) = delete;
    ~WipedString() { Wipe(m_text); }

    const char* c_str() const { return m_text.c_str(); }

private:
    std::string m_text;
};
