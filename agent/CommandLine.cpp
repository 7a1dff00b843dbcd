#include "agent/CommandLine.h"

#include "agent/Commands.h"
#include "standalone/znlib/Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdlib>
#include <sstream>

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

constexpr const char* kDiskFooter = R"(
Where the array's own multipath tool (/usr/sbin/ehcmcli) is installed, it is asked first, and asked again
every 20 seconds: for a target that it does not know that takes 80 seconds (5 attempts, nRetryCounter in
the registry; --retry-pause shortens the pauses).)";

// The definition of options and commands.
class CommandLine
{
public:
    explicit CommandLine(ParsedLine& parsed) : m_parsed(parsed), m_request(parsed.request)
    {
        app.require_subcommand(0, 1);
        app.fallthrough();
        app.get_formatter()->label("SUBCOMMAND", "COMMAND");
        app.get_formatter()->label("Positionals", "Arguments");
        app.get_formatter()->column_width(26);
        app.footer(kFooter);
        app.set_version_flag("--version", "zniscsi " ZN_VERSION);
        app.add_flag("--json", m_parsed.json, "Answer with one JSON object");
        app.add_flag("-v", m_request.verbosity,
                     "Show what is run and found; -vv: the parsers' steps and the tools' reports too");
        app.add_option_function<std::string>("--log", SetLog,
                                             "Write the log to this file; \"-\" is standard error")
            ->option_text("FILE");
        AddNumber(app, "--job-id", "N", "The job identifier that the methods' log lines carry",
                  m_request.jobId, 0ULL, ~0ULL);

        Add(Discover, "discover", "Find the targets at a portal and record them", "192.0.2.10:3260",
            {&CommandLine::AddPortal});
        Add(LogOn, "logon", "Log on to a target, with CHAP if it asks for it",
            "192.0.2.10 iqn.2025-01.org.example:vol1 --chap-user backup",
            {&CommandLine::AddPortal, &CommandLine::AddIqn, &CommandLine::AddChap})
            .alias("login");
        Add(LogOff, "logoff", "End the session with a target; its record stays",
            "192.0.2.10 iqn.2025-01.org.example:vol1",
            {&CommandLine::AddPortal, &CommandLine::AddIqn, &CommandLine::AddForce})
            .alias("logout");
        Add(Forget, "forget", "Delete the record of a target that is logged off",
            "192.0.2.10 iqn.2025-01.org.example:vol1", {&CommandLine::AddPortal, &CommandLine::AddIqn});
        Add(ListRecords, "records", "List the node records", "--json", {&CommandLine::AddHeadings});
        Add(FindDisks, "disks", "List the disks of a target", "iqn.2025-01.org.example:vol1 --wait 30",
            {&CommandLine::AddIqn, &CommandLine::AddWaitForDisks, &CommandLine::AddCount});
        Add(FindDisk, "disk", "Tell a target's multipath device, or else its first disk",
            "iqn.2025-01.org.example:vol1 --retry-pause 2",
            {&CommandLine::AddIqn, &CommandLine::AddWait, &CommandLine::AddRetryPause}, kDiskFooter);
        Add(FindTarget, "target", "Tell the portal and the IQN behind a device", "/dev/mapper/mpatha",
            {&CommandLine::AddDevice, &CommandLine::AddWait, &CommandLine::AddPaths,
             &CommandLine::AddHeadings});
        Add(ListSessions, "sessions", "List all sessions, their disks and who uses them", "--json",
            {&CommandLine::AddHeadings})
            .alias("list")
            ->alias("ls");
        Add(Examine, "doctor", "Tell what this host lacks, and what to do about it", "", {});
    }

    // Returns a message about the first unknown option or command; empty if all are known. The parser's
    // own message would repeat a value, which may be a secret.
    std::string FindUnknown(const std::vector<std::string>& arguments) const
    {
        bool hasCommand = false;
        for (std::size_t i = 0; i < arguments.size() && arguments[i] != "--"; ++i)
        {
            const std::string& argument = arguments[i];
            if (argument.size() > 1 && argument.front() == '-')
            {
                const std::string name = OptionName(argument);
                const CLI::Option* const option = FindOption(name);
                const bool hasValue = argument.find('=') != std::string::npos;
                if (option == nullptr)
                    return DescribeUnknownOption(name);
                if (option->get_items_expected_max() == 0 && hasValue)
                    return name + " takes no value";
                if (option->get_items_expected_max() != 0 && !hasValue)
                    ++i;
            }
            else if (!std::exchange(hasCommand, true) && !IsCommand(argument))
                return "there is no command \"" + argument + "\"; did you mean \"" +
                       FindNearest(argument, CommandNames()) + "\"?";
        }
        return "";
    }

    // The message for known options and values that this command does not take.
    std::string DescribeExtras() const
    {
        for (const std::string& extra : app.remaining(true))
            if (extra.size() > 1 && extra.front() == '-')
                return "this command takes no option " + OptionName(extra);
        return "there are more arguments than the command takes";
    }

    CLI::App app{"Drives this machine's iSCSI initiator.", "zniscsi"};

private:
    CLI::App& Add(Answer (*command)(const Request&), const std::string& name, const char* purpose,
                  const std::string& example,
                  std::initializer_list<void (CommandLine::*)(CLI::App&)> arguments,
                  const std::string& explanation = "")
    {
        CLI::App& added = *app.add_subcommand(name, purpose)->group("Commands");
        added.footer("Example:\n  zniscsi " + name + ' ' + example + '\n' + explanation +
                     "\n\"zniscsi --help\" lists the options of every command and the exit statuses.");
        added.callback([this, command] { m_parsed.command = command; });
        for (const auto addArgument : arguments)
            (this->*addArgument)(added);
        return added;
    }

    // Leading zeros do not make a number octal, as the parser's own conversion would.
    template <class Number, class Target>
    static CLI::Option* AddNumber(CLI::App& command, const std::string& name, const char* unit,
                                  const char* purpose, Target& target, Number lowest, Number highest)
    {
        const auto set = [&target, lowest, highest, name](const std::string& text) {
            const std::optional<Number> number = znhost::ParseNumber<Number>(text);
            if (!number || *number < lowest || *number > highest)
                throw CLI::ValidationError(name, "it is no whole number from " +
                                                     std::to_string(lowest) + " to " +
                                                     std::to_string(highest));
            target = *number;
        };
        return command.add_option_function<std::string>(name, set, purpose)->option_text(unit);
    }

    void AddPortal(CLI::App& command)
    {
        constexpr const char* kPurpose =
            "Address of the target portal: ADDRESS, ADDRESS:PORT or [IPV6]:PORT";
        command.add_option("PORTAL", m_request.portal, kPurpose)
            ->required()
            ->option_text(" ")
            ->check(FindPortalFault);
    }

    void AddIqn(CLI::App& command)
    {
        command.add_option("IQN", m_request.iqn, "Name of the target: iqn..., eui... or naa...")
            ->required()
            ->option_text(" ")
            ->check(FindIqnFault);
    }

    void AddDevice(CLI::App& command)
    {
        constexpr const char* kPurpose = "Path of a disk, a partition or a multipath device";
        command.add_option("DEVICE", m_request.device, kPurpose)
            ->required()
            ->option_text(" ")
            ->check(FindDeviceFault);
    }

    void AddChap(CLI::App& command)
    {
        CLI::Option* const user =
            command.add_option("--chap-user", m_request.chapUser, "Log on with CHAP as NAME");
        CLI::Option* const file = command.add_option("--chap-secret-file", m_request.chapSecretFile,
                                                     "The secret is the first line of FILE");
        user->option_text("NAME")->check(FindChapFault);
        file->option_text("FILE")->needs(user);
        // Standard input is the default; the option makes it explicit.
        command
            .add_flag("--chap-secret-stdin",
                      "The secret is the first line of standard input; a terminal is asked")
            ->needs(user)
            ->excludes(file)
            ->option_text(" ");
    }

    void AddForce(CLI::App& command)
    {
        command.add_flag("--force", m_request.force,
                         "Log off under a mounted or otherwise used disk too");
    }

    void AddPaths(CLI::App& command)
    {
        command.add_flag("--paths", m_request.paths,
                         "List every path of the device: disk, state, portal, IQN");
    }

    void AddHeadings(CLI::App& command)
    {
        command.add_flag_callback(
            "--no-headings", [this] { m_request.headings = false; }, "Leave out the line of headings");
    }

    void AddCount(CLI::App& command)
    {
        AddNumber(command, "--count", "N",
                  "Expect N disks; with --wait, look again until they are there", m_request.diskCount,
                  1U, 1'000'000U);
    }

    void AddWait(CLI::App& command)
    {
        AddSeconds(command, "--wait", "Look again until it is there or S seconds are over",
                   m_request.waitSeconds);
    }

    void AddWaitForDisks(CLI::App& command)
    {
        AddSeconds(command, "--wait",
                   "Look again until two looks a second apart agree or S seconds are over",
                   m_request.waitSeconds);
    }

    void AddRetryPause(CLI::App& command)
    {
        AddSeconds(command, "--retry-pause", "Ask the multipath tool again after S seconds, at most 20",
                   m_request.retryPauseSeconds);
    }

    static void AddSeconds(CLI::App& command, const char* name, const char* purpose,
                           std::optional<unsigned>& target)
    {
        constexpr unsigned kDay = 24 * 60 * 60;
        AddNumber(command, name, "S", purpose, target, 0U, kDay);
    }

    // The log reads its settings at the first line, which is written later.
    static void SetLog(const std::string& file)
    {
        if (file.empty())
            throw CLI::ValidationError("--log", "the file name is empty");
        setenv("ZN_LOG_FILE", file.c_str(), 1);
    }

    // "--wait=5" -> "--wait", "-psecret" -> "-p", "-vv" -> "-v"
    static std::string OptionName(const std::string& argument)
    {
        return argument[1] == '-' ? argument.substr(0, argument.find('=')) : argument.substr(0, 2);
    }

    const CLI::Option* FindOption(const std::string& name) const
    {
        if (const CLI::Option* const option = app.get_option_no_throw(name); option != nullptr)
            return option;
        for (const CLI::App* const command : app.get_subcommands(nullptr))
            if (const CLI::Option* const option = command->get_option_no_throw(name); option != nullptr)
                return option;
        return nullptr;
    }

    static std::string DescribeUnknownOption(const std::string& name)
    {
        const auto has = [&name](const char* part) { return name.find(part) != std::string::npos; };
        const bool isForSecret = has("secret") || has("pass") || has("pwd") || name == "-p";
        return "there is no option " + name +
               (isForSecret ? ": a CHAP secret is asked for on the terminal, or comes from "
                              "--chap-secret-file FILE or --chap-secret-stdin"
                            : "");
    }

    bool IsCommand(const std::string& word) const
    {
        const std::vector<std::string> names = CommandNames();
        return std::find(names.begin(), names.end(), word) != names.end();
    }

    std::vector<std::string> CommandNames() const
    {
        std::vector<std::string> names;
        for (const CLI::App* const command : app.get_subcommands(nullptr))
        {
            names.push_back(command->get_name());
            names.insert(names.end(), command->get_aliases().begin(), command->get_aliases().end());
        }
        return names;
    }

    ParsedLine& m_parsed;
    Request& m_request;
};

Answer WrongUsage(const std::string& sentence)
{
    return *Failure(Cause::Usage, {sentence + "; see zniscsi --help"}).answer;
}

} // namespace

ParsedLine ParseCommandLine(int argc, char** argv)
{
    ParsedLine parsed;
    CommandLine line(parsed);
    const std::vector<std::string> arguments(argv + 1, argv + std::max(argc, 1));
    try
    {
        if (const std::string unknown = line.FindUnknown(arguments); !unknown.empty())
            throw CLI::ParseError(unknown, CLI::ExitCodes::ExtrasError);
        line.app.parse(argc, argv);
        if (parsed.command == nullptr)
            throw CLI::RequiredError("a command");
        return parsed;
    }
    catch (const CLI::Success& asked)
    {
        std::ostringstream help;
        line.app.exit(asked, help, help);
        return {{}, false, nullptr, {help.str()}};
    }
    catch (const CLI::ExtrasError&)
    {
        parsed.answer = WrongUsage(line.DescribeExtras());
    }
    catch (const CLI::ParseError& error)
    {
        parsed.answer = WrongUsage(error.what());
    }
    parsed.command = nullptr;
    // The parser may have stopped before this option.
    parsed.json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
    return parsed;
}
