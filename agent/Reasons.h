// Why an operation failed, from the log lines of the library and the messages of the tools. All their
// texts that this program depends on are in this file and its .cpp.
#pragma once

#include "agent/Arguments.h"
#include "agent/Output.h"

#include <string>
#include <string_view>
#include <vector>

namespace words
{
constexpr const char* kIscsiadmMissing = "/sbin/iscsiadm not found!!";
constexpr const char* kEhcmcliMissing = "/usr/sbin/ehcmcli not found!!";
constexpr std::string_view kRun = "Running [%s]"; // format of the lines that name a command line
constexpr const char* kEhcmcliRun = "Running [/usr/sbin/ehcmcli status]";
constexpr std::string_view kSessionParser = "ParseIscsiadmSessionInfoOutput"; // tag of its lines
constexpr std::string_view kVolumeParser = "ZnISCSIUnix::ParseDellMPIOOutput";
constexpr const char* kPortalsDiffer = "The Target Portals for all children should match.";
constexpr const char* kNoSession = "No active sessions";
constexpr const char* kNoRecord = "o records found";                // "No ..." from 2.0-873 on
constexpr const char* kNoSessionWith = "there is no session with "; // from this program
} // namespace words

bool Contains(const std::string& text, const char* part);
bool AnyContains(const std::vector<std::string>& lines, const char* part);

// Turns the log's error lines of one operation into reasons for the user: each only once, the tool's
// messages line by line behind the command that was run.
std::vector<std::string> ParseReasons(const std::vector<std::string>& errors);

// Returns the failure with the cause that `reasons` show, and appends the next step if one is known.
// `cause` is used if the reasons show none.
Failure Explain(std::vector<std::string> reasons, const Request& request, Cause cause);
