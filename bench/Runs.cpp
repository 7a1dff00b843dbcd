// The cost of a run of a tool, and of the start of the agent.

#include "bench/Groups.h"
#include "bench/Measure.h"
#include "bench/Peer.h"
#include "host/ZnProcess.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

// Afterwards the first write to each page is a page fault.
void Fork()
{
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    waitpid(child, nullptr, 0);
}

void CoolHeap()
{
    malloc_trim(0);
}

} // namespace

void bench::MeasureRuns()
{
    std::string output;
    std::string errorOutput;
    const auto ours = [&] {
        if (ZnProcess::system("/bin/true", &output, &errorOutput, 0, false) != 0)
            throw std::runtime_error(errorOutput);
    };
    const auto peers = [] { RunWithPosixSpawn({"/bin/true"}); };
    const auto runAgent = [] { RunWithPosixSpawn({AGENT, "--version"}); };

    std::vector<char> hostMemory(10U << 20U, 'x');
    CompareTimes("run/10-MiB", ours, peers);
    CompareTimes("run/forked", ours, peers, Fork);
    CompareSystemCalls("run/calls", ours, peers);
    CompareFaults("run/faults", ours, peers);
    CompareFaults("run/faults/forked", ours, peers, Fork);
    CompareFaults("run/faults/cold", ours, peers, CoolHeap);
    CompareTimes("agent/start", runAgent, peers);
    hostMemory.resize(2048U << 20U, 'x');
    CompareTimes("run/2-GiB", ours, peers);
}
