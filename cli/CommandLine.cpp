#include "cli/CommandLine.h"

#include "cli/CommandTable.h"
#include "cli/UsageFaults.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <memory>
#include <sstream>

namespace cli
{

namespace
{

constexpr const char* kTooMany = "there are more arguments than the command takes";

constexpr const char* kFooter = R"(Examples:
  zniscsi discover 192.0.2.10
  zniscsi logon 192.0.2.10 iqn.2025-01.org.example:vol1
  zniscsi disks iqn.2025-01.org.example:vol1 --wait 30

Exit status:
  0  done
  1  the operation failed
  2  wrong usage
  3  this machine is not served (no Red Hat family Linux of release 5 or later)
  4  the administration tool /sbin/iscsiadm is missing

"zniscsi COMMAND --help" tells more about a command.)";

// Shows the arguments of a command as the table has them.
class HelpFormatter : public CLI::Formatter
{
public:
    std::string make_usage(const CLI::App* app, std::string name) const override
    {
        const Command* const command = FindCommand(app->get_name());
        std::string usage = "Usage: " + name + " [OPTIONS]";
        if (command == nullptr)
            return usage + " COMMAND\n";
        for (const Argument& argument : command->arguments)
            usage += argument.isRequired ? std::string(" ") + argument.name
                                         : std::string(" [") + argument.name + ']';
        return usage + '\n';
    }

    std::string make_positionals(const CLI::App* app) const override
    {
        const Command* const command = FindCommand(app->get_name());
        if (command == nullptr || command->arguments.empty())
            return "";
        std::ostringstream text;
        text << "\nArguments:\n";
        for (const Argument& argument : command->arguments)
            CLI::detail::format_help(text, argument.name, argument.purpose, get_column_width());
        return text.str();
    }
};

// The parser, made from the table.
class CommandLine
{
public:
    explicit CommandLine(ParsedLine& parsed) : m_parsed(parsed)
    {
        const auto formatter = std::make_shared<HelpFormatter>();
        formatter->column_width(26);
        formatter->label("SUBCOMMAND", "COMMAND");
        m_app.formatter(formatter);
        m_app.require_subcommand(0, 1);
        m_app.fallthrough();
        m_app.footer(kFooter);
        m_app.get_help_ptr()->description("Show this help");
        m_app.set_version_flag("--version", "zniscsi " ZN_VERSION, "Show the version");
        m_app.add_flag("--json", m_parsed.json, "Answer with one JSON object")->disable_flag_override();
        m_app
            .add_flag("-v", m_parsed.request.verbosity,
                      "Show what is run and found; -vv: the parsers'\nsteps and the tools' reports too")
            ->disable_flag_override();
        for (const Option& option : CommonOptions())
            Add(m_app, option);
        for (const Command& command : Commands())
            Add(command);
        m_help = m_app.add_subcommand("help", "Show the help of a command")->group("Commands");
        AddArgument(*m_help, "COMMAND");
    }

    // Sets what to run. Throws CLI::Error or UsageError.
    void Parse(std::vector<std::string> arguments)
    {
        std::reverse(arguments.begin(), arguments.end()); // the order that the parser takes
        m_app.parse(arguments);
        const std::vector<CLI::App*> chosen = m_app.get_subcommands();
        if (chosen.empty())
            throw UsageError("a command is missing");
        if (chosen.front() == m_help)
            return ShowHelp();
        const Command* const command = FindCommand(chosen.front()->get_name());
        Assign(*command);
        const Request& request = m_parsed.request;
        if ((request.chapSecretFile || request.chapSecretStdin) && !request.chapUser)
            throw UsageError("a CHAP secret needs --chap-user");
        if (request.chapSecretFile && request.chapSecretStdin)
            throw UsageError("--chap-secret-file excludes --chap-secret-stdin");
        m_parsed.run = command->run;
    }

    // The help or version that was asked for.
    std::string TextFor(const CLI::Success& asked) const
    {
        std::ostringstream text;
        m_app.exit(asked, text, text);
        return text.str();
    }

    // The message for a command line that the parser does not take. Its own would repeat values.
    std::string Describe(const CLI::Error& error, const std::string& firstWord) const
    {
        if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr)
            return DescribeMismatch(error.what());
        for (const std::string& extra : m_app.remaining(true))
            if (IsOption(extra))
                return DescribeOption(extra, extra == firstWord);
        return m_app.get_subcommands().empty() ? DescribeUnknownCommand(firstWord) : kTooMany;
    }

    // Where to read on: the help of the command, if one was recognised.
    std::string HelpCommand() const
    {
        const std::vector<CLI::App*> chosen = m_app.get_subcommands();
        return chosen.empty() || chosen.front() == m_help
                   ? "zniscsi --help"
                   : "zniscsi " + chosen.front()->get_name() + " --help";
    }

private:
    void Add(const Command& command)
    {
        CLI::App& added = *m_app.add_subcommand(command.name, command.purpose)->group("Commands");
        for (const char* const alias : command.aliases)
            added.alias(alias);
        added.get_help_ptr()->description("Show this help");
        for (const Argument& argument : command.arguments)
            AddArgument(added, argument.name);
        for (const Option& option : command.options)
            Add(added, option);
        std::string footer =
            std::string("Example:\n  zniscsi ") + command.name + ' ' + command.example + '\n';
        if (*command.explanation != '\0')
            footer += std::string("\n") + command.explanation + '\n';
        added.footer(footer +
                     "\n\"zniscsi --help\" lists the options of every command and the exit statuses.");
    }

    // One by one: of a list, the parser would take "[2001:db8::10]" for a list within.
    void AddArgument(CLI::App& app, const char* name)
    {
        app.add_option_function<std::string>(
            name, [this](const std::string& word) { m_words.push_back(word); });
    }

    void Add(CLI::App& app, const Option& option)
    {
        const auto set = [this, &option](const std::string& value) {
            option.set(m_parsed.request, option.name, value);
        };
        if (option.value == nullptr)
            app.add_flag_callback(
                   option.name, [set] { set(""); }, option.purpose)
                ->disable_flag_override();
        else
            app.add_option_function<std::string>(option.name, set, option.purpose)
                ->option_text(option.value);
    }

    void Assign(const Command& command)
    {
        const std::vector<Argument>& arguments = command.arguments;
        if (m_words.size() == 2 && IsIqn(m_words[0]) && !IsIqn(m_words[1]))
            throw UsageError("PORTAL and IQN are exchanged: PORTAL comes first");
        // If arguments are missing, these are the optional ones.
        const std::size_t skipped = arguments.size() - m_words.size();
        for (std::size_t i = 0; i < arguments.size(); ++i)
        {
            if (i < skipped && arguments[i].isRequired)
                throw UsageError(std::string(arguments[i].name) + " is missing");
            if (i >= skipped)
                arguments[i].set(m_parsed.request, arguments[i].name, m_words[i - skipped]);
        }
    }

    // "help", "help logon"
    void ShowHelp()
    {
        const Command* const command = m_words.empty() ? nullptr : FindCommand(m_words.front());
        if (command == nullptr && !m_words.empty() && m_words.front() != m_help->get_name())
            throw UsageError("there is no such command");
        m_parsed.json = false;
        m_parsed.answer.text =
            command != nullptr
                ? m_app.get_subcommand(command->name)->help("zniscsi")
                : m_app.get_formatter()->make_help(&m_app, "zniscsi", CLI::AppFormatMode::Normal);
    }

    ParsedLine& m_parsed;
    std::vector<std::string> m_words;
    CLI::App* m_help = nullptr;
    CLI::App m_app{"Drives this machine's iSCSI initiator.", "zniscsi"};
};

} // namespace

ParsedLine ParseCommandLine(int argc, char** argv)
{
    ParsedLine parsed;
    CommandLine line(parsed);
    const std::vector<std::string> arguments(argv + 1, argv + std::max(argc, 1));
    std::string fault;
    try
    {
        line.Parse(arguments);
        return parsed;
    }
    catch (const CLI::Success& asked)
    {
        return {{}, false, nullptr, {line.TextFor(asked)}};
    }
    catch (const UsageError& error)
    {
        fault = error.what();
    }
    catch (const CLI::Error& error)
    {
        fault = line.Describe(error, arguments.front());
    }
    parsed.answer = FailedAnswer(Cause::Usage, {fault + "; see " + line.HelpCommand()});
    // The parser may have stopped before this option.
    parsed.json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
    return parsed;
}

} // namespace cli
