// zniscsi: the library's operations as commands.

#include "agent/Commands.h"
#include "agent/Terminal.h"
#include "standalone/znlib/Log.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <unistd.h>

namespace
{

constexpr const char* kFooter = R"(Examples:
  zniscsi discover 192.0.2.10
  zniscsi logon 192.0.2.10 iqn.2025-01.org.example:vol1
  zniscsi disks iqn.2025-01.org.example:vol1 --wait 30

Exit status:
  0  done
  1  the operation failed
  2  wrong usage
  3  this host is not served (it is no Red Hat family Linux of release 5 or later)
  4  the administration tool /sbin/iscsiadm is missing

"zniscsi COMMAND --help" tells more about a command.)";

// The options, the commands, and what the command line makes of them.
class CommandLine
{
public:
    CommandLine()
    {
        app.require_subcommand(0, 1);
        app.fallthrough();
        app.get_formatter()->label("SUBCOMMAND", "COMMAND");
        app.get_formatter()->label("Positionals", "Arguments");
        app.get_formatter()->column_width(26);
        app.footer(kFooter);
        app.set_version_flag("--version", "zniscsi " ZN_VERSION);
        app.add_flag("--json", json, "Answer with one JSON object");
        app.add_flag("-v", request.verbosity,
                     "Show the log's lines of progress; -vv: the tools' reports too");
        app.add_option_function<std::string>("--log", SetLog,
                                             "Write the log to this file; \"-\" is standard error")
            ->option_text("FILE");
        app.add_option("--job-id", request.jobId,
                       "The job identifier that the methods' log lines carry")
            ->option_text("N")
            ->check(FindNumberFault);

        Add(Discover, "discover", "Find the targets at a portal and record them", "192.0.2.10:3260",
            {&CommandLine::AddPortal});
        Add(LogOn, "logon", "Log on to a target, with CHAP if it asks for it",
            "192.0.2.10 iqn.2025-01.org.example:vol1 --chap-user backup",
            {&CommandLine::AddPortal, &CommandLine::AddIqn, &CommandLine::AddChap});
        Add(LogOff, "logoff", "End the session with a target; its record stays",
            "192.0.2.10 iqn.2025-01.org.example:vol1", {&CommandLine::AddPortal, &CommandLine::AddIqn});
        Add(Forget, "forget", "Delete the record of a target that is logged off",
            "192.0.2.10 iqn.2025-01.org.example:vol1", {&CommandLine::AddPortal, &CommandLine::AddIqn});
        Add(FindDisks, "disks", "List the disks of a target", "iqn.2025-01.org.example:vol1 --wait 30",
            {&CommandLine::AddIqn, &CommandLine::AddWait});
        Add(FindDisk, "disk", "Tell a target's multipath device, or else its first disk",
            "iqn.2025-01.org.example:vol1 --retry-pause 2",
            {&CommandLine::AddIqn, &CommandLine::AddWait, &CommandLine::AddRetryPause});
        Add(FindTarget, "target", "Tell the portal and the IQN behind a device", "/dev/mapper/mpatha",
            {&CommandLine::AddDevice, &CommandLine::AddWait});
        Add(ListSessions, "sessions", "List the disks of all sessions", "--json", {});
        Add(Examine, "doctor", "Tell what this host lacks, and what to do about it", "", {});
    }

    CLI::App app{"Drives this machine's iSCSI initiator.", "zniscsi"};
    Request request;
    bool json = false;
    Answer (*chosen)(const Request&) = nullptr;

private:
    void Add(Answer (*command)(const Request&), const std::string& name, const char* purpose,
             const std::string& example,
             std::initializer_list<void (CommandLine::*)(CLI::App&)> arguments)
    {
        CLI::App& added = *app.add_subcommand(name, purpose)->group("Commands");
        added.footer(
            "Example:\n  zniscsi " + name + ' ' + example +
            "\n\n\"zniscsi --help\" lists the options of every command and the exit statuses.");
        added.callback([this, command] { chosen = command; });
        for (const auto addArgument : arguments)
            (this->*addArgument)(added);
    }

    void AddPortal(CLI::App& command)
    {
        constexpr const char* kPurpose =
            "Address of the target portal: ADDRESS, ADDRESS:PORT or [IPV6]:PORT";
        command.add_option("PORTAL", request.portal, kPurpose)
            ->required()
            ->option_text(" ")
            ->check(FindPortalFault);
    }

    void AddIqn(CLI::App& command)
    {
        command.add_option("IQN", request.iqn, "Name of the target")
            ->required()
            ->option_text(" ")
            ->check(FindIqnFault);
    }

    void AddDevice(CLI::App& command)
    {
        constexpr const char* kPurpose = "Path of a disk, a partition or a multipath device";
        command.add_option("DEVICE", request.device, kPurpose)
            ->required()
            ->option_text(" ")
            ->check(FindDeviceFault);
    }

    void AddChap(CLI::App& command)
    {
        CLI::Option* const user =
            command.add_option("--chap-user", request.chapUser, "Log on with CHAP as NAME");
        CLI::Option* const file = command.add_option("--chap-secret-file", request.chapSecretFile,
                                                     "The secret is the first line of FILE");
        user->option_text("NAME")->check(FindChapFault);
        file->option_text("FILE")->needs(user);
        // That is where it comes from when no file is named; the option says it.
        command
            .add_flag("--chap-secret-stdin",
                      "The secret is the first line of standard input; a terminal is asked")
            ->needs(user)
            ->excludes(file)
            ->option_text(" ");
    }

    void AddWait(CLI::App& command)
    {
        AddSeconds(command.add_option("--wait", request.waitSeconds,
                                      "Look again until it is there or S seconds are over"));
    }

    void AddRetryPause(CLI::App& command)
    {
        AddSeconds(command.add_option("--retry-pause", request.retryPauseSeconds,
                                      "Ask the multipath tool again after S seconds, at most 20"));
    }

    static void AddSeconds(CLI::Option* option)
    {
        constexpr unsigned kDay = 24 * 60 * 60;
        option->check(CLI::Range(0U, kDay))->option_text("S");
    }

    // Done while the command line is read: the log is not written to before.
    static void SetLog(const std::string& file)
    {
        if (file.empty())
            throw CLI::ValidationError("--log", "the file name is empty");
        setenv("ZN_LOG_FILE", file.c_str(), 1);
    }
};

// Nothing that is opened later may take the place of a standard stream that came closed. Writing to
// standard output then still fails.
void FillStandardDescriptors()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(descriptor, F_GETFD) < 0)
            static_cast<void>(open("/dev/null", descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY));
}

Answer Run(CommandLine& line, int argc, char** argv)
{
    try
    {
        line.app.parse(argc, argv);
        if (line.chosen == nullptr)
            throw CLI::RequiredError("a command");
        return line.chosen(line.request);
    }
    catch (const CLI::Success& asked)
    {
        std::ostringstream help;
        line.app.exit(asked, help, help);
        line.json = false;
        return {help.str()};
    }
    catch (const CLI::ParseError& error)
    {
        // The parser may have stopped before it came to the option.
        line.json = std::find(argv, argv + argc, std::string_view("--json")) != argv + argc;
        return *Failure(Exit::Usage, {std::string(error.what()) + "; see zniscsi --help"}).answer;
    }
    catch (const Failure& failure)
    {
        return *failure.answer;
    }
    catch (const std::exception& error)
    {
        return *Failure(Exit::Failed, {error.what()}).answer;
    }
}

} // namespace

int main(int argc, char** argv)
{
    try
    {
        FillStandardDescriptors();
        RestoreTerminalOnSignals();
        CommandLine line;
        const Answer answer = Run(line, argc, argv);
        for (const std::string& reason : answer.reasons)
            Complain(reason);
        if (line.chosen != nullptr && line.chosen != Examine)
            for (const std::string& trouble :
                 {znhost::CurrentLogSettings().fault + std::string(), znhost::LogTrouble()})
                if (!trouble.empty())
                    Complain("warning: " + trouble);
        (line.json ? PrintJson : PrintText)(answer);
        return static_cast<int>(answer.exit);
    }
    catch (const std::exception& error)
    {
        std::cerr << "zniscsi: " << error.what() << '\n';
        return static_cast<int>(Exit::Failed);
    }
}
