// Reads the CHAP secret.
#pragma once

#include "agent/Arguments.h"

#include <array>
#include <string>

// Not copyable; the destructor wipes it.
class Secret
{
public:
    // Reads the first line from `descriptor`, and no byte behind it. Throws Failure (usage) if that
    // fails, with `source` in the message, or if the secret cannot be passed to a tool.
    Secret(int descriptor, const std::string& source);
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret();

    const char* c_str() const { return m_text.data(); }

private:
    Secret() = default;

    // Room for the end of the line, and for one more byte that shows that the secret is too long.
    std::array<char, kMaxChapBytes + 2> m_text{};
};

// Prints a warning on standard error if others can read the file.
Secret ReadSecretFile(const std::string& file);

// Prompts, without echo, if standard input is a terminal.
Secret ReadSecretFromStandardInput(const std::string& user);
