// Reads the CHAP secret: from a terminal without echo, from a file, or from standard input.
//
// Thread-safety: for the main thread.
#pragma once

#include "cli/Request.h"

#include <array>
#include <memory>
#include <string>

namespace cli
{

// The destructor wipes it.
class Secret
{
public:
    Secret() = default;
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    ~Secret();

    const char* c_str() const { return m_text.data(); }

    // Room for the end of the line, and for one more byte that shows that the secret is too long.
    std::array<char, kMaxChapBytes + 2>& Text() { return m_text; }

private:
    std::array<char, kMaxChapBytes + 2> m_text{};
};

// Reads the secret from where `request` says; null if the request has no CHAP user. Takes the first
// line and no byte behind it. Prints a warning on standard error if others can read the file.
//
// On a terminal the echo is off while the secret is typed. A signal that ends or stops this program
// takes effect as always, with the echo on; a program that continues asks again.
//
// Throws Failure (usage) if the secret cannot be read or cannot be passed to a tool.
std::unique_ptr<const Secret> ReadSecret(const Request& request);

} // namespace cli
