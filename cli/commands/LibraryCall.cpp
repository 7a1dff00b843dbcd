#include "cli/commands/LibraryCall.h"

#include "cli/initiator/Reasons.h"
#include "cli/terminal/StatusLine.h"
#include "host/ServedMachine.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace cli
{

using std::chrono::seconds, std::chrono::steady_clock;

LibraryCall::LibraryCall(Request asked)
    : request(std::move(asked)), watch(request.verbosity), initiator(MakeInitiator())
{
}

// If the detector could not look, the failure is not "not served".
Initiator LibraryCall::MakeInitiator() const
try
{
    return Initiator(request.jobId);
}
catch (const Failure&)
{
    if (g_iOsType != kRedHatFamily && !watch.Errors().empty())
        Fail(Cause::ToolFailed, {"cannot tell whether this machine is served"});
    throw;
}

void LibraryCall::TurnTo(const Request& one)
{
    request = one;
    watch.Forget();
}

void LibraryCall::Fail(Cause cause, std::vector<std::string> reasons, const std::string& nextStep) const
{
    throw Explain(std::move(reasons), ParseReasons(watch.Errors()), request, cause, nextStep);
}

bool LibraryCall::WaitFor(const std::string& what, const std::function<bool()>& lookUp)
{
    const unsigned limit = request.waitSeconds.value_or(0);
    const auto deadline = steady_clock::now() + seconds(limit);
    while (!lookUp())
    {
        const auto left = deadline - steady_clock::now();
        if (left <= seconds(0) || ParseReasons(watch.Errors()).toolIsMissing)
            return false;
        ShowStatus("waiting for " + what, limit);
        std::this_thread::sleep_for(std::min<steady_clock::duration>(left, seconds(1)));
        watch.Forget();
    }
    return true;
}

std::vector<NodeRecord> LibraryCall::RequireRecords(const std::string& sentence) const
{
    std::optional<std::vector<NodeRecord>> records = RunNodeReport();
    if (!records)
        Fail(Cause::ToolFailed, {sentence});
    return std::move(*records);
}

std::string NodeName(const Request& request)
{
    return request.iqn + " at " + request.portal;
}

Node::Node(const Request& request) : portal(request.portal), iqn(request.iqn), name(NodeName(request))
{
}

std::vector<Session> Node::Select(const std::vector<Session>& sessions) const
{
    return SelectSessions(sessions, iqn, &portal);
}

void Node::RequireResolved(const std::string& sentence) const
{
    if (!portal.Error().empty())
        throw Failure(Cause::Unreachable, {sentence, portal.Error()});
}

bool Await(steady_clock::duration limit, const std::function<bool()>& condition)
{
    const auto deadline = steady_clock::now() + limit;
    while (!condition())
    {
        if (steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return true;
}

Request At(const Request& request, const Portal& portal)
{
    Request one = request;
    one.portal = FormatPortal(portal);
    return one;
}

std::vector<Request> OnePerPortal(const Request& request, const std::vector<NodeRecord>& records)
{
    if (!request.portal.empty())
        return {request};
    std::vector<Request> requests;
    for (const NodeRecord& record : records)
    {
        // Several interfaces have a record each.
        const Request one = At(request, record.portal);
        if (std::none_of(requests.begin(), requests.end(),
                         [&one](const Request& known) { return known.portal == one.portal; }))
            requests.push_back(one);
    }
    return requests;
}

Answer AnswerEach(LibraryCall& call, const std::vector<Request>& requests,
                  const std::function<Answer(std::size_t)>& operation)
{
    if (!call.request.portal.empty())
        return operation(0);
    Answer all;
    all.fields["portals"] = Json::array();
    for (std::size_t index = 0; index < requests.size(); ++index)
    {
        const Request& one = requests[index];
        call.TurnTo(one);
        const Answer answer = AnswerOf([&] { return operation(index); });
        if (!answer.cause)
            all.text += answer.text.substr(0, answer.text.find('\n')) + ' ' + one.portal + '\n';
        else if (!all.cause)
            all.cause = answer.cause;
        all.reasons.insert(all.reasons.end(), answer.reasons.begin(), answer.reasons.end());
        Json object{{"portal", one.portal}};
        object.update(ObjectOf(answer));
        all.fields["portals"].push_back(object);
    }
    return all;
}

void RequireShown(const std::string& sentence, const std::vector<Session>& sessions,
                  const std::string& iqn)
{
    for (const Session& session : sessions)
    {
        const bool lacksPortal = session.iqn == iqn && !session.portal;
        if (session.iqn.empty() || lacksPortal)
            throw Failure(Cause::ToolFailed, {sentence,
                                              std::string("the kernel does not show the ") +
                                                  (lacksPortal ? "portal" : "target") + " of session " +
                                                  std::to_string(session.sid),
                                              "another program may be logging on: try again"});
    }
}

void WarnOfReasons(const LibraryCall& call)
{
    for (const std::string& reason : ParseReasons(call.watch.Errors()).lines)
        PrintError("warning: " + reason);
}

Answer AnswerAlready(const Request& request, const std::string& text)
{
    Answer answer{text, {{"already", true}}};
    if (request.portal.empty())
        answer.fields["portals"] = Json::array();
    return answer;
}

void FailReportLacks(const LibraryCall& call, const std::string& sentence, const std::string& device)
{
    const LoggedReasons logged = ParseReasons(call.watch.Errors());
    if (logged.lines.empty() || AnyContains(logged.toolLines, words::kNoSession))
        throw Failure(Cause::ToolFailed,
                      {sentence, "the kernel shows " + device +
                                     ", but the report of /sbin/iscsiadm does not: try again"});
    call.Fail(Cause::ToolFailed, {sentence});
}

void NoteUnknownTarget(const std::string& iqn, const std::vector<NodeRecord>& records,
                       const std::vector<Session>& sessions)
{
    const bool mayBeKnown = std::any_of(sessions.begin(), sessions.end(), [&iqn](const Session& each) {
        return each.iqn == iqn || each.iqn.empty();
    });
    if (SelectRecords(records, iqn).empty() && !mayBeKnown)
        PrintError("note: the initiator knows no target " + iqn);
}

void WarnOfDeadPaths(const std::vector<Path>& paths)
{
    for (const Path& path : paths)
        if (!Works(path.session, path.disk))
            WarnOfState(path.disk.device, DescribeState(path.session, &path.disk));
}

void WarnOfState(const std::string& object, const std::string& state)
{
    PrintError("warning: " + object + " does not work now: its state is " + state);
}

} // namespace cli
