#include "cli/Request.h"

#include "cli/kernel/Portal.h"
#include "host/BeginsWith.h"

#include <algorithm>

namespace cli
{

namespace
{

std::string FindWordFault(std::string_view value, std::size_t maxBytes)
{
    if (value.empty())
        return "must not be empty";
    if (std::any_of(value.begin(), value.end(), [](unsigned char c) { return c <= ' ' || c == 0x7f; }))
        return "must not contain a blank or a control character";
    return value.size() <= maxBytes ? ""
                                    : "must not be longer than " + std::to_string(maxBytes) + " bytes";
}

std::string FindFault(std::string_view value, std::size_t maxBytes)
{
    return !value.empty() && value.front() == '-'
               ? "must not begin with '-': the tool would take it for an option"
               : FindWordFault(value, maxBytes);
}

} // namespace

bool IsIqn(std::string_view word)
{
    return BeginsWith(word, "iqn.") || BeginsWith(word, "eui.") || BeginsWith(word, "naa.");
}

// The characters of names and addresses only: a log that shows a command line may be read by a shell.
std::string FindPortalFault(const std::string& portal)
{
    constexpr std::size_t kMaxNameBytes = 255; // a domain name
    constexpr std::size_t kMaxPortBytes = sizeof "[]:65535" - 1;
    constexpr const char* kHostCharacters = "abcdefghijklmnopqrstuvwxyz"
                                            "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                            "0123456789.:_%-";
    if (std::string fault = FindFault(portal, kMaxNameBytes + kMaxPortBytes); !fault.empty())
        return fault;
    const std::optional<Portal> parsed = ParsePortal(portal);
    // The tool prints a portal group tag but does not accept one.
    const bool hasGroup = portal.find(',') != std::string::npos;
    return parsed && !hasGroup && !IsIqn(portal) && parsed->host.size() <= kMaxNameBytes &&
                   parsed->host.find_first_not_of(kHostCharacters) == std::string::npos
               ? ""
               : "expected ADDRESS, ADDRESS:PORT or [IPV6]:PORT";
}

std::string FindIqnFault(const std::string& iqn)
{
    constexpr std::size_t kMaxIscsiNameBytes = 223;
    if (std::string fault = FindFault(iqn, kMaxIscsiNameBytes); !fault.empty())
        return fault;
    return IsIqn(iqn) ? "" : "must begin with iqn., eui. or naa.";
}

std::string FindDeviceFault(const std::string& device)
{
    constexpr std::size_t kMaxPathBytes = 4095;
    if (std::string fault = FindFault(device, kMaxPathBytes); !fault.empty())
        return fault;
    return device.find("/dev/") != std::string::npos ? "" : "must contain \"/dev/\"";
}

std::string FindChapFault(std::string_view userOrSecret)
{
    return FindWordFault(userOrSecret, kMaxChapBytes);
}

} // namespace cli
