#include "simulated/Scene.h"

#include "simulated/Json.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>

namespace simulated
{

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Portal, portal, name, answer)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ChapAccount, user, secret)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Lun, lun, disk, kernelNames, state, partitions, atLook, afterMs)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Target, iqn, portals, chap, luns)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(MultipathMap, name, wwid, targets, lun, minPaths, partitions,
                                   volumes)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(MpioVolume, name, target, device, atLook)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Fault, command, times, status, output, stderrOutput, half,
                                   leaveBehindMs)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Scene, toolVersion, detailedReport, sessionExists, unreachableMs,
                                   initiatorName, initiatorAddress, localDisks, portals, targets, maps,
                                   ehcmcliInstalled, ehcmcliVolumes, faults)

namespace
{

using Json = nlohmann::json;

// Every key with its type and what stands for it when it is left out. A list has one item, the model of
// all of its items. A key with a null has to be there, and is a text.
constexpr const char* kModel = R"({
    "toolVersion": "2.1.8", "detailedReport": true, "sessionExists": "", "unreachableMs": 300,
    "initiatorName": "iqn.2025-01.org.example:initiator", "initiatorAddress": "192.0.2.1",
    "localDisks": [null],
    "portals": [{"portal": null, "name": "", "answer": "answering"}],
    "targets": [{"iqn": null, "portals": [null], "chap": {"user": "", "secret": ""},
                 "luns": [{"lun": 0, "disk": true, "kernelNames": [null], "state": "running",
                           "partitions": 0, "atLook": 0, "afterMs": 0}]}],
    "maps": [{"name": null, "wwid": null, "targets": [null], "lun": 1, "minPaths": 2, "partitions": 0,
              "volumes": [null]}],
    "ehcmcliInstalled": false,
    "ehcmcliVolumes": [{"name": null, "target": null, "device": null, "atLook": 0}],
    "faults": [{"command": null, "times": 0, "status": -1, "output": "{output}",
                "stderrOutput": "{stderr}", "half": false, "leaveBehindMs": 0}]
})";

void Want(bool right, const std::string& where, const std::string& why)
{
    if (!right)
        throw Unusable(where + ": " + why);
}

std::string Below(const std::string& where, const std::string& key)
{
    return where.empty() ? key : where + "." + key;
}

// `value` with everything that the model has and it has not. Throws when it is not as the model.
Json Completed(const Json& value, const Json& model, const std::string& where)
{
    if (model.is_null())
        Want(value.is_string() && !value.get<std::string>().empty(), where, "a text is wanted");
    else if (model.is_number())
        Want(value.is_number_unsigned() && value <= 1'000'000, where,
             "a whole number from 0 to 1000000 is wanted");
    else
        Want(value.type() == model.type(), where,
             std::string("this should be of the type ") + model.type_name());
    Json completed = value;
    if (model.is_array())
    {
        for (std::size_t i = 0; i < value.size(); ++i)
            completed[i] = Completed(value[i], model[0], where + "[" + std::to_string(i) + "]");
    }
    if (!model.is_object())
        return completed;
    for (const auto& [key, item] : value.items())
        Want(model.contains(key), Below(where, key), "nothing of this name is known here");
    for (const auto& [key, itemModel] : model.items())
    {
        if (value.contains(key))
            completed[key] = Completed(value[key], itemModel, Below(where, key));
        else if (itemModel.is_object())
            completed[key] = Completed(Json::object(), itemModel, Below(where, key));
        else
        {
            Want(!itemModel.is_null(), Below(where, key), "is missing");
            completed[key] = itemModel.is_array() ? Json::array() : itemModel;
        }
    }
    return completed;
}

void WantOneOf(const std::string& text, const std::vector<std::string>& words, const std::string& where)
{
    std::string list;
    for (const std::string& word : words)
        list += (list.empty() ? "" : ", ") + word;
    Want(std::find(words.begin(), words.end(), text) != words.end(), where,
         "\"" + text + "\" is none of: " + list);
}

// What is of the right type may still lead nowhere, or be there twice.
void CheckReferences(const Scene& scene)
{
    WantOneOf(scene.sessionExists, {"counted", "session exists", "already exists"}, "sessionExists");
    for (const Portal& portal : scene.portals)
        WantOneOf(portal.answer, {"answering", "refusing", "silent"},
                  "portal " + portal.portal.address);
    std::set<std::string> seen;
    for (const Target& target : scene.targets)
    {
        Want(seen.insert(target.iqn).second, "targets", target.iqn + " is there twice");
        for (const PortalAddress& at : target.portals)
            Want(scene.FindPortal(at) != nullptr, target.iqn, "the scene has no portal " + at.address);
        for (const Lun& lun : target.luns)
            Want(seen.insert(target.iqn + " " + std::to_string(lun.lun)).second, target.iqn,
                 "LUN " + std::to_string(lun.lun) + " is there twice");
    }
    for (const MultipathMap& map : scene.maps)
    {
        for (const std::string& iqn : map.targets)
            Want(scene.FindTarget(iqn) != nullptr, "map " + map.name, "the scene has no target " + iqn);
    }
    for (const MpioVolume& volume : scene.ehcmcliVolumes)
        Want(scene.FindTarget(volume.target) != nullptr, "volume " + volume.name,
             "the scene has no target " + volume.target);
    for (const Fault& fault : scene.faults)
        Want(fault.status <= 255, "fault of \"" + fault.command + "\"", "no exit status is above 255");
}

} // namespace

PortalAddress ParsePortalAddress(const std::string& text)
{
    static const std::regex kForm(R"((?:\[(.+)\]|([^:,]*))(?::([0-9]{1,5}))?(?:,.*)?)");
    std::smatch match;
    if (!std::regex_match(text, match, kForm))
        return {text};
    PortalAddress at{match[1].matched ? match.str(1) : match.str(2)};
    if (match[3].matched)
        at.port = std::stoi(match[3]);
    return at;
}

bool IsNumeric(const PortalAddress& at)
{
    in6_addr parsed{};
    return inet_pton(AF_INET, at.address.c_str(), &parsed) == 1 ||
           inet_pton(AF_INET6, at.address.c_str(), &parsed) == 1;
}

bool Scene::ToolIsOld() const
{
    return toolVersion.rfind("2.0-", 0) == 0 && toolVersion < "2.0-873";
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

Scene ReadScene(const std::string& file)
try
{
    std::ifstream stream(file);
    if (!stream)
        throw Unusable(std::strerror(errno));
    Scene scene = Completed(Json::parse(stream, nullptr, true, true), Json::parse(kModel), "");
    if (scene.sessionExists.empty())
        scene.sessionExists = scene.ToolIsOld() ? "already exists" : "counted";
    CheckReferences(scene);
    return scene;
}
catch (const Json::parse_error& error)
{
    // "[json.exception.parse_error.101] parse error at line 3, column 9: syntax error ..."
    const std::string words = error.what();
    throw Unusable("cannot use the scene " + file + ": " + words.substr(words.find("] ") + 2));
}
catch (const Unusable& error)
{
    throw Unusable("cannot use the scene " + file + ": " + error.what());
}

} // namespace simulated
