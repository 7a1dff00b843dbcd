#include "agent/Machine.h"

#include "host/BeginsWith.h"
#include "standalone/zndevicetree/SysfsTree.h"
#include "standalone/znlib/Text.h"
#include "standalone/znlib/TextFile.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <unordered_map>

#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

using znhost::ReadTextFile;

// The value of a sysfs attribute. Nothing if there is no such attribute, or it has no value: the kernel
// prints "(null)" then.
std::optional<std::string> ReadLine(const fs::path& attribute)
{
    const std::optional<std::string> text = ReadTextFile(attribute);
    if (!text || *text == "(null)\n")
        return std::nullopt;
    return text->substr(0, text->find('\n'));
}

// The names in `folder`, sorted. Empty if there is no such folder.
std::vector<std::string> ListFolder(const fs::path& folder)
{
    std::vector<std::string> names;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error))
        names.push_back(entry->path().filename());
    const bool isGone = error == std::errc::no_such_file_or_directory ||
                        error == std::errc::not_a_directory || error == std::errc::no_such_device;
    if (error && !isGone)
        throw std::runtime_error("cannot read " + folder.string() + ": " + error.message());
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
std::vector<Disk> ReadDisks(const fs::path& session)
{
    constexpr unsigned long long kSectorBytes = 512; // whatever the disk's own are
    std::vector<Disk> disks;
    for (const std::string& target : ListFolder(session))
    {
        if (!BeginsWith(target, "target"))
            continue;
        for (const std::string& unit : ListFolder(session / target))
        {
            const auto lun = znhost::ParseNumber<unsigned long long>(unit.substr(unit.rfind(':') + 1));
            for (const std::string& name : ListFolder(session / target / unit / "block"))
            {
                const auto size = ReadLine(session / target / unit / "block" / name / "size");
                const auto state = ReadLine(session / target / unit / "state");
                if (!lun || !size || !state)
                    continue;
                const auto sectors = znhost::ParseNumber<unsigned long long>(*size);
                disks.push_back({DevicePath(name), *lun,
                                 sectors ? std::optional(*sectors * kSectorBytes) : std::nullopt,
                                 *state});
            }
        }
    }
    std::stable_sort(disks.begin(), disks.end(),
                     [](const Disk& a, const Disk& b) { return a.lun < b.lun; });
    return disks;
}

// class/iscsi_session/session8/state:                         LOGGED_IN
// class/iscsi_session/session8/targetname:                    iqn.2025-01.org.example:multi
// class/iscsi_connection/connection8:0/persistent_address:    192.0.2.10
// class/iscsi_connection/connection8:0/persistent_port:       3260
std::optional<Session> ReadSession(const fs::path& sysfs, const std::string& name)
{
    const std::string number = name.substr(std::string_view("session").size());
    const fs::path attributes = sysfs / "class/iscsi_session" / name;
    const fs::path connection = sysfs / "class/iscsi_connection" / ("connection" + number + ":0");
    const std::optional<int> sid = znhost::ParseNumber<int>(number);
    const auto state = ReadLine(attributes / "state");
    if (!sid || !state)
        return std::nullopt;
    const auto address = ReadLine(connection / "persistent_address");
    const auto port = ReadLine(connection / "persistent_port");
    return Session{*sid, *state,
                   address && port ? ParsePortal('[' + *address + "]:" + *port) : std::nullopt,
                   ReadLine(attributes / "targetname").value_or(""), ReadDisks(attributes / "device")};
}

// Finds the users of every disk. The device tree tells what a device is made of; this class inverts
// that.
class UserSearch
{
public:
    UserSearch(Machine& machine, const fs::path& root)
        : m_machine(machine), m_root(root), m_tree(root / "sys", root / "dev")
    {
        for (Session& session : machine.sessions)
            for (Disk& disk : session.disks)
                m_disks.emplace(disk.device, &disk);
    }

    void Run()
    {
        for (const std::string& name : ListFolder(m_root / "sys/class/block"))
        {
            // SCSI disks and partitions are never stacked on others. There may be thousands of them.
            if (!BeginsWith(name, "sd"))
                AddStacked(name);
        }
        AddBtrfs();
        for (const std::string& file : ParseSwapTable(ReadTextFile(m_root / "proc/swaps").value_or("")))
            AddUser(file, "swap");
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

    void AddStacked(const std::string& name)
    {
        const fs::path folder = m_root / "sys/class/block" / name;
        const SP<ZnDevice> device = m_tree.FindDevice(DevicePath(name).c_str());
        if (device.get() == nullptr || device->getChildren().empty() ||
            fs::exists(folder / "partition"))
            return;
        const std::string uuid = ReadLine(folder / "dm/uuid").value_or("");
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
            const auto state = ReadLine(m_root / "sys/class/block" / kernelName / "device/state");
            m_machine.maps[map.getName()][name] = state.value_or("running") == "running";
            if (const auto disk = m_disks.find(name); disk != m_disks.end())
                disk->second->map = map.getName();
        }
    }

    // The mount table names one device of a btrfs only.
    void AddBtrfs()
    {
        for (const std::string& uuid : ListFolder(m_root / "sys/fs/btrfs"))
            for (const std::string& name : ListFolder(m_root / "sys/fs/btrfs" / uuid / "devices"))
                AddUser(DevicePath(name), "btrfs " + uuid);
    }

    // Mounts of this process's namespace, then mounts that only another namespace has.
    void AddMounts()
    {
        const fs::path proc = m_root / "proc";
        for (const Mount& mount : ReadMounts(proc / "self"))
            if (const std::string device = DeviceOf(mount); !device.empty())
            {
                m_mounted.insert(device);
                AddUser(device, mount.place);
            }
        std::set<std::string> known{ReadNamespace(proc / "self"), ""};
        for (const std::string& process : ListFolder(proc))
            if (known.insert(ReadNamespace(proc / process)).second)
                AddForeignMounts(proc / process);
    }

    void AddForeignMounts(const fs::path& process)
    try
    {
        for (const Mount& mount : ReadMounts(process))
            if (const std::string device = DeviceOf(mount);
                !device.empty() && m_mounted.count(device) == 0)
                AddUser(device, mount.place + " (of process " + process.filename().string() + ")");
    }
    catch (const std::runtime_error&)
    {
        // The process has just ended, or is not ours to look into.
    }

    // Empty for a file system without a device, or if the device has gone. A file system on several
    // devices has a number of its own, 0:N, and one of the devices as its source.
    std::string DeviceOf(const Mount& mount) const
    {
        if (BeginsWith(mount.number, "0:"))
            return BeginsWith(mount.source, "/dev/") ? mount.source : "";
        std::error_code error;
        const fs::path link = fs::read_symlink(m_root / "sys/dev/block" / mount.number, error);
        return error ? "" : DevicePath(link.filename());
    }

    // Empty if the process has ended, or this user may not look into it.
    // readlink: std::filesystem takes two system calls, and there may be thousands of processes.
    static std::string ReadNamespace(const fs::path& process)
    {
        std::array<char, 64> name{}; // mnt:[4026531841]
        const ssize_t length = readlink((process / "ns/mnt").c_str(), name.data(), name.size());
        return {name.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
    }

    static std::vector<Mount> ReadMounts(const fs::path& process)
    {
        constexpr std::size_t kMaxBytes = 64 << 20;
        const std::optional<std::string> table = ReadTextFile(process / "mountinfo", kMaxBytes);
        if (!table) // without it nobody can tell whether a disk is in use
            throw std::runtime_error("cannot read " + process.string() + "/mountinfo: it is not there");
        return ParseMountTable(*table);
    }

    Machine& m_machine;
    const fs::path& m_root;
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

std::vector<Session> ReadSessions(const fs::path& root)
{
    if (!fs::exists(root / "sys/class"))
        throw std::runtime_error("cannot look at the sessions: sysfs is not mounted on /sys");
    std::vector<Session> sessions;
    for (const std::string& name : ListFolder(root / "sys/class/iscsi_session"))
    {
        if (std::optional<Session> session = ReadSession(root / "sys", name))
            sessions.push_back(std::move(*session));
    }
    std::sort(sessions.begin(), sessions.end(),
              [](const Session& a, const Session& b) { return a.sid < b.sid; });
    return sessions;
}

Machine ReadMachine(const fs::path& root)
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
    std::vector<std::string> files;
    std::istringstream lines{std::string(text)};
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line))
    {
        if (const std::vector<std::string> words = Words(line); !words.empty())
            files.push_back(Unescaped(words.front()));
    }
    return files;
}

std::vector<std::string> FindDisksBeneath(const std::string& device, const fs::path& root)
{
    const znhost::SysfsTree tree(root / "sys", root / "dev");
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
