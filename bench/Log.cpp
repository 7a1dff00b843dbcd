// A line of the log, compared with formatting the same text and writing it to an open file.

#include "standalone/znlib/Log.h"

#include "bench/Groups.h"
#include "bench/Measure.h"
#include "host/EvDebug.h"
#include "standalone/znlib/Descriptor.h"

#include <array>
#include <cstdio>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

namespace
{

constexpr int kLines = 1000; // of one call, like the lines of a parser
constexpr char kIqn[] = "iqn.2025-01.org.example:plain";

void LogLines(int level)
{
    EvEvent log;
    for (int i = 0; i < kLines; ++i)
        log.DebugLvl("FindPhyDeviceNameFromISCSITargetIQN_RedHat5", level,
                     "Device name [%s] found for Target IQN [%s].", "/dev/sdb", kIqn);
}

void WriteLines(int file)
{
    std::array<char, 512> line{};
    for (int i = 0; i < kLines; ++i)
    {
        const int length =
            std::snprintf(line.data(), line.size(),
                          "2026-11-22 21:10:05.123 +0000 [%d:%d] %d %s: Device name [%s] found for "
                          "Target IQN [%s].\n",
                          812, 815, 0, "FindPhyDeviceNameFromISCSITargetIQN_RedHat5", "/dev/sdb", kIqn);
        if (write(file, line.data(), static_cast<std::size_t>(length)) != length)
            throw std::runtime_error("cannot write a line");
    }
}

} // namespace

void bench::MeasureLog()
{
    const std::string path = std::string(znhost::CurrentLogSettings().file) + ".peer";
    const znlib::Descriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600));
    const auto writeLines = [&] { WriteLines(file.Get()); };
    const auto emptyFile = [&] {
        if (ftruncate(file.Get(), 0) != 0)
            throw std::runtime_error("cannot empty " + path);
    };
    CompareTimes(
        "log/shown", [] { LogLines(0); }, writeLines, emptyFile);
    CompareTimes(
        "log/dropped", [] { LogLines(1); }, writeLines, emptyFile);
}
