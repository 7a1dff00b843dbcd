#include "simulated/Initiator.h"

#include "simulated/Devices.h"
#include "simulated/Reports.h"

#include <algorithm>
#include <tuple>

namespace simulated
{
namespace
{

constexpr const char* kAuthMethod = "node.session.auth.authmethod";
constexpr const char* kUser = "node.session.auth.username";
constexpr const char* kSecret = "node.session.auth.password";
constexpr const char* kUserIn = "node.session.auth.username_in";

// The status with which an operation ends, and the tool's words for it.
struct Verdict
{
    int status = 0;
    const char* words = "";
};
constexpr Verdict kDone;
constexpr Verdict kConnectionFailure{4, "encountered connection failure"};
constexpr Verdict kTimedOut{8, "connection timed out"};
constexpr Verdict kSessionExists{15, "session exists"};
constexpr Verdict kFatalLogin{19, "encountered non-retryable iSCSI login failure"};
constexpr Verdict kNotAuthorized{24, "iSCSI login failed due to authorization failure"};

std::string Said(const std::string& words)
{
    return "iscsiadm: " + words + "\n";
}

Outcome NotFound(const std::string& words)
{
    return {21, "", Said(words)};
}

// What `text` after -p leads to: host names are those of the scene's portals.
std::optional<PortalAddress> Resolve(const Scene& scene, const std::string& text)
{
    const PortalAddress at = ParsePortalAddress(text);
    if (IsNumeric(at))
        return at;
    for (const Portal& portal : scene.portals)
    {
        if (!portal.name.empty() && portal.name == at.address)
            return PortalAddress{portal.portal.address, at.port};
    }
    return std::nullopt;
}

// Whether a record or a session is one of the selection.
template <class Item>
auto IsSelected(const Scene& scene, const Selection& selection)
{
    const auto portal = Resolve(scene, selection.portal);
    return [selection, portal](const Item& item) {
        return (selection.iqn.empty() || item.iqn == selection.iqn) &&
               (selection.portal.empty() || (portal && item.portal == *portal));
    };
}

// Pointers into `items`, a state's records or sessions.
template <class Items>
auto Selected(const Scene& scene, Items& items, const Selection& selection)
{
    std::vector<decltype(&items.front())> selected;
    const auto isSelected = IsSelected<typename Items::value_type>(scene, selection);
    for (auto& item : items)
    {
        if (isSelected(item))
            selected.push_back(&item);
    }
    return selected;
}

const Session* FindSession(const State& state, const NodeRecord& record)
{
    const auto found =
        std::find_if(state.sessions.begin(), state.sessions.end(), [&](const Session& session) {
            return session.iqn == record.iqn && session.portal == record.portal;
        });
    return found == state.sessions.end() ? nullptr : &*found;
}

void AddRecord(State& state, const NodeRecord& record)
{
    const auto key = [](const NodeRecord& each) {
        return std::tie(each.iqn, each.portal.address, each.portal.port, each.tpgt);
    };
    const auto at =
        std::lower_bound(state.nodes.begin(), state.nodes.end(), record,
                         [&](const NodeRecord& a, const NodeRecord& b) { return key(a) < key(b); });
    if (at != state.nodes.end() && key(*at) == key(record))
        *at = record;
    else
        state.nodes.insert(at, record);
}

Outcome DiscoveryFailed(int status, const std::string& attempt, int attempts, const std::string& words)
{
    Outcome outcome{status, "", ""};
    for (int i = 0; i < attempts; ++i)
        outcome.err += Said(attempt);
    if (status == 11)
        outcome.err += Said("connection login retries (reopen_max) 5 exceeded");
    outcome.err += Said("Could not perform SendTargets discovery: " + words);
    return outcome;
}

int FreeHost(const State& state)
{
    std::set<int> used;
    for (const Session& session : state.sessions)
        used.insert(session.host);
    return LowestFree(used);
}

// The initiator offers CHAP where the record says so, and going without where the target wants none.
bool IsAuthorized(const Target& target, const NodeRecord& record)
{
    return target.chap.user.empty() ||
           (record.Setting(kAuthMethod) == "CHAP" && record.Setting(kUser) == target.chap.user &&
            record.Setting(kSecret) == target.chap.secret);
}

Verdict OpenSession(const Scene& scene, State& state, const NodeRecord& record)
{
    const Portal* portal = scene.FindPortal(record.portal);
    if (portal == nullptr || portal->answer == "silent")
        return kTimedOut;
    if (portal->answer == "refusing")
        return kConnectionFailure;
    const int sid = ++state.lastSid; // a log-on that fails from here on has used it up
    const Target* target = scene.FindTarget(record.iqn);
    if (target == nullptr || std::find(target->portals.begin(), target->portals.end(), record.portal) ==
                                 target->portals.end())
        return kFatalLogin;
    if (!IsAuthorized(*target, record))
        return kNotAuthorized;
    Session session;
    session.sid = sid;
    session.host = FreeHost(state);
    session.iqn = record.iqn;
    session.portal = record.portal;
    session.user = record.Setting(kUser);
    session.userIn = record.Setting(kUserIn);
    session.startedMs = NowMs();
    state.sessions.push_back(session);
    return kDone;
}

Verdict LogOnOne(const Scene& scene, State& state, const NodeRecord& record)
{
    if (FindSession(state, record) == nullptr)
        return OpenSession(scene, state, record);
    return {kSessionExists.status, scene.sessionExists.c_str()};
}

} // namespace

Outcome Discover(const Scene& scene, State& state, const std::string& portal)
{
    const auto at = Resolve(scene, portal);
    if (!at)
    {
        const std::string name = ParsePortalAddress(portal).address;
        Outcome failed =
            DiscoveryFailed(4, "cannot resolve host name " + name, 2, kConnectionFailure.words);
        failed.err.insert(0, Said("Cannot resolve host " + name +
                                  ". getaddrinfo error: [Name or service not known]"));
        return failed;
    }
    const Portal* found = scene.FindPortal(*at);
    if (found == nullptr || found->answer != "answering")
    {
        const bool hostIsThere =
            std::any_of(scene.portals.begin(), scene.portals.end(),
                        [&](const Portal& each) { return each.portal.address == at->address; });
        const std::string attempt =
            found != nullptr && found->answer == "silent"
                ? "connect to " + at->address + " timed out"
                : "cannot make connection to " + at->address + ": " +
                      (hostIsThere ? "Connection refused" : "Network is unreachable");
        Outcome failed = DiscoveryFailed(11, attempt, 6, "iSCSI PDU timed out");
        failed.pauseMs = scene.unreachableMs;
        return failed;
    }
    Outcome outcome;
    for (const Target& target : scene.targets)
    {
        if (std::find(target.portals.begin(), target.portals.end(), *at) == target.portals.end())
            continue;
        outcome.out += ListedAs(*at, 1, target.iqn) + "\n";
        AddRecord(state, {target.iqn, *at, 1, {}});
    }
    return outcome;
}

Outcome ListNodes(const Scene& scene, const State& state, const Selection& selection)
{
    Outcome outcome;
    for (const NodeRecord* record : Selected(scene, state.nodes, selection))
        outcome.out += selection.iqn.empty() && selection.portal.empty()
                           ? ListedAs(record->portal, record->tpgt, record->iqn) + "\n"
                           : RecordReport(scene, *record);
    return outcome.out.empty() ? NotFound("No records found") : outcome;
}

Outcome NewNode(const Scene& scene, State& state, const Selection& selection)
{
    const auto at = Resolve(scene, selection.portal);
    if (selection.iqn.empty() || !at)
        return {7, "", Said("A new record needs -T and the address of a portal after -p.")};
    AddRecord(state, {selection.iqn, *at, -1, {}});
    return {0,
            "New iSCSI node [tcp:[hw=,ip=,net_if=,iscsi_if=default] " + at->address + "," +
                std::to_string(at->port) + ",-1 " + selection.iqn + "] added\n",
            ""};
}

Outcome UpdateNodes(const Scene& scene, State& state, const Selection& selection,
                    const std::string& name, const std::string& value)
{
    const auto records = Selected(scene, state.nodes, selection);
    if (records.empty())
        return NotFound("No records found");
    if (!IsSetting(name))
        return {7, "",
                Said("Cannot modify " + name + ". Invalid param name.") +
                    Said("Could not execute operation on all records: invalid parameter")};
    for (NodeRecord* record : records)
        record->settings[name] = value;
    return {};
}

Outcome DeleteNodes(const Scene& scene, State& state, const Selection& selection)
{
    if (Selected(scene, state.nodes, selection).empty())
        return NotFound("No records found");
    Outcome outcome;
    const auto isSelected = IsSelected<NodeRecord>(scene, selection);
    const auto goes = [&](const NodeRecord& record) {
        if (!isSelected(record))
            return false;
        if (FindSession(state, record) == nullptr)
            return true;
        outcome.err += Said("This command will remove the record [iface: default, " +
                            TargetAndPortal(record.iqn, record.portal) +
                            "], but a session is using it. Logout session then rerun command to remove "
                            "record.");
        return false;
    };
    state.nodes.erase(std::remove_if(state.nodes.begin(), state.nodes.end(), goes), state.nodes.end());
    if (outcome.err.empty())
        return outcome;
    outcome.status = kSessionExists.status;
    outcome.err +=
        Said(std::string("Could not execute operation on all records: ") + kSessionExists.words);
    return outcome;
}

Outcome LogOn(const Scene& scene, State& state, const Selection& selection)
{
    const auto records = Selected(scene, state.nodes, selection);
    if (records.empty())
        return NotFound("No records found");
    Outcome outcome;
    std::string successes; // the tool announces every log-on before the first of them ends
    for (const NodeRecord* record : records)
    {
        const std::string session =
            "[iface: default, " + TargetAndPortal(record->iqn, record->portal) + "]";
        const Verdict verdict = LogOnOne(scene, state, *record);
        if (outcome.status == 0)
            outcome.status = verdict.status;
        if (verdict.status == kSessionExists.status && scene.sessionExists == "counted")
        {
            outcome.err += Said("default: 1 session requested, but 1 already present.");
            continue;
        }
        outcome.out += "Logging in to " + session + "\n";
        if (verdict.status == 0)
        {
            successes += "Login to " + session + " successful.\n";
            continue;
        }
        if (verdict.status == kTimedOut.status)
            outcome.pauseMs = scene.unreachableMs;
        outcome.err += Said("Could not login to " + session + ".") +
                       Said("initiator reported error (" + std::to_string(verdict.status) + " - " +
                            verdict.words + ")");
    }
    outcome.out += successes;
    if (outcome.status != 0)
        outcome.err += Said("Could not log into all portals");
    return outcome;
}

Outcome LogOff(const Scene& scene, State& state, const Selection& selection)
{
    Outcome outcome;
    std::string successes;
    const auto isSelected = IsSelected<Session>(scene, selection);
    for (const Session& session : InReportOrder(state.sessions))
    {
        if (!isSelected(session))
            continue;
        const std::string name = "[sid: " + std::to_string(session.sid) + ", " +
                                 TargetAndPortal(session.iqn, session.portal) + "]";
        outcome.out += "Logging out of session " + name + "\n";
        successes += "Logout of " + name + " successful.\n";
    }
    if (outcome.out.empty())
        return NotFound("No matching sessions found");
    outcome.out += successes;
    state.sessions.erase(std::remove_if(state.sessions.begin(), state.sessions.end(), isSelected),
                         state.sessions.end());
    return outcome;
}

} // namespace simulated
