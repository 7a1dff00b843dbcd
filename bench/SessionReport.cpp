#include "bench/SessionReport.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

std::string bench::SessionReport(int sessions)
{
    std::ifstream file(RECORDED_REPORT);
    const std::string recorded{std::istreambuf_iterator<char>(file), {}};
    const std::size_t begin = recorded.find("iSCSI Transport Class");
    const std::size_t target = recorded.find("Target: ");
    const std::size_t iqnEnd = recorded.find(" (non-flash)");
    const std::size_t end = recorded.find("--- stderr");
    if (end == std::string::npos)
        throw std::runtime_error("cannot read " RECORDED_REPORT);
    std::string report = recorded.substr(begin, target - begin);
    for (int i = 0; i < sessions; ++i)
        report.append(recorded, target, iqnEnd - target)
            .append("-" + std::to_string(i))
            .append(recorded, iqnEnd, end - iqnEnd);
    return report;
}
