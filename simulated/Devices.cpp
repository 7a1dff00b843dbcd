#include "simulated/Devices.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <fstream>

namespace simulated
{
namespace fs = std::filesystem;
namespace
{

bool IsDue(const Lun& lun, const Session& session, std::int64_t nowMs)
{
    return lun.disk && session.looks >= lun.atLook && nowMs >= session.startedMs + lun.afterMs;
}

// 0 -> "sda", 25 -> "sdz", 26 -> "sdaa"
std::string DiskName(int number)
{
    const std::string last(1, static_cast<char>('a' + number % 26));
    return number < 26 ? "sd" + last : DiskName(number / 26 - 1) + last;
}

std::string FreeDiskName(const Scene& scene, const State& state, const Lun& lun)
{
    const std::vector<Disk> disks = DisksOf(scene, state);
    const auto isFree = [&](const std::string& name) {
        return std::none_of(disks.begin(), disks.end(),
                            [&](const Disk& each) { return each.name == name; });
    };
    const auto wanted = std::find_if(lun.kernelNames.begin(), lun.kernelNames.end(), isFree);
    if (wanted != lun.kernelNames.end())
        return *wanted;
    int number = 0;
    while (!isFree(DiskName(number)))
        ++number;
    return DiskName(number);
}

// "sda", 1 -> "sda1"; "map0", 1 -> "map0p1"
std::string PartitionName(const std::string& device, int number)
{
    const bool digitAtEnd = std::isdigit(static_cast<unsigned char>(device.back())) != 0;
    return device + (digitAtEnd ? "p" : "") + std::to_string(number);
}

bool IsPath(const MultipathMap& map, const Disk& disk)
{
    return disk.lun->lun == map.lun &&
           std::find(map.targets.begin(), map.targets.end(), disk.session->iqn) != map.targets.end();
}

// A device-mapper device of a map: the map itself first, then its partitions, then its volumes.
struct DmDevice
{
    std::string name;
    std::string uuid;
    std::string below; // the device-mapper device that it is made of; empty for the map
};

std::vector<DmDevice> DmDevicesOf(const MultipathMap& map)
{
    const std::string uuid = "mpath-" + map.wwid;
    std::vector<DmDevice> devices{{map.name, uuid, ""}};
    for (int i = 1; i <= map.partitions; ++i)
        devices.push_back(
            {PartitionName(map.name, i), "part" + std::to_string(i) + "-" + uuid, map.name});
    const std::string physicalVolume = devices.back().name;
    for (const std::string& volume : map.volumes)
        devices.push_back({volume, "LVM-" + volume, physicalVolume});
    return devices;
}

void SettleMap(const Scene& scene, State& state, const MultipathMap& map)
{
    const std::vector<Disk> disks = DisksOf(scene, state);
    const auto paths =
        std::count_if(disks.begin(), disks.end(), [&](const Disk& disk) { return IsPath(map, disk); });
    const bool isUp = paths > 0 && (paths >= map.minPaths || state.knownMaps.count(map.name) != 0);
    if (isUp)
        state.knownMaps.insert(map.name);
    for (const DmDevice& device : DmDevicesOf(map))
    {
        if (!isUp)
            state.dmNumbers.erase(device.name);
        else if (state.dmNumbers.count(device.name) == 0)
        {
            std::set<int> used;
            for (const auto& [name, number] : state.dmNumbers)
                used.insert(number);
            state.dmNumbers[device.name] = LowestFree(used);
        }
    }
}

// What a folder is to hold, by path below it.
class Tree
{
public:
    void Folder(const fs::path& path) { m_folders.insert(path); }
    void File(const fs::path& path, const std::string& line) { m_files[path] = line; }
    // `target` is a path of this tree; what is written leads there from the link's own folder.
    void Link(const fs::path& path, const fs::path& target)
    {
        m_links[path] = target.lexically_relative(path.parent_path());
    }

    // A link comes after what it leads to, and goes before it: "block" and "class" sort before
    // "devices".
    void Write(const fs::path& root) const
    {
        std::set<fs::path> wanted;
        const auto want = [&](fs::path path) {
            for (; !path.empty(); path = path.parent_path())
                wanted.insert(path);
        };
        std::for_each(m_folders.begin(), m_folders.end(), want);
        for (const auto& [path, line] : m_files)
            want(path);
        for (const auto& [path, target] : m_links)
            want(path);
        RemoveAllBut(wanted, root);
        for (const fs::path& path : m_folders)
            fs::create_directories(root / path);
        for (const auto& [path, line] : m_files)
        {
            fs::create_directories((root / path).parent_path());
            if (!fs::exists(root / path))
                std::ofstream(root / path) << line << '\n';
        }
        for (const auto& [path, target] : m_links)
        {
            fs::create_directories((root / path).parent_path());
            if (fs::is_symlink(root / path) && fs::read_symlink(root / path) == target)
                continue;
            fs::remove(root / path);
            fs::create_symlink(target, root / path);
        }
    }

private:
    static void RemoveAllBut(const std::set<fs::path>& wanted, const fs::path& root)
    {
        fs::create_directories(root);
        std::set<fs::path> unwanted;
        for (const fs::directory_entry& there : fs::recursive_directory_iterator(root))
        {
            if (wanted.count(there.path().lexically_relative(root)) == 0)
                unwanted.insert(there.path());
        }
        for (const fs::path& path : unwanted)
            fs::remove_all(path);
    }

    std::set<fs::path> m_folders;
    std::map<fs::path, std::string> m_files;
    std::map<fs::path, fs::path> m_links;
};

fs::path SessionPath(const Session& session)
{
    const std::string host = "devices/platform/host" + std::to_string(session.host);
    return fs::path(host) / ("session" + std::to_string(session.sid));
}

// 2:0:0:1
std::string ScsiAddress(const Session& session, const Lun& lun)
{
    return std::to_string(session.host) + ":0:0:" + std::to_string(lun.lun);
}

fs::path LunPath(const Session& session, const Lun& lun)
{
    const std::string target = "target" + std::to_string(session.host) + ":0:0";
    return SessionPath(session) / target / ScsiAddress(session, lun);
}

void AddSession(Tree& sys, const Session& session)
{
    const std::string name = "session" + std::to_string(session.sid);
    const fs::path attributes = SessionPath(session) / "iscsi_session" / name;
    sys.File(attributes / "targetname", session.iqn);
    sys.File(attributes / "tpgt", "1");
    sys.File(attributes / "state", "LOGGED_IN");
    sys.File(attributes / "username", session.user.empty() ? "(null)" : session.user);
    sys.Link(attributes / "device", SessionPath(session));
    sys.Link(fs::path("class/iscsi_session") / name, attributes);

    const std::string connection = "connection" + std::to_string(session.sid) + ":0";
    const fs::path link = SessionPath(session) / connection;
    const fs::path linkAttributes = link / "iscsi_connection" / connection;
    for (const char* prefix : {"", "persistent_"})
    {
        sys.File(linkAttributes / (std::string(prefix) + "address"), session.portal.address);
        sys.File(linkAttributes / (std::string(prefix) + "port"), std::to_string(session.portal.port));
    }
    sys.File(linkAttributes / "state", "up");
    sys.Link(linkAttributes / "device", link);
    sys.Link(fs::path("class/iscsi_connection") / connection, linkAttributes);
}

// What every whole block device has, and the links that lead to it.
void AddBlockDevice(Tree& sys, const fs::path& path)
{
    const fs::path name = path.filename();
    sys.Folder(path / "slaves");
    sys.Folder(path / "holders");
    sys.Link("block" / name, path);
    sys.Link("class/block" / name, path);
}

void AddDisk(Tree& sys, Tree& dev, const Disk& disk)
{
    const fs::path path = LunPath(*disk.session, *disk.lun) / "block" / disk.name;
    constexpr const char* kSectors = "204800"; // 100 MiB
    AddBlockDevice(sys, path);
    sys.File(path / "size", kSectors);
    sys.Link(path / "device", LunPath(*disk.session, *disk.lun));
    sys.File(LunPath(*disk.session, *disk.lun) / "state", disk.lun->state);
    const std::string link = "disk/by-path/ip-" + disk.session->portal.address + ":" +
                             std::to_string(disk.session->portal.port) + "-iscsi-" + disk.session->iqn +
                             "-lun-" + std::to_string(disk.lun->lun);
    dev.Link(link, disk.name);
    for (int i = 1; i <= disk.lun->partitions; ++i)
    {
        const std::string name = PartitionName(disk.name, i);
        sys.File(path / name / "partition", std::to_string(i));
        sys.Folder(path / name / "holders");
        sys.Link("class/block/" + name, path / name);
        dev.Link(link + "-part" + std::to_string(i), name);
    }
}

void AddMap(Tree& sys, Tree& dev, const Scene& scene, const State& state, const MultipathMap& map)
{
    const auto pathOf = [&](const std::string& name) {
        return fs::path("devices/virtual/block/dm-" + std::to_string(state.dmNumbers.at(name)));
    };
    const auto stack = [&](const fs::path& upper, const fs::path& lower) {
        sys.Link(upper / "slaves" / lower.filename(), lower);
        sys.Link(lower / "holders" / upper.filename(), upper);
    };
    for (const DmDevice& device : DmDevicesOf(map))
    {
        const fs::path path = pathOf(device.name);
        AddBlockDevice(sys, path);
        sys.File(path / "dm/name", device.name);
        sys.File(path / "dm/uuid", device.uuid);
        dev.Link("mapper/" + device.name, path.filename());
        if (!device.below.empty())
            stack(path, pathOf(device.below));
    }
    for (const Disk& disk : DisksOf(scene, state))
    {
        if (IsPath(map, disk))
            stack(pathOf(map.name), LunPath(*disk.session, *disk.lun) / "block" / disk.name);
    }
}

} // namespace

std::vector<Disk> DisksOf(const Scene& scene, const State& state)
{
    std::vector<Disk> disks;
    for (const Session& session : state.sessions)
    {
        const Target* target = scene.FindTarget(session.iqn);
        if (target == nullptr) // the scene was changed under a living session
            continue;
        for (const Lun& lun : target->luns)
        {
            const auto name = session.disks.find(lun.lun);
            if (name != session.disks.end())
                disks.push_back({name->second, &session, &lun});
        }
    }
    return disks;
}

std::int64_t NowMs()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::optional<std::int64_t> Settle(const Scene& scene, State& state, std::int64_t nowMs)
{
    std::optional<std::int64_t> next;
    for (Session& session : state.sessions)
    {
        const Target* target = scene.FindTarget(session.iqn);
        const std::vector<Lun> luns = target != nullptr ? target->luns : std::vector<Lun>();
        for (const Lun& lun : luns)
        {
            if (IsDue(lun, session, nowMs) && session.disks.count(lun.lun) == 0)
                session.disks[lun.lun] = FreeDiskName(scene, state, lun);
            const std::int64_t wait = session.startedMs + lun.afterMs - nowMs;
            if (lun.disk && wait > 0)
                next = std::min(next.value_or(wait), wait);
        }
    }
    for (const MultipathMap& map : scene.maps)
        SettleMap(scene, state, map);
    return next;
}

const MultipathMap* FindMapOf(const Scene& scene, const State& state, const Disk& disk)
{
    const auto found = std::find_if(scene.maps.begin(), scene.maps.end(), [&](const MultipathMap& map) {
        return state.dmNumbers.count(map.name) != 0 && IsPath(map, disk);
    });
    return found == scene.maps.end() ? nullptr : &*found;
}

void WriteDevices(const Scene& scene, const State& state, const fs::path& folder)
{
    Tree sys;
    Tree dev;
    for (const char* empty : {"block", "class/block", "class/iscsi_session", "class/iscsi_connection",
                              "class/iscsi_transport/tcp"})
        sys.Folder(empty);
    dev.Folder("disk");
    dev.Folder("mapper");
    for (const std::string& name : scene.localDisks)
        AddBlockDevice(sys, "devices/pci0000:00/0000:00:04.0/" + name);
    for (const Session& session : state.sessions)
        AddSession(sys, session);
    for (const Disk& disk : DisksOf(scene, state))
        AddDisk(sys, dev, disk);
    for (const MultipathMap& map : scene.maps)
    {
        if (state.dmNumbers.count(map.name) != 0)
            AddMap(sys, dev, scene, state, map);
    }
    sys.Write(folder / "sys");
    dev.Write(folder / "dev");
}

} // namespace simulated
