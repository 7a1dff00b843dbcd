#include "agent/Reasons.h"

#include "host/BeginsWith.h"

#include <algorithm>
#include <sstream>

namespace
{

constexpr const char* kFailed = "Failed to run ";
constexpr const char* kTrying = " ... Trying ";

// Error lines that are not the reason of a failure: a text that the failure message repeats, an
// optional tool that is missing, the end of a report.
constexpr const char* kIdle[] = {"Error returned by command is: ", words::kEhcmcliMissing,
                                 "Unable to parse the input or end of input string"};

struct Explanation
{
    const char* words; // part of a reason
    Cause cause;
    const char* nextStep; // PORTAL and IQN are replaced by those of the request
};

constexpr const char* kLogOnFirst = "log on first: zniscsi logon PORTAL IQN";

// The first match decides: "refused" is before "timed out", since a refused discovery reports both.
constexpr Explanation kExplanations[] = {
    {words::kIscsiadmMissing, Cause::ToolMissing, "what to install: zniscsi doctor"},
    {"not root", Cause::ToolFailed, "the initiator takes orders from root alone"},
    {"connect to iSCSI daemon", Cause::ToolFailed,
     "start the initiator's daemon: systemctl enable --now iscsid.socket"},
    {"authorization failure", Cause::NotAuthorized,
     "the target wants a CHAP name and secret that it knows: --chap-user NAME"},
    {words::kNoRecord, Cause::NoRecord, "discover the portal first: zniscsi discover PORTAL"},
    {"a session is using it", Cause::InUse, "log off first: zniscsi logoff PORTAL IQN"},
    {"onnection refused", Cause::Unreachable, "see that the target's server runs at PORTAL"},
    {"onnection failure", Cause::Unreachable, "see that the target's server runs at PORTAL"},
    {"unreachable", Cause::Unreachable, "see that there is a route to PORTAL"},
    {"No route to host", Cause::Unreachable, "see that there is a route to PORTAL"},
    {"esolve host", Cause::Unreachable, "see that the name of the portal is right"},
    {"timed out", Cause::TimedOut, "see that PORTAL can be reached from here"},
    {words::kNoSession, Cause::NoSession, kLogOnFirst},
    {words::kNoSessionWith, Cause::NoSession, kLogOnFirst},
};

// Failed to run /sbin/iscsiadm -m session -P3: iscsiadm: No active sessions.
//  ... Trying /sbin/iscsiadm -m session -i
std::string ParseLines(const std::string& error)
{
    std::string lines = error.substr(0, error.rfind(kTrying));
    if (const std::size_t colon = lines.find(": ");
        BeginsWith(lines, kFailed) && colon != std::string::npos)
        lines.replace(colon, 2, "\n");
    return lines;
}

void Replace(std::string& text, const std::string& word, const std::string& value)
{
    const std::size_t at = text.find(word);
    if (at != std::string::npos && !value.empty())
        text.replace(at, word.size(), value);
}

} // namespace

bool Contains(const std::string& text, const char* part)
{
    return text.find(part) != std::string::npos;
}

bool AnyContains(const std::vector<std::string>& lines, const char* part)
{
    return std::any_of(lines.begin(), lines.end(),
                       [part](const std::string& line) { return Contains(line, part); });
}

std::vector<std::string> ParseReasons(const std::vector<std::string>& errors)
{
    std::vector<std::string> reasons;
    for (const std::string& error : errors)
    {
        if (std::any_of(std::begin(kIdle), std::end(kIdle),
                        [&error](const char* idle) { return BeginsWith(error, idle); }))
            continue;
        std::istringstream lines(ParseLines(error));
        for (std::string line; std::getline(lines, line);)
            if (!line.empty() && std::find(reasons.begin(), reasons.end(), line) == reasons.end())
                reasons.push_back(line);
        // The messages of a second command after that do not explain anything.
        if (Contains(error, words::kNoSession))
            break;
    }
    return reasons;
}

Failure Explain(std::vector<std::string> reasons, const Request& request, Cause cause)
{
    // The name of the target may contain any of the words.
    std::vector<std::string> searched = reasons;
    for (std::string& reason : searched)
        while (!request.iqn.empty() && Contains(reason, request.iqn.c_str()))
            Replace(reason, request.iqn, "-");
    for (const Explanation& explanation : kExplanations)
    {
        if (!AnyContains(searched, explanation.words))
            continue;
        std::string nextStep = explanation.nextStep;
        Replace(nextStep, "PORTAL", request.portal);
        Replace(nextStep, "IQN", request.iqn);
        reasons.push_back(nextStep);
        return {explanation.cause, reasons};
    }
    return {cause, reasons};
}
