// This machine's iSCSI sessions, their disks and what these are used for: as the kernel shows them in
// sysfs and /proc, whatever a tool says.
//
// What goes while it is read is left out. What cannot be read for another reason throws
// std::runtime_error, a sentence that says why.
#pragma once

#include "agent/Portal.h"

#include <filesystem>
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
    std::string state; // in the kernel's words: "running", "blocked", "transport-offline"
    std::string map{}; // "/dev/mapper/mpatha" when it is a path of that map; or empty
    std::vector<std::string> users{}; // devices made of it, the map apart; mount points; "swap"
};

struct Session
{
    int sid;
    std::string state;            // in the kernel's words: "LOGGED_IN", "FAILED", "FREE"
    std::optional<Portal> portal; // as the node record has it, not where a redirection led
    std::string iqn;
    std::vector<Disk> disks{}; // by LUN
};

// By session identifier, without the disks' maps and users.
std::vector<Session> ReadSessions(const std::filesystem::path& root = "/");

struct Machine
{
    std::vector<Session> sessions;
    // The paths of every multipath map: device, and whether the kernel has it running. Those of other
    // transports than iSCSI are among them.
    std::map<std::string, std::map<std::string, bool>> maps;
};

Machine ReadMachine(const std::filesystem::path& root = "/");

// A line of the mount table.
struct Mount
{
    std::string number; // of the device: "8:17"; "0:..." for a file system without one of its own
    std::string place;
    std::string source;
};

std::vector<Mount> ParseMountTable(std::string_view text);

// The devices and files that are swapped to.
std::vector<std::string> ParseSwapTable(std::string_view text);

// The disks that `device` is made of in the end: itself when it is one, the disk of a partition. Empty
// when there is no such device.
std::vector<std::string> FindDisksBeneath(const std::string& device,
                                          const std::filesystem::path& root = "/");
