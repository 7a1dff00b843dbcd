// The command line: options, commands, help.
#pragma once

#include "agent/Arguments.h"
#include "agent/Output.h"

struct ParsedLine
{
    Request request{};
    bool json = false;
    Answer (*command)(const Request&) = nullptr; // null: `answer` is all that is to be done
    Answer answer{};                             // help, the version, or what is wrong with the line
};

// Changes the environment where --log names a file. No value of an argument that is not known is
// repeated: it may be a secret.
ParsedLine ParseCommandLine(int argc, char** argv);
