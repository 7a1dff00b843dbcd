// How portal addresses stand in the JSON files of the simulated machine: as text, "192.0.2.10:3260".
#pragma once

#include "simulated/Scene.h"

#include <nlohmann/json.hpp>

namespace simulated
{

inline void to_json(nlohmann::json& json, const PortalAddress& at)
{
    json = "[" + at.address + "]:" + std::to_string(at.port);
}

inline void from_json(const nlohmann::json& json, PortalAddress& at)
{
    at = ParsePortalAddress(json);
    if (!IsNumeric(at))
        throw Unusable(json.dump() + " is not an address, or an address and a port");
}

} // namespace simulated
