#include "simulated/Devices.h"

#include <algorithm>
#include <set>

namespace simulated
{
namespace fs = std::filesystem;
namespace
{

// 0 -> "sda", 25 -> "sdz", 26 -> "sdaa"
std::string DiskName(int number)
{
    const std::string last(1, static_cast<char>('a' + number % 26));
    return number < 26 ? "sd" + last : DiskName(number / 26 - 1) + last;
}

const std::vector<Lun>& LunsOf(const Scene& scene, const Session& session)
{
    static const std::vector<Lun> kNone;
    const Target* target = scene.FindTarget(session.iqn); // somebody may have changed the scene
    return target == nullptr ? kNone : target->luns;
}

// The first of the scene's names for this disk that no other disk has, or else the kernel's next name.
std::string FreeDiskName(const Lun& lun, const std::set<std::string>& taken)
{
    for (const std::string& name : lun.kernelNames)
        if (taken.count(name) == 0)
            return name;
    int number = 0;
    while (taken.count(DiskName(number)) != 0)
        ++number;
    return DiskName(number);
}

fs::path SessionPath(const Session& session)
{
    const std::string sid = std::to_string(session.sid);
    return "sys/devices/platform/host" + sid + "/session" + sid;
}

// devices/platform/host2/session2/target2:0:0/2:0:0:1
fs::path LunPath(const Disk& disk)
{
    const std::string target = std::to_string(disk.session->sid) + ":0:0";
    return SessionPath(*disk.session) / ("target" + target) /
           (target + ":" + std::to_string(disk.lun->lun));
}

fs::path DiskPath(const Disk& disk)
{
    return LunPath(disk) / "block" / disk.name;
}

// Makes `device` a member of the class. Returns the directory of its attributes there.
fs::path AddToClass(Tree& tree, const std::string& className, const fs::path& device)
{
    fs::path attributes = device / className / device.filename();
    AddLink(tree, attributes / "device", device);
    AddLink(tree, "sys/class" / fs::path(className) / device.filename(), attributes);
    return attributes;
}

void AddSession(Tree& tree, const Session& session)
{
    const fs::path device = SessionPath(session);
    const fs::path attributes = AddToClass(tree, "iscsi_session", device);
    AddFile(tree, attributes / "targetname", session.iqn);
    AddFile(tree, attributes / "state", "LOGGED_IN");
    AddFile(tree, attributes / "ifacename", "default");
    const fs::path connection = AddToClass(
        tree, "iscsi_connection", device / ("connection" + std::to_string(session.sid) + ":0"));
    for (const std::string kind : {"", "persistent_"})
    {
        AddFile(tree, connection / (kind + "address"), session.portal.address);
        AddFile(tree, connection / (kind + "port"), std::to_string(session.portal.port));
    }
}

// "sda" -> 0, "sdz" -> 25, "sdaa" -> 26
int NumberOfDisk(const std::string& name)
{
    int number = 0;
    for (std::size_t i = 2; i < name.size(); ++i)
        number = 26 * number + name[i] - 'a' + 1;
    return number - 1;
}

// Linux reserves these majors for local use. With the usual ones, 8 and 253, the mount table, which is
// not simulated, could show the computer's own mounts as those of simulated disks.
const std::string kDisks = "120:";
const std::string kMaps = "121:";
const std::string kLocalDisks = "122:";

// The node is a plain file, which an ordinary user can make. Opening it exclusively succeeds, as for a
// disk that nobody uses.
void AddBlockDevice(Tree& tree, const fs::path& path, const std::string& number)
{
    AddFile(tree, path / "dev", number);
    AddDirectory(tree, path / "holders");
    AddLink(tree, "sys/class/block" / path.filename(), path);
    AddLink(tree, "sys/dev/block/" + number, path);
    AddFile(tree, "dev" / path.filename(), "");
}

// A block device that is no partition.
void AddWholeDevice(Tree& tree, const fs::path& path, const std::string& number)
{
    AddBlockDevice(tree, path, number);
    AddDirectory(tree, path / "slaves");
    AddLink(tree, "sys/block" / path.filename(), path);
}

void AddDisk(Tree& tree, const Disk& disk)
{
    const fs::path path = DiskPath(disk);
    constexpr int kMinors = 16; // the disk itself and its partitions
    const int minor = kMinors * NumberOfDisk(disk.name);
    AddFile(tree, LunPath(disk) / "state", "running");
    AddWholeDevice(tree, path, kDisks + std::to_string(minor));
    AddFile(tree, path / "size", "204800"); // sectors: 100 MiB
    AddLink(tree, path / "device", LunPath(disk));
    for (int i = 1; i <= disk.lun->partitions; ++i)
    {
        const fs::path partition = path / (disk.name + std::to_string(i));
        AddBlockDevice(tree, partition, kDisks + std::to_string(minor + i));
        AddFile(tree, partition / "partition", std::to_string(i));
    }
    AddLink(tree,
            "dev/disk/by-path/ip-" + FormatPortalAddress(disk.session->portal) + "-iscsi-" +
                disk.session->iqn + "-lun-" + std::to_string(disk.lun->lun),
            "dev/" + disk.name);
}

// Adds dm-NUMBER, which is made of the devices `below`. Returns its path.
fs::path AddDmDevice(Tree& tree, int number, const std::string& name, const std::string& uuid,
                     const std::vector<fs::path>& below)
{
    const std::string kernelName = "dm-" + std::to_string(number);
    fs::path path = "sys/devices/virtual/block/" + kernelName;
    AddWholeDevice(tree, path, kMaps + std::to_string(number));
    AddFile(tree, path / "dm/name", name);
    AddFile(tree, path / "dm/uuid", uuid);
    for (const fs::path& device : below)
    {
        AddLink(tree, path / "slaves" / device.filename(), device);
        AddLink(tree, device / "holders" / kernelName, path);
    }
    AddLink(tree, "dev/mapper/" + name, "dev/" + kernelName);
    return path;
}

// Adds the map on its paths, if it has enough, partitions on the map, and volumes on the last
// partition. Their numbers begin with `number`.
void AddMap(Tree& tree, const MultipathMap& map, const std::vector<Disk>& disks, int number)
{
    std::vector<fs::path> paths;
    for (const Disk& disk : disks)
        if (disk.lun->lun == map.lun &&
            std::count(map.targets.begin(), map.targets.end(), disk.session->iqn) != 0)
            paths.push_back(DiskPath(disk));
    if (paths.size() < map.minPaths)
        return;
    const std::string uuid = "mpath-" + map.name;
    const fs::path mapPath = AddDmDevice(tree, number, map.name, uuid, paths);
    fs::path last = mapPath;
    for (int i = 1; i <= map.partitions; ++i)
        last = AddDmDevice(tree, ++number, map.name + std::to_string(i),
                           "part" + std::to_string(i) + "-" + uuid, {mapPath});
    for (const std::string& volume : map.volumes)
        AddDmDevice(tree, ++number, volume, "LVM-" + volume, {last});
}

} // namespace

std::vector<Disk> DisksOf(const Scene& scene, const State& state)
{
    std::vector<Disk> disks;
    for (const Session& session : state.sessions)
        for (const Lun& lun : LunsOf(scene, session))
            if (const auto name = session.disks.find(lun.lun); name != session.disks.end())
                disks.push_back({name->second, &session, &lun});
    return disks;
}

void AttachDisks(const Scene& scene, State& state)
{
    std::set<std::string> taken;
    for (const Disk& disk : DisksOf(scene, state))
        taken.insert(disk.name);
    for (Session& session : state.sessions)
        for (const Lun& lun : LunsOf(scene, session))
            if (session.looks >= lun.atLook && session.disks.count(lun.lun) == 0)
                session.disks[lun.lun] = *taken.insert(FreeDiskName(lun, taken)).first;
}

Tree DevicesOf(const Scene& scene, const State& state)
{
    Tree tree;
    AddDirectory(tree, "sys/class/iscsi_transport/tcp");
    AddDirectory(tree, "dev/mapper");
    int local = 0;
    for (const std::string& name : scene.localDisks)
        AddWholeDevice(tree, "sys/devices/pci0000:00/block/" + name,
                       kLocalDisks + std::to_string(local++));
    for (const Session& session : state.sessions)
        AddSession(tree, session);
    const std::vector<Disk> disks = DisksOf(scene, state);
    for (const Disk& disk : disks)
        AddDisk(tree, disk);
    int number = 0; // a map that is down keeps its numbers
    for (const MultipathMap& map : scene.maps)
    {
        AddMap(tree, map, disks, number);
        number += 1 + map.partitions + static_cast<int>(map.volumes.size());
    }
    return tree;
}

} // namespace simulated
