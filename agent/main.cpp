// zniscsi: the library's operations as commands.

#include "agent/CommandLine.h"
#include "agent/Commands.h"
#include "standalone/znlib/Log.h"

#include <csignal>
#include <iostream>

#include <fcntl.h>
#include <unistd.h>

namespace
{

// Opens /dev/null for standard descriptors that are closed, so that no later file takes their place. It
// is opened such that writing to standard output still fails.
void FillStandardDescriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(descriptor, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY));
}

Answer Run(const ParsedLine& line)
try
{
    return line.command(line.request);
}
catch (const Failure& failure)
{
    return *failure.answer;
}
catch (const std::exception& error)
{
    return *Failure(Cause::ToolFailed, {error.what()}).answer;
}

void PrintWarnings()
{
    for (const std::string& warning :
         {std::string(znhost::CurrentLogSettings().fault), znhost::LastLogError()})
        if (!warning.empty())
            PrintError("warning: " + warning);
}

} // namespace

int main(int argc, char** argv)
try
{
    FillStandardDescriptors();
    const ParsedLine line = ParseCommandLine(argc, argv);
    // A reader of standard error that exits must not end the operation.
    const auto sigpipeAction = std::signal(SIGPIPE, SIG_IGN);
    const Answer answer = line.command == nullptr ? line.answer : Run(line);
    for (const std::string& reason : answer.reasons)
        PrintError(reason);
    if (line.command != nullptr && line.command != Examine)
        PrintWarnings();
    static_cast<void>(std::signal(SIGPIPE, sigpipeAction));
    (line.json ? PrintJson : PrintText)(answer);
    return answer.cause ? ExitStatusOf(*answer.cause) : 0;
}
catch (const std::exception& error)
{
    PrintError(error.what());
    return ExitStatusOf(Cause::ToolFailed);
}
