#include "agent/Initiator.h"

#include "agent/Reasons.h"
#include "host/EvDebug.h"
#include "host/ZnProcess.h"

#include <sstream>

#include <unistd.h>

namespace
{

constexpr const char* kTag = "zniscsi";
constexpr const char* kTool = "/sbin/iscsiadm";
constexpr const char* kNodeReport = "/sbin/iscsiadm -m node";

} // namespace

Initiator::Initiator(unsigned long long jobId) : m_instance(GetInstance())
{
    if (!m_instance)
        throw Failure(Cause::NotServed,
                      {"this host is not served: it is no Red Hat family Linux of release 5 or later"});
    m_instance->SetLogging(jobId);
}

// 192.0.2.10:3260,1 iqn.2025-01.org.example:chap
// [2001:db8::10]:3260,1 iqn.2025-01.org.example:chap
std::vector<NodeRecord> ParseNodeRecords(const std::string& report)
{
    std::vector<NodeRecord> records;
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);)
    {
        std::istringstream words(line);
        std::string address, iqn;
        if (!(words >> address >> iqn))
            continue;
        if (const std::optional<Portal> portal = ParsePortal(address))
            records.push_back({*portal, iqn});
    }
    return records;
}

std::optional<std::vector<NodeRecord>> RunNodeReport()
{
    EvEvent log;
    if (access(kTool, F_OK) != 0)
    {
        log.DebugLvl(kTag, -1, "%s", words::kIscsiadmMissing);
        return std::nullopt;
    }
    log.DebugLvl(kTag, 0, "Running [%s]", kNodeReport);
    std::string output, errorOutput;
    if (ZnProcess::system(kNodeReport, &output, &errorOutput, 0, false) == 0)
        return ParseNodeRecords(output);
    if (Contains(errorOutput, words::kNoRecord))
        return std::vector<NodeRecord>();
    log.DebugLvl(kTag, -1, "Failed to run %s: %s", kNodeReport, errorOutput.c_str());
    return std::nullopt;
}
