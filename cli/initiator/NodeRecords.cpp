#include "cli/initiator/NodeRecords.h"

#include "cli/initiator/Reasons.h"
#include "host/EvDebug.h"
#include "host/ZnProcess.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <sstream>
#include <utility>

#include <unistd.h>

namespace cli
{

Initiator::Initiator(unsigned long long jobId) : m_instance(GetInstance())
{
    if (!m_instance)
        throw Failure(Cause::NotServed, {"this machine is not served: it is no Red Hat family Linux of "
                                         "release 5 or later"});
    m_instance->SetLogging(jobId);
}

// 192.0.2.10:3260,1 iqn.2025-01.org.example:chap
// [2001:db8::10]:3260,1 iqn.2025-01.org.example:chap
NodeReport ParseNodeReport(const std::string& report)
{
    NodeReport parsed;
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);)
    {
        std::istringstream words(line);
        std::string address, iqn;
        if (!(words >> address))
            continue;
        const std::optional<Portal> portal = ParsePortal(address);
        if (portal && words >> iqn)
            parsed.records.push_back({*portal, iqn});
        else if (parsed.strangeLine.empty())
            parsed.strangeLine = line;
    }
    return parsed;
}

std::optional<std::vector<NodeRecord>> RunNodeReport()
{
    constexpr const char* kTool = "/sbin/iscsiadm";
    constexpr const char* kNodeReport = "/sbin/iscsiadm -m node";
    EvEvent log;
    if (access(kTool, F_OK) != 0 && errno == ENOENT)
    {
        log.DebugLvl(words::kOwnTag, -1, "%s", words::kIscsiadmMissing);
        return std::nullopt;
    }
    log.DebugLvl(words::kOwnTag, 0, "Running [%s]", kNodeReport);
    std::string output, errorOutput;
    if (ZnProcess::system(kNodeReport, &output, &errorOutput, 0, false) == 0)
    {
        NodeReport report = ParseNodeReport(output);
        if (report.strangeLine.empty())
            return std::move(report.records);
        log.DebugLvl(words::kOwnTag, -1, "cannot understand the report of %s: %s", kNodeReport,
                     report.strangeLine.c_str());
        return std::nullopt;
    }
    // An ordinary user's tool finds none where it may not look.
    if (geteuid() == 0 && errorOutput.find(words::kNoRecord) != std::string::npos)
        return std::vector<NodeRecord>();
    log.DebugLvl(words::kOwnTag, -1, "Failed to run %s: %s", kNodeReport, errorOutput.c_str());
    return std::nullopt;
}

std::vector<NodeRecord> SelectRecords(const std::vector<NodeRecord>& records, const std::string& iqn)
{
    std::vector<NodeRecord> selected;
    std::copy_if(records.begin(), records.end(), std::back_inserter(selected),
                 [&iqn](const NodeRecord& record) { return record.iqn == iqn; });
    return selected;
}

} // namespace cli
