// A host that does what a test tells it to and writes down what the library asked of it.
//
// The test program defines the host services itself and so takes precedence over the stand-alone host's
// libraries; the library under test is the shipped one.
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
    bool isKnown = false;              // whether the tree has the device itself
    std::string parent;                // its name; empty: the tree knows no parent
    std::vector<std::string> children; // their names
};

class ScriptedHost
{
public:
    int osType = 1;
    int osVersion = 5;
    std::set<std::string> missingTools;
    std::deque<ScriptedRun> runs; // what the next runs answer; a run beyond them fails the test
    std::map<std::string, std::string> settings; // "SECTION KEY" to the value
    std::map<std::string, ScriptedDevice> devices;
    std::set<std::string> hiddenTags; // whose log lines are not written down

    // All that happened, a line each, indented by a blank for each context that is open around it;
    // texts and commands are escaped:
    //   LEVEL[ #JOB] TAG: TEXT      ("-" for a line without a level)
    //   access PATH, run COMMAND, detect, read SECTION KEY, sleep MS FILE, device PATH, parent PATH
    //   platform FOCUS, log, event  (contexts; on one line where they open one right after the other)
    // Where the log has just said "Running [COMMAND]", the run is an "and does" behind that.
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

// The host that the services act on; made anew by each test.
extern ScriptedHost g_host;

struct ReleaseStorage
{
    void operator()(ZnISCSI* instance) const { ::operator delete(instance); }
};
using Instance = std::unique_ptr<ZnISCSILinuxRedhat, ReleaseStorage>;

// An instance as a host gets it, whatever host the test has set up; leaves no trace in the transcript.
Instance MakeInstance();

// `text` with \n, \r, \t, \0 and \\ for these characters, so that it fits on a line.
std::string Escaped(const std::string& text);
