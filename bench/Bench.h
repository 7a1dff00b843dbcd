// What bench.sh measures: pairs of functions, ours and another, in turn, so that other load on the
// machine affects both.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace bench
{

using Function = std::function<void()>;

struct Row
{
    std::string title;
    std::string limit; // "1.05x" for the ratio of ours to the other's, "8" for ours alone
};

// What Compare() can measure: the time, and the page faults of this process.
double Seconds();
double Faults();

// Prints a row for bench.sh, with the least that one of many rounds of each takes. `before` runs before
// every round, ours first, and is not measured.
void Compare(
    double (*counter)(), const Row& row, const Function& ours, const Function& others,
    const Function& before = [] {});

void PrintHeading(const std::string& heading);

// Runs a tool with posix_spawn and does what the process runner does: /dev/null as input, no descriptor
// above 2, default signals, LC_ALL=C, reads both streams concurrently, waits for the tool. The output
// is dropped. Throws std::runtime_error if the tool fails. `words` is the full path and the arguments.
void RunWithPosixSpawn(std::vector<const char*> words);

// One run of /bin/true, by the process runner and as above.
void RunOurs();
void RunOthers();

// The groups of rows. Each runs in a process of its own: the log's level is read once per process. The
// current directory is that of bench.sh's files.
void MeasureRuns();
void MeasureLog();
void MeasureParser();
void MeasureLookUps();  // in the simulated machine, with PrintFile in place of iscsiadm
void MeasureMachines(); // in the simulated machine, with the machines that bench.sh has made

} // namespace bench
