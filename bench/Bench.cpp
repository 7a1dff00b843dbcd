// Bench GROUP                      measures a group of rows and prints them
// Bench run-ours|run-others TIMES  runs a tool so often, for bench.sh to count the system calls

#include "bench/Bench.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iostream>
#include <limits>
#include <map>

#include <sys/resource.h>

double bench::Seconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double bench::Faults()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_minflt);
}

void bench::Compare(double (*counter)(), const Row& row, const Function& ours, const Function& others,
                    const Function& before)
{
    const auto measure = [&](const Function& work, double& least) {
        before();
        const double begin = counter();
        work();
        least = std::min(least, counter() - begin);
    };
    const double end = Seconds() + 1.2;
    double least = std::numeric_limits<double>::max(), othersLeast = least;
    for (int round = 0; round < 10 || Seconds() < end; ++round)
    {
        measure(ours, least);
        measure(others, othersLeast);
    }
    std::cout << row.title << '\t' << row.limit << '\t' << least << '\t' << othersLeast << '\n';
}

void bench::PrintHeading(const std::string& heading)
{
    std::cout << "\n\n# " << heading << '\n';
}

int main(int argc, char** argv)
try
{
    const std::map<std::string, void (*)()> groups{
        {"runs", bench::MeasureRuns},         {"log", bench::MeasureLog},
        {"parser", bench::MeasureParser},     {"look-ups", bench::MeasureLookUps},
        {"machines", bench::MeasureMachines}, {"run-ours", bench::RunOurs},
        {"run-others", bench::RunOthers}};
    const std::vector<std::string> words(argv + 1, argv + argc);
    for (int times = words.size() > 1 ? std::stoi(words[1]) : 1; times > 0; --times)
        groups.at(words.at(0))();
}
catch (const std::exception& error)
{
    std::cerr << "Bench: " << error.what() << '\n';
    return 1;
}
