#include "agent/Arguments.h"

#include "agent/Portal.h"

#include <algorithm>
#include <numeric>

namespace
{

std::string FindWordFault(std::string_view value, std::size_t maxBytes)
{
    if (value.empty())
        return "it is empty";
    if (std::any_of(value.begin(), value.end(), [](unsigned char c) { return c <= ' ' || c == 0x7f; }))
        return "it contains a blank or a control character";
    return value.size() <= maxBytes ? "" : "it is longer than " + std::to_string(maxBytes) + " bytes";
}

std::string FindFault(std::string_view value, std::size_t maxBytes)
{
    return !value.empty() && value.front() == '-'
               ? "it begins with '-': the tool would take it for an option"
               : FindWordFault(value, maxBytes);
}

// The edit distance: how many letters to insert, delete or replace.
std::size_t CountChanges(std::string_view from, std::string_view to)
{
    // The distance from the letters so far to each prefix of `to`.
    std::vector<std::size_t> changes(to.size() + 1);
    std::iota(changes.begin(), changes.end(), std::size_t{0});
    for (const char letter : from)
    {
        std::size_t diagonal = changes[0]++;
        for (std::size_t i = 1; i < changes.size(); ++i)
        {
            const std::size_t replaced = diagonal + (letter == to[i - 1] ? 0 : 1);
            diagonal = changes[i];
            changes[i] = std::min({replaced, changes[i] + 1, changes[i - 1] + 1});
        }
    }
    return changes.back();
}

} // namespace

std::string FindPortalFault(const std::string& portal)
{
    constexpr std::size_t kMaxNameBytes = 255; // a domain name
    constexpr std::size_t kMaxPortBytes = sizeof "[]:65535" - 1;
    if (std::string fault = FindFault(portal, kMaxNameBytes + kMaxPortBytes); !fault.empty())
        return fault;
    const std::optional<Portal> parsed = ParsePortal(portal);
    // The tool prints a portal group tag but does not accept one.
    const bool hasGroup = portal.find(',') != std::string::npos;
    return parsed && !hasGroup && parsed->host.size() <= kMaxNameBytes
               ? ""
               : "it is none of ADDRESS, ADDRESS:PORT, [IPV6]:PORT";
}

std::string FindIqnFault(const std::string& iqn)
{
    constexpr std::size_t kMaxIscsiNameBytes = 223;
    if (std::string fault = FindFault(iqn, kMaxIscsiNameBytes); !fault.empty())
        return fault;
    const std::string form = iqn.substr(0, 4);
    return form == "iqn." || form == "eui." || form == "naa."
               ? ""
               : "it begins with none of iqn., eui., naa.";
}

std::string FindDeviceFault(const std::string& device)
{
    constexpr std::size_t kMaxPathBytes = 4095;
    if (std::string fault = FindFault(device, kMaxPathBytes); !fault.empty())
        return fault;
    return device.find("/dev/") != std::string::npos ? "" : "it does not contain \"/dev/\"";
}

std::string FindChapFault(std::string_view userOrSecret)
{
    return FindWordFault(userOrSecret, kMaxChapBytes);
}

std::string FindNearest(const std::string& word, const std::vector<std::string>& words)
{
    return *std::min_element(words.begin(), words.end(),
                             [&word](const std::string& a, const std::string& b) {
                                 return CountChanges(word, a) < CountChanges(word, b);
                             });
}
