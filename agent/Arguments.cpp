#include "agent/Arguments.h"

#include "agent/Portal.h"
#include "standalone/znlib/Text.h"

#include <algorithm>

namespace
{

std::string FindWordFault(std::string_view value, std::size_t longest)
{
    if (value.empty())
        return "it is empty";
    if (std::any_of(value.begin(), value.end(), [](unsigned char c) { return c <= ' ' || c == 0x7f; }))
        return "it holds a blank or a control character";
    return value.size() <= longest ? "" : "it is longer than " + std::to_string(longest) + " bytes";
}

std::string FindFault(std::string_view value, std::size_t longest)
{
    return !value.empty() && value.front() == '-'
               ? "it begins with '-': the tool would take it for an option"
               : FindWordFault(value, longest);
}

} // namespace

std::string FindPortalFault(const std::string& portal)
{
    constexpr std::size_t kLongestName = 255; // a domain name
    constexpr std::size_t kLongestPort = sizeof "[]:65535" - 1;
    if (std::string fault = FindFault(portal, kLongestName + kLongestPort); !fault.empty())
        return fault;
    const std::optional<Portal> parsed = ParsePortal(portal);
    const bool hasGroup =
        portal.find(',') != std::string::npos; // the tool's reports have one, it takes none
    return parsed && !hasGroup && parsed->host.size() <= kLongestName
               ? ""
               : "it is none of ADDRESS, ADDRESS:PORT, [IPV6]:PORT";
}

std::string FindIqnFault(const std::string& iqn)
{
    constexpr std::size_t kLongestIscsiName = 223;
    return FindFault(iqn, kLongestIscsiName);
}

std::string FindDeviceFault(const std::string& device)
{
    constexpr std::size_t kLongestPath = 4095;
    if (std::string fault = FindFault(device, kLongestPath); !fault.empty())
        return fault;
    return device.find("/dev/") != std::string::npos ? "" : "it does not contain \"/dev/\"";
}

std::string FindNumberFault(const std::string& number)
{
    return znhost::ParseNumber<unsigned long long>(number) ? "" : "it is no whole number from 0 on";
}

std::string FindChapFault(std::string_view userOrSecret)
{
    return FindWordFault(userOrSecret, kLongestChapValue);
}
