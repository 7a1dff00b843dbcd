#include "standalone/zndevicetree/SysfsTree.h"

#include "host/EvDebug.h"
#include "standalone/znlib/TextFile.h"

#include <algorithm>
#include <exception>
#include <list>
#include <map>
#include <set>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <utility>

namespace fs = std::filesystem;

// Inside, a device is its entry in the folder of all devices: /sys/class/block/sdb, a symbolic link to
// the device's own folder. What is not there, whether it never was or has just gone, and what cannot be
// read, is an exception.
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
    const std::optional<std::string> line = znhost::ReadTextFile(device / "dm/name");
    return line ? std::optional(line->substr(0, line->find('\n'))) : std::nullopt;
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
    // one. `layers` are above it already.
    void Descend(const fs::path& device, int layers = 0)
    {
        constexpr int kMaxLayers = 64; // no machine comes near it, and the call stack holds it
        if (layers > kMaxLayers)
            throw std::runtime_error("more than " + std::to_string(kMaxLayers) + " layers of devices");
        const auto [visit, isNew] = m_isDone.emplace(device, false);
        if (!isNew && !visit->second)
            throw std::runtime_error(device.string() + " lies beneath itself");
        if (!isNew)
            return;

        const fs::path slaves = device / "slaves"; // every whole device has it, and nothing else
        if (!fs::is_empty(slaves))
        {
            for (const fs::directory_entry& slave : fs::directory_iterator(slaves))
                Descend(WholeDevice(device.parent_path() / slave.path().filename()), layers + 1);
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

// Whether a look-up failed for want of the device, and for nothing else: no such path, no link where
// one would have to be, too many of them.
bool IsMiss(const std::error_code& error)
{
    using std::errc;
    return error == errc::no_such_file_or_directory || error == errc::not_a_directory ||
           error == errc::no_such_device || error == errc::invalid_argument ||
           error == errc::too_many_symbolic_link_levels;
}

void LogFailure(const char* path, const std::string& reason)
{
    EvEvent().DebugLvl("ZnDeviceTree", -1, "cannot look up %s: %s", path, reason.c_str());
}

// A device may go at any moment of a look-up, so that every miss ends here. That the machine could not
// be looked at is something else, and the log says it.
template <class LookUp>
SP<ZnDevice> EmptyIfItThrows(const char* path, const LookUp& lookUp)
{
    if (path == nullptr)
        return {};
    try
    {
        return lookUp();
    }
    catch (const fs::filesystem_error& error)
    {
        if (!IsMiss(error.code()))
            LogFailure(path, error.path1().string() + ": " + error.code().message());
    }
    catch (const std::exception& error)
    {
        LogFailure(path, error.what());
    }
    return {};
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
    return EmptyIfItThrows(path, [&] { return MakeDevice(Entry(path)); });
}

SP<ZnDevice> SysfsTree::FindWholeDevice(const char* path) const
{
    return EmptyIfItThrows(path, [&] { return MakeDevice(WholeDevice(Entry(path))); });
}

// The device that `path` names, symbolic links followed.
fs::path SysfsTree::Entry(const char* path) const
{
    constexpr int kMaxLinks = 40; // the kernel follows no more either
    fs::path place = path;
    for (int links = 0; links <= kMaxLinks; ++links)
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
    // The link that udev makes may be out of date: the kernel decides whether it is right.
    std::error_code noLink;
    const fs::path linked = fs::read_symlink(m_dev / kMapper / mapName, noLink).filename();
    if (!noLink && ReadMapName(m_block / linked) == mapName)
        return m_block / linked;
    for (const fs::directory_entry& device : fs::directory_iterator(m_block))
    {
        if (After("dm-", device.path().filename()) && ReadMapName(device) == mapName)
            return device.path();
    }
    return std::nullopt;
}

} // namespace znhost
