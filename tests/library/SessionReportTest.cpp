// The parser of session reports: truncated reports, and the number of bytes that it searches.

#include "redhat/ZnISCSILinuxRedhat.h"
#include "tests/library/CaseFile.h"
#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

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

std::vector<std::string> Parse(const std::string& report)
{
    g_host = {};
    g_host.hiddenTags = {"ParseIscsiadmSessionInfoOutput"};
    std::vector<iSSCSISessionInfo> parsed{{"before", "", ""}};
    EXPECT_TRUE(ParseIscsiadmSessionInfoOutput(report, parsed));
    std::vector<std::string> records;
    for (const auto& record : parsed)
        records.push_back(record.sDeviceName + record.sTargetPortal + record.sTargetVolIQN);
    EXPECT_EQ(records.at(0), "before") << "the caller's record is lost";
    return records;
}

// A report that is cut anywhere gives the records that are complete before the cut.
TEST(SessionReport, MayBeCutAnywhere)
{
    const std::string report = ReadData("session-many.txt");
    const auto all = Parse(report);
    for (std::size_t size = 0; size < report.size(); ++size)
    {
        const auto some = Parse(report.substr(0, size));
        ASSERT_LE(some.size(), all.size());
        ASSERT_TRUE(std::equal(some.begin(), some.end(), all.begin())) << "cut at " << size;
    }
}

// Ten times the report takes at most about ten times the reading.
TEST(SessionReport, ReadsLinearly)
{
    const std::string target = "Target: iqn:a (non-flash)\nPersistent Portal: 192.0.2.10:3260,1\n";
    const std::string disk = "\t\t\tAttached scsi disk sdb\t\tState: running\n";
    const std::vector<std::array<std::string, 4>> rows{
        {"disks without a state", "", target + "Attached scsi disk sdb\n", ""},
        {"one target, many disks", target, disk, ""},
        {"many target markers on one line", "", "Target: ", '\n' + target + disk},
        {"target lines without portals", "", "Target: a\n", ""},
        {"both layouts", "", "TargetName: a\nNetwork Portal: 1:1\n" + target + disk, ""},
    };
    for (const auto& [name, begin, repeated, end] : rows)
    {
        std::array<std::size_t, 2> searched{};
        for (std::size_t size : {0U, 1U})
        {
            std::string report = begin;
            for (int i = 0; i < (size == 0 ? 300 : 3000); ++i)
                report += repeated;
            g_bytesSearched = 0;
            Parse(report + end);
            searched.at(size) = g_bytesSearched;
        }
        EXPECT_GT(searched[0], 0U) << name << ": no search was counted";
        EXPECT_LE(searched[1], searched[0] * 11) << name;
    }
}

} // namespace
