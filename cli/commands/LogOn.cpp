#include "cli/commands/Commands.h"
#include "cli/commands/LibraryCall.h"
#include "cli/initiator/Reasons.h"
#include "cli/initiator/RecordLock.h"
#include "cli/terminal/SecretPrompt.h"
#include "cli/terminal/StatusLine.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

namespace cli
{

namespace
{

bool IsLost(const Session& session)
{
    return session.state == "FAILED";
}

// The sessions of the node. Another program may be logging on: waits for a session that is not lost.
std::vector<Session> FindSessions(const Node& node)
{
    std::vector<Session> sessions;
    Await(kMaxSettling, [&] {
        sessions = node.Select(ReadSessions());
        return sessions.empty() || AnyIsLoggedIn(sessions) ||
               std::any_of(sessions.begin(), sessions.end(), IsLost);
    });
    return sessions;
}

// The answer if the node has `sessions`. Throws Failure if none of them is logged in: with what the
// tool said, if it ran.
Answer AnswerLogOn(const std::vector<Session>& sessions, const LibraryCall& call, bool isNew)
{
    const Request& request = call.request;
    if (AnyIsLoggedIn(sessions))
    {
        for (const Session& session : sessions)
            if (!IsLoggedIn(session))
                WarnOfState("session " + std::to_string(session.sid), session.state);
        return {isNew ? "logged on\n" : "already logged on\n", {{"already", !isNew}}};
    }
    const Session& session = sessions.front();
    const std::string state =
        IsLost(session) ? " has lost its connection (FAILED); the initiator tries to restore it"
                        : " exists, but is not logged in (" + session.state + ')';
    call.Fail(
        Cause::SessionFailed,
        {"cannot log on to " + NodeName(request), "session " + std::to_string(session.sid) + state},
        "check that PORTAL can be reached, or end the session: zniscsi logoff PORTAL IQN");
}

bool RunLogOn(const LibraryCall& call, const Secret* secret)
{
    const Request& request = call.request;
    const char* const portal = request.portal.c_str();
    const char* const iqn = request.iqn.c_str();
    return (secret == nullptr ? call.initiator->LogOnToiSCSITarget(portal, iqn)
                              : call.initiator->LogOnToiSCSITargetUsingCHAP(
                                    portal, iqn, request.chapUser->c_str(), secret->c_str())) == 1;
}

// `all` are the sessions at the last look.
[[noreturn]] void FailLogOn(const LibraryCall& call, const Node& node, bool isReported,
                            const std::vector<Session>& all)
{
    const std::string sentence = "cannot log on to " + node.name;
    // A session through a name that only the tool resolves would not be recognised.
    if (!node.portal.Error().empty())
        call.Fail(Cause::Unreachable, {sentence, node.portal.Error()});
    if (!isReported)
        call.Fail(Cause::ToolFailed, {sentence});
    RequireShown(sentence, all, node.iqn);
    call.Fail(Cause::NoSession,
              {sentence, "/sbin/iscsiadm reported success, but the kernel has no such session"},
              "see what the tool says: /sbin/iscsiadm -m node -T IQN -p PORTAL -l");
}

// Logs on to a node without a session. `secret` may be null.
Answer LogOnTo(const LibraryCall& call, const Node& node, const Secret* secret)
{
    const SlowWork work("logging on to " + node.name);
    const bool isReported = RunLogOn(call, secret);
    std::vector<Session> all, sessions;
    Await(isReported ? kMaxSettling : std::chrono::seconds(0), [&] {
        all = ReadSessions();
        sessions = node.Select(all);
        return AnyIsLoggedIn(sessions);
    });
    if (sessions.empty())
        FailLogOn(call, node, isReported, all);
    Answer answer = AnswerLogOn(sessions, call, true);
    if (!isReported) // one of several interfaces, for example
        WarnOfReasons(call);
    return answer;
}

std::vector<Request> RequestsOf(const LibraryCall& call)
{
    const Request& request = call.request;
    if (!request.portal.empty())
        return {request};
    const std::string sentence = "cannot log on to " + request.iqn;
    const auto records = SelectRecords(call.RequireRecords(sentence), request.iqn);
    if (records.empty())
        call.Fail(Cause::NoRecord, {sentence, "no node record names this target"},
                  "discover a portal of it first: zniscsi discover PORTAL");
    return OnePerPortal(request, records);
}

} // namespace

Answer LogOn(const Request& request)
{
    LibraryCall call(request);
    const std::vector<Request> requests = RequestsOf(call);
    const std::vector<Node> nodes(requests.begin(), requests.end());
    // Look before the prompt for a secret, and again under the lock.
    const bool isNeeded = std::any_of(nodes.begin(), nodes.end(),
                                      [](const Node& node) { return FindSessions(node).empty(); });
    std::unique_ptr<const Secret> secret;
    std::optional<RecordLock> discovery, target;
    if (isNeeded)
    {
        secret = ReadSecret(request);
        if (secret)
            discovery.emplace(RecordLock::AgainstDiscovery(request));
        target.emplace(RecordLock::OfTarget(request));
    }
    bool someWereLoggedOn = false;
    Answer answer = AnswerEach(call, requests, [&](std::size_t index) {
        const Node& node = nodes[index];
        const std::vector<Session> sessions = FindSessions(node);
        someWereLoggedOn = someWereLoggedOn || AnyIsLoggedIn(sessions);
        if (!sessions.empty())
            return AnswerLogOn(sessions, call, false);
        if (!isNeeded)
            throw Failure(Cause::NoSession,
                          {"cannot log on to " + node.name, "its session has just ended: try again"});
        return LogOnTo(call, node, secret.get());
    });
    if (request.chapUser && someWereLoggedOn)
        PrintError(
            "note: already logged on; the CHAP name and secret were not saved. Log off and on again "
            "to use them");
    return answer;
}

} // namespace cli
