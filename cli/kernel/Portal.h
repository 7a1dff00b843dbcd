// Target portals in the notations of people and tools.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace cli
{

struct Portal
{
    std::string host; // an address without brackets, or a name
    std::uint16_t port;
};

// Parses "ADDRESS", "ADDRESS:PORT" or "[IPV6]:PORT"; a host name may take the place of the address. A
// trailing portal group tag (",1") is ignored. Nothing if `text` is malformed.
std::optional<Portal> ParsePortal(std::string_view text);

// Returns "192.0.2.10", "192.0.2.10:3261", "[2001:db8::10]": the form that commands and tool take.
std::string FormatPortal(const Portal& portal);

// Whether the host is an address, not a name.
bool HasAddress(const Portal& portal);

// Compares portals of the initiator with the one that the user gave.
class PortalMatcher
{
public:
    // `wanted` is a portal that ParsePortal accepts. Resolves a host name, which may block. A name that
    // cannot be resolved matches itself only: a portal that does not match may be the wanted one.
    explicit PortalMatcher(const std::string& wanted);

    // Why the name cannot be resolved; empty if it can.
    const std::string& Error() const { return m_error; }

    bool Matches(const Portal& portal) const;

private:
    Portal m_wanted;
    std::string m_error;
    std::set<std::string> m_addresses;
};

} // namespace cli
