// The answer of a command and its output formats.
#pragma once

#include <nlohmann/json.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace cli
{

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
    ToolFailed // any other failure of the tool or of this machine
};

const char* NameOf(Cause cause);
int ExitStatusOf(Cause cause);

using Json = nlohmann::ordered_json;

struct Answer
{
    std::string text{};                 // complete lines
    Json fields = Json::object();       // for --json
    std::optional<Cause> cause{};       // set on failure
    std::vector<std::string> reasons{}; // on failure: one line each, the most important first
    bool textHasReasons = false;        // and says whether the log can be written
};

// `reasons` is not empty.
Answer FailedAnswer(Cause cause, std::vector<std::string> reasons);

// Ends a command with FailedAnswer(cause, reasons).
struct Failure : std::runtime_error
{
    Failure(Cause cause, const std::vector<std::string>& reasons);

    std::shared_ptr<const Answer> answer;
};

// Returns what `command` returns, or the answer if it throws an exception.
Answer AnswerOf(const std::function<Answer()>& command);

// The object of an answer for --json. Its strings are not escaped yet.
Json ObjectOf(const Answer& answer);

// Print the answer on standard output: its text, or its object with strings escaped like lines of the
// log. Throw Failure if standard output cannot be written.
void PrintText(const Answer& answer);
void PrintJson(const Answer& answer);

// Null for what does not apply.
Json TextOrNull(const std::string& text);

// Prints "zniscsi: LINE" on standard error, with `line` escaped.
void PrintError(const std::string& line);

} // namespace cli
