// What the command line consists of: each command with its arguments and options, as the help shows
// them, and what they set in a request.
#pragma once

#include "cli/Request.h"
#include "cli/terminal/Output.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace cli
{

// A value that is not valid. The message does not repeat the value, which may be a secret.
struct UsageError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// `set` throws UsageError.
struct Option
{
    const char* name;
    const char* value; // what the help calls it; null for a flag
    const char* purpose;
    void (*set)(Request& request, const char* name, const std::string& value);
};

struct Argument
{
    const char* name;
    bool isRequired; // optional arguments come first
    const char* purpose;
    void (*set)(Request& request, const char* name, const std::string& value);
};

struct Command
{
    const char* name;
    const char* purpose;
    std::vector<Argument> arguments;
    std::vector<Option> options;
    const char* example; // the arguments and options of one
    Answer (*run)(const Request& request);
    std::vector<const char*> aliases{};
    const char* explanation = ""; // at the end of its help
    bool changesAnything = false; // such a command is proposed to nobody who mistyped a name
};

// All commands, in the order of the help.
const std::vector<Command>& Commands();

// The command with this name or alias, or null.
const Command* FindCommand(const std::string& name);

// The options that every command takes. --json is the parser's.
const std::vector<Option>& CommonOptions();

} // namespace cli
