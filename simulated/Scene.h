// The scene: what a simulated machine consists of. scenes/demo.json explains every key.
#pragma once

#include <filesystem>
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

// "192.0.2.10", "192.0.2.10:3260", "[2001:db8::10]:3260". Any other text is a host name.
PortalAddress ParsePortalAddress(const std::string& text);

// The reverse, always with the port.
std::string FormatPortalAddress(const PortalAddress& at);

struct Portal
{
    PortalAddress portal;
    std::string name; // a host name of this address; may be empty
    std::string answer = "answering";
};

struct ChapAccount
{
    std::string user; // empty: no CHAP
    std::string secret;
};

struct Lun
{
    int lun = 0;
    std::vector<std::string> kernelNames;
    int partitions = 0;
    int atLook = 0;
};

struct Target
{
    std::string iqn;
    std::vector<PortalAddress> portals;
    ChapAccount chap;
    std::vector<Lun> luns;
};

struct MultipathMap
{
    std::string name;
    std::vector<std::string> targets;
    int lun = 1;
    std::size_t minPaths = 1;
    int partitions = 0;
    std::vector<std::string> volumes; // LVM on the last partition, or on the map
};

// What ehcmcli reports of a target that has a session.
struct MpioVolume
{
    std::string name;
    std::string target;
    std::string device;
    int atLook = 0;
};

// How one command goes wrong.
struct Fault
{
    std::string command;                   // the words that a command line must have
    int times = 0;                         // how many of the matching runs fail; 0: all
    int status = -1;                       // -1: the command's own; otherwise its changes are undone
    std::string output = "{output}";       // {output}: what the command would have printed
    std::string stderrOutput = "{stderr}"; // {stderr} likewise; {secret}: the CHAP secret
    int pauseMs = 0;                       // how long the tool hangs before it ends
};

struct Scene
{
    int unreachableMs = 300;
    std::vector<std::string> localDisks; // kernel names
    std::vector<Portal> portals;
    std::vector<Target> targets;
    std::vector<MultipathMap> maps;
    bool ehcmcliInstalled = false;
    std::vector<MpioVolume> ehcmcliVolumes;
    std::vector<Fault> faults;

    // Null if the scene has none.
    const Portal* FindPortal(const PortalAddress& at) const;
    const Target* FindTarget(const std::string& iqn) const;
};

// Throws Unusable, which names the file, the key and the mistake.
Scene ReadScene(const std::filesystem::path& file);

} // namespace simulated
