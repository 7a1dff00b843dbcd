#include "agent/Machine.h"

#include "host/BeginsWith.h"
#include "standalone/zndevicetree/SysfsTree.h"
#include "standalone/znlib/Descriptor.h"
#include "standalone/znlib/Text.h"
#include "standalone/znlib/TextFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <unordered_map>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

using znhost::ReadTextFile;

// The value of a sysfs attribute. Nothing if there is no such attribute, or it has no value: the kernel
// prints "(null)" then.
std::optional<std::string> ReadLine(const std::string& attribute)
{
    const std::optional<std::string> text = ReadTextFile(attribute);
    if (!text || *text == "(null)\n")
        return std::nullopt;
    return text->substr(0, text->find('\n'));
}

// The names in `folder`, sorted, without hidden ones. Empty if there is no such folder.
// opendir: std::filesystem makes a path of each name, and /proc may have thousands.
std::vector<std::string> ListFolder(const std::string& folder)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(folder.c_str()), closedir);
    std::vector<std::string> names;
    while (opened)
    {
        errno = 0;
        const dirent* const entry = readdir(opened.get());
        if (entry == nullptr)
            break;
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    }
    if (errno != 0 && errno != ENOENT && errno != ENOTDIR && errno != ENODEV)
        throw std::runtime_error("cannot read " + folder + ": " +
                                 std::generic_category().message(errno));
    std::sort(names.begin(), names.end());
    return names;
}

// The kernel calls cciss/c0d0 "cciss!c0d0": its device names are also names of folders.
std::string DevicePath(std::string name)
{
    std::replace(name.begin(), name.end(), '!', '/');
    return "/dev/" + name;
}

// devices/platform/host3/session8/target3:0:0/3:0:0:1/state:          running
// devices/platform/host3/session8/target3:0:0/3:0:0:1/block/sdb/size: 204800
void AddDisks(const std::string& unit, std::vector<Disk>& disks)
{
    constexpr unsigned long long kSectorBytes = 512; // whatever the disk's own are
    const auto lun = znhost::ParseNumber<unsigned long long>(unit.substr(unit.rfind(':') + 1));
    if (!lun)
        return;
    const std::string block = unit + "/block/";
    for (const std::string& name : ListFolder(block))
    {
        const auto size = ReadLine(block + name + "/size");
        const auto state = ReadLine(unit + "/state");
        if (!size || !state)
            continue;
        const auto sectors = znhost::ParseNumber<unsigned long long>(*size);
        disks.push_back({DevicePath(name), *lun,
                         sectors ? std::optional(*sectors * kSectorBytes) : std::nullopt, *state});
    }
}

// `session` is a folder, with a slash at its end.
std::vector<Disk> ReadDisks(const std::string& session)
{
    std::vector<Disk> disks;
    for (const std::string& target : ListFolder(session))
    {
        if (!BeginsWith(target, "target"))
            continue;
        const std::string folder = session + target + '/';
        for (const std::string& unit : ListFolder(folder))
            AddDisks(folder + unit, disks);
    }
    std::stable_sort(disks.begin(), disks.end(),
                     [](const Disk& a, const Disk& b) { return a.lun < b.lun; });
    return disks;
}

// class/iscsi_session/session8/state:                         LOGGED_IN
// class/iscsi_session/session8/targetname:                    iqn.2025-01.org.example:multi
// class/iscsi_connection/connection8:0/persistent_address:    192.0.2.10
// class/iscsi_connection/connection8:0/persistent_port:       3260
std::optional<Session> ReadSession(const std::string& sysfs, const std::string& name)
{
    const std::string number = name.substr(std::string_view("session").size());
    const std::string attributes = sysfs + "/class/iscsi_session/" + name;
    const std::string connection = sysfs + "/class/iscsi_connection/connection" + number + ":0";
    const std::optional<int> sid = znhost::ParseNumber<int>(number);
    const auto state = ReadLine(attributes + "/state");
    if (!sid || !state)
        return std::nullopt;
    const auto address = ReadLine(connection + "/persistent_address");
    const auto port = ReadLine(connection + "/persistent_port");
    return Session{
        *sid, *state, address && port ? ParsePortal('[' + *address + "]:" + *port) : std::nullopt,
        ReadLine(attributes + "/targetname").value_or(""), ReadDisks(attributes + "/device/")};
}

// Finds the users of every disk. The device tree tells what a device is made of; this class inverts
// that.
class UserSearch
{
public:
    UserSearch(Machine& machine, const std::string& root)
        : m_machine(machine),
          m_root(root),
          m_block(root + "/sys/class/block/"),
          m_tree(root + "/sys", root + "/dev")
    {
        for (Session& session : machine.sessions)
            for (Disk& disk : session.disks)
                m_disks.emplace(disk.device, &disk);
    }

    void Run()
    {
        for (const std::string& name : ListFolder(m_block))
        {
            AddLoop(name);
            // SCSI disks and partitions are never stacked on others. There may be thousands of them.
            if (!BeginsWith(name, "sd") && !ListFolder(m_block + name + "/slaves").empty())
                AddStacked(name);
        }
        AddBtrfs();
        for (const std::string& device :
             ParseSwapTable(ReadTextFile(m_root + "/proc/swaps").value_or("")))
            AddUser(device, "swap");
        AddMounts();
    }

private:
    // Looks each device up once: many mounts may be of the same device.
    const std::vector<std::string>& DisksBeneath(const std::string& device)
    {
        const auto [known, isNew] = m_beneath.try_emplace(device);
        if (isNew)
            known->second = FindDisksBeneath(device, m_root);
        return known->second;
    }

    void AddUser(const std::string& device, const std::string& user)
    {
        for (const std::string& name : DisksBeneath(device))
        {
            const auto disk = m_disks.find(name);
            if (disk == m_disks.end())
                continue;
            std::vector<std::string>& users = disk->second->users;
            if (std::find(users.begin(), users.end(), user) == users.end())
                users.push_back(user);
        }
    }

    // A loop device keeps its disk open without being stacked on it.
    void AddLoop(const std::string& name)
    {
        if (BeginsWith(name, "loop"))
            if (const auto file = ReadLine(m_block + name + "/loop/backing_file");
                file && BeginsWith(*file, "/dev/"))
                AddUser(*file, DevicePath(name));
    }

    void AddStacked(const std::string& name)
    {
        const SP<ZnDevice> device = m_tree.FindDevice(DevicePath(name).c_str());
        if (device.get() == nullptr)
            return;
        const std::string uuid = ReadLine(m_block + name + "/dm/uuid").value_or("");
        if (BeginsWith(uuid, "mpath-"))
            AddMap(*device.operator->());
        else if (!BeginsWith(uuid, "part")) // a partition of a map is no user, like a disk's partition
            AddUser(DevicePath(name), device->getName());
    }

    void AddMap(ZnDevice& map)
    {
        for (const SP<ZnDevice>& path : map.getChildren())
        {
            const std::string& name = path->getName();
            const std::string kernelName = name.substr(name.rfind('/') + 1);
            const std::string device = m_block + kernelName + "/device";
            m_machine.maps[map.getName()][name] =
                ReadLine(device + "/state").value_or("running") == "running" && IsServed(device);
            if (const auto disk = m_disks.find(name); disk != m_disks.end())
                disk->second->map = map.getName();
        }
    }

    // Whether the array serves the path, if it has asymmetric access (ALUA). Otherwise the attribute
    // cannot be read.
    static bool IsServed(const std::string& device)
    try
    {
        const auto access = ReadLine(device + "/access_state");
        return access != "unavailable" && access != "offline";
    }
    catch (const std::runtime_error&)
    {
        return true;
    }

    // The mount table names one device of a btrfs only.
    void AddBtrfs()
    {
        for (const std::string& uuid : ListFolder(m_root + "/sys/fs/btrfs"))
            for (const std::string& name : ListFolder(m_root + "/sys/fs/btrfs/" + uuid + "/devices"))
                AddUser(DevicePath(name), "btrfs " + uuid);
    }

    // Mounts of this process's namespace, then mounts that only another namespace has.
    void AddMounts()
    {
        const std::string proc = m_root + "/proc/";
        for (const Mount& mount : ReadMounts(proc + "self"))
            if (const std::string device = DeviceOf(mount); !device.empty())
            {
                m_mounted.insert(device);
                AddUser(device, mount.place);
            }
        std::set<std::string> known{ReadNamespace(proc + "self"), ""};
        for (const std::string& process : ListFolder(proc))
        {
            if (!znhost::ParseNumber<int>(process))
                continue;
            const std::string mountNamespace = ReadNamespace(proc + process);
            if (known.count(mountNamespace) == 0 && AddForeignMounts(process))
                known.insert(mountNamespace);
        }
    }

    // False if the process has just ended, or is not ours to look into.
    bool AddForeignMounts(const std::string& process)
    {
        const std::vector<Mount> mounts = ReadForeignMounts(m_root + "/proc/" + process);
        for (const Mount& mount : mounts)
            if (const std::string device = DeviceOf(mount);
                !device.empty() && m_mounted.count(device) == 0)
                AddUser(device, mount.place + " (of process " + process + ")");
        return !mounts.empty();
    }

    // Empty for a file system without a device, or if the device has gone. A file system on several
    // devices has a number of its own, 0:N, and one of the devices as its source.
    std::string DeviceOf(const Mount& mount) const
    {
        if (BeginsWith(mount.number, "0:"))
            return BeginsWith(mount.source, "/dev/") ? mount.source : "";
        std::error_code error;
        const fs::path link = fs::read_symlink(m_root + "/sys/dev/block/" + mount.number, error);
        return error ? "" : DevicePath(link.filename());
    }

    // Empty if the process has ended, or this user may not look into it.
    // readlink: std::filesystem takes two system calls, and there may be thousands of processes.
    static std::string ReadNamespace(const std::string& process)
    {
        std::array<char, 64> name{}; // mnt:[4026531841]
        const ssize_t length = readlink((process + "/ns/mnt").c_str(), name.data(), name.size());
        return {name.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    }

    static std::vector<Mount> ReadMounts(const std::string& process)
    {
        constexpr std::size_t kMaxBytes = 64 << 20;
        const std::optional<std::string> table = ReadTextFile(process + "/mountinfo", kMaxBytes);
        if (!table) // without it nobody can tell whether a disk is in use
            throw std::runtime_error("cannot read " + process + "/mountinfo: it is not there");
        return ParseMountTable(*table);
    }

    static std::vector<Mount> ReadForeignMounts(const std::string& process)
    try
    {
        return ReadMounts(process);
    }
    catch (const std::runtime_error&)
    {
        return {};
    }

    Machine& m_machine;
    const std::string& m_root;
    const std::string m_block; // the folder of block devices, with a slash
    znhost::SysfsTree m_tree;
    std::unordered_map<std::string, Disk*> m_disks;
    std::unordered_map<std::string, std::vector<std::string>> m_beneath;
    std::set<std::string> m_mounted;
};

// The kernel escapes blanks, line ends and backslashes of a name: \040, \012, \134.
std::string Unescaped(std::string_view name)
{
    std::string text;
    for (; !name.empty(); name.remove_prefix(1))
    {
        unsigned char byte = 0;
        const char* const end = name.data() + std::min<std::size_t>(name.size(), 4);
        if (name.front() == '\\' &&
            std::from_chars(name.data() + 1, end, byte, 8).ptr == name.data() + 4)
        {
            text += static_cast<char>(byte);
            name.remove_prefix(3);
        }
        else
            text += name.front();
    }
    return text;
}

std::vector<std::string> Words(const std::string& line)
{
    std::istringstream words(line);
    return {std::istream_iterator<std::string>(words), {}};
}

} // namespace

std::vector<Session> ReadSessions(const std::string& root)
{
    if (!fs::exists(root + "/sys/class"))
        throw std::runtime_error("cannot look at the sessions: sysfs is not mounted on /sys");
    std::vector<Session> sessions;
    for (const std::string& name : ListFolder(root + "/sys/class/iscsi_session"))
    {
        if (std::optional<Session> session = ReadSession(root + "/sys", name))
            sessions.push_back(std::move(*session));
    }
    std::sort(sessions.begin(), sessions.end(),
              [](const Session& a, const Session& b) { return a.sid < b.sid; });
    return sessions;
}

Machine ReadMachine(const std::string& root)
{
    Machine machine{ReadSessions(root), {}};
    if (!machine.sessions.empty())
        UserSearch(machine, root).Run();
    return machine;
}

// 36 35 8:17 / /mnt/a\040b rw,relatime shared:7 - ext4 /dev/sdb1 rw
std::vector<Mount> ParseMountTable(std::string_view text)
{
    std::vector<Mount> mounts;
    std::istringstream lines{std::string(text)};
    for (std::string line; std::getline(lines, line);)
    {
        const std::vector<std::string> words = Words(line);
        constexpr std::size_t kFixedWords = 6; // optional ones follow, then a dash
        if (words.size() < kFixedWords)
            continue;
        const auto dash = std::find(words.begin() + kFixedWords, words.end(), "-");
        if (words.end() - dash >= 3)
            mounts.push_back({words[2], Unescaped(words[4]), Unescaped(dash[2])});
    }
    return mounts;
}

// Filename				Type		Size		Used		Priority
// /dev/sdb2                               partition	1048572		0		-2
std::vector<std::string> ParseSwapTable(std::string_view text)
{
    std::vector<std::string> devices;
    std::istringstream lines{std::string(text)};
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line))
    {
        if (const std::vector<std::string> words = Words(line);
            words.size() > 1 && words[1] == "partition")
            devices.push_back(Unescaped(words.front()));
    }
    return devices;
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

// O_NONBLOCK: opening a drive without a medium must not fail.
bool IsHeld(const std::string& device)
{
    const znlib::Descriptor descriptor(
        open(device.c_str(), O_RDONLY | O_EXCL | O_NONBLOCK | O_CLOEXEC));
    return !descriptor.IsOpen() && errno == EBUSY;
}
