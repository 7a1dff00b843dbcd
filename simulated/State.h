// What the simulated initiator remembers between two runs of its tools: node records and sessions.
#pragma once

#include "simulated/Scene.h"

#include <map>
#include <string>
#include <vector>

namespace simulated
{

// A target at a portal: what a node record is for, and a session leads to.
struct Node
{
    std::string iqn;
    PortalAddress portal;

    // The order of the tool's list.
    bool operator<(const Node& other) const
    {
        return iqn + ' ' + FormatPortalAddress(portal) <
               other.iqn + ' ' + FormatPortalAddress(other.portal);
    }
};

// The settings of a node record that somebody has changed.
using Settings = std::map<std::string, std::string>;

struct Session
{
    int sid = 0; // also the number of its SCSI host
    std::string iqn;
    PortalAddress portal;
    int looks = 0;                      // session reports since the log-on
    int mpioLooks = 0;                  // reports of ehcmcli since the log-on
    std::map<int, std::string> disks{}; // LUN -> kernel name, from the moment when the disk appears
};

struct State
{
    int lastSid = 0;
    std::map<Node, Settings> nodes;
    std::vector<Session> sessions;  // in log-on order
    std::map<int, int> faultRuns{}; // index of a fault in the scene -> matching runs so far
};

// A new state if there is no such file. Throws Unusable.
State ReadState(const std::filesystem::path& file);

// Replaces the file as a whole; its owner alone may read it: node records contain CHAP secrets. Throws
// Unusable.
void WriteState(const std::filesystem::path& file, const State& state);

} // namespace simulated
