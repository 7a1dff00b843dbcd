// The iSCSI sessions of this machine, their disks and the users of these, read from sysfs and /proc.
//
// `root` is the machine's root folder, or where a test has one, without a slash at its end. Objects
// that vanish while they are read are left out. The functions throw std::runtime_error, with a sentence
// for the user, if anything cannot be read for another reason.
//
// Thread-safety: the functions share nothing.
#pragma once

#include "agent/Portal.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct Disk
{
    std::string device; // "/dev/sdb"
    unsigned long long lun = 0;
    std::optional<unsigned long long> bytes;
    std::string state; // as the kernel spells it: "running", "blocked", "transport-offline"
    std::string map{}; // the multipath map it is a path of ("/dev/mapper/mpatha"), or empty
    std::vector<std::string> users{}; // stacked devices other than `map`, mount points, "swap"
};

struct Session
{
    int sid;
    std::string state;            // as the kernel spells it: "LOGGED_IN", "FAILED", "FREE"
    std::optional<Portal> portal; // the address in the node record, not the one of a redirection
    std::string iqn;
    std::vector<Disk> disks{}; // in the order of their LUNs
};

// Returns the sessions in the order of their identifiers. `map` and `users` of their disks are empty.
std::vector<Session> ReadSessions(const std::string& root = "");

struct Machine
{
    std::vector<Session> sessions;
    // For each multipath map its paths, of any transport: device, and whether its state is "running".
    std::map<std::string, std::map<std::string, bool>> maps;
};

Machine ReadMachine(const std::string& root = "");

// An entry of the mount table.
struct Mount
{
    std::string number; // of the device: "8:17"; "0:N" if the file system has none of its own
    std::string place;
    std::string source;
};

std::vector<Mount> ParseMountTable(std::string_view text);

// Returns the devices of /proc/swaps. The disk of a swap file is mounted.
std::vector<std::string> ParseSwapTable(std::string_view text);

// Returns the physical disks beneath `device`: those of a stacked device, the disk of a partition, a
// disk itself. Empty if there is no such device.
std::vector<std::string> FindDisksBeneath(const std::string& device, const std::string& root = "");

// Whether the kernel, or a program that asked for it, has the device to itself: also for a file system
// that was unmounted lazily, and has no place any more. Blocks while the device does not work.
bool IsHeld(const std::string& device);
