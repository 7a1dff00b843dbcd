#include "cli/kernel/Portal.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>

#include <arpa/inet.h>
#include <netdb.h>

namespace cli
{

namespace
{

constexpr std::uint16_t kDefaultPort = 3260;

// Parses ":3260". 0 if `text` is not a port.
std::uint16_t ParsePort(std::string_view text)
{
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + 1, end, port);
    return text.front() == ':' && error == std::errc() && stop == end ? port : std::uint16_t{0};
}

// Whether `host` can be an address or a name: no blank, no control character, and a colon only in an
// IPv6 address, which may have a zone: fe80::1%eth0.
bool IsHost(std::string_view host)
{
    const bool isWord =
        std::none_of(host.begin(), host.end(), [](unsigned char c) { return c <= ' ' || c == 0x7f; });
    const std::string address(host.substr(0, host.find('%')));
    in6_addr ignored{};
    return isWord && !host.empty() && host.find_first_of("[]") == std::string_view::npos &&
           (host.find(':') == std::string_view::npos ||
            inet_pton(AF_INET6, address.c_str(), &ignored) == 1);
}

// The addresses of `host` in their canonical spelling. If it cannot be resolved, empty, and sets
// `error`.
std::set<std::string> FindAddresses(const std::string& host, int resolverFlags, std::string& error)
{
    std::set<std::string> addresses;
    addrinfo hints{};
    hints.ai_flags = resolverFlags;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int code = getaddrinfo(host.c_str(), nullptr, &hints, &found); code != 0)
    {
        error = "cannot resolve " + host + ": " + gai_strerror(code);
        return addresses;
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
    for (; found != nullptr; found = found->ai_next)
    {
        std::array<char, NI_MAXHOST> text{};
        if (getnameinfo(found->ai_addr, found->ai_addrlen, text.data(), text.size(), nullptr, 0,
                        NI_NUMERICHOST) == 0)
            addresses.insert(text.data());
    }
    return addresses;
}

// Empty for a name.
std::set<std::string> FindNumeric(const std::string& host)
{
    std::string noAddress;
    return FindAddresses(host, AI_NUMERICHOST, noAddress);
}

} // namespace

// 192.0.2.10:3260,1
// [2001:db8::10]:3260,1
std::optional<Portal> ParsePortal(std::string_view text)
{
    text = text.substr(0, text.find(','));
    const std::size_t bracket = text.find(']');
    const bool isBracketed = bracket != std::string_view::npos && text.front() == '[';
    // Without brackets, a text with several colons is an IPv6 address without port.
    const std::size_t colon =
        text.find(':') == text.rfind(':') ? text.find(':') : std::string_view::npos;
    const std::size_t hostEnd = std::min(isBracketed ? bracket + 1 : colon, text.size());
    const std::string_view host = isBracketed ? text.substr(1, bracket - 1) : text.substr(0, hostEnd);
    const std::string_view port = text.substr(hostEnd);
    const std::uint16_t number = port.empty() ? kDefaultPort : ParsePort(port);
    if (!IsHost(host) || number == 0)
        return std::nullopt;
    return Portal{std::string(host), number};
}

std::string FormatPortal(const Portal& portal)
{
    const bool isIpv6 = portal.host.find(':') != std::string::npos;
    const std::string host = isIpv6 ? '[' + portal.host + ']' : portal.host;
    return portal.port == kDefaultPort ? host : host + ':' + std::to_string(portal.port);
}

bool HasAddress(const Portal& portal)
{
    return !FindNumeric(portal.host).empty();
}

PortalMatcher::PortalMatcher(const std::string& wanted)
    : m_wanted(ParsePortal(wanted).value()), m_addresses(FindAddresses(m_wanted.host, 0, m_error))
{
}

bool PortalMatcher::Matches(const Portal& portal) const
{
    if (portal.port != m_wanted.port)
        return false;
    const std::set<std::string> addresses = FindNumeric(portal.host);
    return portal.host == m_wanted.host ||
           std::any_of(addresses.begin(), addresses.end(),
                       [this](const std::string& address) { return m_addresses.count(address) != 0; });
}

} // namespace cli
