#include "standalone/zndevicetree/SysfsTree.h"

#include "standalone/helpers/TextFile.h"

#include <algorithm>
#include <list>
#include <map>
#include <set>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <utility>

namespace fs = std::filesystem;

// In this file a device is its entry in class/block: /sys/class/block/sdb, a symbolic link to the
// device's directory. A missing or unreadable entry throws an exception.
namespace
{

constexpr char kDev[] = "/dev/";
constexpr char kMapper[] = "mapper/";

// The rest of `text` after `prefix`, or nothing if it does not begin with that.
std::optional<std::string> After(const std::string& prefix, const std::string& text)
{
    if (text.compare(0, prefix.size(), prefix) != 0)
        return std::nullopt;
    return text.substr(prefix.size());
}

// The device-mapper name of a device, or nothing if device-mapper did not make it.
std::optional<std::string> ReadMapName(const fs::path& device)
{
    if (!After("dm-", device.filename()))
        return std::nullopt;
    return znlib::ReadAttributeLine(device / "dm/name");
}

// The path of the device for hosts.
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
    if (!fs::exists(device / "partition"))
        return device;
    // The directory of a partition is in that of its disk: .../block/sdb/sdb1.
    return device.parent_path() / fs::canonical(device).parent_path().filename();
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
    // Adds the disks beneath the whole device `device`, through all layers, or the device itself if it
    // is a disk.
    void Descend(const fs::path& device)
    {
        const auto [visit, isNew] = m_isDone.emplace(device, false);
        if (!isNew && !visit->second)
            throw std::runtime_error(device.string() + " lies beneath itself");
        if (!isNew)
            return;

        const fs::path slaves =
            device / "slaves"; // all whole devices have this directory, and only these
        fs::directory_iterator slave(slaves);
        if (slave == fs::directory_iterator() &&
            !ReadMapName(device)) // a map without paths is not a disk
            m_disks.insert(device);
        for (; slave != fs::directory_iterator(); ++slave)
        {
            const fs::path beneath = device.parent_path() / slave->path().filename();
            if (fs::exists(beneath)) // a disk that was removed stays beneath its map
                Descend(WholeDevice(beneath));
        }
        visit->second = true;
    }

    const std::set<fs::path, ByKernelName>& Disks() const { return m_disks; }

private:
    std::map<fs::path, bool> m_isDone; // devices met so far; true after all beneath has been visited
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
        if (disk != whole) // a disk is not its own child
            children.push_back(new ZnDevice(DeviceName(disk), {}));
    }
    return new ZnDevice(DeviceName(device), children);
}

// Whether the error means that there is no such device: no such path, not a link, too many links, or a
// name longer than any device's (everybody can mount something of such a name).
bool IsMiss(const std::error_code& error)
{
    using std::errc;
    return error == errc::no_such_file_or_directory || error == errc::not_a_directory ||
           error == errc::no_such_device || error == errc::invalid_argument ||
           error == errc::too_many_symbolic_link_levels || error == errc::filename_too_long;
}

std::runtime_error Failure(const char* path, const std::string& reason)
{
    return std::runtime_error(std::string("cannot look up ") + path + ": " + reason);
}

// A device may vanish at any moment of a look-up: that is a miss.
template <class LookUp>
SP<ZnDevice> EmptyIfItMisses(const char* path, const LookUp& lookUp)
{
    if (path == nullptr)
        return {};
    try
    {
        return lookUp();
    }
    catch (const fs::filesystem_error& error)
    {
        if (IsMiss(error.code()))
            return {};
        throw Failure(path, error.path1().string() + ": " + error.code().message());
    }
    catch (const std::runtime_error& error)
    {
        throw Failure(path, error.what());
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
    return EmptyIfItMisses(path, [&] { return MakeDevice(Entry(path)); });
}

SP<ZnDevice> SysfsTree::FindWholeDevice(const char* path) const
{
    return EmptyIfItMisses(path, [&] { return MakeDevice(WholeDevice(Entry(path))); });
}

// Follows symbolic links from `path` to a device.
fs::path SysfsTree::Entry(const char* path) const
{
    constexpr int kMaxLinks = 40; // as for the kernel
    if (!fs::exists(m_block))
        throw std::runtime_error(m_block.string() + " is missing: sysfs is not mounted");
    fs::path place = path;
    for (int links = 0; links <= kMaxLinks; ++links)
    {
        if (const auto inDev = After(kDev, place))
            place = m_dev.native() + '/' + *inDev;
        place = fs::weakly_canonical(place.parent_path()) / place.filename();
        // Look in sysfs before following a link: links of udev may be out of date.
        if (const auto entry = FindEntry(place))
            return *entry;
        place = place.parent_path() / fs::read_symlink(place);
    }
    throw fs::filesystem_error(path, std::make_error_code(std::errc::too_many_symbolic_link_levels));
}

// The device with its node at `place`, or nothing.
std::optional<fs::path> SysfsTree::FindEntry(const fs::path& place) const
{
    std::optional<std::string> name = After(m_dev / "", place);
    if (!name)
        return std::nullopt;
    if (const auto mapName = After(kMapper, *name))
        return FindMap(*mapName);
    // /dev/cciss/c0d0 is cciss!c0d0 in sysfs, where names are names of directories.
    std::replace(name->begin(), name->end(), '/', '!');
    const fs::path entry = m_block / *name;
    return fs::exists(entry) ? std::optional(entry) : std::nullopt;
}

std::optional<fs::path> SysfsTree::FindMap(const std::string& mapName) const
{
    // The link of udev is only a hint, since it may be out of date.
    std::error_code noLink;
    const fs::path linked = fs::read_symlink(m_dev / kMapper / mapName, noLink).filename();
    if (!noLink && ReadMapName(m_block / linked) == mapName)
        return m_block / linked;
    for (const fs::directory_entry& device : fs::directory_iterator(m_block))
    {
        if (ReadMapName(device) == mapName)
            return device.path();
    }
    return std::nullopt;
}

} // namespace znhost
