#include "cli/initiator/Reasons.h"

#include "host/BeginsWith.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <utility>

#include <unistd.h>

namespace cli
{

namespace
{

constexpr std::string_view kFailed = "Failed to run ";
constexpr const char* kTrying = " ... Trying ";

// Error lines that are not the reason of a failure: a text that the failure message repeats, an
// optional tool that is missing, the end of a report.
constexpr std::string_view kIdle[] = {"Error returned by command is: ", "/usr/sbin/ehcmcli not found!!",
                                      "Unable to parse the input or end of input string"};

constexpr const char* kRunAsRoot = "run as root: iscsiadm requires it";

struct Explanation
{
    const char* words; // part of a line of the tool
    Cause cause;
    const char* nextStep;
};

// The first match decides: "refused" is before "timed out", since a refused discovery reports both. All
// words have a blank, which no portal, IQN, device or CHAP name in the tool's message has.
constexpr Explanation kExplanations[] = {
    {"not root", Cause::ToolFailed, kRunAsRoot},
    {"connect to iSCSI daemon", Cause::ToolFailed,
     "start the initiator's daemon: systemctl enable --now iscsid.socket"},
    {"did not end within", Cause::TimedOut,
     "the initiator's daemon may still complete it; see: zniscsi sessions"},
    {"authorization failure", Cause::NotAuthorized, ""},
    {words::kNoRecord, Cause::NoRecord, "discover the portal first: zniscsi discover PORTAL"},
    {"session is using it", Cause::InUse, "log off first: zniscsi logoff PORTAL IQN"},
    {"resource in use", Cause::InUse, ""},
    {"onnection refused", Cause::Unreachable, "check that the target's server runs at PORTAL"},
    {"onnection failure", Cause::Unreachable, "check that the target's server runs at PORTAL"},
    {"is unreachable", Cause::Unreachable, "check that there is a route to PORTAL"},
    {"No route to host", Cause::Unreachable, "check that there is a route to PORTAL"},
    {"esolve host", Cause::Unreachable, "check the name of the portal"},
    {"timed out", Cause::TimedOut, "check that PORTAL can be reached from here"},
    {words::kNoSession, Cause::NoSession, "log on first: zniscsi logon IQN"},
};

bool Contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

void AddOnce(std::vector<std::string>& lines, const std::string& line)
{
    if (!line.empty() && std::find(lines.begin(), lines.end(), line) == lines.end())
        lines.push_back(line);
}

// Failed to run /sbin/iscsiadm -m session -P3: iscsiadm: No active sessions.
//  ... Trying /sbin/iscsiadm -m session -i
void AddFailedRun(const std::string& error, LoggedReasons& reasons)
{
    const std::string text = error.substr(0, error.rfind(kTrying));
    const std::size_t colon = std::min(text.find(": "), text.size());
    AddOnce(reasons.lines, text.substr(0, colon));
    std::istringstream lines(text.substr(std::min(colon + 2, text.size())));
    for (std::string line; std::getline(lines, line);)
    {
        AddOnce(reasons.lines, line);
        AddOnce(reasons.toolLines, line);
    }
}

// The answer to a refused secret depends on whether there was one.
std::string NextStepOf(const Explanation& explanation, const Request& request)
{
    if (explanation.cause != Cause::NotAuthorized)
        return explanation.nextStep;
    return request.chapUser ? "check the CHAP name and the secret"
                            : "the target wants a CHAP name and secret that it knows: --chap-user NAME";
}

// Whether an ordinary user's tool may have failed for want of rights: it finds no record where it may
// not look, cannot lock its database, and a signal ends it when the daemon does not listen to it.
bool SaysLittle(const Explanation* known, const LoggedReasons& logged)
{
    if (known != std::end(kExplanations))
        return known->cause == Cause::NoRecord;
    return AnyContains(logged.toolLines, "iscsiadm: ") ||
           AnyContains(logged.toolLines, "iSCSI ERROR: ");
}

// Puts the values of the request in the place of PORTAL and IQN.
void Fill(std::string& step, const Request& request)
{
    const std::pair<std::string, const std::string&> values[] = {{"IQN", request.iqn},
                                                                 {"PORTAL", request.portal}};
    for (std::size_t at = step.size(); at-- > 0;) // from the end: a value may have these words
        for (const auto& [word, value] : values)
            if (!value.empty() && step.compare(at, word.size(), word) == 0)
                step.replace(at, word.size(), value);
}

} // namespace

bool AnyContains(const std::vector<std::string>& lines, const char* part)
{
    return std::any_of(lines.begin(), lines.end(),
                       [part](const std::string& line) { return Contains(line, part); });
}

LoggedReasons ParseReasons(const std::vector<std::string>& errors)
{
    LoggedReasons reasons;
    for (const std::string& error : errors)
    {
        if (std::any_of(std::begin(kIdle), std::end(kIdle),
                        [&error](std::string_view idle) { return BeginsWith(error, idle); }))
            continue;
        reasons.toolIsMissing = reasons.toolIsMissing || error == words::kIscsiadmMissing;
        if (BeginsWith(error, kFailed))
            AddFailedRun(error, reasons);
        else
            AddOnce(reasons.lines, error);
        // The messages of a second command after that do not explain anything.
        if (AnyContains(reasons.toolLines, words::kNoSession))
            break;
    }
    return reasons;
}

Failure Explain(std::vector<std::string> reasons, const LoggedReasons& logged, const Request& request,
                Cause cause, const std::string& nextStep)
{
    reasons.insert(reasons.end(), logged.lines.begin(), logged.lines.end());
    std::string step = nextStep;
    const auto* const known = std::find_if(
        std::begin(kExplanations), std::end(kExplanations),
        [&logged](const Explanation& each) { return AnyContains(logged.toolLines, each.words); });
    if (logged.toolIsMissing)
    {
        cause = Cause::ToolMissing;
        step = "what to install: zniscsi doctor";
    }
    else if (geteuid() != 0 && SaysLittle(known, logged))
    {
        cause = Cause::ToolFailed;
        step = kRunAsRoot;
    }
    else if (known != std::end(kExplanations))
    {
        cause = known->cause;
        step = NextStepOf(*known, request);
    }
    Fill(step, request);
    if (!step.empty())
        reasons.push_back(step);
    return {cause, reasons};
}

} // namespace cli
