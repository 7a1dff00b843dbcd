#include "simulated/Tool.h"

#include "simulated/Devices.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <sstream>
#include <thread>

namespace simulated
{
namespace
{

std::string FromEnvironment(const char* name)
{
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0')
        throw Unusable(std::string(name) + " is not set; simulated/machine sets it");
    return value;
}

bool HasWords(const std::vector<std::string>& line, const std::string& words)
{
    std::istringstream stream(words);
    return std::all_of(std::istream_iterator<std::string>(stream), {}, [&](const std::string& word) {
        return std::find(line.begin(), line.end(), word) != line.end();
    });
}

// The first fault that applies to this run. Every fault that matches counts the run.
const Fault* FindFault(const Scene& scene, State& state, const std::vector<std::string>& line)
{
    const Fault* first = nullptr;
    for (std::size_t i = 0; i < scene.faults.size(); ++i)
    {
        const Fault& fault = scene.faults[i];
        if (!HasWords(line, fault.command))
            continue;
        const int run = state.faultRuns[static_cast<int>(i)]++;
        if (first == nullptr && (fault.times == 0 || run < fault.times))
            first = &fault;
    }
    return first;
}

// The secret that the command line sets, or else that of the record that it names.
std::string SecretOf(const std::vector<std::string>& line, const State& state)
{
    const std::string value = "--value=";
    for (const std::string& word : line)
    {
        if (word.rfind(value, 0) == 0)
            return word.substr(value.size());
    }
    for (const NodeRecord& record : state.nodes)
    {
        if (HasWords(line, record.iqn))
            return record.Setting("node.session.auth.password");
    }
    return "";
}

std::string Replaced(std::string text, const std::string& mark, const std::string& value)
{
    for (std::size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += value.size())
        text.replace(at, mark.size(), value);
    return text;
}

Outcome RunUnderFaults(const std::vector<std::string>& line, const Scene& scene, State& state,
                       const std::function<Outcome(const Scene&, State&)>& command)
{
    const Fault* fault = FindFault(scene, state, line);
    const State before = state;
    Outcome outcome = command(scene, state);
    if (fault == nullptr)
        return outcome;
    outcome.out = Replaced(fault->output, "{output}", outcome.out);
    outcome.err = Replaced(Replaced(fault->stderrOutput, "{stderr}", outcome.err), "{secret}",
                           SecretOf(line, before));
    if (fault->status >= 0)
    {
        outcome.status = fault->status;
        state = before;
    }
    return outcome;
}

} // namespace

int RunTool(const std::string& name, int argc, char** argv,
            const std::function<Outcome(const Scene&, State&)>& command)
try
{
    std::vector<std::string> line(argv, argv + argc);
    line.front() = name;
    const Scene scene = ReadScene(FromEnvironment("SIMULATED_SCENE"));
    const std::string folder = FromEnvironment("SIMULATED_STATE");
    Outcome outcome;
    {
        StateFile file(folder);
        const Devices before = DevicesOf(scene, file.state);
        outcome = RunUnderFaults(line, scene, file.state, command);
        AttachDisks(scene, file.state);
        file.Save();
        WriteDevices(before, DevicesOf(scene, file.state), folder);
    }
    std::cout << outcome.out << std::flush;
    std::this_thread::sleep_for(std::chrono::milliseconds(outcome.pauseMs));
    std::cerr << outcome.err << std::flush;
    return outcome.status;
}
catch (const std::exception& error)
{
    std::cerr << name << " (simulated): " << error.what() << '\n';
    return 2;
}

} // namespace simulated
