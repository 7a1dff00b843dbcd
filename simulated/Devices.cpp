#include "simulated/Devices.h"

#include <algorithm>
#include <fstream>

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

// The first of the scene's names for this disk that no other disk has, or else the kernel's next name.
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

void AddFolder(Tree& tree, const fs::path& path)
{
    if (path.empty())
        return;
    AddFolder(tree, path.parent_path());
    tree.try_emplace(path, Entry{fs::file_type::directory, ""});
}

void AddFile(Tree& tree, const fs::path& path, const std::string& line)
{
    AddFolder(tree, path.parent_path());
    tree[path] = {fs::file_type::regular, line};
}

// `target` is a path of the same tree.
void AddLink(Tree& tree, const fs::path& path, const fs::path& target)
{
    AddFolder(tree, path.parent_path());
    tree[path] = {fs::file_type::symlink, target.lexically_relative(path.parent_path())};
}

fs::path SessionPath(const Session& session)
{
    const std::string sid = std::to_string(session.sid);
    return "devices/platform/host" + sid + "/session" + sid;
}

// devices/platform/host2/session2/target2:0:0/2:0:0:1
fs::path LunPath(const Disk& disk)
{
    const std::string target = std::to_string(disk.session->sid) + ":0:0";
    return SessionPath(*disk.session) / ("target" + target) /
           (target + ":" + std::to_string(disk.lun->lun));
}

void AddSession(Tree& sys, const Session& session)
{
    const std::string sid = std::to_string(session.sid);
    const fs::path attributes = "class/iscsi_session/session" + sid;
    AddFile(sys, attributes / "targetname", session.iqn);
    AddFile(sys, attributes / "state", "LOGGED_IN");
    AddFolder(sys, SessionPath(session));
    AddLink(sys, attributes / "device", SessionPath(session));
    const fs::path connection = "class/iscsi_connection/connection" + sid + ":0";
    AddFile(sys, connection / "persistent_address", session.portal.address);
    AddFile(sys, connection / "persistent_port", std::to_string(session.portal.port));
}

void AddDisk(Devices& devices, const Disk& disk)
{
    const fs::path path = LunPath(disk) / "block" / disk.name;
    AddFile(devices.sys, LunPath(disk) / "state", "running");
    AddFile(devices.sys, path / "size", "204800"); // sectors: 100 MiB
    AddFolder(devices.sys, path / "slaves");
    AddLink(devices.sys, path / "device", LunPath(disk));
    AddLink(devices.sys, "block/" + disk.name, path);
    AddLink(devices.sys, "class/block/" + disk.name, path);
    for (int i = 1; i <= disk.lun->partitions; ++i)
    {
        const std::string name = disk.name + std::to_string(i);
        AddFile(devices.sys, path / name / "partition", std::to_string(i));
        AddLink(devices.sys, "class/block/" + name, path / name);
    }
    AddLink(devices.dev,
            "disk/by-path/ip-" + disk.session->portal.address + ":" +
                std::to_string(disk.session->portal.port) + "-iscsi-" + disk.session->iqn + "-lun-" +
                std::to_string(disk.lun->lun),
            disk.name);
}

// Adds dm-NUMBER, which is made of the devices `below`. Returns its kernel name.
std::string AddDmDevice(Devices& devices, int number, const std::string& name, const std::string& uuid,
                        const std::vector<std::string>& below)
{
    std::string kernelName = "dm-" + std::to_string(number);
    const fs::path path = "class/block/" + kernelName;
    AddFile(devices.sys, path / "dm/name", name);
    AddFile(devices.sys, path / "dm/uuid", uuid);
    for (const std::string& device : below)
        AddLink(devices.sys, path / "slaves" / device, "class/block/" + device);
    AddLink(devices.dev, "mapper/" + name, kernelName);
    return kernelName;
}

// Adds the map on its paths, partitions on the map, and volumes on the last partition. Their numbers
// begin with `number`.
void AddMap(Devices& devices, const MultipathMap& map, const std::vector<std::string>& paths,
            int number)
{
    const std::string uuid = "mpath-" + map.name;
    const std::string mapName = AddDmDevice(devices, number, map.name, uuid, paths);
    std::string last = mapName;
    for (int i = 1; i <= map.partitions; ++i)
        last = AddDmDevice(devices, ++number, map.name + std::to_string(i),
                           "part" + std::to_string(i) + "-" + uuid, {mapName});
    for (const std::string& volume : map.volumes)
        AddDmDevice(devices, ++number, volume, "LVM-" + volume, {last});
}

std::vector<std::string> PathsOf(const MultipathMap& map, const std::vector<Disk>& disks)
{
    std::vector<std::string> paths;
    for (const Disk& disk : disks)
    {
        if (disk.lun->lun == map.lun &&
            std::count(map.targets.begin(), map.targets.end(), disk.session->iqn) != 0)
            paths.push_back(disk.name);
    }
    return paths;
}

void WriteTree(const Tree& before, const Tree& after, const fs::path& root)
{
    for (auto gone = before.rbegin(); gone != before.rend(); ++gone)
    {
        if (after.count(gone->first) == 0)
            fs::remove(root / gone->first);
    }
    for (const auto& [path, entry] : after)
    {
        if (before.count(path) != 0)
            continue;
        if (entry.type == fs::file_type::directory)
            fs::create_directories(root / path);
        else if (entry.type == fs::file_type::symlink)
            fs::create_symlink(entry.text, root / path);
        else
            std::ofstream(root / path) << entry.text << '\n';
    }
}

} // namespace

std::vector<Disk> DisksOf(const Scene& scene, const State& state)
{
    std::vector<Disk> disks;
    for (const Session& session : state.sessions)
    {
        const Target* target = scene.FindTarget(session.iqn);
        if (target == nullptr) // somebody has changed the scene since the log-on
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

void AttachDisks(const Scene& scene, State& state)
{
    for (Session& session : state.sessions)
    {
        const Target* target = scene.FindTarget(session.iqn);
        if (target == nullptr)
            continue;
        for (const Lun& lun : target->luns)
        {
            if (session.looks >= lun.atLook && session.disks.count(lun.lun) == 0)
                session.disks[lun.lun] = FreeDiskName(scene, state, lun);
        }
    }
}

Devices DevicesOf(const Scene& scene, const State& state)
{
    Devices devices;
    AddFolder(devices.sys, "class/iscsi_transport/tcp");
    AddFolder(devices.dev, "disk");
    AddFolder(devices.dev, "mapper");
    for (const std::string& name : scene.localDisks)
        AddFolder(devices.sys, "class/block/" + name + "/slaves");
    for (const Session& session : state.sessions)
        AddSession(devices.sys, session);
    const std::vector<Disk> disks = DisksOf(scene, state);
    for (const Disk& disk : disks)
        AddDisk(devices, disk);
    int number = 0; // a map that is down keeps its numbers
    for (const MultipathMap& map : scene.maps)
    {
        const std::vector<std::string> paths = PathsOf(map, disks);
        if (!paths.empty() && paths.size() >= map.minPaths)
            AddMap(devices, map, paths, number);
        number += 1 + map.partitions + static_cast<int>(map.volumes.size());
    }
    return devices;
}

void WriteDevices(const Devices& before, const Devices& after, const fs::path& folder)
{
    WriteTree(before.sys, after.sys, folder / "sys");
    WriteTree(before.dev, after.dev, folder / "dev");
}

} // namespace simulated
