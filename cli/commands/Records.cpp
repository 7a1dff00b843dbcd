#include "cli/commands/Commands.h"
#include "cli/commands/LibraryCall.h"
#include "cli/initiator/RecordLock.h"
#include "cli/terminal/StatusLine.h"
#include "cli/terminal/Table.h"

#include <algorithm>

namespace cli
{

namespace
{

bool HasRecord(const std::vector<NodeRecord>& records, const Node& node)
{
    return std::any_of(records.begin(), records.end(), [&node](const NodeRecord& record) {
        return record.iqn == node.iqn && node.portal.Matches(record.portal);
    });
}

bool IsInUse(const NodeRecord& record, const std::vector<Session>& sessions)
{
    return std::any_of(sessions.begin(), sessions.end(), [&record](const Session& session) {
        return session.iqn == record.iqn && PortalOf(session) == FormatPortal(record.portal);
    });
}

Answer AlreadyForgotten()
{
    return {"already forgotten\n", {{"already", true}}};
}

// Deletes the record of a node that has one.
Answer DeleteRecord(const LibraryCall& call, const Node& node)
{
    const std::string sentence = "cannot delete the node record of " + node.name;
    const bool isReported = call.initiator.Concrete().DeleteiSCSIIQNFromiSCSIAdmDb(
                                call.request.portal.c_str(), call.request.iqn.c_str()) == 1;
    if (!HasRecord(call.RequireRecords(sentence), node))
        return isReported ? Answer{"forgotten\n", {{"already", false}}} : AlreadyForgotten();
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
        return AlreadyForgotten();
    }
    const std::vector<Request> requests = OnePerPortal(request, records);
    return AnswerEach(call, requests, [&](std::size_t index) {
        const Node node(requests[index]);
        if (HasRecord(records, node))
            return DeleteRecord(call, node);
        node.RequireResolved("cannot delete the node record of " + node.name);
        return AlreadyForgotten();
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
        const bool isInUse = IsInUse(record, sessions);
        rows.push_back({portal, isInUse ? "yes" : "no", record.iqn});
        json.push_back({{"portal", portal}, {"iqn", record.iqn}, {"in_use", isInUse}});
    }
    return {FormatTable({"PORTAL", "IN USE", "IQN"}, rows, !request.noHeadings), {{"records", json}}};
}

} // namespace cli
