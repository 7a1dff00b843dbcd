#include "cli/commands/Commands.h"
#include "cli/commands/LibraryCall.h"
#include "cli/initiator/Reasons.h"
#include "cli/terminal/Table.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>

namespace cli
{

namespace
{

struct TargetOfDevice
{
    std::string portal;
    std::string iqn;
};

// One look at a device.
struct TargetLook
{
    std::vector<std::string> disks{};       // beneath the device
    std::vector<Path> paths{};              // of these disks, working ones first
    std::optional<TargetOfDevice> target{}; // if the library knows one, and the kernel agrees
};

// The library refuses a device if another target's session is between its paths in the tool's report,
// and compares names by their beginning. So the kernel decides whether all paths lead to one target,
// and through which portal.
std::optional<TargetOfDevice> FindTargetOf(const LibraryCall& call, const std::vector<Path>& paths)
{
    std::array<char, 4096> portal{}, iqn{};
    unsigned long portalSize = portal.size(), iqnSize = iqn.size();
    const bool isFound =
        call.initiator->GetTargetIPAndIQNForDevice(call.request.device.c_str(), portal.data(),
                                                   portalSize, iqn.data(), iqnSize) == 1;
    const bool isOneTarget =
        !paths.empty() && std::all_of(paths.begin(), paths.end(), [&paths](const Path& path) {
            return path.session.iqn == paths.front().session.iqn;
        });
    if (!isOneTarget || !(isFound || AnyContains(call.watch.Errors(), words::kPortalsDiffer)))
        return std::nullopt;
    const Session& session = paths.front().session;
    if (session.iqn.empty() || !session.portal)
        return std::nullopt;
    return TargetOfDevice{PortalOf(session), session.iqn};
}

TargetLook LookForTarget(const LibraryCall& call)
{
    TargetLook look{FindDisksBeneath(call.request.device)};
    look.paths = FindPaths(ReadSessions(), look.disks);
    if (!call.request.paths && !look.disks.empty())
        look.target = FindTargetOf(call, look.paths);
    return look;
}

[[noreturn]] void FailWithoutTarget(const LibraryCall& call, const TargetLook& look)
{
    const std::string& device = call.request.device;
    const std::string sentence = "cannot find the target of " + device;
    if (look.disks.empty())
        call.Fail(Cause::NoDevice, {sentence, "there is no block device " + device});
    std::set<std::string> iqns;
    std::vector<Session> sessions;
    for (const Path& path : look.paths)
    {
        iqns.insert(path.session.iqn);
        sessions.push_back(path.session);
    }
    if (iqns.empty())
        call.Fail(Cause::NoSession, {sentence, "no session presents it"});
    if (iqns.size() == 1 || iqns.count("") != 0)
        RequireShown(sentence, sessions, *iqns.begin());
    if (iqns.size() == 1)
        FailReportLacks(call, sentence, look.paths.front().disk.device);
    std::vector<std::string> reasons{sentence,
                                     "its paths lead to " + std::to_string(iqns.size()) + " targets:"};
    reasons.insert(reasons.end(), iqns.begin(), iqns.end());
    call.Fail(Cause::ToolFailed, reasons);
}

Answer ListPaths(const Request& request, const std::vector<Path>& paths)
{
    std::vector<Row> rows;
    Json json = Json::array();
    for (const auto& [disk, session] : paths)
    {
        const std::string portal = PortalOf(session);
        rows.push_back({disk.device, DescribeState(session, &disk), portal, session.iqn});
        json.push_back({{"device", disk.device},
                        {"state", session.state},
                        {"disk_state", disk.state},
                        {"portal", TextOrNull(portal)},
                        {"iqn", TextOrNull(session.iqn)}});
    }
    return {FormatTable({"DEVICE", "STATE", "PORTAL", "IQN"}, rows, !request.noHeadings),
            {{"paths", json}}};
}

} // namespace

Answer FindTarget(const Request& request)
{
    LibraryCall call(request);
    TargetLook look;
    const bool isFound = call.WaitFor("the target of " + request.device, [&] {
        look = LookForTarget(call);
        return request.paths ? !look.paths.empty() : look.target.has_value();
    });
    if (!isFound)
        FailWithoutTarget(call, look);
    if (request.paths)
        return ListPaths(request, look.paths);
    WarnOfDeadPaths(look.paths);
    return {FormatLines({look.target->portal, look.target->iqn}),
            {{"portal", look.target->portal}, {"iqn", look.target->iqn}}};
}

} // namespace cli
