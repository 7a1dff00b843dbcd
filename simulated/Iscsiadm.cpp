// The simulated /sbin/iscsiadm: its command line.
#include "simulated/Initiator.h"
#include "simulated/Reports.h"

#include <algorithm>
#include <cstring>
#include <getopt.h>

using namespace simulated;

namespace
{

struct CommandLine
{
    std::string given; // the letters of the options, in their order; '?' for one that there isn't
    std::map<char, std::string> values;

    bool Has(char option) const { return given.find(option) != std::string::npos; }
    std::string Value(char option) const
    {
        const auto found = values.find(option);
        return found == values.end() ? "" : found->second;
    }
};

// The real tool's options. The oldest versions had an -i without an argument.
CommandLine Parse(int argc, char** argv, bool oldTool)
{
    static const option kLong[] = {{"mode", required_argument, nullptr, 'm'},
                                   {"portal", required_argument, nullptr, 'p'},
                                   {"targetname", required_argument, nullptr, 'T'},
                                   {"op", required_argument, nullptr, 'o'},
                                   {"type", required_argument, nullptr, 't'},
                                   {"name", required_argument, nullptr, 'n'},
                                   {"value", required_argument, nullptr, 'v'},
                                   {"login", no_argument, nullptr, 'l'},
                                   {"logout", no_argument, nullptr, 'u'},
                                   {"print", required_argument, nullptr, 'P'},
                                   {"sid", required_argument, nullptr, 'r'},
                                   {"debug", required_argument, nullptr, 'd'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    const char* letters =
        oldTool ? "RlDVhm:p:P:T:H:iI:U:L:d:r:n:v:o:sSt:u" : "RlDVhm:p:P:T:H:i:I:U:L:d:r:n:v:o:sSt:u";
    CommandLine line;
    for (int option = 0; (option = getopt_long(argc, argv, letters, kLong, nullptr)) != -1;)
    {
        const char letter = static_cast<char>(option);
        line.given += letter;
        line.values[letter] = optarg != nullptr ? optarg : "";
    }
    return line;
}

Outcome Refused(const std::string& words)
{
    return {7, "", "iscsiadm: " + words + "\n"};
}

Outcome Discovery(const Scene& scene, State& state, const CommandLine& line)
{
    if (line.Value('t') != "sendtargets" && line.Value('t') != "st")
        return Refused("the simulated discovery is of the type sendtargets alone");
    if (!line.Has('p'))
        return Refused("Please specify portal as <ipaddr>[:<ipport>]");
    return Discover(scene, state, line.Value('p'));
}

Outcome Node(const Scene& scene, State& state, const CommandLine& line)
{
    const Selection selection{line.Value('T'), line.Value('p')};
    if (line.Has('l'))
        return LogOn(scene, state, selection);
    if (line.Has('u'))
        return LogOff(scene, state, selection);
    const std::string op = line.Value('o');
    if (op == "update")
        return UpdateNodes(scene, state, selection, line.Value('n'), line.Value('v'));
    if (op == "delete")
        return DeleteNodes(scene, state, selection);
    if (op == "new")
        return NewNode(scene, state, selection);
    if (op.empty() || op == "show")
        return ListNodes(scene, state, selection);
    return Refused("the simulated tool knows no operation " + op);
}

Outcome Sessions(const Scene& scene, State& state, const CommandLine& line)
{
    const std::string level = line.Has('P') ? line.Value('P') : "0";
    if (level.size() != 1 || level < "0" || level > "3")
        return Refused("Invalid info level. Try 0, 1, 2 or 3.");
    if (level == "3" && !scene.detailedReport)
        return Refused("session mode: option '-P' is not allowed/supported");
    const std::vector<Session> all = InReportOrder(state.sessions);
    std::vector<Session> sessions;
    std::copy_if(all.begin(), all.end(), std::back_inserter(sessions), [&](const Session& session) {
        return !line.Has('r') || std::to_string(session.sid) == line.Value('r');
    });
    if (sessions.empty() && line.Has('r'))
        return {
            22, "",
            "iscsiadm: could not read session targetname: 5\niscsiadm: Could not get session info for "
            "sid " +
                line.Value('r') + "\n"};
    if (sessions.empty())
        return {21, "", "iscsiadm: No active sessions.\n"};
    if (line.Has('i') || level == "3")
    {
        for (Session& session : state.sessions)
            ++session.looks;
        Settle(scene, state, NowMs());
    }
    if (line.Has('i'))
        return {0, ShortReport(scene, state, sessions), ""};
    if (level == "0")
        return {0, SessionList(scene, sessions), ""};
    return {0, DetailedReport(scene, state, sessions, level[0] - '0'), ""};
}

struct Mode
{
    const char* name;
    const char* allowed;   // the options that the real tool takes in this mode
    const char* simulated; // those of them that this one acts upon
    Outcome (*run)(const Scene&, State&, const CommandLine&);
};
constexpr Mode kModes[] = {{"discovery", "DSIPdntplov", "dtp", Discovery},
                           {"node", "RsPIdlSonvupTULW", "dlonvupT", Node},
                           {"session", "PiRdrusonuSvW", "Pidr", Sessions}};

Outcome Iscsiadm(const Scene& scene, State& state, int argc, char** argv)
{
    const CommandLine line = Parse(argc, argv, scene.ToolIsOld());
    if (line.Has('V'))
        return {0, "iscsiadm version " + scene.toolVersion + "\n", ""};
    for (const Mode& mode : kModes)
    {
        if (line.Value('m') != mode.name)
            continue;
        for (const char option : line.given)
        {
            if (option != 'm' && std::strchr(mode.allowed, option) == nullptr)
                return Refused(std::string(mode.name) + " mode: option '-" + option +
                               "' is not allowed/supported");
            if (option != 'm' && std::strchr(mode.simulated, option) == nullptr)
                return Refused(std::string("the simulated ") + mode.name + " mode does without -" +
                               option);
        }
        return mode.run(scene, state, line);
    }
    return {7, "", "Try `iscsiadm --help' for more information.\n"};
}

} // namespace

int main(int argc, char** argv)
{
    return RunTool("iscsiadm", argc, argv, [&](const Scene& scene, State& state) {
        return Iscsiadm(scene, state, argc, argv);
    });
}
