// The iSCSI sessions of this machine and their disks, read from sysfs.
//
// `root` is the machine's root directory, or where a test has one, without a slash at its end. Objects
// that vanish while they are read are left out.
//
// Thread-safety: the functions share nothing.
#pragma once

#include "cli/kernel/Portal.h"

#include <optional>
#include <string>
#include <vector>

namespace cli
{

struct Disk
{
    std::string device; // "/dev/sdb"
    unsigned long long lun = 0;
    std::optional<unsigned long long> bytes;
    std::string state; // as the kernel spells it: "running", "blocked", "transport-offline"
    std::string map{}; // the map it is a path of ("/dev/mapper/mpatha"), or empty
    std::vector<std::string> users{}; // stacked devices other than `map`, mount points, "swap"
};

struct Session
{
    int sid;
    std::string state;            // as the kernel spells it: "LOGGED_IN", "FAILED", "FREE"
    std::optional<Portal> portal; // the address in the node record, not the one of a redirection
    std::string iqn;              // empty if the kernel does not show it
    std::vector<Disk> disks{};    // in the order of their LUNs
    std::string iface{};          // name of the initiator's interface record; may be empty
    std::optional<int> host{};    // number of the SCSI host
};

// Returns the sessions in the order of their identifiers. `map` and `users` of their disks are empty.
// Throws std::runtime_error, with a sentence for the user, if sysfs cannot be read.
std::vector<Session> ReadSessions(const std::string& root = "");

// Returns the physical disks beneath `device`: those of a stacked device, the disk of a partition, a
// disk itself. Empty if there is no such device. Throws std::runtime_error as above.
std::vector<std::string> FindDisksBeneath(const std::string& device, const std::string& root = "");

// What follows from sessions; these functions are pure.

// Whether the connection is up.
bool IsLoggedIn(const Session& session);
bool AnyIsLoggedIn(const std::vector<Session>& sessions);

// Whether the disk can be read through that session.
bool Works(const Session& session, const Disk& disk);

// Returns the state of the session, and that of the disk if it is not running: "LOGGED_IN/offline".
// `disk` may be null.
std::string DescribeState(const Session& session, const Disk* disk);

// The portal in the form of the commands; empty if the kernel does not show it.
std::string PortalOf(const Session& session);

// Returns the sessions with the target `iqn`, through `portal` unless that is null.
std::vector<Session> SelectSessions(const std::vector<Session>& sessions, const std::string& iqn,
                                    const PortalMatcher* portal = nullptr);

std::vector<std::string> DevicesOf(const std::vector<Session>& sessions);

// A disk with its session.
struct Path
{
    Disk disk;
    Session session;
};

// Returns the paths whose disks are in `devices`: working ones first, then in the order of sessions.
std::vector<Path> FindPaths(const std::vector<Session>& sessions,
                            const std::vector<std::string>& devices);

} // namespace cli
