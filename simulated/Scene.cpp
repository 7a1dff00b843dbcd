// The scene, and the state: both are JSON.
#include "simulated/State.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <regex>

#include <sys/stat.h>

namespace simulated
{

using Json = nlohmann::json;

static void to_json(Json& json, const PortalAddress& at)
{
    json = FormatPortalAddress(at);
}

static void from_json(const Json& json, PortalAddress& at)
{
    at = ParsePortalAddress(json.get<std::string>());
}

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Portal, portal, name, answer)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(ChapAccount, user, secret)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Lun, lun, kernelNames, partitions, atLook)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Target, iqn, portals, chap, luns)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(MultipathMap, name, targets, lun, minPaths, partitions, volumes)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(MpioVolume, name, target, device, atLook)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Fault, command, times, status, output, stderrOutput, pauseMs)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Scene, unreachableMs, localDisks, portals, targets, maps,
                                   ehcmcliInstalled, ehcmcliVolumes, faults)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Node, iqn, portal)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Session, sid, iqn, portal, looks, mpioLooks, disks)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(State, lastSid, nodes, sessions, faultRuns)

namespace
{

// All that a scene may consist of: one element in each list of objects, every member with its default.
Json Form()
{
    Scene scene;
    scene.portals.resize(1);
    scene.targets.resize(1);
    scene.targets.front().luns.resize(1);
    scene.maps.resize(1);
    scene.ehcmcliVolumes.resize(1);
    scene.faults.resize(1);
    return scene;
}

// `given` with the defaults of `form` for what it lacks. `place` is where it stands in the scene.
Json Completed(const Json& given, const Json& form, const std::string& place)
{
    if (std::strcmp(given.type_name(), form.type_name()) != 0)
        throw Unusable(place + " should be of the type " + form.type_name() + ", but is " +
                       given.dump());
    if (form.is_array() && !form.empty())
    {
        Json elements = Json::array();
        for (std::size_t i = 0; i < given.size(); ++i)
            elements.push_back(
                Completed(given[i], form.front(), place + '[' + std::to_string(i) + ']'));
        return elements;
    }
    if (!form.is_object())
        return given;
    Json object = form;
    for (Json& member : object)
        if (member.is_array())
            member = Json::array();
    for (const auto& item : given.items())
    {
        if (!form.contains(item.key()))
            throw Unusable(place + ": nothing is known of " + item.key());
        object[item.key()] = Completed(item.value(), form[item.key()], place + '.' + item.key());
    }
    return object;
}

template <class Value>
Value ReadJson(const std::string& what, const std::filesystem::path& file,
               Value (*convert)(const Json&))
try
{
    std::ifstream stream(file);
    if (!stream)
        throw Unusable(std::strerror(errno));
    return convert(Json::parse(stream, nullptr, true, true)); // with comments
}
catch (const std::exception& error)
{
    throw Unusable("cannot use the " + what + ' ' + file.string() + ": " + error.what());
}

} // namespace

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

Scene ReadScene(const std::filesystem::path& file)
{
    return ReadJson<Scene>(
        "scene", file, [](const Json& json) { return Completed(json, Form(), "scene").get<Scene>(); });
}

State ReadState(const std::filesystem::path& file)
{
    if (!std::filesystem::exists(file))
        return {};
    return ReadJson<State>("state", file, [](const Json& json) { return json.get<State>(); });
}

void WriteState(const std::filesystem::path& file, const State& state)
{
    const std::string fresh = file.string() + ".new";
    const mode_t before = umask(S_IRWXG | S_IRWXO);
    std::ofstream stream(fresh);
    umask(before);
    stream << Json(state).dump(2) << '\n';
    stream.close();
    if (!stream || std::rename(fresh.c_str(), file.c_str()) != 0)
        throw Unusable("cannot write " + fresh + ": " + std::strerror(errno));
}

} // namespace simulated
