#include "cli/commands/Commands.h"
#include "cli/commands/LibraryCall.h"
#include "cli/initiator/Reasons.h"
#include "cli/initiator/RecordLock.h"
#include "cli/terminal/StatusLine.h"
#include "cli/terminal/Table.h"

#include <algorithm>
#include <optional>

namespace cli
{

namespace
{

constexpr const char* kAlready = "already forgotten\n";

bool HasRecord(const std::vector<NodeRecord>& records, const Node& node)
{
    return std::any_of(records.begin(), records.end(), [&node](const NodeRecord& record) {
        return record.iqn == node.iqn && node.portal.Matches(record.portal);
    });
}

// Whether one of `sessions` is with the record's target through its portal; nothing if that cannot be
// told: the kernel does not show it, or one of the portals is a name.
std::optional<bool> IsInUse(const NodeRecord& record, const std::vector<Session>& sessions)
{
    bool isKnown = true;
    for (const Session& session : sessions)
    {
        if (session.iqn != record.iqn && !session.iqn.empty())
            continue;
        if (session.iqn.empty() || !session.portal)
            isKnown = false;
        else if (FormatPortal(*session.portal) == FormatPortal(record.portal))
            return true;
        else if (session.portal->port == record.portal.port)
            isKnown = isKnown && HasAddress(*session.portal) && HasAddress(record.portal);
    }
    return isKnown ? std::optional(false) : std::nullopt;
}

// Deletes the record of a node that has one.
Answer DeleteRecord(const LibraryCall& call, const Node& node)
{
    const std::string sentence = "cannot delete the node record of " + node.name;
    const bool isReported = call.initiator.Concrete().DeleteiSCSIIQNFromiSCSIAdmDb(
                                call.request.portal.c_str(), call.request.iqn.c_str()) == 1;
    // It was there before. Another program may have deleted it in between.
    const LoggedReasons logged = ParseReasons(call.watch.Errors());
    const bool isGone = !HasRecord(call.RequireRecords(sentence), node);
    if (isGone && AnyContains(logged.toolLines, words::kNoRecord))
        return {kAlready, {{"already", true}}};
    if (isGone)
    {
        WarnOfReasons(call);
        return {"forgotten\n", {{"already", false}}};
    }
    std::vector<std::string> reasons{sentence};
    if (isReported)
        reasons.emplace_back("/sbin/iscsiadm reported success, but the record is still there");
    call.Fail(Cause::ToolFailed, reasons);
}

} // namespace

Answer Discover(const Request& request)
{
    const PortalMatcher wanted(request.portal);
    const LibraryCall call(request);
    const RecordLock lock = RecordLock::OfDiscovery(request);
    const SlowWork work("discovering targets at " + request.portal);
    if (call.initiator->RefreshiSCSITargetPortal(request.portal.c_str()) != 1)
        call.Fail(Cause::ToolFailed, {"cannot discover targets at " + request.portal});
    const std::string sentence =
        "discovered the targets at " + request.portal + " but cannot list them";
    const std::vector<NodeRecord> records = call.RequireRecords(sentence);

    Row targets;
    for (const NodeRecord& record : records)
        if (wanted.Matches(record.portal) &&
            std::find(targets.begin(), targets.end(), record.iqn) == targets.end())
            targets.push_back(record.iqn);
    if (targets.empty() && !wanted.Error().empty())
        throw Failure(Cause::Unreachable,
                      {sentence, wanted.Error(), "see all of them: zniscsi records"});
    if (targets.empty())
        PrintError("note: no node record names " + request.portal +
                   "; see all of them: zniscsi records");
    return {FormatLines(targets), {{"targets", targets}}};
}

Answer Forget(const Request& request)
{
    LibraryCall call(request);
    const RecordLock lock = RecordLock::OfTarget(request);
    const std::string sentence = "cannot delete the node record of " + request.iqn;
    const std::vector<NodeRecord> all = call.RequireRecords(sentence);
    const std::vector<NodeRecord> records = SelectRecords(all, request.iqn);
    if (records.empty())
    {
        NoteUnknownTarget(request.iqn, all, ReadSessions());
        return AnswerAlready(request, kAlready);
    }
    const std::vector<Request> requests = OnePerPortal(request, records);
    return AnswerEach(call, requests, [&](std::size_t index) {
        const Node node(requests[index]);
        if (HasRecord(records, node))
            return DeleteRecord(call, node);
        node.RequireResolved("cannot delete the node record of " + node.name);
        return Answer{kAlready, {{"already", true}}};
    });
}

Answer ListRecords(const Request& request)
{
    const LibraryCall call(request);
    const std::vector<NodeRecord> records = call.RequireRecords("cannot list the node records");
    const std::vector<Session> sessions = ReadSessions();
    std::vector<Row> rows;
    Json json = Json::array();
    for (const NodeRecord& record : records)
    {
        const std::string portal = FormatPortal(record.portal);
        const std::optional<bool> isInUse = IsInUse(record, sessions);
        const char* const known = isInUse.value_or(false) ? "yes" : "no";
        rows.push_back({portal, isInUse ? known : "?", record.iqn});
        json.push_back({{"portal", portal}, {"iqn", record.iqn}, {"in_use", nullptr}});
        if (isInUse)
            json.back()["in_use"] = *isInUse;
    }
    return {FormatTable({"PORTAL", "IN USE", "IQN"}, rows, !request.noHeadings), {{"records", json}}};
}

} // namespace cli
