#include "cli/kernel/Sessions.h"

#include "cli/kernel/Sysfs.h"
#include "host/BeginsWith.h"
#include "standalone/helpers/Text.h"
#include "standalone/zndevicetree/SysfsTree.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include <unistd.h>

namespace cli
{

namespace
{

// devices/platform/host3/session8/target3:0:0/3:0:0:1/state:          running
// devices/platform/host3/session8/target3:0:0/3:0:0:1/block/sdb/size: 204800
void AddDisks(const std::string& unit, std::vector<Disk>& disks)
{
    constexpr unsigned long long kSectorBytes = 512; // whatever the disk's own are
    const auto lun = znlib::ParseNumber<unsigned long long>(unit.substr(unit.rfind(':') + 1));
    if (!lun)
        return;
    const std::string block = unit + "/block/";
    for (const std::string& name : ListDirectory(block))
    {
        const auto size = ReadAttribute(block + name + "/size");
        const auto state = ReadAttribute(unit + "/state");
        if (!size || !state)
            continue;
        const auto sectors = znlib::ParseNumber<unsigned long long>(*size);
        disks.push_back({DevicePath(name), *lun,
                         sectors ? std::optional(*sectors * kSectorBytes) : std::nullopt, *state});
    }
}

// `session` is a directory, with a slash at its end.
std::vector<Disk> ReadDisks(const std::string& session)
{
    std::vector<Disk> disks;
    for (const std::string& target : ListDirectory(session))
    {
        if (!BeginsWith(target, "target"))
            continue;
        const std::string directory = session + target + '/';
        for (const std::string& unit : ListDirectory(directory))
            AddDisks(directory + unit, disks);
    }
    std::stable_sort(disks.begin(), disks.end(),
                     [](const Disk& a, const Disk& b) { return a.lun < b.lun; });
    return disks;
}

// class/iscsi_connection/connection8:0/persistent_address:    192.0.2.10
// class/iscsi_connection/connection8:0/persistent_port:       3260
//
// Some drivers of offload cards lack the two: then the address and port of the connection count, as for
// the initiator. The kernel does not tell these while the connection is down.
std::optional<Portal> ReadPortal(const std::string& connection)
try
{
    auto address = ReadAttribute(connection + "/persistent_address");
    if (!address)
        address = ReadAttribute(connection + "/address");
    auto port = ReadAttribute(connection + "/persistent_port");
    if (!port)
        port = ReadAttribute(connection + "/port");
    return address && port ? ParsePortal('[' + *address + "]:" + *port) : std::nullopt;
}
catch (const std::runtime_error&)
{
    return std::nullopt;
}

// class/iscsi_session/session8 -> ../../devices/platform/host3/session8/iscsi_session/session8
std::optional<int> ParseHost(const std::string& link)
{
    const std::string marker = "/host";
    const std::size_t at = link.find(marker);
    if (at == std::string::npos)
        return std::nullopt;
    const std::size_t begin = at + marker.size();
    return znlib::ParseNumber<int>(link.substr(begin, link.find('/', begin) - begin));
}

// class/iscsi_session/session8/state:      LOGGED_IN
// class/iscsi_session/session8/targetname: iqn.2025-01.org.example:multi
// class/iscsi_session/session8/ifacename:  default
std::optional<Session> ReadSession(const std::string& sysfs, const std::string& name)
{
    const std::string number = name.substr(std::string_view("session").size());
    const std::string attributes = sysfs + "/class/iscsi_session/" + name;
    const std::optional<int> sid = znlib::ParseNumber<int>(number);
    if (!sid)
        return std::nullopt;
    Session session{*sid,
                    "",
                    ReadPortal(sysfs + "/class/iscsi_connection/connection" + number + ":0"),
                    ReadAttribute(attributes + "/targetname").value_or(""),
                    ReadDisks(attributes + "/device/"),
                    ReadAttribute(attributes + "/ifacename").value_or(""),
                    ParseHost(ReadLink(attributes))};
    // The last one: what lacks above is not because the session has ended.
    const auto state = ReadAttribute(attributes + "/state");
    if (!state)
        return std::nullopt;
    session.state = *state;
    return session;
}

} // namespace

std::vector<Session> ReadSessions(const std::string& root)
{
    if (access((root + "/sys/class").c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR))
        throw std::runtime_error("cannot look at the sessions: sysfs is not mounted on /sys");
    std::vector<Session> sessions;
    for (const std::string& name : ListDirectory(root + "/sys/class/iscsi_session"))
    {
        if (std::optional<Session> session = ReadSession(root + "/sys", name))
            sessions.push_back(std::move(*session));
    }
    std::sort(sessions.begin(), sessions.end(),
              [](const Session& a, const Session& b) { return a.sid < b.sid; });
    return sessions;
}

std::vector<std::string> FindDisksBeneath(const std::string& device, const std::string& root)
{
    const znhost::SysfsTree tree(root + "/sys", root + "/dev");
    const SP<ZnDevice> found = tree.FindDevice(device.c_str());
    if (found.get() == nullptr)
        return {};
    std::vector<std::string> disks;
    for (const SP<ZnDevice>& child : found->getChildren())
        disks.push_back(child->getName());
    const SP<ZnDevice> whole = disks.empty() ? tree.FindWholeDevice(device.c_str()) : SP<ZnDevice>();
    if (whole.get() != nullptr)
        disks.push_back(whole->getName());
    return disks;
}

bool IsLoggedIn(const Session& session)
{
    return session.state == "LOGGED_IN";
}

bool AnyIsLoggedIn(const std::vector<Session>& sessions)
{
    return std::any_of(sessions.begin(), sessions.end(), IsLoggedIn);
}

bool Works(const Session& session, const Disk& disk)
{
    return IsLoggedIn(session) && disk.state == "running";
}

std::string DescribeState(const Session& session, const Disk* disk)
{
    const bool isRunning = disk == nullptr || disk->state == "running";
    return isRunning ? session.state : session.state + '/' + disk->state;
}

std::string PortalOf(const Session& session)
{
    return session.portal ? FormatPortal(*session.portal) : "";
}

std::vector<Session> SelectSessions(const std::vector<Session>& sessions, const std::string& iqn,
                                    const PortalMatcher* portal)
{
    std::vector<Session> selected;
    for (const Session& session : sessions)
    {
        if (session.iqn == iqn &&
            (portal == nullptr || (session.portal && portal->Matches(*session.portal))))
            selected.push_back(session);
    }
    return selected;
}

std::vector<std::string> DevicesOf(const std::vector<Session>& sessions)
{
    std::vector<std::string> devices;
    for (const Session& session : sessions)
        for (const Disk& disk : session.disks)
            devices.push_back(disk.device);
    return devices;
}

std::vector<Path> FindPaths(const std::vector<Session>& sessions,
                            const std::vector<std::string>& devices)
{
    std::vector<Path> paths;
    for (const Session& session : sessions)
        for (const Disk& disk : session.disks)
            if (std::find(devices.begin(), devices.end(), disk.device) != devices.end())
                paths.push_back({disk, session});
    std::stable_partition(paths.begin(), paths.end(),
                          [](const Path& path) { return Works(path.session, path.disk); });
    return paths;
}

} // namespace cli
