#include "agent/Questions.h"

#include <algorithm>
#include <array>

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

} // namespace

bool IsLoggedIn(const Session& session)
{
    return session.state == "LOGGED_IN";
}

bool Works(const Session& session, const Disk& disk)
{
    return IsLoggedIn(session) && disk.state == "running";
}

std::vector<Session> SelectSessions(const std::vector<Session>& sessions, const std::string& iqn,
                                    const PortalMatcher* portal)
{
    std::vector<Session> selected;
    for (const Session& session : sessions)
    {
        if (session.iqn == iqn &&
            (portal == nullptr || (session.portal && portal->Matches(*session.portal))))
            selected.push_back(session);
    }
    return selected;
}

std::vector<std::string> FindLosses(const Machine& machine, const std::vector<Session>& ending)
{
    std::vector<std::string> losses;
    for (const Session& session : ending)
        for (const Disk& disk : session.disks)
        {
            if (!disk.map.empty() && KeepsAPath(machine, disk.map, ending))
                continue;
            for (const std::string& user : disk.users)
                losses.push_back(disk.device + ": " + user);
        }
    return losses;
}

std::set<std::string> FindUnused(const Machine& machine, const std::vector<Session>& ending)
{
    std::set<std::string> devices;
    for (const Session& session : ending)
        for (const Disk& disk : session.disks)
        {
            if (!disk.users.empty() || !Works(session, disk) ||
                (!disk.map.empty() && KeepsAPath(machine, disk.map, ending)))
                continue;
            devices.insert(disk.map.empty() ? disk.device : disk.map);
        }
    return devices;
}

std::vector<Path> FindPaths(const std::vector<Session>& sessions,
                            const std::vector<std::string>& devices)
{
    std::vector<Path> paths;
    for (const Session& session : sessions)
        for (const Disk& disk : session.disks)
            if (std::find(devices.begin(), devices.end(), disk.device) != devices.end())
                paths.push_back({disk, session});
    std::stable_partition(paths.begin(), paths.end(),
                          [](const Path& path) { return Works(path.session, path.disk); });
    return paths;
}

std::string DescribeState(const Session& session, const Disk* disk)
{
    const bool isRunning = disk == nullptr || disk->state == "running";
    return isRunning ? session.state : session.state + '/' + disk->state;
}

std::string DescribeSize(unsigned long long bytes)
{
    constexpr std::array<char, 6> kUnits{'K', 'M', 'G', 'T', 'P', 'E'};
    constexpr unsigned long long kStep = 1024;
    constexpr unsigned long long kRoundedUp = 1048525; // 1023.95, which would be shown as 1024.0
    if (bytes < kStep)
        return std::to_string(bytes) + 'B';
    std::size_t unit = 0;
    for (; bytes >= kRoundedUp; bytes /= kStep) // counts in the unit below
        ++unit;
    const unsigned long long tenths = (bytes * 10 + kStep / 2) / kStep;
    const std::string fraction = tenths % 10 == 0 ? "" : '.' + std::to_string(tenths % 10);
    return std::to_string(tenths / 10) + fraction + kUnits.at(unit);
}

std::string FormatTable(const std::vector<std::vector<std::string>>& rows)
{
    std::vector<std::size_t> widths;
    for (const std::vector<std::string>& row : rows)
    {
        widths.resize(row.size());
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], row[column].size());
    }
    std::string table;
    for (const std::vector<std::string>& row : rows)
    {
        for (std::size_t column = 0; column + 1 < row.size(); ++column)
            table.append(row[column]).append(widths[column] + 2 - row[column].size(), ' ');
        table.append(row.back()).append("\n");
    }
    return table;
}
