// The session report parser: how near it is to reading the report once, and that its time grows with
// the report, whatever its shape.

#include "bench/Groups.h"
#include "bench/Measure.h"
#include "bench/SessionReport.h"
#include "redhat/ZnISCSILinuxRedhat.h"

#include <cstring>
#include <stdexcept>

namespace
{

std::string Repeat(int count, const std::string& text)
{
    std::string all;
    while (count-- > 0)
        all += text;
    return all;
}

const std::string kTarget =
    "Target: iqn.2000-01.test:vol (non-flash)\n\tPersistent Portal: 192.0.2.10:3260,1\n";
const std::string kDisk = "\t\t\tAttached scsi disk sdb\t\tState: running\n";
const std::string kDiskWithoutState = "\t\t\tAttached scsi disk sdb\n";

void Parse(const std::string& report)
{
    std::vector<iSSCSISessionInfo> records;
    ParseIscsiadmSessionInfoOutput(report, records);
}

// One report of 16,000 sessions, or disks, against sixteen of 1,000.
void CompareGrowth(const std::string& key, std::string (*makeReport)(int count))
{
    const std::string small = makeReport(1000);
    const std::string large = makeReport(16000);
    const auto parseSmallOnes = [&] {
        for (int i = 0; i < 16; ++i)
            Parse(small);
    };
    bench::CompareTimes(
        key, [&] { Parse(large); }, parseSmallOnes);
}

} // namespace

void bench::MeasureParser()
{
    const std::string report = SessionReport(1000);
    const auto readOnce = [&] {
        if (memmem(report.data(), report.size(), "TargetName: ", 12) != nullptr)
            throw std::runtime_error("the report has another layout");
    };
    CompareTimes(
        "parser/read", [&] { Parse(report); }, readOnce);

    CompareGrowth("parser/usual", SessionReport);
    CompareGrowth("parser/no-disks", [](int count) { return Repeat(count, kTarget); });
    CompareGrowth("parser/no-states",
                  [](int count) { return Repeat(count, kTarget + kDiskWithoutState); });
    CompareGrowth("parser/many-disks", [](int count) { return kTarget + Repeat(count, kDisk); });
}
