// What a command answers, and how the answer is shown.
#pragma once

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

// Why a command failed, for programs: the name that JSON has, and the exit status.
enum class Cause
{
    NoRecord,      // the initiator has no node record of the target at the portal
    NoSession,     // the kernel has no such session
    SessionFailed, // it has one whose connection is lost
    NotAuthorized, // the target refused the initiator's CHAP name or secret, or their want
    Unreachable,   // nobody answers at the portal, or it has no such address
    TimedOut,
    InUse, // by a mount, a swap, a device, or a session
    NoDevice,
    Usage,
    NotServed,
    ToolMissing,
    ToolFailed // anything else: the tool, or what it reported, was of no use
};

const char* NameOf(Cause cause);
int ExitStatusOf(Cause cause);

struct Answer
{
    std::string text;                                                 // whole lines
    nlohmann::ordered_json fields = nlohmann::ordered_json::object(); // the same for --json
    std::optional<Cause> cause{};                                     // of a failure
    std::vector<std::string> reasons{}; // of a failure, a line each, the most telling first
};

// Ends a command. There is at least one reason.
struct Failure : std::runtime_error
{
    Failure(Cause cause, const std::vector<std::string>& reasons);

    std::shared_ptr<const Answer> answer;
};

// On standard output; throws a Failure when it cannot be written. The second shows one JSON object, in
// which every text is as printable as a line of the log.
void PrintText(const Answer& answer);
void PrintJson(const Answer& answer);

// One line on standard error, "zniscsi: LINE", with nothing in it that could drive a terminal.
void PrintError(const std::string& line);
