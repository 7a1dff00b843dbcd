// The block devices of a machine, read from sysfs: the device tree behind ZnDeviceTree.
//
// Thread-safety: any number of threads may use one tree at once. It stores its two roots only.
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
    // `sysfs` and `dev` are the machine's /sys and /dev, or those of a recorded machine. The path `dev`
    // contains no symbolic link.
    SysfsTree(const std::filesystem::path& sysfs, std::filesystem::path dev);

    // Returns the device that `path` names. Its children are the disks beneath it (see ZnDevice),
    // without those that were removed from the machine.
    //
    // `path` is /dev/ and the kernel's name, /dev/mapper/NAME, or a symbolic link in any directory that
    // ends at one of these. sysfs decides what exists: device nodes are neither needed nor read, so a
    // node outside `dev` (/chroot/dev/sdb) names no device.
    //
    // Empty if `path` is null or names no device, or if a device vanishes during the look-up. Throws
    // std::runtime_error, with a sentence for the log, if sysfs cannot be read, or if devices are
    // stacked in a loop.
    SP<ZnDevice> FindDevice(const char* path) const;

    // Returns the whole device of the one that `path` names: the disk of a partition, any other device
    // itself. A partition made by device-mapper is a whole device, as for the kernel. `path` and errors
    // as for FindDevice.
    SP<ZnDevice> FindWholeDevice(const char* path) const;

private:
    std::filesystem::path Entry(const char* path) const;
    std::optional<std::filesystem::path> FindEntry(const std::filesystem::path& place) const;
    std::optional<std::filesystem::path> FindMap(const std::string& mapName) const;

    std::filesystem::path m_block; // class/block, with an entry for each device
    std::filesystem::path m_dev;
};

} // namespace znhost
