#include "bench/Measure.h"

#include "bench/SystemCalls.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <limits>

#include <sys/resource.h>

namespace
{

using std::chrono::steady_clock;

double Time(const bench::Function& work)
{
    const auto begin = steady_clock::now();
    work();
    return std::chrono::duration<double>(steady_clock::now() - begin).count();
}

double CountFaults(const bench::Function& work)
{
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    work();
    getrusage(RUSAGE_SELF, &after);
    return static_cast<double>(after.ru_minflt - before.ru_minflt);
}

void Report(const std::string& key, double ours, double peers)
{
    std::printf("%s %.9g %.9g\n", key.c_str(), ours, peers);
    std::fflush(stdout);
}

} // namespace

void bench::CompareTimes(const std::string& key, const Function& ours, const Function& peers,
                         const Function& before)
{
    constexpr std::chrono::milliseconds kDuration{1200};
    constexpr int kMinRounds = 10;
    const auto end = steady_clock::now() + kDuration;
    double least = std::numeric_limits<double>::max();
    double peersLeast = least;
    for (int round = 0; round < kMinRounds || steady_clock::now() < end; ++round)
    {
        before();
        least = std::min(least, Time(ours));
        before();
        peersLeast = std::min(peersLeast, Time(peers));
    }
    Report(key, least, peersLeast);
}

void bench::CompareFaults(const std::string& key, const Function& ours, const Function& peers,
                          const Function& before)
{
    constexpr int kRounds = 100;
    ours(); // warms up
    peers();
    double sum = 0;
    double peersSum = 0;
    for (int round = 0; round < kRounds; ++round)
    {
        before();
        sum += CountFaults(ours);
        before();
        peersSum += CountFaults(peers);
    }
    Report(key, sum / kRounds, peersSum / kRounds);
}

void bench::CompareSystemCalls(const std::string& key, const Function& ours, const Function& peers)
{
    Report(key, CountSystemCalls(ours), CountSystemCalls(peers));
}
