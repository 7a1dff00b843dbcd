// Starting a child must not cost more in a host that uses much memory.

#include "host/ZnProcess.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace
{

void RunTrue(benchmark::State& state)
{
    const std::vector<char> hostMemory(static_cast<std::size_t>(state.range(0)) << 20U, 'x');
    std::string output;
    std::string errorOutput;
    for (auto _ : state)
        if (ZnProcess::system("/bin/true", &output, &errorOutput, 0, false) != 0)
            state.SkipWithError(errorOutput.c_str());
}

BENCHMARK(RunTrue)->ArgName("host memory, MiB")->Arg(0)->Arg(256)->Arg(2048)->UseRealTime();

void RunWithOutput(benchmark::State& state)
{
    const std::string command = "/usr/bin/head -c " + std::to_string(state.range(0)) + " /dev/zero";
    std::string output;
    std::string errorOutput;
    for (auto _ : state)
        if (ZnProcess::system(command.c_str(), &output, &errorOutput, 0, false) != 0)
            state.SkipWithError(errorOutput.c_str());
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

BENCHMARK(RunWithOutput)->ArgName("bytes")->Arg(1 << 10)->Arg(1 << 26)->UseRealTime();

} // namespace
