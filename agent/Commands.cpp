#include "agent/Commands.h"

#include "agent/Initiator.h"
#include "agent/LogWatch.h"
#include "agent/Machine.h"
#include "agent/Questions.h"
#include "agent/Reasons.h"
#include "agent/RecordLock.h"
#include "agent/Secret.h"
#include "agent/Terminal.h"
#include "host/ServedHost.h"
#include "standalone/hxutils/Pauses.h"
#include "standalone/znlib/Text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <thread>

namespace
{

using std::chrono::milliseconds, std::chrono::seconds, std::chrono::steady_clock;

// How long to wait for the kernel to show what a tool has reported as done.
constexpr seconds kMaxSettling{5};

// The library, used by one command, with its log lines.
struct LibraryCall
{
    explicit LibraryCall(const Request& asked)
        : request(asked), watch(asked.verbosity), initiator(MakeInitiator())
    {
    }

    // Ends the command. The reasons of the log, and the next step, follow `reasons`. `cause` is used if
    // they do not show one.
    [[noreturn]] void Fail(Cause cause, std::vector<std::string> reasons) const
    {
        const std::vector<std::string> logged = ParseReasons(watch.Errors());
        reasons.insert(reasons.end(), logged.begin(), logged.end());
        throw Explain(std::move(reasons), request, cause);
    }

    bool ToolIsMissing() const { return AnyContains(watch.Errors(), words::kIscsiadmMissing); }

    // Calls `lookUp` once a second until it succeeds. False after --wait seconds (or one call without
    // it), or if the tool is missing.
    bool WaitFor(const std::string& what, const std::function<bool()>& lookUp)
    {
        const auto deadline = steady_clock::now() + seconds(request.waitSeconds.value_or(0));
        while (!lookUp())
        {
            const auto left = deadline - steady_clock::now();
            if (left <= seconds(0) || ToolIsMissing())
                return false;
            ShowStatusLine("waiting, " + std::to_string(std::chrono::ceil<seconds>(left).count()) +
                           " s left: " + what);
            std::this_thread::sleep_for(std::min<steady_clock::duration>(left, seconds(1)));
            watch.Forget();
        }
        return true;
    }

    const Request& request;
    LogWatch watch;
    Initiator initiator;

private:
    // If the detector could not look, the failure is not "not served".
    Initiator MakeInitiator() const
    try
    {
        return Initiator(request.jobId);
    }
    catch (const Failure&)
    {
        if (g_iOsType != kRedHatFamily && !watch.Errors().empty())
            Fail(Cause::ToolFailed, {"cannot tell whether this host is served"});
        throw;
    }
};

// The node record that a request is about.
struct Node
{
    explicit Node(const Request& request)
        : portal(request.portal), iqn(request.iqn), name(request.iqn + " at " + request.portal)
    {
    }

    std::vector<Session> Select(const std::vector<Session>& sessions) const
    {
        return SelectSessions(sessions, iqn, &portal);
    }

    // Before an answer that something is not there: fails if the name of the portal cannot be resolved.
    void RequireResolved(const std::string& sentence) const
    {
        if (!portal.Error().empty())
            throw Failure(Cause::Unreachable, {sentence, portal.Error()});
    }

    PortalMatcher portal;
    std::string iqn;
    std::string name;
};

RecordLock LockRecord(const PortalMatcher& portal, const Request& request)
{
    RecordLock lock(portal, request.iqn);
    if (request.verbosity > 0 && !lock.Error().empty())
        PrintError("note: other agents are not kept out: " + lock.Error());
    return lock;
}

// Calls `condition` ten times a second until it is true. False if it is not within `limit`.
bool Await(steady_clock::duration limit, const std::function<bool()>& condition)
{
    const auto deadline = steady_clock::now() + limit;
    while (!condition())
    {
        if (steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(milliseconds(100));
    }
    return true;
}

bool AnyIsLoggedIn(const std::vector<Session>& sessions)
{
    return std::any_of(sessions.begin(), sessions.end(), IsLoggedIn);
}

bool IsLost(const Session& session)
{
    return session.state == "FAILED";
}

template <class Values>
std::string Lines(const Values& values)
{
    std::string text;
    for (const std::string& value : values)
        text += znhost::Printable(value) + '\n';
    return text;
}

using Row = std::vector<std::string>;

// Formats a table, with headings if there are rows and the user wants them. An empty cell becomes a
// dash, so that all rows have the same number of columns for scripts.
std::string Table(const Row& headings, std::vector<Row> rows, const Request& request)
{
    for (Row& row : rows)
        for (std::string& cell : row)
            cell = cell.empty() ? "-" : znhost::Printable(cell);
    if (!rows.empty() && request.headings)
        rows.insert(rows.begin(), headings);
    return FormatTable(rows);
}

std::string PortalOf(const Session& session)
{
    return session.portal ? FormatPortal(*session.portal) : "";
}

// Null for what does not apply.
nlohmann::ordered_json TextOrNull(const std::string& text)
{
    return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
}

// --- log-on

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

void WarnOfState(const std::string& object, const std::string& state)
{
    PrintError("warning: " + object + " does not work now: its state is " + state);
}

void WarnOfDeadSessions(const std::vector<Session>& sessions)
{
    for (const Session& session : sessions)
        if (!IsLoggedIn(session))
            WarnOfState("session " + std::to_string(session.sid), session.state);
}

// The answer if the node has `sessions`. Throws Failure if none of them is logged in.
Answer AnswerLogOn(const std::vector<Session>& sessions, const Request& request, bool isNew)
{
    if (AnyIsLoggedIn(sessions))
    {
        WarnOfDeadSessions(sessions);
        return {isNew ? "logged on\n" : "already logged on\n", {{"already", !isNew}}};
    }
    const Session& session = sessions.front();
    throw Failure(
        Cause::SessionFailed,
        {"cannot log on to " + Node(request).name,
         "session " + std::to_string(session.sid) + " is there, but " +
             (IsLost(session) ? "its connection is lost (FAILED), and the initiator tries to restore it"
                              : "it is not logged in (" + session.state + ')'),
         "see that " + request.portal + " can be reached, or end it: zniscsi logoff " + request.portal +
             ' ' + request.iqn});
}

Answer AnswerLogOnBefore(const std::vector<Session>& sessions, const Request& request)
{
    Answer answer = AnswerLogOn(sessions, request, false);
    if (request.chapUser)
        PrintError("note: the node record is as it was, without the CHAP name and secret given now: "
                   "they take a new log-on");
    return answer;
}

std::unique_ptr<const Secret> ReadSecret(const Request& request)
{
    if (!request.chapUser)
        return nullptr;
    return std::unique_ptr<const Secret>(
        request.chapSecretFile ? new Secret(ReadSecretFile(*request.chapSecretFile))
                               : new Secret(ReadSecretFromStandardInput(*request.chapUser)));
}

bool RunLogOn(const Initiator& initiator, const Request& request, const Secret* secret)
{
    const char* const portal = request.portal.c_str();
    const char* const iqn = request.iqn.c_str();
    return (secret == nullptr ? initiator->LogOnToiSCSITarget(portal, iqn)
                              : initiator->LogOnToiSCSITargetUsingCHAP(
                                    portal, iqn, request.chapUser->c_str(), secret->c_str())) == 1;
}

// --- log-off

// Before the answer that the node has no session: fails if one of `others`, sessions with the same
// target, may be the node's.
void RequireNoOther(const std::vector<Session>& others, const Node& node, const std::string& sentence)
{
    for (const Session& session : others)
    {
        node.RequireResolved(sentence);
        if (!session.portal)
            throw Failure(Cause::ToolFailed,
                          {sentence, "the kernel does not show the portal of session " +
                                         std::to_string(session.sid)});
        if (!HasAddress(*session.portal))
            throw Failure(Cause::ToolFailed,
                          {sentence, "session " + std::to_string(session.sid) + " has the portal " +
                                         FormatPortal(*session.portal) +
                                         ", which may be the same: give that name"});
    }
}

void RefuseLosses(const Machine& machine, const std::vector<Session>& ending, const Node& node)
{
    std::vector<std::string> losses = FindLosses(machine, ending);
    for (const std::string& device : FindUnused(machine, ending))
        if (IsHeld(device))
            losses.push_back(
                device +
                ": held by the kernel or a program, such as a file system without a mount point");
    if (losses.empty())
        return;
    std::vector<std::string> reasons{"cannot log off from " + node.name + ": its disks are in use"};
    reasons.insert(reasons.end(), losses.begin(), losses.end());
    reasons.emplace_back("unmount or detach them first; with --force what is not written yet is lost");
    throw Failure(Cause::InUse, reasons);
}

// The sessions of `before` that still exist. A session with another identifier is a new one.
std::vector<Session> Remaining(const std::vector<Session>& before, const std::vector<Session>& now)
{
    std::vector<Session> remaining;
    for (const Session& session : now)
        if (std::any_of(before.begin(), before.end(),
                        [&](const Session& each) { return each.sid == session.sid; }))
            remaining.push_back(session);
    return remaining;
}

// --- node records

bool HasRecord(const std::vector<NodeRecord>& records, const Node& node)
{
    return std::any_of(records.begin(), records.end(), [&node](const NodeRecord& record) {
        return record.iqn == node.iqn && node.portal.Matches(record.portal);
    });
}

bool HasTarget(const std::vector<NodeRecord>& records, const std::string& iqn)
{
    return std::any_of(records.begin(), records.end(),
                       [&iqn](const NodeRecord& record) { return record.iqn == iqn; });
}

std::vector<NodeRecord> RequireRecords(const LibraryCall& call, const std::string& sentence)
{
    std::optional<std::vector<NodeRecord>> records = RunNodeReport();
    if (!records)
        call.Fail(Cause::ToolFailed, {sentence});
    return std::move(*records);
}

bool IsInUse(const NodeRecord& record, const std::vector<Session>& sessions)
{
    return std::any_of(sessions.begin(), sessions.end(), [&record](const Session& session) {
        return session.iqn == record.iqn && session.portal &&
               FormatPortal(*session.portal) == FormatPortal(record.portal);
    });
}

// --- disks

std::vector<std::string> DevicesOf(const std::vector<Session>& sessions)
{
    std::vector<std::string> devices;
    for (const Session& session : sessions)
        for (const Disk& disk : session.disks)
            devices.push_back(disk.device);
    return devices;
}

// Fails because the tool's report does not have `device`, which the kernel shows.
[[noreturn]] void FailForWantOfReport(const LibraryCall& call, const std::string& sentence,
                                      const std::string& device)
{
    const std::vector<std::string> logged = ParseReasons(call.watch.Errors());
    if (logged.empty() || AnyContains(logged, words::kNoSession))
        throw Failure(Cause::ToolFailed,
                      {sentence, "the kernel shows " + device +
                                     ", but the report of /sbin/iscsiadm does not: try again"});
    call.Fail(Cause::ToolFailed, {sentence});
}

// Fails with the reason why no disk was found: from the kernel, or else from the log.
[[noreturn]] void FailForWantOfDisks(const LibraryCall& call, const std::string& sentence)
{
    const std::string& iqn = call.request.iqn;
    const std::vector<Session> sessions = SelectSessions(ReadSessions(), iqn);
    if (sessions.empty())
        call.Fail(Cause::NoSession, {sentence, words::kNoSessionWith + iqn});
    const std::vector<std::string> devices = DevicesOf(sessions);
    if (devices.empty())
        call.Fail(Cause::NoDevice,
                  {sentence, "the session with " + iqn + " presents none (yet: --wait S)"});
    FailForWantOfReport(call, sentence, devices.front());
}

void WarnOfDeadPaths(const std::vector<Path>& paths)
{
    for (const Path& path : paths)
        if (!Works(path.session, path.disk))
            WarnOfState(path.disk.device, DescribeState(path.session, &path.disk));
}

// Returns `path`, or if that does not work, one to the same LUN that does.
Path PreferWorking(const Path& path, const std::vector<Session>& sessions)
{
    if (!Works(path.session, path.disk))
        for (const Path& other : FindPaths(sessions, DevicesOf(sessions)))
            if (other.disk.lun == path.disk.lun && Works(other.session, other.disk))
                return other;
    return path;
}

// How often the library asks the multipath tool.
int ReadAttemptLimit(const Initiator& initiator)
{
    int limit = ZnISCSIUnix::kDefaultAttempts;
    initiator.Concrete().GetRegInt(nullptr, "nRetryCounter", &limit);
    return limit == 0 ? ZnISCSIUnix::kDefaultAttempts : std::max(limit, 1);
}

// --- the target of a device

struct TargetOfDevice
{
    std::string portal;
    std::string iqn;
};

// The library refuses a device if another target's session is between its paths in the tool's report,
// and compares names by their beginning. So the kernel decides whether all paths lead to one target,
// and through which portal.
std::optional<TargetOfDevice> FindTargetOf(LibraryCall& call, const std::vector<Path>& paths)
{
    std::array<char, 4096> portal{}, iqn{};
    unsigned long portalSize = portal.size(), iqnSize = iqn.size();
    const bool isFound =
        call.initiator->GetTargetIPAndIQNForDevice(call.request.device.c_str(), portal.data(),
                                                   portalSize, iqn.data(), iqnSize) == 1;
    const bool isOneTarget =
        !paths.empty() && std::all_of(paths.begin(), paths.end(), [&](const Path& path) {
            return path.session.iqn == paths.front().session.iqn;
        });
    if (!isOneTarget || !(isFound || AnyContains(call.watch.Errors(), words::kPortalsDiffer)))
        return std::nullopt;
    const std::string known = PortalOf(paths.front().session);
    return TargetOfDevice{known.empty() ? portal.data() : known, paths.front().session.iqn};
}

[[noreturn]] void FailForWantOfTarget(const LibraryCall& call, const std::vector<Path>& paths)
{
    const std::string& device = call.request.device;
    const std::string sentence = "cannot find the target of " + device;
    if (FindDisksBeneath(device).empty())
        call.Fail(Cause::NoDevice, {sentence, "there is no block device " + device});
    std::set<std::string> iqns;
    for (const Path& path : paths)
        iqns.insert(path.session.iqn);
    if (iqns.empty())
        call.Fail(Cause::NoSession, {sentence, "no session presents it"});
    if (iqns.size() == 1)
        FailForWantOfReport(call, sentence, paths.front().disk.device);
    std::vector<std::string> reasons{sentence,
                                     "its paths lead to " + std::to_string(iqns.size()) + " targets:"};
    reasons.insert(reasons.end(), iqns.begin(), iqns.end());
    call.Fail(Cause::ToolFailed, reasons);
}

Answer ListPaths(const Request& request, const std::vector<Path>& paths)
{
    std::vector<Row> rows;
    auto json = nlohmann::ordered_json::array();
    for (const auto& [disk, session] : paths)
    {
        rows.push_back({disk.device, DescribeState(session, &disk), PortalOf(session), session.iqn});
        json.push_back({{"device", disk.device},
                        {"state", session.state},
                        {"disk_state", disk.state},
                        {"portal", TextOrNull(PortalOf(session))},
                        {"iqn", session.iqn}});
    }
    return {Table({"DEVICE", "STATE", "PORTAL", "IQN"}, rows, request), {{"paths", json}}};
}

// --- sessions

Row SessionRow(const Session& session, const Disk* disk)
{
    Row row{std::to_string(session.sid),
            DescribeState(session, disk),
            PortalOf(session),
            session.iqn,
            "",
            "",
            "",
            ""};
    if (disk == nullptr)
        return row;
    row[4] = std::to_string(disk->lun);
    row[5] = disk->device;
    row[6] = disk->bytes ? DescribeSize(*disk->bytes) : "";
    row[7] = disk->map;
    for (const std::string& user : disk->users)
        row[7] += (row[7].empty() ? "" : ",") + user;
    return row;
}

nlohmann::ordered_json SessionObject(const Session& session, const Disk* disk)
{
    nlohmann::ordered_json object{{"sid", session.sid},
                                  {"state", session.state},
                                  {"portal", TextOrNull(PortalOf(session))},
                                  {"iqn", session.iqn},
                                  {"lun", nullptr},
                                  {"device", nullptr},
                                  {"bytes", nullptr},
                                  {"disk_state", nullptr},
                                  {"map", nullptr},
                                  {"used_by", nlohmann::ordered_json::array()}};
    if (disk == nullptr)
        return object;
    object["lun"] = disk->lun;
    object["device"] = disk->device;
    if (disk->bytes)
        object["bytes"] = *disk->bytes;
    object["disk_state"] = disk->state;
    object["map"] = TextOrNull(disk->map);
    object["used_by"] = disk->users;
    return object;
}

} // namespace

Answer Discover(const Request& request)
{
    const PortalMatcher wanted(request.portal);
    const LibraryCall call(request);
    const RecordLock lock = LockRecord(wanted, request);
    const SlowWork work("discovering targets at " + request.portal);
    if (call.initiator->RefreshiSCSITargetPortal(request.portal.c_str()) != 1)
        call.Fail(Cause::ToolFailed, {"cannot discover targets at " + request.portal});
    const std::vector<NodeRecord> records =
        RequireRecords(call, "discovered the targets at " + request.portal + " but cannot list them");

    std::vector<std::string> targets;
    for (const NodeRecord& record : records)
        if (wanted.Matches(record.portal) &&
            std::find(targets.begin(), targets.end(), record.iqn) == targets.end())
            targets.push_back(record.iqn);
    if (targets.empty())
        PrintError("note: no node record names " + request.portal + "; all of them: zniscsi records");
    return {Lines(targets), {{"targets", targets}}};
}

Answer LogOn(const Request& request)
{
    const Node node(request);
    const LibraryCall call(request);
    // Look before the prompt for a secret, and again under the lock.
    if (const auto sessions = FindSessions(node); !sessions.empty())
        return AnswerLogOnBefore(sessions, request);
    const std::unique_ptr<const Secret> secret = ReadSecret(request);
    const RecordLock lock = LockRecord(node.portal, request);
    if (const auto sessions = FindSessions(node); !sessions.empty())
        return AnswerLogOnBefore(sessions, request);

    const SlowWork work("logging on to " + node.name);
    const bool isReported = RunLogOn(call.initiator, request, secret.get());
    std::vector<Session> sessions;
    Await(isReported ? kMaxSettling : seconds(0), [&] {
        sessions = node.Select(ReadSessions());
        return AnyIsLoggedIn(sessions);
    });
    if (!sessions.empty())
    {
        Answer answer = AnswerLogOn(sessions, request, true);
        if (!isReported) // one of several interfaces, for example
            for (const std::string& reason : ParseReasons(call.watch.Errors()))
                PrintError("warning: " + reason);
        return answer;
    }
    const std::string sentence = "cannot log on to " + node.name;
    if (isReported)
        call.Fail(Cause::NoSession,
                  {sentence, "/sbin/iscsiadm reported success, but the kernel has no such session",
                   "what the tool says to it: /sbin/iscsiadm -m node -T " + request.iqn + " -p " +
                       request.portal + " -l"});
    call.Fail(Cause::ToolFailed, {sentence});
}

Answer LogOff(const Request& request)
{
    const Node node(request);
    const LibraryCall call(request);
    const RecordLock lock = LockRecord(node.portal, request);
    const std::string sentence = "cannot log off from " + node.name;
    const Machine machine = ReadMachine();
    const std::vector<Session> ending = node.Select(machine.sessions);
    if (ending.empty())
    {
        RequireNoOther(SelectSessions(machine.sessions, node.iqn), node, sentence);
        return {"already logged off\n", {{"already", true}}};
    }
    if (!request.force)
        RefuseLosses(machine, ending, node);

    const SlowWork work("logging off from " + node.name);
    const bool isReported =
        call.initiator->LogOffFromiSCSITarget(request.portal.c_str(), request.iqn.c_str()) == 1;
    const bool isGone = Await(isReported ? kMaxSettling : seconds(0),
                              [&] { return Remaining(ending, ReadSessions()).empty(); });
    if (isGone)
        return {isReported ? "logged off\n" : "already logged off\n", {{"already", !isReported}}};
    if (isReported)
        call.Fail(Cause::ToolFailed,
                  {sentence, "/sbin/iscsiadm reported success, but the kernel still has the session"});
    call.Fail(Cause::ToolFailed, {sentence});
}

Answer Forget(const Request& request)
{
    const Node node(request);
    const LibraryCall call(request);
    const RecordLock lock = LockRecord(node.portal, request);
    const std::string sentence = "cannot delete the node record of " + node.name;
    Answer already{"already forgotten\n", {{"already", true}}};
    if (const auto records = RequireRecords(call, sentence); !HasRecord(records, node))
    {
        if (HasTarget(records, node.iqn))
            node.RequireResolved(sentence);
        return already;
    }
    const bool isReported = call.initiator.Concrete().DeleteiSCSIIQNFromiSCSIAdmDb(
                                request.portal.c_str(), request.iqn.c_str()) == 1;
    if (HasRecord(RequireRecords(call, sentence), node))
        call.Fail(Cause::ToolFailed,
                  isReported
                      ? Row{sentence, "/sbin/iscsiadm reported success, but the record is still there"}
                      : Row{sentence});
    return isReported ? Answer{"forgotten\n", {{"already", false}}} : already;
}

Answer ListRecords(const Request& request)
{
    const LibraryCall call(request);
    const std::vector<NodeRecord> records = RequireRecords(call, "cannot list the node records");
    const std::vector<Session> sessions = ReadSessions();
    std::vector<Row> rows;
    auto json = nlohmann::ordered_json::array();
    for (const NodeRecord& record : records)
    {
        rows.push_back({FormatPortal(record.portal), record.iqn});
        json.push_back({{"portal", FormatPortal(record.portal)},
                        {"iqn", record.iqn},
                        {"in_use", IsInUse(record, sessions)}});
    }
    return {Table({"PORTAL", "IQN"}, rows, request), {{"records", json}}};
}

Answer FindDisks(const Request& request)
{
    LibraryCall call(request);
    std::list<std::string> devices, before;
    // Disks appear one by one: with --wait, two looks must agree.
    const bool waits = request.waitSeconds.value_or(0) > 0;
    const auto isComplete = [&] {
        if (request.diskCount)
            return devices.size() >= *request.diskCount;
        return !devices.empty() && (!waits || devices == std::exchange(before, devices));
    };
    std::vector<Session> sessions;
    const bool isFound = call.WaitFor("the disks of " + request.iqn, [&] {
        devices.clear();
        call.initiator->GetPhysicalDevicesForTargetIQN(request.iqn.c_str(), devices);
        sessions = SelectSessions(ReadSessions(), request.iqn);
        const std::vector<std::string> known = DevicesOf(sessions);
        devices.remove_if([&known](const std::string& device) {
            return std::find(known.begin(), known.end(), device) == known.end();
        });
        return isComplete();
    });
    if (devices.empty() && request.diskCount.value_or(1) > 0)
        FailForWantOfDisks(call, "cannot find a disk of " + request.iqn);
    if (!isFound && request.diskCount)
        call.Fail(Cause::NoDevice, {"found " + std::to_string(devices.size()) + " of " +
                                    std::to_string(*request.diskCount) + " disks of " + request.iqn});
    if (!isFound)
        call.Fail(Cause::NoDevice, {"cannot find all disks of " + request.iqn + ": found " +
                                        std::to_string(devices.size()) + ", and no two looks agreed",
                                    "wait longer (--wait S), or say how many there are (--count N)"});
    for (const std::string& device : DevicesOf(sessions))
        if (std::find(devices.begin(), devices.end(), device) == devices.end())
            PrintError("warning: the report of /sbin/iscsiadm lacks " + device +
                       ", which the kernel shows");
    WarnOfDeadPaths(FindPaths(sessions, {devices.begin(), devices.end()}));
    return {Lines(devices), {{"devices", devices}}};
}

Answer FindDisk(const Request& request)
{
    if (request.retryPauseSeconds)
        znhost::LimitPauses(seconds(*request.retryPauseSeconds));
    LibraryCall call(request);
    const std::string attempts = std::to_string(ReadAttemptLimit(call.initiator));
    int attempt = 0;
    call.watch.OnRun([&](const std::string& line) {
        if (line == words::kEhcmcliRun)
            ShowStatusLine("attempt " + std::to_string(++attempt) + " of " + attempts +
                           ": multipath device of " + request.iqn);
    });
    std::array<char, 4096> found{};
    unsigned long size = found.size();
    std::vector<Path> paths;
    Machine machine;
    std::vector<Session> sessions;
    const bool isFound = call.WaitFor("a disk of " + request.iqn, [&] {
        attempt = 0;
        found.fill('\0');
        if (call.initiator->GetPhysicalDeviceForTargetIQN(request.iqn.c_str(), found.data(), size) != 1)
            return false;
        machine = ReadMachine();
        sessions = SelectSessions(machine.sessions, request.iqn);
        paths = FindPaths(sessions, FindDisksBeneath(found.data()));
        return !paths.empty();
    });
    const std::string device = found.data();
    const std::string sentence = "cannot find a disk of " + request.iqn;
    if (!isFound && !device.empty())
        call.Fail(Cause::NoDevice,
                  {sentence, device + " is reported, but the kernel shows no disk of " + request.iqn +
                                 " beneath it"});
    if (!isFound)
        FailForWantOfDisks(call, sentence);
    if (paths.front().disk.device != device) // it is a map
    {
        WarnOfDeadPaths(paths);
        return {Lines(Row{device}), {{"device", device}, {"path", nullptr}}};
    }
    const Path path = PreferWorking(paths.front(), sessions);
    const Disk& disk = path.disk;
    if (disk.map.empty())
    {
        WarnOfDeadPaths({path});
        return {Lines(Row{disk.device}), {{"device", disk.device}, {"path", nullptr}}};
    }
    WarnOfDeadPaths(FindPaths(machine.sessions, FindDisksBeneath(disk.map)));
    return {Lines(Row{disk.map}), {{"device", disk.map}, {"path", disk.device}}};
}

Answer FindTarget(const Request& request)
{
    LibraryCall call(request);
    std::vector<Path> paths;
    std::optional<TargetOfDevice> target;
    const bool isFound = call.WaitFor("the target of " + request.device, [&] {
        const std::vector<std::string> disks = FindDisksBeneath(request.device);
        paths = FindPaths(ReadSessions(), disks);
        if (!request.paths && !disks.empty())
            target = FindTargetOf(call, paths);
        return request.paths ? !paths.empty() : target.has_value();
    });
    if (!isFound)
        FailForWantOfTarget(call, paths);
    if (request.paths)
        return ListPaths(request, paths);
    WarnOfDeadPaths(paths);
    return {Lines(Row{target->portal, target->iqn}),
            {{"portal", target->portal}, {"iqn", target->iqn}}};
}

Answer ListSessions(const Request& request)
{
    std::vector<Row> rows;
    auto json = nlohmann::ordered_json::array();
    const auto add = [&](const Session& session, const Disk* disk) {
        rows.push_back(SessionRow(session, disk));
        json.push_back(SessionObject(session, disk));
    };
    for (const Session& session : ReadMachine().sessions)
    {
        for (const Disk& disk : session.disks)
            add(session, &disk);
        if (session.disks.empty())
            add(session, nullptr);
    }
    return {Table({"SID", "STATE", "PORTAL", "IQN", "LUN", "DEVICE", "SIZE", "USED BY"}, rows, request),
            {{"sessions", json}}};
}
