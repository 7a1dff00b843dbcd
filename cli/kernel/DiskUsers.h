// Who uses the disks of the sessions: multipath maps and other devices stacked on them, loop devices,
// file systems and swap space.
//
// `root` as in Sessions.h. The functions throw std::runtime_error, with a sentence for the user, if
// anything cannot be read that decides whether a disk is in use.
//
// Thread-safety: the functions share nothing.
#pragma once

#include "cli/kernel/Sessions.h"

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace cli
{

struct Machine
{
    std::vector<Session> sessions; // with `map` and `users` of their disks
    // For each map its paths, of any transport: device, and whether its state is "running".
    std::map<std::string, std::map<std::string, bool>> maps{};
    // The partitions that device-mapper has made on a disk or a map, by its device.
    std::map<std::string, std::vector<std::string>> partitions{};
    // Of the disks and what is stacked on them: "dm-0" for "/dev/mapper/mpatha".
    std::unordered_map<std::string, std::string> kernelNames{};
    bool sawAllNamespaces = true;           // false: mounts of other namespaces may be missing
    std::vector<std::string> unseenLoops{}; // may be users too: "/dev/loop0: Permission denied"
};

// Reads the sessions, and what is stacked on their disks. Does not look at mounts, swap space and loop
// devices: the cost does not depend on the processes of the machine.
Machine ReadMaps(const std::string& root = "");

// Reads the sessions and all users of their disks. Costs nothing that an ordinary user can increase at
// will.
Machine ReadUsers(const std::string& root = "");

} // namespace cli
