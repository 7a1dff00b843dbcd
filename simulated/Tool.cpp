#include "simulated/Tool.h"

#include "simulated/Devices.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <thread>

#include <sys/file.h>

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

// The CHAP secret of the first node record that has one.
std::string SecretOf(const State& state)
{
    for (const auto& [node, settings] : state.nodes)
        if (const auto secret = settings.find("node.session.auth.password"); secret != settings.end())
            return secret->second;
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
    outcome.err =
        Replaced(Replaced(fault->stderrOutput, "{stderr}", outcome.err), "{secret}", SecretOf(state));
    outcome.pauseMs += fault->pauseMs;
    if (fault->status >= 0)
    {
        outcome.status = fault->status;
        state = before;
    }
    return outcome;
}

// Keeps other tools away from the state while it is there.
auto Lock(const std::string& file)
{
    std::unique_ptr<FILE, int (*)(FILE*)> lock(std::fopen(file.c_str(), "ae"), std::fclose);
    if (!lock || flock(fileno(lock.get()), LOCK_EX) != 0)
        throw Unusable("cannot lock " + file + ": " + std::strerror(errno));
    return lock;
}

} // namespace

int RunTool(const std::string& name, int argc, char** argv,
            const std::function<Outcome(const Scene&, State&)>& command)
try
{
    std::vector<std::string> line(argv, argv + argc);
    line.front() = name;
    const Scene scene = ReadScene(FromEnvironment("SIMULATED_SCENE"));
    const std::string directory = FromEnvironment("SIMULATED_STATE");
    Outcome outcome;
    {
        const auto lock = Lock(directory + "/lock");
        State state = ReadState(directory + "/state.json");
        const Tree before = DevicesOf(scene, state);
        outcome = RunUnderFaults(line, scene, state, command);
        AttachDisks(scene, state);
        WriteState(directory + "/state.json", state);
        WriteTree(before, DevicesOf(scene, state), directory);
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
