#include "simulated/Scene.h"

#include <algorithm>
#include <regex>

namespace simulated
{

PortalAddress ParsePortalAddress(const std::string& text)
{
    static const std::regex kForm(R"((?:\[(.+)\]|([^:]*))(?::([0-9]{1,5}))?)");
    std::smatch match;
    if (!std::regex_match(text, match, kForm))
        return {text};
    PortalAddress at{match[1].matched ? match.str(1) : match.str(2)};
    if (match[3].matched)
        at.port = std::stoi(match[3]);
    return at;
}

std::string FormatPortalAddress(const PortalAddress& at)
{
    const bool isIpv6 = at.address.find(':') != std::string::npos;
    return (isIpv6 ? "[" + at.address + "]" : at.address) + ":" + std::to_string(at.port);
}

const Portal* Scene::FindPortal(const PortalAddress& at) const
{
    const auto found = std::find_if(portals.begin(), portals.end(),
                                    [&](const Portal& each) { return each.portal == at; });
    return found == portals.end() ? nullptr : &*found;
}

const Target* Scene::FindTarget(const std::string& iqn) const
{
    const auto found = std::find_if(targets.begin(), targets.end(),
                                    [&](const Target& each) { return each.iqn == iqn; });
    return found == targets.end() ? nullptr : &*found;
}

} // namespace simulated
