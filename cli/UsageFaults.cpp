#include "cli/UsageFaults.h"

#include "cli/CommandTable.h"

#include <algorithm>
#include <numeric>
#include <string_view>
#include <vector>

namespace cli
{

namespace
{

// The edit distance: how many letters to insert, delete or replace.
std::size_t CountChanges(std::string_view from, std::string_view to)
{
    // The distance from the letters so far to each prefix of `to`.
    std::vector<std::size_t> changes(to.size() + 1);
    std::iota(changes.begin(), changes.end(), std::size_t{0});
    for (const char letter : from)
    {
        std::size_t diagonal = changes[0]++;
        for (std::size_t i = 1; i < changes.size(); ++i)
        {
            const std::size_t replaced = diagonal + (letter == to[i - 1] ? 0 : 1);
            diagonal = changes[i];
            changes[i] = std::min({replaced, changes[i] + 1, changes[i - 1] + 1});
        }
    }
    return changes.back();
}

// A sentence that proposes the command that was meant, if it is harmless and the word is near to it.
std::string Propose(const std::string& word)
{
    constexpr std::size_t kMaxChanges = 2;
    for (const Command& command : Commands())
    {
        const std::size_t changes = CountChanges(word, command.name);
        if (!command.changesAnything && changes <= kMaxChanges && 2 * changes <= word.size())
            return std::string(" (did you mean \"") + command.name + "\"?)";
    }
    return "";
}

// "--wait=5" -> "--wait", "-psecret" -> "-p"
std::string OptionName(const std::string& argument)
{
    const std::size_t end =
        argument.find_first_not_of("-0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz");
    return argument[1] == '-' ? argument.substr(0, end) : argument.substr(0, 2);
}

} // namespace

bool IsOption(const std::string& argument)
{
    return argument.size() > 1 && argument.front() == '-';
}

// "--wait: 1 required TEXT missing", "json was given a disallowed flag override"
std::string DescribeMismatch(const std::string& said)
{
    const std::string option = said.substr(0, said.find_first_of(": "));
    if (said.find("flag override") == std::string::npos)
        return option + " takes one value";
    return (option.size() == 1 ? "-" : "--") + option + " takes no value";
}

std::string DescribeOption(const std::string& argument, bool isFirstWord)
{
    const std::string name = OptionName(argument);
    if (name == "-=")
        return "-v takes no value";
    for (const Command& command : Commands())
        for (const Option& option : command.options)
            if (option.name == name)
                return isFirstWord ? name + " belongs behind its command"
                                   : "this command takes no option " + name;
    const auto has = [&name](const char* part) { return name.find(part) != std::string::npos; };
    const bool isForSecret = has("secret") || has("pass") || has("pwd") || name == "-p";
    return "there is no option " + name +
           (isForSecret ? ": a CHAP secret is asked for on the terminal, or comes from "
                          "--chap-secret-file FILE or --chap-secret-stdin"
                        : "");
}

std::string DescribeUnknownCommand(const std::string& firstWord)
{
    return IsOption(firstWord) ? "there is no such command"
                               : "there is no command \"" + firstWord + '"' + Propose(firstWord);
}

} // namespace cli
