// What the simulated initiator remembers between two runs of its tools: node records, sessions,
// devices.
#pragma once

#include "simulated/Scene.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace simulated
{

struct NodeRecord
{
    std::string iqn;
    PortalAddress portal;
    int tpgt = 0;                                // -1: a record that a person made
    std::map<std::string, std::string> settings; // those that are not as every new record has them

    std::string Setting(const std::string& name) const;
};

struct Session
{
    int sid = 0;
    int host = 0;
    std::string iqn;
    PortalAddress portal;
    std::string user; // the CHAP users of the log-on; never a secret
    std::string userIn;
    std::int64_t startedMs = 0;       // since the epoch
    int looks = 0;                    // session reports since the log-on
    int mpioLooks = 0;                // status reports of ehcmcli since the log-on
    std::map<int, std::string> disks; // LUN -> kernel name, once the disk is there
};

struct State
{
    int lastSid = 0;
    std::vector<NodeRecord> nodes;        // in the order in which the tool lists them
    std::vector<Session> sessions;        // in log-on order
    std::map<std::string, int> dmNumbers; // device-mapper name -> N of dm-N
    std::set<std::string> knownMaps;      // maps that have been up before
    std::map<int, int> faultRuns;         // place of a fault in the scene -> matching runs so far
};

// Hosts and device-mapper devices are numbered as the kernel does it: a number that is given up comes
// back.
int LowestFree(const std::set<int>& used);

// The state file of a folder, locked against other tools from construction to destruction. It is
// readable for its owner only: node records hold CHAP secrets.
class StateFile
{
public:
    // Makes the folder when there is none. Throws Unusable.
    explicit StateFile(const std::filesystem::path& folder);
    StateFile(const StateFile&) = delete;
    StateFile& operator=(const StateFile&) = delete;
    ~StateFile();

    // Replaces the file as a whole: a reader sees the old state or the new one. Throws Unusable.
    void Save() const;

    State state;

private:
    std::filesystem::path m_file;
    int m_lock;
};

} // namespace simulated
