// The parser of session reports: recorded reports, broken ones, and how much it reads.

#include "redhat/ZnISCSILinuxRedhat.h"
#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <random>
#include <sstream>

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

std::string ReadData(const std::string& name)
{
    const std::ifstream file(DATA + name);
    EXPECT_TRUE(file) << name;
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

using Record = std::array<std::string, 3>; // device, portal, IQN
using Records = std::vector<Record>;

Records Parse(const std::string& report)
{
    std::vector<iSSCSISessionInfo> parsed;
    EXPECT_TRUE(ParseIscsiadmSessionInfoOutput(report, parsed));
    Records records;
    for (const iSSCSISessionInfo& record : parsed)
        records.push_back({record.sDeviceName, record.sTargetPortal, record.sTargetVolIQN});
    return records;
}

constexpr const char* kPlain = "iqn.2025-01.org.example:plain";
constexpr const char* kMulti = "iqn.2025-01.org.example:multi";

TEST(SessionReport, RecordedOnes)
{
    struct Row
    {
        const char* file;
        Records records;
    };
    for (const Row& row :
         {Row{"session-two-luns.txt",
              {{"/dev/sda", "192.0.2.10", kPlain}, {"/dev/sdb", "192.0.2.10", kPlain}}},
          Row{"session-many.txt",
              {{"/dev/sda", "192.0.2.10", kPlain},
               {"/dev/sdb", "192.0.2.10", kPlain},
               {"/dev/sdc", "192.0.2.10", "iqn.2025-01.org.example:chap"},
               {"/dev/sdd", "192.0.2.10", kMulti},
               // The second session of a target stands under the first one's target line.
               {"/dev/sde", "192.0.2.10", kMulti}}},
          Row{"session-ipv6.txt",
              {{"/dev/sda", "[2001", kPlain},
               {"/dev/sdb", "[2001", kPlain},
               {"/dev/sdc", "[2001", kPlain}}},
          Row{"session-short.txt",
              {{"/dev/sdb", "192.0.2.10", "iqn.2000-01.invalid.demo:vol1"},
               {"/dev/sdc", "192.0.2.10", "iqn.2000-01.invalid.demo:vol1"}}}})
    {
        g_host = {};
        EXPECT_EQ(Parse(ReadData(row.file)), row.records) << row.file;
    }
}

const std::string kDisk = "\t\t\tAttached scsi disk sdb\t\tState: running\n";

TEST(SessionReport, OddOnes)
{
    struct Row
    {
        const char* name;
        std::string report;
        Records records;
    };
    const std::string first = "TargetName: a\nNetwork Portal: 1:3260\n";
    const std::string second = "Target: b (x)\nPersistent Portal: 2:3260\n";
    const std::vector<Row> rows{
        {"empty", "", {}},
        {"no marker", "iscsiadm: nothing\n", {}},
        {"both layouts, the first one first",
         second + kDisk + first + kDisk,
         {{"/dev/sdb", "1", "a"}, {"/dev/sdb", "2", "b"}, {"/dev/sdb", "2", "b"}}},
        {"last target line without its end", first + kDisk + "TargetName: c", {{"/dev/sdb", "1", "a"}}},
        {"broken first layout keeps the second unread", second + kDisk + "TargetName: c\n", {}},
        {"broken second layout",
         second + kDisk + "Target: c\nPersistent Portal: none",
         {{"/dev/sdb", "2", "b"}}},
        {"portal of the next block, which is then passed over",
         "Target: a\n" + kDisk + "Target: b\nPersistent Portal: 2:1\n" + kDisk +
             "Target: c\nPersistent Portal: 3:1\n" + kDisk,
         {{"/dev/sdb", "3", "c"}}},
        {"portal without colon",
         "Target: a\nPersistent Portal: here\nand there: x\n" + kDisk,
         {{"/dev/sdb", "here\nand there", "a"}}},
        {"IQN begins with a blank",
         "Target:  a\nPersistent Portal: 2:1\n" + kDisk,
         {{"/dev/sdb", "2", ""}}},
        {"carriage returns",
         "Target: a\r\nPersistent Portal: 2:1\r\n" + kDisk,
         {{"/dev/sdb", "2", "a\r"}}},
        {"carriage return behind a blank",
         "Target: a (x)\r\nPersistent Portal: 2:1\r\n" + kDisk,
         {{"/dev/sdb", "2", "a"}}},
        {"tab in the IQN stays",
         "Target: a\tb\nPersistent Portal: 2:1\n" + kDisk,
         {{"/dev/sdb", "2", "a\tb"}}},
        {"state on a later line",
         second + "Attached scsi disk sdb\nx y\tState: z\n",
         {{"/dev/sdb\nx", "2", "b"}}},
        {"name ends at a tab or a blank",
         second + "Attached scsi disk sdb\tx y State:Attached scsi disk s c State:",
         {{"/dev/sdb", "2", "b"}, {"/dev/s", "2", "b"}}},
        {"disk without a state", second + kDisk + "Attached scsi disk sdc\n", {{"/dev/sdb", "2", "b"}}},
        {"state only behind the next target",
         second + "Attached scsi disk sdc\n" + second + kDisk,
         {{"/dev/sdc\nTarget:", "2", "b"}}},
        {"wrong letter case", "target: a\nPersistent Portal: 2:1\n" + kDisk, {}},
        {"marker cut by a line end", "Target:\na\nPersistent Portal: 2:1\n" + kDisk, {}},
        {"disk before the first target", kDisk + second, {}},
        {"target marker twice in a line", "Target: Target: a\nPersistent Portal: 2:1\n" + kDisk, {}},
        {"disks behind the last target",
         second + kDisk + "other text\n" + kDisk,
         {{"/dev/sdb", "2", "b"}, {"/dev/sdb", "2", "b"}}},
    };
    for (const Row& row : rows)
    {
        g_host = {};
        EXPECT_EQ(Parse(row.report), row.records) << row.name;
    }
}

TEST(SessionReport, EveryLineOfLog)
{
    constexpr const char* kTag = "ParseIscsiadmSessionInfoOutput";
    struct Row
    {
        const char* name;
        std::string report;
        std::vector<std::string> lines;
    };
    const std::vector<Row> rows{
        {"empty", "", {}},
        {"two targets, one without a disk",
         "Target: a%s (x)\n Persistent Portal: 2:1\n" + kDisk + "Target: b\nPersistent Portal: 3:1\n",
         {"0 sTargetVolIQN = [a%s (x)].", "0 sTargetVolIQN after removing invalid characters = [a%s].",
          "0 sTargetPortal = [2].", "0 Valid Device.", "0 sDeviceName = [sdb].",
          "0 'Fixed' sDeviceName = [/dev/sdb].", "0 No new device found in target a%s.",
          "0 sTargetVolIQN = [b].", "0 sTargetPortal = [3].", "0 No new device found in target b."}},
        {"disk without a state",
         "Target: a\nPersistent Portal: 2:1\nAttached scsi disk sdb",
         {"0 sTargetVolIQN = [a].", "0 sTargetPortal = [2].", "0 Valid Device."}},
        {"no portal", "Target: a\n", {"0 sTargetVolIQN = [a]."}},
        {"no colon", "Target: a\nPersistent Portal: 2\n", {"0 sTargetVolIQN = [a]."}},
        {"no line end", "Target: a", {}},
    };
    for (const Row& row : rows)
    {
        g_host = {};
        g_host.keepsRawText = true;
        Parse(row.report);
        std::vector<std::string> lines{"2 Input to parse.", "2 [", "2 " + row.report, "2 ]"};
        lines.insert(lines.end(), row.lines.begin(), row.lines.end());
        EXPECT_EQ(g_host.transcript, InPlainContext(Lines(kTag, lines))) << row.name;
    }
}

TEST(SessionReport, AppendsToWhatTheCallerHas)
{
    std::vector<iSSCSISessionInfo> records(1);
    EXPECT_TRUE(ParseIscsiadmSessionInfoOutput("Target: a\nPersistent Portal: 2:1\n" + kDisk, records));
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].sDeviceName, "");
    EXPECT_EQ(records[1].sDeviceName, "/dev/sdb");
}

// Wherever a report is cut, what is left yields the records that stand whole before the cut.
TEST(SessionReport, CutAnywhere)
{
    const std::string report = ReadData("session-many.txt");
    const Records all = Parse(report);
    for (std::size_t size = 0; size < report.size(); ++size)
    {
        g_host = {};
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
        g_host = {};
        const Records expected = ParsePlainly(text);
        ASSERT_EQ(Parse(text), expected) << text;
        records += expected.size();
    }
    EXPECT_GT(records, 1000U) << "the random texts hardly hold a disk";
}

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
        {"both layouts", [&](std::size_t n)
         { return Repeat(n, "TargetName: a\nNetwork Portal: 1:1\n") + Repeat(n, target + kDisk); }},
        {"usual targets", [&](std::size_t n) { return Repeat(n, target + kDisk); }},
    };
    for (const Row& row : rows)
    {
        std::array<std::size_t, 2> searched{};
        for (std::size_t size : {0U, 1U})
        {
            const std::string report = row.report(size == 0 ? 300 : 3000);
            g_host = {};
            g_bytesSearched = 0;
            std::vector<iSSCSISessionInfo> records;
            ParseIscsiadmSessionInfoOutput(report, records);
            searched.at(size) = g_bytesSearched;
        }
        EXPECT_GT(searched[0], 0U) << row.name << ": the searches are not seen";
        EXPECT_LE(searched[1], searched[0] * 11) << row.name;
    }
}

} // namespace
