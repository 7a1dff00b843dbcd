// The simulated /sbin/iscsiadm: its command line, as far as the library and the agent use it.
#include "simulated/Initiator.h"

#include <getopt.h>

using namespace simulated;

namespace
{

// The options by letter, and '?' for one that does not exist or lacks its argument.
using Options = std::map<char, std::string>;

Options ParseOptions(int argc, char** argv)
{
    static const option kLong[] = {{"name", required_argument, nullptr, 'n'},
                                   {"op", required_argument, nullptr, 'o'},
                                   {"value", required_argument, nullptr, 'v'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
    Options options;
    for (int letter = 0; (letter = getopt_long(argc, argv, "m:T:p:t:o:luP:V", kLong, nullptr)) != -1;)
        options[static_cast<char>(letter)] = optarg != nullptr ? optarg : "";
    return options;
}

Outcome Refused(const std::string& words)
{
    return {7, "", "iscsiadm: " + words + "\n"};
}

Outcome RunNodeMode(const Scene& scene, State& state, Options options)
{
    if (options.size() == 1) // -m
        return ListNodes(state);
    const Node node{options['T'], Resolve(scene, options['p'])};
    if (options.count('u') != 0)
        return LogOff(state, node);
    if (state.nodes.count(node) == 0)
        return NotFound("No records found");
    if (options.count('l') != 0)
        return LogOn(scene, state, node);
    if (options['o'] == "update")
    {
        state.nodes[node][options['n']] = options['v'];
        return {};
    }
    if (options['o'] == "delete")
        return DeleteNode(state, node);
    return Refused("the simulated tool can only list, update, delete, log on and log off");
}

Outcome Run(const Scene& scene, State& state, Options options)
{
    const std::string mode = options['m'];
    if (options.count('V') != 0)
        return {0, "iscsiadm version 2.1.8\n"};
    if (options.count('?') != 0)
        return Refused(mode + " mode: option '-?' is not allowed/supported");
    if (mode == "discovery" && options['t'] == "sendtargets" && options.count('p') != 0)
        return Discover(scene, state, Resolve(scene, options['p']));
    if (mode == "node")
        return RunNodeMode(scene, state, options);
    if (mode == "session" && options['P'] == "3")
        return ReportSessions(scene, state);
    return {7, "", "Try `iscsiadm --help' for more information.\n"};
}

} // namespace

int main(int argc, char** argv)
{
    return RunTool("iscsiadm", argc, argv, [&](const Scene& scene, State& state) {
        return Run(scene, state, ParseOptions(argc, argv));
    });
}
