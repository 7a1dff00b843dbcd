// The parser of session reports: truncated reports, and the number of bytes that it searches.

#include "redhat/ZnISCSILinuxRedhat.h"
#include "tests/library/CaseFile.h"
#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>

namespace
{

// Bytes searched since this was last set to zero. The library's searches end in memchr, and this
// program's own takes precedence.
std::size_t g_bytesSearched = 0;

} // namespace

// Under another name, since the headers overload memchr.
extern "C" void* CountingMemchr(const void* text, int byte, std::size_t size) noexcept
    __asm__("memchr");

extern "C" void* CountingMemchr(const void* text, int byte, std::size_t size) noexcept
{
    const auto* const begin = static_cast<const unsigned char*>(text);
    for (std::size_t at = 0; at < size; ++at)
        if (begin[at] == static_cast<unsigned char>(byte))
        {
            g_bytesSearched += at + 1;
            return const_cast<unsigned char*>(begin + at);
        }
    g_bytesSearched += size;
    return nullptr;
}

namespace
{

using Record = std::array<std::string, 3>; // device, portal, IQN
using Records = std::vector<Record>;

Records Parse(const std::string& report)
{
    g_host = {};
    g_host.hiddenTags = {"ParseIscsiadmSessionInfoOutput"};
    std::vector<iSSCSISessionInfo> parsed{{"before", "", ""}};
    EXPECT_TRUE(ParseIscsiadmSessionInfoOutput(report, parsed));
    EXPECT_EQ(parsed.at(0).sDeviceName, "before") << "the caller's record is lost";
    parsed.erase(parsed.begin());
    Records records;
    for (const iSSCSISessionInfo& record : parsed)
        records.push_back({record.sDeviceName, record.sTargetPortal, record.sTargetVolIQN});
    return records;
}

// A report that is cut anywhere gives the records that are complete before the cut.
TEST(SessionReport, MayBeCutAnywhere)
{
    const std::string report = ReadData("session-many.txt");
    const Records all = Parse(report);
    for (std::size_t size = 0; size < report.size(); ++size)
    {
        const Records some = Parse(report.substr(0, size));
        ASSERT_LE(some.size(), all.size());
        ASSERT_TRUE(std::equal(some.begin(), some.end(), all.begin())) << "cut at " << size;
    }
}

const std::string kDisk = "\t\t\tAttached scsi disk sdb\t\tState: running\n";

std::string Repeat(std::size_t count, const std::string& text)
{
    std::string all;
    for (std::size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

// Ten times the report takes at most about ten times the reading.
TEST(SessionReport, ReadsLinearly)
{
    struct Row
    {
        const char* name;
        std::function<std::string(std::size_t)> report;
    };
    const std::string target = "Target: iqn:a (non-flash)\nPersistent Portal: 192.0.2.10:3260,1\n";
    const std::vector<Row> rows{
        {"disks without a state",
         [&](std::size_t n) { return Repeat(n, target + "Attached scsi disk sdb\n"); }},
        {"one target, many disks", [&](std::size_t n) { return target + Repeat(n, kDisk); }},
        {"many target markers on one line",
         [&](std::size_t n) { return Repeat(n, "Target: ") + '\n' + target + kDisk; }},
        {"target lines without portals", [&](std::size_t n) { return Repeat(n, "Target: a\n"); }},
        {"both layouts",
         [&](std::size_t n) {
             return Repeat(n, "TargetName: a\nNetwork Portal: 1:1\n") + Repeat(n, target + kDisk);
         }},
    };
    for (const Row& row : rows)
    {
        std::array<std::size_t, 2> searched{};
        for (std::size_t size : {0U, 1U})
        {
            const std::string report = row.report(size == 0 ? 300 : 3000);
            g_bytesSearched = 0;
            Parse(report);
            searched.at(size) = g_bytesSearched;
        }
        EXPECT_GT(searched[0], 0U) << row.name << ": no search was counted";
        EXPECT_LE(searched[1], searched[0] * 11) << row.name;
    }
}

} // namespace
