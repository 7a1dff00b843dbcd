#include "cli/commands/Commands.h"
#include "cli/commands/LibraryCall.h"
#include "cli/initiator/Reasons.h"
#include "cli/initiator/RecordLock.h"
#include "cli/kernel/BlockDevice.h"
#include "cli/kernel/Losses.h"
#include "cli/terminal/StatusLine.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

namespace cli
{

namespace
{

// What a request means to end: the session through its portal, or all sessions with its target.
class Subject
{
public:
    explicit Subject(const Request& request) : m_iqn(request.iqn), m_name(request.iqn)
    {
        if (request.portal.empty())
            return;
        m_node.emplace(request);
        m_name = m_node->name;
    }

    std::string Sentence() const { return "cannot log off from " + m_name; }

    std::vector<Session> Select(const std::vector<Session>& sessions) const
    {
        return m_node ? m_node->Select(sessions) : SelectSessions(sessions, m_iqn);
    }

    // Before the answer that there is no session: fails if one of `sessions` may be the node's.
    void RequireNone(const std::vector<Session>& sessions) const
    {
        RequireShown(Sentence(), sessions, m_iqn);
        for (const Session& session : SelectSessions(sessions, m_iqn))
        {
            m_node->RequireResolved(Sentence());
            if (!HasAddress(*session.portal))
                throw Failure(Cause::ToolFailed,
                              {Sentence(), "session " + std::to_string(session.sid) +
                                               " was opened through the host name " +
                                               PortalOf(session) +
                                               ", which may be this portal: run the command with " +
                                               PortalOf(session)});
        }
    }

private:
    std::string m_iqn;
    std::string m_name;
    std::optional<Node> m_node;
};

// Why sessions must not end.
struct Obstacles
{
    std::vector<std::string> users{};
    std::vector<std::string> exclusive{}; // users that the kernel does not name
    std::vector<std::string> unknown{};   // what could not be looked at
};

Obstacles FindObstacles(const Machine& machine, const std::vector<Session>& ending)
{
    Obstacles obstacles{FindLosses(machine, ending)};
    const Unclaimed unclaimed = FindUnclaimed(machine, ending);
    for (const std::string& device : unclaimed.devices)
    {
        const auto name = machine.kernelNames.find(device);
        const UseAnswer answer = name == machine.kernelNames.end()
                                     ? UseAnswer{Use::Unknown, "it was renamed just now"}
                                     : AskUse(name->second);
        if (answer.use == Use::Exclusive)
            obstacles.exclusive.push_back(device +
                                          ": opened exclusively by the kernel or another program "
                                          "(for example a lazily unmounted file system)");
        if (answer.use == Use::Unknown)
            obstacles.unknown.push_back("cannot tell whether " + device +
                                        " is in use: " + answer.reason);
    }
    for (const Path& path : unclaimed.notWorking)
        obstacles.unknown.push_back("cannot tell whether " + path.disk.device +
                                    " is in use: its state is " +
                                    DescribeState(path.session, &path.disk));
    if (!unclaimed.devices.empty() || !unclaimed.notWorking.empty())
        for (const std::string& loop : machine.unseenLoops)
            obstacles.unknown.push_back("cannot tell which disk is beneath " + loop);
    return obstacles;
}

struct Look
{
    std::vector<Session> sessions;
    Obstacles obstacles{};
};

// Looks at the sessions and their users.
Look LookAtUsers(const Subject& subject)
{
    // The multipath daemon has new disks to itself while it makes a map, whose node comes later.
    constexpr std::chrono::seconds kMaxMapMaking{2};
    Look look;
    Await(kMaxMapMaking, [&] {
        const Machine machine = ReadUsers();
        look = {machine.sessions, FindObstacles(machine, subject.Select(machine.sessions))};
        return !look.obstacles.users.empty() ||
               (look.obstacles.exclusive.empty() && look.obstacles.unknown.empty());
    });
    return look;
}

// Fails if a disk is in use, or if that cannot be told.
void RequireNoObstacle(const Obstacles& obstacles, const Subject& subject)
{
    const bool isInUse = !obstacles.users.empty() || !obstacles.exclusive.empty();
    if (!isInUse && obstacles.unknown.empty())
        return;
    std::vector<std::string> reasons{subject.Sentence() + (isInUse ? ": its disks are in use" : "")};
    for (const auto& lines : {obstacles.users, obstacles.exclusive, obstacles.unknown})
        reasons.insert(reasons.end(), lines.begin(), lines.end());
    reasons.emplace_back(isInUse ? "unmount or detach them first; with --force, unwritten data is lost"
                                 : "with --force, unwritten data is lost if a disk is in use");
    throw Failure(isInUse ? Cause::InUse : Cause::ToolFailed, reasons);
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

// Ends the sessions `ending`, all through the portal of the request.
Answer EndSessions(const LibraryCall& call, const std::vector<Session>& ending)
{
    const Request& request = call.request;
    const std::string name = NodeName(request);
    const SlowWork work("logging off from " + name);
    const bool isReported =
        call.initiator->LogOffFromiSCSITarget(request.portal.c_str(), request.iqn.c_str()) == 1;
    const bool isGone = Await(isReported ? kMaxSettling : std::chrono::seconds(0),
                              [&] { return Remaining(ending, ReadSessions()).empty(); });
    // It was there before. Another program may have ended it in between.
    if (isGone && AnyContains(ParseReasons(call.watch.Errors()).toolLines, words::kNoMatch))
        return {"already logged off\n", {{"already", true}}};
    if (isGone)
    {
        WarnOfReasons(call);
        return {"logged off\n", {{"already", false}}};
    }
    std::vector<std::string> reasons{"cannot log off from " + name};
    if (isReported)
        reasons.emplace_back("/sbin/iscsiadm reported success, but the kernel still has the session");
    call.Fail(Cause::ToolFailed, reasons);
}

// By portal: the request that ends sessions, and these.
using Endings = std::map<std::string, std::pair<Request, std::vector<Session>>>;

Endings GroupByPortal(const Request& request, const std::vector<Session>& ending)
{
    if (!request.portal.empty())
        return {{request.portal, {request, ending}}};
    Endings endings;
    for (const Session& session : ending)
    {
        const auto [known, isNew] = endings.try_emplace(PortalOf(session));
        if (isNew)
            known->second.first = At(request, *session.portal);
        known->second.second.push_back(session);
    }
    return endings;
}

} // namespace

Answer LogOff(const Request& request)
{
    LibraryCall call(request);
    const Subject subject(request);
    const RecordLock lock = RecordLock::OfTarget(request);
    const Look look = request.force ? Look{ReadSessions()} : LookAtUsers(subject);
    const std::vector<Session> ending = subject.Select(look.sessions);
    if (ending.empty())
    {
        subject.RequireNone(look.sessions);
        if (const auto records = RunNodeReport())
            NoteUnknownTarget(request.iqn, *records, look.sessions);
        return AnswerAlready(request, "already logged off\n");
    }
    RequireNoObstacle(look.obstacles, subject);

    if (request.portal.empty())
        RequireShown(subject.Sentence(), look.sessions, request.iqn);
    const Endings endings = GroupByPortal(request, ending);
    std::vector<Request> requests;
    for (const auto& [portal, each] : endings)
        requests.push_back(each.first);
    return AnswerEach(call, requests, [&](std::size_t index) {
        return EndSessions(call, endings.at(requests[index].portal).second);
    });
}

} // namespace cli
