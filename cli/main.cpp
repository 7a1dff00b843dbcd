// zniscsi: the library's operations as commands.

#include "cli/CommandLine.h"
#include "cli/terminal/Output.h"
#include "standalone/znlib/Log.h"
#include "standalone/znlib/ProcessRunner.h"

#include <chrono>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace
{

using cli::Answer;
using cli::ParsedLine;

// Opens /dev/null for standard descriptors that are closed, so that no later file takes their place. It
// is opened such that writing to standard output still fails.
void FillStandardDescriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(descriptor, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY));
}

void PrintReasons(const Answer& answer)
{
    for (const std::string& reason : answer.reasons)
        cli::PrintError(reason);
}

void PrintLogFaults()
{
    for (const std::string& warning :
         {std::string(znhost::CurrentLogSettings().fault), znhost::LastLogError()})
        if (!warning.empty())
            cli::PrintError("warning: " + warning);
}

// Whether a person sees the text and the reasons in one place.
bool IsOneTerminal()
{
    return isatty(STDOUT_FILENO) != 0 && isatty(STDERR_FILENO) != 0;
}

// A tool ends with this program, and after the time limit if there is one.
void LimitRuns(const cli::Request& request)
{
    znhost::RunLimits limits{true, std::nullopt};
    if (request.timeoutSeconds)
        limits.timeLimit = std::chrono::seconds(*request.timeoutSeconds);
    znhost::LimitRuns(limits);
}

Answer Run(const ParsedLine& line)
{
    LimitRuns(line.request);
    // A reader of standard error that exits must not end the operation.
    const auto sigpipeAction = std::signal(SIGPIPE, SIG_IGN);
    Answer answer = cli::AnswerOf([&line] { return line.run(line.request); });
    if (line.json || !answer.textHasReasons || !IsOneTerminal())
        PrintReasons(answer);
    if (!answer.textHasReasons)
        PrintLogFaults();
    static_cast<void>(std::signal(SIGPIPE, sigpipeAction));
    return answer;
}

} // namespace

int main(int argc, char** argv)
try
{
    FillStandardDescriptors();
    const ParsedLine line = cli::ParseCommandLine(argc, argv);
    if (!line.run)
        PrintReasons(line.answer);
    const Answer answer = line.run ? Run(line) : line.answer;
    (line.json ? cli::PrintJson : cli::PrintText)(answer);
    return answer.cause ? cli::ExitStatusOf(*answer.cause) : 0;
}
catch (const std::exception& error)
{
    cli::PrintError(error.what());
    return cli::ExitStatusOf(cli::Cause::ToolFailed);
}
