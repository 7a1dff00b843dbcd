#include "simulated/Tool.h"

#include "simulated/Devices.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <iterator>
#include <sstream>
#include <thread>
#include <unistd.h>

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

void Sleep(std::int64_t milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

std::vector<std::string> Words(const std::string& text)
{
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

bool HoldsAll(const std::vector<std::string>& line, const std::vector<std::string>& words)
{
    return std::all_of(words.begin(), words.end(), [&](const std::string& word) {
        return std::find(line.begin(), line.end(), word) != line.end();
    });
}

// The first fault whose turn it is. Every fault that matches counts this run.
const Fault* FindFault(const Scene& scene, State& state, const std::vector<std::string>& line)
{
    const Fault* struck = nullptr;
    for (std::size_t i = 0; i < scene.faults.size(); ++i)
    {
        const Fault& fault = scene.faults[i];
        if (!HoldsAll(line, Words(fault.command)))
            continue;
        const int run = state.faultRuns[static_cast<int>(i)]++;
        if (struck == nullptr && (fault.times == 0 || run < fault.times))
            struck = &fault;
    }
    return struck;
}

// The secret that the command line sets, otherwise one of the record that it names.
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
        if (HoldsAll(line, {record.iqn}))
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

Outcome Spoil(const Fault& fault, const Outcome& outcome, const std::string& secret)
{
    Outcome spoilt = outcome;
    spoilt.out = Replaced(fault.output, "{output}", outcome.out);
    if (fault.half)
        spoilt.out.resize(spoilt.out.size() / 2);
    spoilt.err = Replaced(Replaced(fault.stderrOutput, "{stderr}", outcome.err), "{secret}", secret);
    if (fault.status >= 0)
        spoilt.status = fault.status;
    spoilt.leaveBehindMs = fault.leaveBehindMs;
    return spoilt;
}

// A child of its own: what it inherits would keep the machine's lock.
bool IsChildLeftBehind()
{
    if (fork() != 0)
        return false;
    setsid();
    closefrom(STDERR_FILENO + 1);
    return true;
}

// Disks that wait for the clock come without a tool's being run: a child sees to it. It works from
// within the folder, so that it ends when the folder is gone, and never makes it anew or finds another
// of that name.
void SettleLater(std::int64_t waitMs, const Scene& scene, const std::string& folder)
{
    if (!IsChildLeftBehind())
        return;
    if (chdir(folder.c_str()) != 0)
        _exit(0);
    const int null = open("/dev/null", O_RDWR);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        dup2(null, standard);
    for (std::optional<std::int64_t> wait = waitMs; wait;)
    {
        Sleep(*wait);
        StateFile file(".");
        wait = Settle(scene, file.state, NowMs());
        file.Save();
        WriteDevices(scene, file.state, ".");
    }
    _exit(0);
}

void Print(const Outcome& outcome)
{
    std::cout << outcome.out << std::flush;
    Sleep(outcome.pauseMs);
    std::cerr << outcome.err << std::flush;
    if (outcome.leaveBehindMs == 0 || !IsChildLeftBehind())
        return;
    Sleep(outcome.leaveBehindMs);
    _exit(0);
}

Outcome RunCommand(const std::vector<std::string>& line, const Scene& scene, const std::string& folder,
                   const std::function<Outcome(const Scene&, State&)>& command)
{
    StateFile file(folder);
    const Fault* fault = FindFault(scene, file.state, line);
    const State before = file.state;
    Outcome outcome = command(scene, file.state);
    if (fault != nullptr)
    {
        outcome = Spoil(*fault, outcome, SecretOf(line, before));
        if (fault->status >= 0)
            file.state = before;
    }
    outcome.nextDiskMs = Settle(scene, file.state, NowMs());
    file.Save();
    WriteDevices(scene, file.state, folder);
    if (file.state.lastSid == before.lastSid) // a log-on before has left its child already
        outcome.nextDiskMs.reset();
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
    const Outcome outcome = RunCommand(line, scene, folder, command);
    if (outcome.nextDiskMs)
        SettleLater(*outcome.nextDiskMs, scene, folder);
    Print(outcome);
    return outcome.status;
}
catch (const std::exception& error)
{
    std::cerr << name << " (simulated): " << error.what() << '\n';
    return 2;
}

} // namespace simulated
