// What the commands derive from the state of a machine. All functions are pure.
#pragma once

#include "agent/Machine.h"

#include <set>
#include <string>
#include <vector>

// Whether the connection is up.
bool IsLoggedIn(const Session& session);

// Whether the disk can be read through that session.
bool Works(const Session& session, const Disk& disk);

// Returns the sessions with the target `iqn`, through `portal` unless that is null.
std::vector<Session> SelectSessions(const std::vector<Session>& sessions, const std::string& iqn,
                                    const PortalMatcher* portal = nullptr);

// Returns the users that lose a disk if the sessions `ending` end, a line each: "/dev/sdb: /mnt". Users
// of a multipath map that keeps a working path lose nothing.
std::vector<std::string> FindLosses(const Machine& machine, const std::vector<Session>& ending);

// Returns the working disks and maps that end with the sessions `ending` and have no known user.
std::set<std::string> FindUnused(const Machine& machine, const std::vector<Session>& ending);

// A disk with its session.
struct Path
{
    Disk disk;
    Session session;
};

// Returns the paths whose disks are in `devices`: working ones first, then in the order of sessions.
std::vector<Path> FindPaths(const std::vector<Session>& sessions,
                            const std::vector<std::string>& devices);

// Returns the state of the session, and that of the disk if it is not running: "LOGGED_IN/offline".
// `disk` may be null.
std::string DescribeState(const Session& session, const Disk* disk);

// Returns a size in the format of lsblk: "100M", "1.5T".
std::string DescribeSize(unsigned long long bytes);

// Formats rows, all with the same number of cells, as lines with aligned columns.
std::string FormatTable(const std::vector<std::vector<std::string>>& rows);
