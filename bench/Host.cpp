// The stand-alone host: the cost of a run of a tool, and of a line of the log.

#include "bench/Bench.h"
#include "host/EvDebug.h"
#include "host/ZnProcess.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>

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

constexpr int kLines = 1000; // of one call, like the lines of a parser
constexpr char kTag[] = "FindPhyDeviceNameFromISCSITargetIQN_RedHat5";
constexpr char kIqn[] = "iqn.2025-01.org.example:plain";

void LogLines(int level)
{
    EvEvent log;
    for (int i = 0; i < kLines; ++i)
        log.DebugLvl(kTag, level, "Device name [%s] found for Target IQN [%s].", "/dev/sdb", kIqn);
}

void WriteLines(FILE* file)
{
    for (int i = 0; i < kLines; ++i)
        if (std::fprintf(
                file,
                "2026-11-22T21:10:05.123Z [%d:%d] %d %s: Device name [%s] found for Target IQN [%s].\n",
                812, 815, 0, kTag, "/dev/sdb", kIqn) < 0 ||
            std::fflush(file) != 0)
            throw std::runtime_error("cannot write a line");
}

} // namespace

void bench::RunOurs()
{
    std::string output, errorOutput;
    if (ZnProcess::system("/bin/true", &output, &errorOutput, 0, false) != 0)
        throw std::runtime_error(errorOutput);
}

void bench::RunOthers()
{
    RunWithPosixSpawn({"/bin/true"});
}

void bench::MeasureRuns()
{
    PrintHeading("A run of /bin/true, against posix_spawn with the same duties");
    std::vector<char> hostMemory(10U << 20U, 'x');
    Compare(Seconds, {"in a host of 10 MiB", "1.05x"}, RunOurs, RunOthers);
    Compare(Seconds, {"in a host that forks, right after a fork", "1.05x"}, RunOurs, RunOthers, Fork);
    Compare(Faults, {"page faults", "1"}, RunOurs, RunOthers);
    Compare(Faults, {"page faults right after a fork", "8"}, RunOurs, RunOthers, Fork);
    Compare(Faults, {"page faults with a cold heap", "8"}, RunOurs, RunOthers, [] { malloc_trim(0); });
    hostMemory.resize(2048U << 20U, 'x');
    Compare(Seconds, {"in a host of 2 GiB", "1.05x"}, RunOurs, RunOthers);
}

void bench::MeasureLog()
{
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen("others.log", "ae"), std::fclose);
    const auto logLines = [] { LogLines(0); };
    const auto dropLines = [] { LogLines(1); };
    const auto writeLines = [&] { WriteLines(file.get()); };
    const auto emptyFile = [&] { std::filesystem::resize_file("others.log", 0); };
    PrintHeading("A thousand lines of log, against formatting and writing each to an open file");
    Compare(Seconds, {"shown", "1.5x"}, logLines, writeLines, emptyFile);
    Compare(Seconds, {"dropped by their level", "0.02x"}, dropLines, writeLines, emptyFile);
}
