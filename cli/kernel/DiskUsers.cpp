#include "cli/kernel/DiskUsers.h"

#include "cli/kernel/BlockDevice.h"
#include "cli/kernel/Mounts.h"
#include "cli/kernel/Sysfs.h"
#include "host/BeginsWith.h"

#include <algorithm>
#include <cctype>
#include <set>
#include <stdexcept>
#include <unordered_map>

namespace cli
{

namespace
{

// Finds the users of every disk. Climbs from the disks to what is stacked on them, so that devices
// without a session cost nothing. In this class a device has its kernel name: "sdb1", "dm-0".
class UserSearch
{
public:
    UserSearch(Machine& machine, const std::string& root)
        : m_machine(machine),
          m_root(root),
          m_block(root + "/sys/class/block/"),
          m_names(ListDirectory(m_block))
    {
    }

    void FindStacked()
    {
        for (Session& session : m_machine.sessions)
            for (Disk& disk : session.disks)
                Climb(KernelName(disk.device), disk.device, disk);
    }

    // After FindStacked.
    void FindOthers()
    {
        for (const std::string& name : m_names)
            if (BeginsWith(name, "loop") && !ListDirectory(m_block + name + "/loop").empty())
                AddLoop(name);
        AddBtrfs();
        for (const std::string& device : ReadSwaps(m_root))
            AddUser(NameOf(device), "swap");
        AddMounts();
    }

private:
    static std::string KernelName(const std::string& device)
    {
        std::string name = device.substr(BeginsWith(device, "/dev/") ? 5 : 0);
        std::replace(name.begin(), name.end(), '/', '!');
        return name;
    }

    // Notes that `name`, with the path `device`, leads to `disk`, and goes on with its partitions and
    // with all that is stacked on it.
    void Climb(const std::string& name, const std::string& device, Disk& disk)
    {
        std::vector<Disk*>& disks = m_disks[name];
        if (std::find(disks.begin(), disks.end(), &disk) != disks.end())
            return;
        disks.push_back(&disk);
        m_machine.kernelNames.emplace(device, name);
        for (const std::string& partition : PartitionsOf(name))
            Climb(partition, DevicePath(partition), disk);
        for (const std::string& holder : ListDirectory(m_block + name + "/holders"))
            ClimbHolder(holder, device, disk);
    }

    void ClimbHolder(const std::string& holder, const std::string& beneath, Disk& disk)
    {
        const auto mapName = ReadAttribute(m_block + holder + "/dm/name");
        const std::string device = mapName ? "/dev/mapper/" + *mapName : DevicePath(holder);
        const std::string uuid = ReadAttribute(m_block + holder + "/dm/uuid").value_or("");
        if (BeginsWith(uuid, "mpath-"))
            AddMap(holder, device, disk);
        else if (BeginsWith(uuid, "part")) // no user by itself, like a partition of a disk
            AddOnce(m_machine.partitions[beneath], device);
        else
            AddOnce(disk.users, device);
        Climb(holder, device, disk);
    }

    // sda1 of sda, nvme0n1p1 of nvme0n1; sdaa is another disk.
    std::vector<std::string> PartitionsOf(const std::string& name) const
    {
        const bool endsInDigit = std::isdigit(static_cast<unsigned char>(name.back())) != 0;
        const std::string beginning = endsInDigit ? name + 'p' : name;
        std::vector<std::string> partitions;
        for (auto each = std::lower_bound(m_names.begin(), m_names.end(), beginning);
             each != m_names.end() && BeginsWith(*each, beginning); ++each)
        {
            if (each->size() > beginning.size() &&
                each->find_first_not_of("0123456789", beginning.size()) == std::string::npos)
                partitions.push_back(*each);
        }
        return partitions;
    }

    void AddMap(const std::string& name, const std::string& device, Disk& disk)
    {
        disk.map = device;
        const auto [map, isNew] = m_machine.maps.try_emplace(device);
        if (!isNew)
            return;
        for (const std::string& path : ListDirectory(m_block + name + "/slaves"))
        {
            // A disk that was removed stays beneath its map. Other disks than SCSI have no state.
            const bool exists = std::binary_search(m_names.begin(), m_names.end(), path);
            const std::string unit = m_block + path + "/device";
            map->second[DevicePath(path)] =
                exists && ReadAttribute(unit + "/state").value_or("running") == "running" &&
                IsServed(unit);
        }
    }

    // Whether the array serves the path, if it has asymmetric access (ALUA).
    static bool IsServed(const std::string& unit)
    {
        const auto access = ReadAttribute(unit + "/access_state");
        return access != "unavailable" && access != "offline";
    }

    // A loop device keeps its disk open without being stacked on it. sysfs has the name of the disk
    // only as somebody once wrote it.
    void AddLoop(const std::string& name)
    {
        const std::string device = DevicePath(name);
        const LoopAnswer answer = AskLoop(m_root + device);
        if (!answer.reason.empty())
            m_machine.unseenLoops.push_back(device + ": " + answer.reason);
        else if (!answer.deviceNumber.empty())
            AddUser(NameOfNumber(answer.deviceNumber), device);
    }

    // The mount table names one device of a btrfs only.
    void AddBtrfs()
    {
        const std::string all = m_root + "/sys/fs/btrfs/";
        for (const std::string& uuid : ListDirectory(all))
            for (const std::string& name :
                 ListDirectory(std::string(all).append(uuid).append("/devices")))
                AddUser(name, "btrfs " + uuid);
    }

    void AddMounts()
    {
        const MountTables tables = ReadMounts(m_root);
        m_machine.sawAllNamespaces = tables.areComplete;
        std::set<std::string> known;
        for (const Mount& mount : tables.mounts)
        {
            const std::string name =
                mount.deviceNumber.empty() ? NameOf(mount.source) : NameOfNumber(mount.deviceNumber);
            const bool isNew = known.insert(name).second;
            if (mount.process.empty())
                AddUser(name, mount.mountPoint);
            else if (isNew) // one example: whoever owns the namespace may have thousands
                AddUser(name, mount.mountPoint + " (of process " + mount.process + ")");
        }
    }

    // The kernel name for a path: /dev/mapper/mpatha and /dev/dm-0 are dm-0.
    std::string NameOf(const std::string& device) const
    {
        const auto name = m_machine.kernelNames.find(device);
        return name != m_machine.kernelNames.end() ? name->second : KernelName(device);
    }

    // The kernel name for "8:17"; empty if there is no such device.
    const std::string& NameOfNumber(const std::string& number)
    {
        const auto [name, isNew] = m_nameOfNumber.try_emplace(number);
        if (isNew)
        {
            const std::string link = ReadLink(m_root + "/sys/dev/block/" + number);
            name->second = link.substr(link.rfind('/') + 1);
        }
        return name->second;
    }

    void AddUser(const std::string& name, const std::string& user)
    {
        const auto disks = m_disks.find(name);
        if (disks == m_disks.end())
            return;
        for (Disk* const disk : disks->second)
            AddOnce(disk->users, user);
    }

    static void AddOnce(std::vector<std::string>& texts, const std::string& text)
    {
        if (std::find(texts.begin(), texts.end(), text) == texts.end())
            texts.push_back(text);
    }

    Machine& m_machine;
    const std::string& m_root;
    const std::string m_block;              // the directory of block devices, with a slash
    const std::vector<std::string> m_names; // of all block devices, sorted
    std::unordered_map<std::string, std::vector<Disk*>> m_disks; // beneath a device
    std::unordered_map<std::string, std::string> m_nameOfNumber;
};

} // namespace

Machine ReadMaps(const std::string& root)
{
    Machine machine{ReadSessions(root)};
    if (!machine.sessions.empty())
        UserSearch(machine, root).FindStacked();
    return machine;
}

Machine ReadUsers(const std::string& root)
{
    Machine machine{ReadSessions(root)};
    if (machine.sessions.empty())
        return machine;
    UserSearch search(machine, root);
    search.FindStacked();
    search.FindOthers();
    return machine;
}

} // namespace cli
