// The CHAP secret on its way from the user to the initiator's tool.
#pragma once

#include "agent/Arguments.h"

#include <array>
#include <string>

// Kept in one place, never copied, wiped at the end.
class Secret
{
public:
    // Reads the first line of `descriptor`, and nothing behind it. Throws a Failure (wrong usage) when
    // it cannot be read, naming `source`, or is no secret that a tool can be given.
    Secret(int descriptor, const std::string& source);
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret();

    const char* c_str() const { return m_text.data(); }

private:
    Secret() = default;

    // One byte more shows that it is too long.
    std::array<char, kMaxChapBytes + 2> m_text{};
};

// Warns on standard error about a file that others may read.
Secret ReadSecretFile(const std::string& file);

// From the terminal, asking for it and without echo, or from whatever else standard input is.
Secret ReadSecretFromStandardInput(const std::string& user);
