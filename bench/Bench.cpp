// Bench GROUP: measures a group of figures and prints one per line, for bench.sh.

#include "bench/Groups.h"

#include <cstdio>
#include <exception>
#include <map>
#include <string_view>

int main(int argc, char** argv)
{
    const std::map<std::string_view, void (*)()> groups{
        {"runs", bench::MeasureRuns},         {"parser", bench::MeasureParser},
        {"log", bench::MeasureLog},           {"look-ups", bench::MeasureLookUps},
        {"machines", bench::MeasureMachines},
    };
    const auto group = groups.find(argc == 2 ? argv[1] : "");
    if (group == groups.end())
    {
        std::fputs("usage: Bench runs|parser|log|look-ups|machines\n", stderr);
        return 2;
    }
    try
    {
        group->second();
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "Bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
