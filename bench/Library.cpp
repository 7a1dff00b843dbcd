// The library: its session report parser, and a look-up by a resident host.

#include "bench/Bench.h"
#include "interface/ZnISCSI.h"
#include "redhat/ZnISCSILinuxRedhat.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <stdexcept>

namespace
{

// The tool's report on so many sessions, made from a recorded one. The first is with "...:plain-0".
std::string SessionReport(int sessions)
{
    std::ifstream file(RECORDED_REPORT);
    const std::string recorded{std::istreambuf_iterator<char>(file), {}};
    const std::size_t target = recorded.find("Target: ");
    const std::size_t iqnEnd = recorded.find(" (non-flash)");
    std::string report = recorded.substr(0, target);
    for (int i = 0; i < sessions; ++i)
        report += recorded.substr(target, iqnEnd - target) + '-' + std::to_string(i) +
                  recorded.substr(iqnEnd);
    return report;
}

void Parse(const std::string& report)
{
    std::vector<iSSCSISessionInfo> records;
    ParseIscsiadmSessionInfoOutput(report, records);
}

// A report of 16,000 sessions, or disks, against sixteen of 1,000.
void CompareGrowth(const std::string& title, const std::string& head, const std::string& part)
{
    const auto report = [&](int count) {
        std::string text = head;
        while (count-- > 0)
            text += part;
        return text;
    };
    const std::string small = report(1000);
    const auto parseSmallOnes = [&] {
        for (int i = 0; i < 16; ++i)
            Parse(small);
    };
    const auto parseLargeOne = [large = report(16000)] { Parse(large); };
    bench::Compare(bench::Seconds, {title, "1.5x"}, parseLargeOne, parseSmallOnes);
}

} // namespace

void bench::MeasureParser()
{
    const std::string report = SessionReport(1000);
    const auto readOnce = [&] {
        if (memmem(report.data(), report.size(), "TargetName: ", 12) != nullptr)
            throw std::runtime_error("the report has another layout");
    };
    PrintHeading("The parser on a report of 1,000 sessions, against one memmem pass over it");
    Compare(
        Seconds, {"read", "4x"}, [&] { Parse(report); }, readOnce);

    const std::string target =
        "Target: iqn.x:vol (non-flash)\n\tPersistent Portal: 192.0.2.10:3260,1\n";
    const std::string disk = "\t\t\tAttached scsi disk sdb";
    const std::string session = SessionReport(1);
    const std::size_t begin = session.find("Target: ");
    PrintHeading("The parser's time per session, or disk: 16,000 against 1,000");
    CompareGrowth("sessions with two disks each", session.substr(0, begin), session.substr(begin));
    CompareGrowth("sessions without disks", "", target);
    CompareGrowth("disks without a state", "", target + disk + '\n');
    CompareGrowth("one session's disks", target, disk + "\t\tState: running\n");
}

void bench::MeasureLookUps()
{
    const std::unique_ptr<ZnISCSI, void (*)(void*)> iscsi(GetInstance(), ::operator delete);
    const bool isUsual = std::getenv("ZN_LOG_LEVEL") == std::string("0");
    const auto lookUp = [&] {
        std::list<std::string> devices;
        if (iscsi->GetPhysicalDevicesForTargetIQN("iqn.2025-01.org.example:plain-0", devices) != 1)
            throw std::runtime_error("a look-up has failed: see the log");
    };
    const auto runTool = [] { RunWithPosixSpawn({"/sbin/iscsiadm", "-m", "session", "-P3"}); };
    PrintHeading(std::string("A resident host's look-up among sessions, against its tool alone: ") +
                 (isUsual ? "the usual log" : "errors alone logged"));
    const std::map<int, std::string> usual{{1, "1.5x"}, {10, "1.5x"}, {100, "2x"}, {1000, "6x"}};
    const std::map<int, std::string> errors{{1, "1.3x"}, {10, "1.3x"}, {100, "1.3x"}, {1000, "1.6x"}};
    for (const auto& [sessions, limit] : isUsual ? usual : errors)
    {
        std::ofstream("report") << SessionReport(sessions);
        Compare(Seconds, {std::to_string(sessions) + " in the report", limit}, lookUp, runTool);
    }
}
