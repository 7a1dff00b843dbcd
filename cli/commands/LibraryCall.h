// What the commands share: the library with its log lines, waiting, and the node that a request is
// about.
//
// Thread-safety: for the main thread.
#pragma once

#include "cli/Request.h"
#include "cli/initiator/LogWatch.h"
#include "cli/initiator/NodeRecords.h"
#include "cli/kernel/Sessions.h"
#include "cli/terminal/Output.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace cli
{

// How long to wait for the kernel to show what a tool has reported as done.
constexpr std::chrono::seconds kMaxSettling{5};

// The library, used by one command, with its log lines. Throws Failure on a machine that is not served.
class LibraryCall
{
public:
    explicit LibraryCall(Request asked);

    Request request;
    LogWatch watch;
    Initiator initiator;

    // Makes `one`, about a single portal of the target, the request, and forgets the log lines.
    void TurnTo(const Request& one);

    // Ends the command as Explain does, with the reasons that were logged.
    [[noreturn]] void Fail(Cause cause, std::vector<std::string> reasons,
                           const std::string& nextStep = "") const;

    // Calls `lookUp` once a second until it succeeds. False after --wait seconds (or one call without
    // it), or if the tool is missing. The log lines of the last call stay.
    bool WaitFor(const std::string& what, const std::function<bool()>& lookUp);

    // Returns the node records. Fails with `sentence` if the tool cannot list them.
    std::vector<NodeRecord> RequireRecords(const std::string& sentence) const;

private:
    Initiator MakeInitiator() const;
};

// "IQN at PORTAL"
std::string NodeName(const Request& request);

// The node record that a request is about, or its session.
struct Node
{
    // Resolves the portal's name, which may block.
    explicit Node(const Request& request);

    std::vector<Session> Select(const std::vector<Session>& sessions) const;

    // Before an answer that something is not there: fails if the name of the portal cannot be resolved.
    void RequireResolved(const std::string& sentence) const;

    PortalMatcher portal;
    std::string iqn;
    std::string name;
};

// Calls `condition` ten times a second until it is true. False if it is not within `limit`.
bool Await(std::chrono::steady_clock::duration limit, const std::function<bool()>& condition);

// The request for one of the portals of a target.
Request At(const Request& request, const Portal& portal);

// The request itself if it names a portal, else one for each portal of the records.
std::vector<Request> OnePerPortal(const Request& request, const std::vector<NodeRecord>& records);

// Calls `operation` with the index of each of `requests`, after turning `call` to it. If the request of
// `call` names a portal, returns the answer for that. Otherwise goes on when one fails: the answer has
// a line, or an object, for each, and is a failure if one is.
Answer AnswerEach(LibraryCall& call, const std::vector<Request>& requests,
                  const std::function<Answer(std::size_t)>& operation);

// Before the answer that there is no session with the target `iqn`, or none through a portal: fails if
// the kernel does not show the target of one of `sessions`, or the portal of one with that target.
void RequireShown(const std::string& sentence, const std::vector<Session>& sessions,
                  const std::string& iqn);

// Prints what the tool said as warnings: it failed, but the kernel shows that all is as it should be.
void WarnOfReasons(const LibraryCall& call);

// The answer `text` to a request for what is so already.
Answer AnswerAlready(const Request& request, const std::string& text);

// Fails because the tool's report does not have `device`, which the kernel shows.
[[noreturn]] void FailReportLacks(const LibraryCall& call, const std::string& sentence,
                                  const std::string& device);

// Prints a note if the initiator knows no target of this name: it may be a typing error.
void NoteUnknownTarget(const std::string& iqn, const std::vector<NodeRecord>& records,
                       const std::vector<Session>& sessions);

// Prints a warning for each of the paths that does not work.
void WarnOfDeadPaths(const std::vector<Path>& paths);
void WarnOfState(const std::string& object, const std::string& state);

} // namespace cli
