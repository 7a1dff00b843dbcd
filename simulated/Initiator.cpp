#include "simulated/Initiator.h"

#include "simulated/Devices.h"

#include <algorithm>

namespace simulated
{
namespace
{

// The status of a log-on, and the tool's words for it.
struct Verdict
{
    int status;
    std::string words;
};

std::string Said(const std::string& words)
{
    return "iscsiadm: " + words + "\n";
}

Outcome NotFound(const std::string& words)
{
    return {21, "", Said(words)};
}

// The first of `items`, node records or sessions, that belongs to `node`, or their end.
template <class Items>
auto Find(Items& items, const Node& node)
{
    return std::find_if(items.begin(), items.end(), [&](const auto& item) {
        return item.iqn == node.iqn && item.portal == node.portal;
    });
}

bool HasSession(const State& state, const Node& node)
{
    return Find(state.sessions, node) != state.sessions.end();
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

// Replaces a record of the same node: a discovery resets its settings.
void AddRecord(State& state, const Node& node)
{
    if (const auto known = Find(state.nodes, node); known != state.nodes.end())
        state.nodes.erase(known);
    const auto key = [](const NodeRecord& record) {
        return record.iqn + ' ' + FormatPortalAddress(record.portal);
    };
    const NodeRecord fresh{node.iqn, node.portal, {}};
    const auto at = std::find_if(state.nodes.begin(), state.nodes.end(),
                                 [&](const NodeRecord& each) { return key(fresh) < key(each); });
    state.nodes.insert(at, fresh);
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

bool IsAuthorized(const Target& target, const NodeRecord& record)
{
    return target.chap.user.empty() ||
           (record.Setting("node.session.auth.authmethod") == "CHAP" &&
            record.Setting("node.session.auth.username") == target.chap.user &&
            record.Setting("node.session.auth.password") == target.chap.secret);
}

Verdict OpenSession(const Scene& scene, State& state, const NodeRecord& record)
{
    const Portal* portal = scene.FindPortal(record.portal);
    if (portal == nullptr || portal->answer == "silent")
        return {8, "connection timed out"};
    if (portal->answer == "refusing")
        return {4, "encountered connection failure"};
    const Target* target = scene.FindTarget(record.iqn);
    if (target == nullptr || !IsOffered(*target, record.portal))
        return {19, "encountered non-retryable iSCSI login failure"};
    if (!IsAuthorized(*target, record))
        return {24, "iSCSI login failed due to authorization failure"};
    state.sessions.push_back({++state.lastSid, record.iqn, record.portal, 0, 0, {}});
    return {0, ""};
}

// The tool sorts sessions by their identifiers as text: 1, 10, 2.
std::vector<Session> InReportOrder(std::vector<Session> sessions)
{
    std::sort(sessions.begin(), sessions.end(), [](const Session& a, const Session& b) {
        return std::to_string(a.sid) < std::to_string(b.sid);
    });
    return sessions;
}

// The lines of the session's disks.
std::string AttachedDisks(const Scene& scene, const State& state, const Session& session)
{
    std::string lines;
    for (const Disk& disk : DisksOf(scene, state))
    {
        if (disk.session->sid == session.sid)
            lines += "\t\tscsi" + std::to_string(session.sid) +
                     " Channel 00 Id 0 Lun: " + std::to_string(disk.lun->lun) +
                     "\n\t\t\tAttached scsi disk " + disk.name + "\t\tState: running\n";
    }
    return lines;
}

} // namespace

PortalAddress Resolve(const Scene& scene, const std::string& text)
{
    PortalAddress at = ParsePortalAddress(text);
    for (const Portal& portal : scene.portals)
    {
        if (portal.name == at.address)
            at.address = portal.portal.address;
    }
    return at;
}

Outcome Discover(const Scene& scene, State& state, const PortalAddress& at)
{
    Outcome outcome;
    const Portal* portal = scene.FindPortal(at);
    if (portal == nullptr || portal->answer != "answering")
    {
        outcome.status = 11;
        outcome.pauseMs = scene.unreachableMs;
        constexpr int kAttempts = 6;
        for (int i = 0; i < kAttempts; ++i)
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
        AddRecord(state, {target.iqn, at});
    }
    return outcome;
}

Outcome ListNodes(const State& state)
{
    Outcome outcome;
    for (const NodeRecord& record : state.nodes)
        outcome.out += ListedAs({record.iqn, record.portal});
    return outcome.out.empty() ? NotFound("No records found") : outcome;
}

Outcome UpdateNode(State& state, const Node& node, const std::string& name, const std::string& value)
{
    const auto record = Find(state.nodes, node);
    if (record == state.nodes.end())
        return NotFound("No records found");
    record->settings[name] = value;
    return {};
}

Outcome DeleteNode(State& state, const Node& node)
{
    const auto record = Find(state.nodes, node);
    if (record == state.nodes.end())
        return NotFound("No records found");
    if (HasSession(state, node))
        return {15, "",
                Said("This command will remove the record [iface: default, " + TargetAndPortal(node) +
                     "], but a session is using it. Logout session then rerun command to remove "
                     "record.") +
                    Said("Could not execute operation on all records: session exists")};
    state.nodes.erase(record);
    return {};
}

Outcome LogOn(const Scene& scene, State& state, const Node& node)
{
    const auto record = Find(state.nodes, node);
    if (record == state.nodes.end())
        return NotFound("No records found");
    const std::string notAll = Said("Could not log into all portals");
    const bool exists = HasSession(state, node);
    if (exists && scene.sessionExists == "counted")
        return {15, "", Said("default: 1 session requested, but 1 already present.") + notAll};
    const Verdict verdict =
        exists ? Verdict{15, scene.sessionExists} : OpenSession(scene, state, *record);
    const std::string session = "[iface: default, " + TargetAndPortal(node) + "]";
    Outcome outcome{verdict.status, "Logging in to " + session + "\n"};
    if (verdict.status == 0)
    {
        outcome.out += "Login to " + session + " successful.\n";
        return outcome;
    }
    if (verdict.status == 8)
        outcome.pauseMs = scene.unreachableMs;
    outcome.err = Said("Could not login to " + session + ".") +
                  Said("initiator reported error (" + std::to_string(verdict.status) + " - " +
                       verdict.words + ")") +
                  notAll;
    return outcome;
}

Outcome LogOff(State& state, const Node& node)
{
    const auto session = Find(state.sessions, node);
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
    AttachDisks(scene, state); // the report shows those that appear at this look
    Outcome outcome;
    std::string lastIqn;
    for (const Session& session : InReportOrder(state.sessions))
    {
        const std::string portal = FormatPortalAddress(session.portal) + ",1\n";
        const std::string sid = std::to_string(session.sid);
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
