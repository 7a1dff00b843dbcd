// The simulated /sbin/iscsiadm: its command line, as far as the library and the agent use it.
#include "simulated/Initiator.h"

#include <getopt.h>

using namespace simulated;

namespace
{

class CommandLine
{
public:
    CommandLine(int argc, char** argv)
    {
        static const option kLong[] = {{"name", required_argument, nullptr, 'n'},
                                       {"op", required_argument, nullptr, 'o'},
                                       {"value", required_argument, nullptr, 'v'},
                                       {"version", no_argument, nullptr, 'V'},
                                       {nullptr, 0, nullptr, 0}};
        constexpr const char* kLetters =
            "m:T:p:t:o:luP:i:V"; // the oldest tools have an -i without an argument
        for (int letter = 0; (letter = getopt_long(argc, argv, kLetters, kLong, nullptr)) != -1;)
            m_values[letter] = optarg != nullptr ? optarg : "";
    }

    bool Has(char letter) const { return m_values.count(letter) != 0; }
    std::string Value(char letter) const { return Has(letter) ? m_values.at(letter) : ""; }

private:
    std::map<int, std::string> m_values; // '?': an option that does not exist or lacks its argument
};

Outcome Refused(const std::string& words)
{
    return {7, "", "iscsiadm: " + words + "\n"};
}

Outcome RunNodeMode(const Scene& scene, State& state, const CommandLine& line)
{
    if (!line.Has('T') && !line.Has('p') && !line.Has('o'))
        return ListNodes(state);
    const Node node{line.Value('T'), Resolve(scene, line.Value('p'))};
    if (line.Has('l'))
        return LogOn(scene, state, node);
    if (line.Has('u'))
        return LogOff(state, node);
    if (line.Value('o') == "update")
        return UpdateNode(state, node, line.Value('n'), line.Value('v'));
    if (line.Value('o') == "delete")
        return DeleteNode(state, node);
    return Refused("the simulated tool can only list, update, delete, log on and log off");
}

Outcome Run(const Scene& scene, State& state, const CommandLine& line)
{
    const std::string mode = line.Value('m');
    if (line.Has('V'))
        return {0, "iscsiadm version 2.1.8\n"};
    if (line.Has('?'))
        return Refused(mode + " mode: option '-?' is not allowed/supported");
    if (mode == "discovery" && line.Value('t') == "sendtargets" && line.Has('p'))
        return Discover(scene, state, Resolve(scene, line.Value('p')));
    if (mode == "node")
        return RunNodeMode(scene, state, line);
    if (mode == "session" && line.Value('P') == "3")
        return ReportSessions(scene, state);
    return {7, "", "Try `iscsiadm --help' for more information.\n"};
}

} // namespace

int main(int argc, char** argv)
{
    return RunTool("iscsiadm", argc, argv, [&](const Scene& scene, State& state) {
        return Run(scene, state, CommandLine(argc, argv));
    });
}
