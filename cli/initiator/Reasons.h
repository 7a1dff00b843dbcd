// Why an operation failed, from the log lines of the library and the messages of the tools. All their
// texts that this program depends on are in this file and its .cpp.
#pragma once

#include "cli/Request.h"
#include "cli/terminal/Output.h"

#include <string>
#include <string_view>
#include <vector>

namespace cli
{

namespace words
{
constexpr const char* kIscsiadmMissing = "/sbin/iscsiadm not found!!";
constexpr std::string_view kRun = "Running [%s]"; // format of the lines that name a command line
constexpr const char* kEhcmcliRun = "Running [/usr/sbin/ehcmcli status]";
constexpr std::string_view kSessionParser = "ParseIscsiadmSessionInfoOutput"; // tag of its lines
constexpr std::string_view kVolumeParser = "ZnISCSIUnix::ParseDellMPIOOutput";
constexpr const char* kPortalsDiffer = "The Target Portals for all children should match.";
constexpr const char* kNoSession = "No active sessions";
constexpr const char* kNoMatch = "No matching sessions";
constexpr const char* kNoRecord = "o records found"; // "No ..." from 2.0-873 on
constexpr const char* kOwnTag = "zniscsi";           // of this program's log lines
} // namespace words

bool AnyContains(const std::vector<std::string>& lines, const char* part);

// What the error lines of one operation say to a person.
struct LoggedReasons
{
    std::vector<std::string> lines{}; // each only once; the tools' own behind the command that was run
    std::vector<std::string> toolLines{}; // those of them that a tool wrote
    bool toolIsMissing = false;
};

LoggedReasons ParseReasons(const std::vector<std::string>& errors);

// Returns the failure with `reasons`, then those that were logged, and last the next step. What the
// tool says decides about cause and next step; if it says nothing known, `cause` and `nextStep` hold.
// `nextStep` may be empty; in it PORTAL and IQN stand for those of the request.
Failure Explain(std::vector<std::string> reasons, const LoggedReasons& logged, const Request& request,
                Cause cause, const std::string& nextStep);

} // namespace cli
