// A host that answers as a test tells it and records what the library asks of it.
//
// The test program defines the host services itself, which take precedence over those of the
// stand-alone host's libraries. The library under test is the shipped one.
#pragma once

#include "redhat/ZnISCSILinuxRedhat.h"

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

struct ScriptedRun
{
    int result = 0;
    std::string output;
    std::string errorOutput;
};

struct ScriptedDevice
{
    bool isKnown = false;              // whether the tree has the device
    std::string parent;                // its name; empty if the tree has none
    std::vector<std::string> children; // their names
};

class ScriptedHost
{
public:
    int osType = 1;
    int osVersion = 5;
    std::set<std::string> missingTools;
    std::deque<ScriptedRun> runs; // results of the next runs; the test fails if there are more runs
    std::map<std::string, std::string> settings; // by "SECTION KEY"
    std::map<std::string, ScriptedDevice> devices;
    std::set<std::string> hiddenTags; // of log lines that are not recorded
    int reads = -1;                   // of the registry's open reader; -1: none is open
    const void* treeError = nullptr;  // given to the last look-up of a device

    // Everything that happened, one line each, indented by one blank for each open context. Texts and
    // commands are escaped:
    //   LEVEL[ #JOB] TAG: TEXT      ("-" for a line without a level)
    //   access PATH, run COMMAND, detect, read SECTION KEY, sleep MS FILE, device PATH, parent PATH
    //   platform FOCUS, log, event  (contexts; on one line if nothing happens between them)
    // A run directly after the log line "Running [COMMAND]" is shown as "and does" at its end.
    std::string transcript;

    void Happened(const std::string& what);
    void Ran(const std::string& command);
    void Opened(const std::string& context);
    void Focused(const std::string& focus);
    void Closed(const std::string& context);

private:
    std::vector<std::string> m_contexts;
    bool m_isOpening = false; // nothing has happened since the last context opened
};

// The host that the services act on.
extern ScriptedHost g_host;

struct ReleaseStorage
{
    void operator()(ZnISCSI* instance) const { ::operator delete(instance); }
};
using Instance = std::unique_ptr<ZnISCSILinuxRedhat, ReleaseStorage>;

// Returns an instance as a served machine gets it, and resets g_host.
Instance MakeInstance();

// Returns `text` on one line: with \n, \r, \t, \0, \" and \\ for these characters.
std::string Escaped(const std::string& text);
