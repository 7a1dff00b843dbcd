#include "bench/SessionReport.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

std::string bench::SessionReport(int sessions)
{
    std::ifstream file(RECORDED_REPORT);
    const std::string recorded{std::istreambuf_iterator<char>(file), {}};
    const std::size_t target = recorded.find("Target: ");
    const std::size_t iqnEnd = recorded.find(" (non-flash)");
    if (iqnEnd == std::string::npos)
        throw std::runtime_error("cannot read " RECORDED_REPORT);
    std::string report = recorded.substr(0, target);
    for (int i = 0; i < sessions; ++i)
        report.append(recorded, target, iqnEnd - target)
            .append("-" + std::to_string(i))
            .append(recorded, iqnEnd, std::string::npos);
    return report;
}
