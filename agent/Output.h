// What a command answers, and how the answer is shown.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

enum class Exit
{
    Done = 0,
    Failed = 1,
    Usage = 2,
    HostNotServed = 3,
    ToolMissing = 4
};

struct Answer
{
    std::string text;                                                 // whole lines
    nlohmann::ordered_json fields = nlohmann::ordered_json::object(); // the same for --json
    Exit exit = Exit::Done;
    std::vector<std::string> reasons{}; // of a failure, one a line, the most telling first
};

// Ends a command. There is at least one reason.
struct Failure : std::runtime_error
{
    Failure(Exit exit, const std::vector<std::string>& reasons);

    std::shared_ptr<const Answer> answer;
};

// Standard output; throws a Failure when it cannot be written. The second shows one JSON object.
void PrintText(const Answer& answer);
void PrintJson(const Answer& answer);

// One line on standard error, "zniscsi: LINE", with nothing in it that could drive a terminal.
void Complain(const std::string& line);
