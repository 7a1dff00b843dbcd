// The block devices of a machine as its sysfs shows them: the device tree behind ZnDeviceTree.
//
// Thread-safety: any number of threads may use one tree at once; it holds nothing but its two roots.
#pragma once

#include "../../host/ZnDeviceTree.h"

#include <filesystem>
#include <optional>
#include <string>

namespace znhost
{

class SysfsTree
{
public:
    // `sysfs` and `dev` are the machine's /sys and /dev, or where a recorded machine has them. `dev`
    // itself is reached through no symbolic link.
    SysfsTree(const std::filesystem::path& sysfs, std::filesystem::path dev);

    // The device that `path` names, its children the disks beneath it: see ZnDevice.
    //
    // A path is the kernel's name under /dev/, /dev/mapper/NAME, or a symbolic link that ends at one of
    // these; a link of any folder will do, such as a /chroot/dev that leads to /dev. sysfs decides what
    // exists: no device node is needed, and none is looked at, so that a node of another folder's own
    // (/chroot/dev/sdb in a folder of its own) names nothing.
    //
    // Empty when `path` is null or names no device, and when a device goes in mid-read. Empty too, and
    // the log says why, when the machine cannot be looked at, or devices are stacked in a loop or too
    // deep. Never throws for a reason that lies in the machine.
    SP<ZnDevice> FindDevice(const char* path) const;

    // The whole device that holds the one that `path` names: the disk of a partition, and any other
    // device itself. A partition that is a device-mapper device counts as whole, as it does for the
    // kernel. Paths and misses as for FindDevice.
    SP<ZnDevice> FindWholeDevice(const char* path) const;

private:
    std::filesystem::path Entry(const char* path) const;
    std::optional<std::filesystem::path> FindEntry(const std::filesystem::path& place) const;
    std::optional<std::filesystem::path> FindMap(const std::string& mapName) const;

    std::filesystem::path m_block; // the folder that has every device
    std::filesystem::path m_dev;
};

} // namespace znhost
