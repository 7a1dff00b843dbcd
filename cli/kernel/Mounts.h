// Which file systems are mounted on disks, in the mount namespaces of all processes, and which disks
// are swap space: what /proc shows.
//
// An ordinary user can mount a file system without a disk under any name. So a mount counts by the
// number of its device. Its name counts only for a type that no ordinary user can mount.
//
// Thread-safety: the functions share nothing.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace cli
{

// A mounted file system on a disk.
struct Mount
{
    std::string deviceNumber; // "8:17"; empty for a btrfs, which has a number of its own
    std::string mountPoint;
    std::string source;    // name of the device; only for a btrfs
    std::string process{}; // number of a process that sees it; empty for the namespace of this process
};

// Parses /proc/PID/mountinfo. File systems without a disk are left out.
std::vector<Mount> ParseMountTable(std::string_view text);

// Parses /proc/swaps and returns its devices. The disk of a swap file is mounted.
std::vector<std::string> ParseSwapTable(std::string_view text);

struct MountTables
{
    std::vector<Mount> mounts{}; // those of this process first
    bool areComplete = true;     // false if there are namespaces that could not be looked into
};

// Reads the mount tables of this process and of all other namespaces. `root` as in Sessions.h.
//
// Throws std::runtime_error, with a sentence for the user, if the own table cannot be read: then nobody
// can tell whether a disk is in use. Tables of other namespaces that cannot be read are left out.
MountTables ReadMounts(const std::string& root);

// Returns the devices of /proc/swaps. Throws std::runtime_error as above.
std::vector<std::string> ReadSwaps(const std::string& root);

} // namespace cli
