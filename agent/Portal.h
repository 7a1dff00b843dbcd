// Target portals as people and tools write them.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

struct Portal
{
    std::string host; // an address without brackets, or a name
    std::uint16_t port;
};

// Reads "ADDRESS", "ADDRESS:PORT", "[IPV6]:PORT" or a name in place of the address; a portal group tag
// (",1") behind it is passed over.
std::optional<Portal> ParsePortal(std::string_view text);

// "192.0.2.10", "192.0.2.10:3261", "[2001:db8::10]": what every command and the tool take.
std::string FormatPortal(const Portal& portal);

// Tells whether a portal of the initiator's is the one that the user means.
class PortalMatcher
{
public:
    // `wanted` is the text of a portal. Looks a name up in the resolver, which may block; a name that
    // is not found stands for itself.
    explicit PortalMatcher(const std::string& wanted);

    bool Matches(const Portal& portal) const;

    // One spelling for all that lead to the same address and port.
    std::string Canonical() const;

private:
    Portal m_wanted;
    std::set<std::string> m_addresses;
};
