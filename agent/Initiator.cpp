#include "agent/Initiator.h"

#include "agent/Output.h"
#include "host/ZnProcess.h"

#include <sstream>

#include <unistd.h>

namespace
{

// What `command` prints; empty when it fails with `nothing`, the tool's words for having nothing to
// report.
std::optional<std::string> RunReport(const char* command, const char* nothing)
{
    constexpr const char* kTag = "zniscsi::RunReport";
    constexpr const char* kTool = "/sbin/iscsiadm";
    EvEvent log;
    if (access(kTool, F_OK) != 0)
    {
        log.DebugLvl(kTag, -1, "%s not found!!", kTool);
        return std::nullopt;
    }
    log.DebugLvl(kTag, 0, "Running [%s]", command);
    std::string output;
    std::string errorOutput;
    if (ZnProcess::system(command, &output, &errorOutput, 0, false) == 0)
        return output;
    if (errorOutput.find(nothing) != std::string::npos)
        return "";
    log.DebugLvl(kTag, -1, "Failed to run %s: %s", command, errorOutput.c_str());
    return std::nullopt;
}

} // namespace

Initiator::Initiator(unsigned long long jobId) : m_instance(GetInstance())
{
    if (!m_instance)
        throw Failure(Exit::HostNotServed,
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
    const std::optional<std::string> report = RunReport("/sbin/iscsiadm -m node", "No records found");
    if (!report)
        return std::nullopt;
    return ParseNodeRecords(*report);
}

std::optional<std::vector<iSSCSISessionInfo>> RunSessionReport()
{
    constexpr const char* kNothing = "No active sessions";
    std::optional<std::string> report = RunReport("/sbin/iscsiadm -m session -P3", kNothing);
    if (!report) // the oldest tools have another option for it
        report = RunReport("/sbin/iscsiadm -m session -i", kNothing);
    std::vector<iSSCSISessionInfo> disks;
    if (!report || !ParseIscsiadmSessionInfoOutput(*report, disks))
        return std::nullopt;
    return disks;
}
