// A host that does what a test tells it to and writes down what the library asked of it.
//
// The test program defines the host services itself and so takes precedence over the stand-alone host's
// libraries; the library under test is the shipped one.
#pragma once

#include "redhat/ZnISCSILinuxRedhat.h"

#include <deque>
#include <map>
#include <memory>
#include <optional>
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
    std::vector<std::string> children; // their names
    std::optional<std::string> parent; // its name
    bool known = true;                 // false: only the parent look-up succeeds
};

struct ScriptedHost
{
    int osType = 1;
    int osVersion = 5;
    std::set<std::string> missingTools;
    std::deque<ScriptedRun> runs; // what the next runs answer; a run beyond them fails the test
    std::map<std::string, std::string> settings; // "SECTION KEY" to the value
    std::map<std::string, ScriptedDevice> devices;
    bool keepsRawText = false; // whether the lines of level 2 are written down

    // All that happened, a line each:
    //   platform{  focus F  event{  debug{  }debug  }event  }platform
    //   LEVEL[ #JOB] TAG: TEXT      ("-" for a line without a level)
    //   access PATH, run COMMAND, detect, read SECTION KEY, sleep MS FILE, device PATH, parent PATH
    std::string transcript;
};

// The host that the services act on; made anew by each test.
extern ScriptedHost g_host;

struct ReleaseStorage
{
    void operator()(ZnISCSI* instance) const { ::operator delete(instance); }
};
using Instance = std::unique_ptr<ZnISCSILinuxRedhat, ReleaseStorage>;

// An instance as a host gets it, whatever host the test has set up; leaves an empty transcript.
Instance MakeInstance();

// Transcripts of the contexts, around what happens inside.
std::string InFullContext(const std::string& inside);
std::string InEventContext(const std::string& inside);
std::string InPlainContext(const std::string& inside);

// Lines of one tag. Each begins with its level ("-1 ", "0 "), followed by the job identifier where
// there is one ("-1 #42 ..."); a line that begins with a letter (run, access, ...) or a brace is taken
// as it stands.
std::string Lines(const std::string& tag, const std::vector<std::string>& lines);
