#include "simulated/Initiator.h"

#include "simulated/Devices.h"

#include <algorithm>
#include <utility>

namespace simulated
{
namespace
{

std::string Said(const std::string& words)
{
    return "iscsiadm: " + words + "\n";
}

auto FindSession(State& state, const Node& node)
{
    return std::find_if(state.sessions.begin(), state.sessions.end(), [&](const Session& session) {
        return session.iqn == node.iqn && session.portal == node.portal;
    });
}

// "target: IQN, portal: ADDRESS,PORT"
std::string TargetAndPortal(const Node& node)
{
    return "target: " + node.iqn + ", portal: " + node.portal.address + "," +
           std::to_string(node.portal.port);
}

// "ADDRESS:PORT,TPGT IQN"
std::string ListedAs(const Node& node)
{
    return FormatPortalAddress(node.portal) + ",1 " + node.iqn + "\n";
}

bool IsName(const std::string& host)
{
    return host.find(':') == std::string::npos &&
           host.find_first_not_of("0123456789.") != std::string::npos;
}

// Why a discovery cannot connect to `at`. `portal` is the scene's portal of this address, or null.
std::string ConnectFailure(const PortalAddress& at, const Portal* portal)
{
    if (portal == nullptr)
        return "cannot make connection to " + at.address + ": Network is unreachable";
    if (portal->answer == "refusing")
        return "cannot make connection to " + at.address + ": Connection refused";
    return "connect to " + at.address + " timed out";
}

bool IsOffered(const Target& target, const PortalAddress& at)
{
    return std::find(target.portals.begin(), target.portals.end(), at) != target.portals.end();
}

// Why the target refuses a log-on: the tool's status and words. 0 if it does not.
std::pair<int, std::string> Refusal(const Scene& scene, const Node& node, Settings settings)
{
    const Portal* portal = scene.FindPortal(node.portal);
    if (portal == nullptr || portal->answer == "silent")
        return {8, "connection timed out"};
    if (portal->answer == "refusing")
        return {4, "encountered connection failure"};
    const Target* target = scene.FindTarget(node.iqn);
    if (target == nullptr || !IsOffered(*target, node.portal))
        return {19, "encountered non-retryable iSCSI login failure"};
    if (!target->chap.user.empty() && (settings["node.session.auth.authmethod"] != "CHAP" ||
                                       settings["node.session.auth.username"] != target->chap.user ||
                                       settings["node.session.auth.password"] != target->chap.secret))
        return {24, "iSCSI login failed due to authorization failure"};
    return {0, ""};
}

// The lines of the session's disks.
std::string AttachedDisks(const Scene& scene, const State& state, const Session& session)
{
    std::string lines;
    for (const Disk& disk : DisksOf(scene, state))
        if (disk.session->sid == session.sid)
            lines += "\t\tscsi" + std::to_string(session.sid) +
                     " Channel 00 Id 0 Lun: " + std::to_string(disk.lun->lun) +
                     "\n\t\t\tAttached scsi disk " + disk.name + "\t\tState: running\n";
    return lines;
}

} // namespace

Outcome NotFound(const std::string& words)
{
    return {21, "", Said(words)};
}

PortalAddress Resolve(const Scene& scene, const std::string& text)
{
    PortalAddress at = ParsePortalAddress(text);
    for (const Portal& portal : scene.portals)
        if (portal.name == at.address)
            at.address = portal.portal.address;
    return at;
}

Outcome Discover(const Scene& scene, State& state, const PortalAddress& at)
{
    Outcome outcome;
    const Portal* portal = scene.FindPortal(at);
    if (IsName(at.address))
        return {4, "",
                Said("Cannot resolve host " + at.address +
                     ". getaddrinfo error: [Name or service not known]") +
                    Said("Could not perform SendTargets discovery: encountered connection failure")};
    if (portal == nullptr || portal->answer != "answering")
    {
        outcome.status = 11;
        outcome.pauseMs = scene.unreachableMs;
        for (int attempt = 1; attempt <= 6; ++attempt)
            outcome.err += Said(ConnectFailure(at, portal));
        outcome.err += Said("connection login retries (reopen_max) 5 exceeded") +
                       Said("Could not perform SendTargets discovery: iSCSI PDU timed out");
        return outcome;
    }
    for (const Target& target : scene.targets)
    {
        if (!IsOffered(target, at))
            continue;
        outcome.out += ListedAs({target.iqn, at});
        state.nodes[{target.iqn, at}] = {}; // a discovery resets the settings of a record
    }
    return outcome;
}

Outcome ListNodes(const State& state)
{
    Outcome outcome;
    for (const auto& [node, settings] : state.nodes)
        outcome.out += ListedAs(node);
    return outcome.out.empty() ? NotFound("No records found") : outcome;
}

Outcome DeleteNode(State& state, const Node& node)
{
    if (FindSession(state, node) != state.sessions.end())
        return {15, "",
                Said("This command will remove the record [iface: default, " + TargetAndPortal(node) +
                     "], but a session is using it. Logout session then rerun command to remove "
                     "record.") +
                    Said("Could not execute operation on all records: session exists")};
    state.nodes.erase(node);
    return {};
}

Outcome LogOn(const Scene& scene, State& state, const Node& node)
{
    const std::string notAll = Said("Could not log into all portals");
    if (FindSession(state, node) != state.sessions.end())
        return {15, "", Said("default: 1 session requested, but 1 already present.") + notAll};
    const std::string session = "[iface: default, " + TargetAndPortal(node) + "]";
    const std::string attempt = "Logging in to " + session + "\n";
    const auto [status, words] = Refusal(scene, node, state.nodes.at(node));
    if (status != 0)
        return {status, attempt,
                Said("Could not login to " + session + ".") +
                    Said("initiator reported error (" + std::to_string(status) + " - " + words + ")") +
                    notAll,
                status == 8 ? scene.unreachableMs : 0};
    state.sessions.push_back({++state.lastSid, node.iqn, node.portal});
    return {0, attempt + "Login to " + session + " successful.\n"};
}

Outcome LogOff(State& state, const Node& node)
{
    const auto session = FindSession(state, node);
    if (session == state.sessions.end())
        return NotFound("No matching sessions found");
    const std::string name =
        "[sid: " + std::to_string(session->sid) + ", " + TargetAndPortal(node) + "]";
    state.sessions.erase(session);
    return {0, "Logging out of session " + name + "\nLogout of " + name + " successful.\n"};
}

// Target: iqn.2025-01.org.example:plain (non-flash)
// 	Current Portal: 192.0.2.10:3260,1
// 	Persistent Portal: 192.0.2.10:3260,1
// 		SID: 1
// 		iSCSI Session State: LOGGED_IN
// 		Host Number: 1	State: running
// 		scsi1 Channel 00 Id 0 Lun: 1
// 			Attached scsi disk sdb		State: running
//
// Successive sessions of one target share one target line.
Outcome ReportSessions(const Scene& scene, State& state)
{
    if (state.sessions.empty())
        return NotFound("No active sessions.");
    for (Session& session : state.sessions)
        ++session.looks;
    AttachDisks(scene, state);              // the report shows those that appear at this look
    std::map<std::string, Session> inOrder; // as the tool sorts them: 1, 10, 2
    for (const Session& session : state.sessions)
        inOrder[std::to_string(session.sid)] = session;
    Outcome outcome;
    std::string lastIqn;
    for (const auto& [sid, session] : inOrder)
    {
        const std::string portal = FormatPortalAddress(session.portal) + ",1\n";
        if (session.iqn != lastIqn)
            outcome.out += "Target: " + session.iqn + " (non-flash)\n";
        lastIqn = session.iqn;
        outcome.out += "\tCurrent Portal: " + portal;
        outcome.out += "\tPersistent Portal: " + portal;
        outcome.out += "\t\tSID: " + sid + "\n\t\tiSCSI Session State: LOGGED_IN\n";
        outcome.out += "\t\tHost Number: " + sid + "\tState: running\n";
        outcome.out += AttachedDisks(scene, state, session);
    }
    return outcome;
}

} // namespace simulated
