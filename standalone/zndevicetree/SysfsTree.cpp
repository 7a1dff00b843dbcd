#include "standalone/zndevicetree/SysfsTree.h"

#include <algorithm>
#include <exception>
#include <fstream>
#include <list>
#include <map>
#include <set>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <utility>

namespace fs = std::filesystem;

// Inside, a device is its entry in the folder of all devices: /sys/class/block/sdb, a symbolic link to
// the device's own folder. What is not there, whether it never was or has just gone, is an exception.
namespace
{

constexpr char kDev[] = "/dev/";
constexpr char kMapper[] = "mapper/";

// What stands after `prefix` in `text`, or nothing when `text` does not begin with it.
std::optional<std::string> After(const std::string& prefix, const std::string& text)
{
    if (text.compare(0, prefix.size(), prefix) != 0)
        return std::nullopt;
    return text.substr(prefix.size());
}

// The name that device-mapper knows the device by; nothing when it is not one of device-mapper's.
std::optional<std::string> ReadMapName(const fs::path& device)
{
    std::ifstream file(device / "dm/name");
    std::string name;
    return std::getline(file, name) ? std::optional(name) : std::nullopt;
}

// The path by which hosts know the device.
std::string DeviceName(const fs::path& device)
{
    if (const auto mapName = ReadMapName(device))
        return std::string(kDev) + kMapper + *mapName;
    std::string name = device.filename();
    std::replace(name.begin(), name.end(), '!', '/');
    return kDev + name;
}

fs::path WholeDevice(const fs::path& device)
{
    // A partition's folder stands in its disk's: .../block/sdb/sdb1.
    const fs::path folder = fs::canonical(device);
    if (!fs::exists(folder / "partition"))
        return device;
    return device.parent_path() / folder.parent_path().filename();
}

// sda, sdb, ..., sdz, sdaa
struct ByKernelName
{
    bool operator()(const fs::path& a, const fs::path& b) const
    {
        return std::forward_as_tuple(a.native().size(), a.native()) <
               std::forward_as_tuple(b.native().size(), b.native());
    }
};

// One walk from a device down to the disks beneath it.
class DiskSearch
{
public:
    // Adds the disks that the whole device `device` ends at, through every layer: itself, when it is
    // one.
    void Descend(const fs::path& device)
    {
        const auto [visit, isNew] = m_isDone.emplace(device, false);
        if (!isNew && !visit->second)
            throw std::runtime_error(device.string() + " lies beneath itself");
        if (!isNew)
            return;

        const fs::path slaves = device / "slaves"; // every whole device has it, and nothing else
        if (!fs::is_empty(slaves))
        {
            for (const fs::directory_entry& slave : fs::directory_iterator(slaves))
                Descend(WholeDevice(device.parent_path() / slave.path().filename()));
        }
        else if (!ReadMapName(device)) // a map that has lost its paths is no disk
        {
            m_disks.insert(device);
        }
        visit->second = true;
    }

    const std::set<fs::path, ByKernelName>& Disks() const { return m_disks; }

private:
    std::map<fs::path, bool> m_isDone; // the devices met so far; true when all beneath one is done
    std::set<fs::path, ByKernelName> m_disks;
};

SP<ZnDevice> MakeDevice(const fs::path& device)
{
    const fs::path whole = WholeDevice(device);
    DiskSearch search;
    search.Descend(whole);

    std::list<SP<ZnDevice>> children;
    for (const fs::path& disk : search.Disks())
    {
        if (disk != whole) // a disk is not beneath itself
            children.push_back(new ZnDevice(DeviceName(disk), {}));
    }
    return new ZnDevice(DeviceName(device), children);
}

// A device may go at any moment of a look-up, so that every miss ends here.
template <class LookUp>
SP<ZnDevice> EmptyIfItThrows(const LookUp& lookUp)
{
    try
    {
        return lookUp();
    }
    catch (const std::exception&)
    {
        return {};
    }
}

} // namespace

namespace znhost
{

SysfsTree::SysfsTree(const fs::path& sysfs, fs::path dev)
    : m_block(sysfs / "class/block"), m_dev(std::move(dev))
{
}

SP<ZnDevice> SysfsTree::FindDevice(const char* path) const
{
    return EmptyIfItThrows([&] { return MakeDevice(Entry(path)); });
}

SP<ZnDevice> SysfsTree::FindWholeDevice(const char* path) const
{
    return EmptyIfItThrows([&] { return MakeDevice(WholeDevice(Entry(path))); });
}

// The device that `path` names, symbolic links followed.
fs::path SysfsTree::Entry(const char* path) const
{
    if (path == nullptr)
        throw std::invalid_argument("no path");

    constexpr int kMostLinks = 40; // the kernel follows no more either
    fs::path place = path;
    for (int links = 0; links <= kMostLinks; ++links)
    {
        if (const auto inDev = After(kDev, place))
            place = m_dev.native() + '/' + *inDev;
        place = fs::weakly_canonical(place.parent_path()) / place.filename();
        // Before a link is followed: udev's links lag behind the kernel, sysfs does not.
        if (const auto entry = FindEntry(place))
            return *entry;
        place = place.parent_path() / fs::read_symlink(place);
    }
    throw fs::filesystem_error(path, std::make_error_code(std::errc::too_many_symbolic_link_levels));
}

// The device whose node would stand at `place`.
std::optional<fs::path> SysfsTree::FindEntry(const fs::path& place) const
{
    std::optional<std::string> name = After(m_dev / "", place);
    if (!name)
        return std::nullopt;
    if (const auto mapName = After(kMapper, *name))
        return FindMap(*mapName);
    // The device of /dev/cciss/c0d0 is cciss!c0d0: the kernel's names are names of folders, too.
    std::replace(name->begin(), name->end(), '/', '!');
    const fs::path entry = m_block / *name;
    return fs::exists(entry) ? std::optional(entry) : std::nullopt;
}

std::optional<fs::path> SysfsTree::FindMap(const std::string& mapName) const
{
    for (const fs::directory_entry& device : fs::directory_iterator(m_block))
    {
        if (ReadMapName(device) == mapName)
            return device.path();
    }
    return std::nullopt;
}

} // namespace znhost
