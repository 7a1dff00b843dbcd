// What the simulated initiator remembers between two runs of its tools: node records and sessions.
#pragma once

#include "simulated/Scene.h"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace simulated
{

struct NodeRecord
{
    std::string iqn;
    PortalAddress portal;
    std::map<std::string, std::string> settings; // those that somebody has changed

    // Empty if nobody has changed it.
    std::string Setting(const std::string& name) const
    {
        const auto found = settings.find(name);
        return found == settings.end() ? "" : found->second;
    }
};

struct Session
{
    int sid = 0; // also the number of its SCSI host
    std::string iqn;
    PortalAddress portal;
    int looks = 0;                    // session reports since the log-on
    int mpioLooks = 0;                // reports of ehcmcli since the log-on
    std::map<int, std::string> disks; // LUN -> kernel name, from the moment when the disk appears
};

struct State
{
    int lastSid = 0;
    std::vector<NodeRecord> nodes;  // sorted by IQN and address, as the tool lists them
    std::vector<Session> sessions;  // in log-on order
    std::map<int, int> faultRuns{}; // index of a fault in the scene -> matching runs so far
};

// The state file of a folder. Other tools are locked out from construction to destruction. The file is
// readable for its owner only: node records contain CHAP secrets.
class StateFile
{
public:
    // Throws Unusable.
    explicit StateFile(const std::filesystem::path& folder);
    StateFile(const StateFile&) = delete;
    StateFile& operator=(const StateFile&) = delete;
    ~StateFile();

    // Replaces the file as a whole. Throws Unusable.
    void Save() const;

    State state;

private:
    std::filesystem::path m_file;
    int m_lock;
};

} // namespace simulated
