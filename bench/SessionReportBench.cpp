// The session report parser: the fit at the end of each group says how its time grows with the report.

#include "redhat/ZnISCSILinuxRedhat.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>

namespace
{

// The log's lines would drown what is measured; the first line written reads this.
const int g_quiet = setenv("ZN_LOG_LEVEL", "-1", 1);

std::string Repeat(benchmark::IterationCount count, const std::string& text)
{
    std::string all;
    while (count-- > 0)
        all += text;
    return all;
}

const std::string kTarget =
    "Target: iqn.2000-01.test:vol (non-flash)\n\tPersistent Portal: 192.0.2.10:3260,1\n";
const std::string kDisk = "\t\t\tAttached scsi disk sdb\t\tState: running\n";

void Parse(benchmark::State& state, const std::string& report)
{
    for (auto _ : state)
    {
        std::vector<iSSCSISessionInfo> records;
        benchmark::DoNotOptimize(ParseIscsiadmSessionInfoOutput(report, records));
    }
    state.SetComplexityN(state.range(0));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(report.size()));
}

void UsualTargets(benchmark::State& state)
{
    Parse(state, Repeat(state.range(0), kTarget + kDisk));
}

void TargetsWithoutDisks(benchmark::State& state)
{
    Parse(state, Repeat(state.range(0), kTarget));
}

void DisksWithoutState(benchmark::State& state)
{
    Parse(state, Repeat(state.range(0), kTarget + "\t\t\tAttached scsi disk sdb\n"));
}

void OneTargetManyDisks(benchmark::State& state)
{
    Parse(state, kTarget + Repeat(state.range(0), kDisk));
}

BENCHMARK(UsualTargets)->RangeMultiplier(4)->Range(64, 16384)->Complexity();
BENCHMARK(TargetsWithoutDisks)->RangeMultiplier(4)->Range(64, 16384)->Complexity();
BENCHMARK(DisksWithoutState)->RangeMultiplier(4)->Range(64, 16384)->Complexity();
BENCHMARK(OneTargetManyDisks)->RangeMultiplier(4)->Range(64, 16384)->Complexity();

} // namespace
