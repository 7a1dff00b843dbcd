#include "agent/Portal.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>

#include <netdb.h>

namespace
{

// ":3260"; 0 when it is no port.
std::uint16_t ParsePort(std::string_view text)
{
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + 1, end, port);
    return text.front() == ':' && error == std::errc() && stop == end ? port : std::uint16_t{0};
}

// `host` as it is written and its addresses in the usual spelling.
std::set<std::string> FindSpellings(const std::string& host, int resolverFlags)
{
    std::set<std::string> spellings{host};
    addrinfo hints{};
    hints.ai_flags = resolverFlags;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0)
        return spellings;
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
    for (; found != nullptr; found = found->ai_next)
    {
        std::array<char, NI_MAXHOST> text{};
        if (getnameinfo(found->ai_addr, found->ai_addrlen, text.data(), text.size(), nullptr, 0,
                        NI_NUMERICHOST) == 0)
            spellings.insert(text.data());
    }
    return spellings;
}

} // namespace

// 192.0.2.10:3260,1
// [2001:db8::10]:3260,1
std::optional<Portal> ParsePortal(std::string_view text)
{
    text = text.substr(0, text.find(','));
    const std::size_t bracket = text.find(']');
    const bool isBracketed = bracket != std::string_view::npos && text.front() == '[';
    // Without brackets, two colons or more are an IPv6 address alone.
    const std::size_t colon =
        text.find(':') == text.rfind(':') ? text.find(':') : std::string_view::npos;
    const std::size_t hostEnd = std::min(isBracketed ? bracket + 1 : colon, text.size());
    const std::string_view host = isBracketed ? text.substr(1, bracket - 1) : text.substr(0, hostEnd);
    const std::string_view port = text.substr(hostEnd);
    const std::uint16_t number = port.empty() ? std::uint16_t{3260} : ParsePort(port);
    if (host.empty() || host.find_first_of("[]") != std::string_view::npos || number == 0)
        return std::nullopt;
    return Portal{std::string(host), number};
}

PortalMatcher::PortalMatcher(const std::string& wanted)
    : m_wanted(ParsePortal(wanted).value()), m_hosts(FindSpellings(m_wanted.host, 0))
{
}

bool PortalMatcher::Matches(const Portal& portal) const
{
    const std::set<std::string> spellings = FindSpellings(portal.host, AI_NUMERICHOST);
    return portal.port == m_wanted.port &&
           std::any_of(spellings.begin(), spellings.end(),
                       [this](const std::string& host) { return m_hosts.count(host) != 0; });
}
