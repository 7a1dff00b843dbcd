// The answer of a command and its output formats.
#pragma once

#include <nlohmann/json.hpp>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// Why a command failed. Determines "cause" in JSON and the exit status.
enum class Cause
{
    NoRecord,      // no node record of the target at the portal
    NoSession,     // the kernel has no such session
    SessionFailed, // the session exists, but its connection is lost
    NotAuthorized, // CHAP name or secret missing or wrong
    Unreachable,   // the portal refuses, or there is no route or no such name
    TimedOut,
    InUse, // the disk has users, or the record has a session
    NoDevice,
    Usage,
    NotServed,
    ToolMissing,
    ToolFailed // any other failure of the tool or of this host
};

const char* NameOf(Cause cause);
int ExitStatusOf(Cause cause);

struct Answer
{
    std::string text;                                                 // complete lines
    nlohmann::ordered_json fields = nlohmann::ordered_json::object(); // for --json
    std::optional<Cause> cause{};                                     // set on failure
    std::vector<std::string> reasons{}; // on failure: one line each, the most important first
};

// Ends a command. `reasons` is not empty.
struct Failure : std::runtime_error
{
    Failure(Cause cause, const std::vector<std::string>& reasons);

    std::shared_ptr<const Answer> answer;
};

// Print the answer on standard output: its text, or one JSON object whose strings are escaped like
// lines of the log. Throw Failure if standard output cannot be written.
void PrintText(const Answer& answer);
void PrintJson(const Answer& answer);

// Prints "zniscsi: LINE" on standard error, with `line` escaped.
void PrintError(const std::string& line);
