// Why an operation failed: read from what the library and the tools wrote to the log. The sentences of
// theirs that this program knows are here and nowhere else.
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
constexpr std::string_view kRun = "Running [%s]"; // the format of the lines that say what is run
constexpr const char* kEhcmcliRun = "Running [/usr/sbin/ehcmcli status]";
constexpr const char* kPortalsDiffer = "The Target Portals for all children should match.";
constexpr const char* kNoSession = "No active sessions";
constexpr const char* kNoRecord = "o records found";                // with a capital N from 2.0-873 on
constexpr const char* kNoSessionWith = "there is no session with "; // this program's own
} // namespace words

bool Contains(const std::string& text, const char* part);
bool AnyContains(const std::vector<std::string>& lines, const char* part);

// The log's error lines of one operation as a user wants them: each thing once, a tool's words line by
// line behind the command that was run.
std::vector<std::string> ParseReasons(const std::vector<std::string>& errors);

// The failure that `reasons` tell of, with the next step as the last of them where there is one.
// `cause` is that of a failure that they do not explain.
Failure Explain(std::vector<std::string> reasons, const Request& request, Cause cause);
