// The command line: options, commands, help.
#pragma once

#include "agent/Arguments.h"
#include "agent/Output.h"

struct ParsedLine
{
    Request request{};
    bool json = false;
    Answer (*command)(const Request&) = nullptr; // null: print `answer` instead
    Answer answer{};                             // help, version, or the usage error
};

// Parses the arguments of main. Sets ZN_LOG_FILE in the environment for --log. Messages never repeat
// the value of an unknown argument, which may be a secret.
ParsedLine ParseCommandLine(int argc, char** argv);
