// What the commands ask of a machine: pure functions.
#pragma once

#include "agent/Machine.h"

#include <string>
#include <vector>

// "LOGGED_IN": the connection stands, and the kernel hands I/O to it.
bool IsLoggedIn(const Session& session);

// Those with `iqn`, through `portal` where one is given.
std::vector<Session> SelectSessions(const std::vector<Session>& sessions, const std::string& iqn,
                                    const PortalMatcher* portal = nullptr);

// Who would lose a disk if the sessions `ending` ended: a line each, "/dev/sdb: /mnt". Not the users of
// a multipath map that keeps a path that works.
std::vector<std::string> FindLosses(const Machine& machine, const std::vector<Session>& ending);

// A disk and its session.
struct Path
{
    Disk disk;
    Session session;
};

// The paths that `devices` are, those that work first, then by session.
std::vector<Path> FindPaths(const std::vector<Session>& sessions,
                            const std::vector<std::string>& devices);

// "LOGGED_IN"; of a disk that is not running its own state as well: "LOGGED_IN/offline".
std::string DescribeState(const Session& session, const Disk* disk);

// "100M", "1.5T": as lsblk shows a size.
std::string DescribeSize(unsigned long long bytes);

// Rows of equally many cells as lines, each column as wide as its widest cell.
std::string FormatTable(const std::vector<std::vector<std::string>>& rows);
