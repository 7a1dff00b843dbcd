// The parser of session reports on any text, and how much it reads.

#include "redhat/ZnISCSILinuxRedhat.h"
#include "tests/library/CaseFile.h"
#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <random>

namespace
{

// How many bytes have been searched since it was last set to zero. The library's searches end in
// memchr, and this program's own takes precedence.
std::size_t g_bytesSearched = 0;

} // namespace

// By its own name, since the headers overload the other.
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
    EXPECT_EQ(parsed.at(0).sDeviceName, "before") << "what the caller had is lost";
    parsed.erase(parsed.begin());
    Records records;
    for (const iSSCSISessionInfo& record : parsed)
        records.push_back({record.sDeviceName, record.sTargetPortal, record.sTargetVolIQN});
    return records;
}

// Wherever a report is cut, what is left yields the records that stand whole before the cut.
TEST(SessionReport, CutAnywhere)
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

// The rules in their plainest form, each search made anew.
Records ParsePlainly(const std::string& text)
{
    constexpr std::size_t npos = std::string::npos;
    Records records;
    for (const auto& [target, portal] :
         {std::pair<std::string, std::string>{"TargetName: ", "Network Portal: "},
          {"Target: ", "Persistent Portal: "}})
    {
        std::size_t at = 0;
        for (std::size_t t; (t = text.find(target, at)) != npos;)
        {
            const std::size_t lineEnd = text.find('\n', t + target.size());
            if (lineEnd == npos)
                return records;
            std::string iqn = text.substr(t + target.size(), lineEnd - t - target.size());
            iqn = iqn.substr(0, iqn.find(' '));
            const std::size_t next = text.find(target, t + 1);
            const std::size_t p = text.find(portal, lineEnd + 1);
            const std::size_t colon = p == npos ? npos : text.find(':', p + portal.size());
            if (colon == npos)
                return records;
            const std::string address = text.substr(p + portal.size(), colon - p - portal.size());
            at = colon + 1;
            for (std::size_t d;
                 (d = text.find("Attached scsi disk ", at)) != npos && (next == npos || d < next);)
            {
                at = d;
                const std::size_t s = text.find("State:", d + 19);
                if (s == npos)
                    break;
                const std::string name = text.substr(d + 19, s - d - 19);
                records.push_back({"/dev/" + name.substr(0, name.find_first_of(" \t")), address, iqn});
                at = s + 1;
            }
        }
    }
    return records;
}

TEST(SessionReport, AgreesWithThePlainRulesOnRandomText)
{
    const std::vector<std::string> pieces{"TargetName: ",
                                          "Target: ",
                                          "Network Portal: ",
                                          "Persistent Portal: ",
                                          "Attached scsi disk ",
                                          "State:",
                                          "\n",
                                          "\n",
                                          ":",
                                          " ",
                                          "\t",
                                          "sdb",
                                          "iqn:a",
                                          "192.0.2.10:3260,1\n",
                                          "Attached scsi disk sdc\t\tState: running\n",
                                          "Target: iqn:b (non-flash)\n",
                                          "Persistent Portal: 192.0.2.11:3260,1\n"};
    std::mt19937 random(20000101); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts at every run
    std::uniform_int_distribution<std::size_t> piece(0, pieces.size() - 1);
    std::size_t records = 0;
    for (int round = 0; round < 20000; ++round)
    {
        std::string text;
        for (int length = round % 60; length > 0; --length)
            text += pieces[piece(random)];
        const Records expected = ParsePlainly(text);
        ASSERT_EQ(Parse(text), expected) << text;
        records += expected.size();
    }
    EXPECT_GT(records, 1000U) << "the random texts hardly hold a disk";
}

const std::string kDisk = "\t\t\tAttached scsi disk sdb\t\tState: running\n";

std::string Repeat(std::size_t count, const std::string& text)
{
    std::string all;
    for (std::size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

// Ten times the report is at most ten times the reading, whatever the report holds.
TEST(SessionReport, ReadsLinearly)
{
    struct Row
    {
        const char* name;
        std::function<std::string(std::size_t)> report;
    };
    const std::string target = "Target: iqn:a (non-flash)\nPersistent Portal: 192.0.2.10:3260,1\n";
    const std::vector<Row> rows{
        {"targets without disks", [&](std::size_t n) { return Repeat(n, target); }},
        {"targets whose disks have no state",
         [&](std::size_t n) { return Repeat(n, target + "Attached scsi disk sdb\n"); }},
        {"one target, many disks", [&](std::size_t n) { return target + Repeat(n, kDisk); }},
        {"one target, many disks without a state",
         [&](std::size_t n) { return target + Repeat(n, "Attached scsi disk sdb\n"); }},
        {"many target markers on one line",
         [&](std::size_t n) { return Repeat(n, "Target: ") + '\n' + target + kDisk; }},
        {"target lines without portals", [&](std::size_t n) { return Repeat(n, "Target: a\n"); }},
        {"both layouts",
         [&](std::size_t n) {
             return Repeat(n, "TargetName: a\nNetwork Portal: 1:1\n") + Repeat(n, target + kDisk);
         }},
        {"usual targets", [&](std::size_t n) { return Repeat(n, target + kDisk); }},
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
        EXPECT_GT(searched[0], 0U) << row.name << ": the searches are not seen";
        EXPECT_LE(searched[1], searched[0] * 11) << row.name;
    }
}

} // namespace
