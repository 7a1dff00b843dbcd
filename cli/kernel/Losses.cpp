#include "cli/kernel/Losses.h"

#include <algorithm>

namespace cli
{

namespace
{

// Whether `map` has a working path other than the disks of the sessions `ending`.
bool KeepsAPath(const Machine& machine, const std::string& map, const std::vector<Session>& ending)
{
    std::map<std::string, bool> paths = machine.maps.at(map);
    for (const Session& session : machine.sessions)
        for (const Disk& disk : session.disks)
            if (const auto path = paths.find(disk.device); path != paths.end() && !IsLoggedIn(session))
                path->second = false;
    for (const Session& session : ending)
        for (const Disk& disk : session.disks)
            paths.erase(disk.device);
    return std::any_of(paths.begin(), paths.end(), [](const auto& path) { return path.second; });
}

// The disks that end with the sessions: all but the paths of maps that keep another one.
std::vector<Path> FindEnding(const Machine& machine, const std::vector<Session>& ending)
{
    std::vector<Path> paths;
    for (const Session& session : ending)
        for (const Disk& disk : session.disks)
            if (disk.map.empty() || !KeepsAPath(machine, disk.map, ending))
                paths.push_back({disk, session});
    return paths;
}

} // namespace

std::vector<std::string> FindLosses(const Machine& machine, const std::vector<Session>& ending)
{
    std::vector<std::string> losses;
    for (const Path& path : FindEnding(machine, ending))
        for (const std::string& user : path.disk.users)
            losses.push_back(path.disk.device + ": " + user);
    return losses;
}

Unclaimed FindUnclaimed(const Machine& machine, const std::vector<Session>& ending)
{
    Unclaimed unclaimed;
    for (const Path& path : FindEnding(machine, ending))
    {
        const Disk& disk = path.disk;
        if (!disk.users.empty())
            continue;
        // Opening a map does not touch its paths.
        if (disk.map.empty() && !Works(path.session, disk))
        {
            unclaimed.notWorking.push_back(path);
            continue;
        }
        const std::string& device = disk.map.empty() ? disk.device : disk.map;
        if (const auto made = machine.partitions.find(device); made != machine.partitions.end())
            unclaimed.devices.insert(made->second.begin(), made->second.end());
        else
            unclaimed.devices.insert(device);
    }
    return unclaimed;
}

} // namespace cli
