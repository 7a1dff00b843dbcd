// Who loses a disk if sessions end. All functions are pure.
#pragma once

#include "cli/kernel/DiskUsers.h"

#include <set>
#include <string>
#include <vector>

namespace cli
{

// Returns the users that lose a disk if the sessions `ending` end, a line each: "/dev/sdb: /mnt". Users
// of a map that keeps a working path lose nothing.
std::vector<std::string> FindLosses(const Machine& machine, const std::vector<Session>& ending);

// What ends with sessions and has no known user. An exclusive opening tells of unknown ones.
struct Unclaimed
{
    // Disks, maps, or the partitions of these: device-mapper has a disk to itself that it has made a
    // partition on.
    std::set<std::string> devices{};
    // Disks that do not work: opening them could block.
    std::vector<Path> notWorking{};
};

Unclaimed FindUnclaimed(const Machine& machine, const std::vector<Session>& ending);

} // namespace cli
