// What a simulated machine is made of, as its scene file says. scenes/demo.json explains every key.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace simulated
{

// A scene, a state or an environment that cannot be used; what() is the whole sentence for the user.
struct Unusable : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

struct PortalAddress
{
    std::string address; // IPv6 without brackets; a host name where a person may give one
    int port = 3260;

    bool operator==(const PortalAddress& other) const
    {
        return address == other.address && port == other.port;
    }
};

// "192.0.2.10", "192.0.2.10:3260", "[2001:db8::10]:3260", each with or without a ",TPGT" behind it.
// What is none of these is taken for a name.
PortalAddress ParsePortalAddress(const std::string& text);

// Whether it is an address and no name.
bool IsNumeric(const PortalAddress& at);

struct Portal
{
    PortalAddress portal;
    std::string name; // a host name that leads here; may be empty
    std::string answer;
};

struct ChapAccount
{
    std::string user; // empty: no CHAP
    std::string secret;
};

struct Lun
{
    int lun;
    bool disk;
    std::vector<std::string> kernelNames;
    std::string state;
    int partitions;
    int atLook;
    int afterMs;
};

struct Target
{
    std::string iqn;
    std::vector<PortalAddress> portals;
    ChapAccount chap;
    std::vector<Lun> luns;
};

// A multipath map, what kpartx makes of it, and the logical volumes on top (of the last partition, if
// any).
struct MultipathMap
{
    std::string name;
    std::string wwid;
    std::vector<std::string> targets;
    int lun;
    int minPaths;
    int partitions;
    std::vector<std::string> volumes;
};

// What ehcmcli reports of a target that has a session.
struct MpioVolume
{
    std::string name;
    std::string target;
    std::string device;
    int atLook;
};

// How one command goes wrong.
struct Fault
{
    std::string command; // words, every one of which the command line holds
    int times;           // the first matching runs that are struck; 0: all
    int status;          // -1: the command's own; otherwise what it changed is undone
    std::string output;
    std::string stderrOutput;
    bool half;
    int leaveBehindMs;
};

struct Scene
{
    std::string toolVersion;
    bool detailedReport;
    std::string sessionExists;
    int unreachableMs;
    std::string initiatorName;
    std::string initiatorAddress;
    std::vector<std::string> localDisks; // kernel names
    std::vector<Portal> portals;
    std::vector<Target> targets;
    std::vector<MultipathMap> maps;
    bool ehcmcliInstalled;
    std::vector<MpioVolume> ehcmcliVolumes;
    std::vector<Fault> faults;

    // Before 2.0-873: a short report, no "(non-flash)".
    bool ToolIsOld() const;

    const Portal* FindPortal(const PortalAddress& at) const;
    const Target* FindTarget(const std::string& iqn) const;
};

// Throws Unusable, which says where in the file the mistake is.
Scene ReadScene(const std::string& file);

} // namespace simulated
