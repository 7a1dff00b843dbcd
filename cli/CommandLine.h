// Turns the words of a command line into a request.
#pragma once

#include "cli/Request.h"
#include "cli/terminal/Output.h"

namespace cli
{

struct ParsedLine
{
    Request request{};
    bool json = false;
    Answer (*run)(const Request&) = nullptr; // null: print `answer` instead
    Answer answer{};                         // help, version, or the usage error
};

// Parses the arguments of main. Sets ZN_LOG_FILE in the environment for --log. Messages never repeat a
// value, which may be a secret, but for the first word of the line.
ParsedLine ParseCommandLine(int argc, char** argv);

} // namespace cli
