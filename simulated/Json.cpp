// Reads the scene, reads and writes the state: all JSON of the simulated machine.
#include "simulated/State.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace simulated
{
namespace
{

using Json = nlohmann::json;

// Removes the number of the JSON library's message: "[json.exception.parse_error.101] parse error at
// line 3, column 9: ..."
std::string WithoutNumber(const std::string& words)
{
    return words.rfind("[json.", 0) == 0 ? words.substr(words.find("] ") + 2) : words;
}

template <class Value>
struct Member
{
    const char* key;
    Value& value; // keeps its default if the object has no such member
};
template <class Value>
Member(const char*, Value&) -> Member<Value>;

template <class Value>
void ReadMember(const Json& object, const Member<Value>& member)
try
{
    if (const auto found = object.find(member.key); found != object.end())
        found->get_to(member.value);
}
catch (const std::exception& error)
{
    throw Unusable(std::string(member.key) + ": " + WithoutNumber(error.what()));
}

// Reads an object of a scene. Any other member is an error.
template <class... Values>
void ReadObject(const Json& object, const Member<Values>&... members)
{
    if (!object.is_object())
        throw Unusable("this should be an object, but is " + object.dump());
    for (const auto& item : object.items())
    {
        if (((item.key() != members.key) && ...))
            throw Unusable(item.key() + ": nothing of this name is known here");
    }
    (ReadMember(object, members), ...);
}

} // namespace

static void to_json(Json& json, const PortalAddress& at)
{
    json = FormatPortalAddress(at);
}

static void from_json(const Json& json, PortalAddress& at)
{
    at = ParsePortalAddress(json.get<std::string>());
}

static void from_json(const Json& json, Portal& portal)
{
    ReadObject(json, Member{"portal", portal.portal}, Member{"name", portal.name},
               Member{"answer", portal.answer});
}

static void from_json(const Json& json, ChapAccount& chap)
{
    ReadObject(json, Member{"user", chap.user}, Member{"secret", chap.secret});
}

static void from_json(const Json& json, Lun& lun)
{
    ReadObject(json, Member{"lun", lun.lun}, Member{"kernelNames", lun.kernelNames},
               Member{"partitions", lun.partitions}, Member{"atLook", lun.atLook});
}

static void from_json(const Json& json, Target& target)
{
    ReadObject(json, Member{"iqn", target.iqn}, Member{"portals", target.portals},
               Member{"chap", target.chap}, Member{"luns", target.luns});
}

static void from_json(const Json& json, MultipathMap& map)
{
    ReadObject(json, Member{"name", map.name}, Member{"targets", map.targets}, Member{"lun", map.lun},
               Member{"minPaths", map.minPaths}, Member{"partitions", map.partitions},
               Member{"volumes", map.volumes});
}

static void from_json(const Json& json, MpioVolume& volume)
{
    ReadObject(json, Member{"name", volume.name}, Member{"target", volume.target},
               Member{"device", volume.device}, Member{"atLook", volume.atLook});
}

static void from_json(const Json& json, Fault& fault)
{
    ReadObject(json, Member{"command", fault.command}, Member{"times", fault.times},
               Member{"status", fault.status}, Member{"output", fault.output},
               Member{"stderrOutput", fault.stderrOutput});
}

static void from_json(const Json& json, Scene& scene)
{
    ReadObject(json, Member{"sessionExists", scene.sessionExists},
               Member{"unreachableMs", scene.unreachableMs}, Member{"localDisks", scene.localDisks},
               Member{"portals", scene.portals}, Member{"targets", scene.targets},
               Member{"maps", scene.maps}, Member{"ehcmcliInstalled", scene.ehcmcliInstalled},
               Member{"ehcmcliVolumes", scene.ehcmcliVolumes}, Member{"faults", scene.faults});
}

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(NodeRecord, iqn, portal, settings)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Session, sid, iqn, portal, looks, mpioLooks, disks)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(State, lastSid, nodes, sessions, faultRuns)

Scene ReadScene(const std::string& file)
try
{
    std::ifstream stream(file);
    if (!stream)
        throw Unusable(std::strerror(errno));
    return Json::parse(stream, nullptr, true, true).get<Scene>();
}
catch (const std::exception& error)
{
    throw Unusable("cannot use the scene " + file + ": " + WithoutNumber(error.what()));
}

StateFile::StateFile(const std::filesystem::path& folder) : m_file(folder / "state.json")
{
    const std::string lockFile = folder / "lock";
    m_lock = open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (m_lock < 0 || flock(m_lock, LOCK_EX) != 0)
        throw Unusable("cannot lock " + lockFile + ": " + std::strerror(errno));
    if (!std::filesystem::exists(m_file))
        return;
    std::ifstream stream(m_file);
    try
    {
        state = Json::parse(stream);
    }
    catch (const Json::exception& error)
    {
        close(m_lock);
        throw Unusable("cannot use the state " + m_file.string() + ": " + WithoutNumber(error.what()));
    }
}

StateFile::~StateFile()
{
    close(m_lock);
}

void StateFile::Save() const
{
    const std::string fresh = m_file.string() + ".new";
    const mode_t before = umask(S_IRWXG | S_IRWXO);
    std::ofstream stream(fresh);
    umask(before);
    stream << Json(state).dump(2) << '\n';
    stream.close();
    if (!stream || std::rename(fresh.c_str(), m_file.c_str()) != 0)
        throw Unusable("cannot write " + fresh + ": " + std::strerror(errno));
}

} // namespace simulated
