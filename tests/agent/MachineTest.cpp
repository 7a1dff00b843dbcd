// The agent reads recorded machines (machines.txt), and its pure functions.
#include "agent/Arguments.h"
#include "agent/Initiator.h"
#include "agent/Questions.h"
#include "agent/Reasons.h"
#include "standalone/znlib/Text.h"
#include "tests/agent/RecordedMachine.h"

#include <gmock/gmock-matchers.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace
{
using testing::ElementsAre;
using testing::ElementsAreArray;

std::string OrDash(const std::string& text)
{
    return text.empty() ? "-" : text;
}

std::string Join(const std::vector<std::string>& parts, const char* separator)
{
    std::string text;
    for (const std::string& part : parts)
        text += (text.empty() ? "" : separator) + part;
    return OrDash(text);
}

std::vector<std::string> Describe(const Machine& machine)
{
    std::vector<std::string> rows;
    for (const Session& session : machine.sessions)
    {
        const std::string iqn = session.iqn.substr(session.iqn.rfind(':') + 1);
        const std::string begin = std::to_string(session.sid) + ' ' + session.state + ' ' +
                                  (session.portal ? FormatPortal(*session.portal) : "-") + ' ' +
                                  OrDash(iqn) + ' ';
        for (const Disk& disk : session.disks)
            rows.push_back(begin + std::to_string(disk.lun) + ' ' + disk.device + ' ' +
                           std::to_string(disk.bytes.value_or(0)) + ' ' + disk.state + ' ' +
                           OrDash(disk.map) + ' ' + znhost::Printable(Join(disk.users, ",")));
        if (session.disks.empty())
            rows.push_back(begin + "- - - - - -");
    }
    return rows;
}

// "ending 8 9 => /dev/sdd: /mnt ? /dev/sda"
void ExpectLosses(const Machine& machine, const std::string& line)
{
    std::istringstream words(line.substr(line.find(' ')));
    std::vector<Session> ending;
    for (int sid = 0; words >> sid;)
        for (const Session& session : machine.sessions)
            if (session.sid == sid)
                ending.push_back(session);
    const std::set<std::string> unused = FindUnused(machine, ending);
    EXPECT_EQ(znhost::Printable(Join(FindLosses(machine, ending), ";")) +
                  (unused.empty() ? "" : " ? " + Join({unused.begin(), unused.end()}, " ")),
              line.substr(line.find("=> ") + 3));
}

TEST(Machine, IsRead)
{
    std::vector<std::string> lines = ReadLines(HERE "/machines.txt");
    lines.emplace_back("== end");
    std::string title;
    std::optional<RecordedMachine> tree;
    std::vector<std::string> rows, losses;
    int machines = -1;
    for (const std::string& line : lines)
    {
        if (line.rfind("== ", 0) == 0)
        {
            if (tree)
            {
                SCOPED_TRACE(title);
                const Machine machine = ReadMachine(tree->Root());
                EXPECT_THAT(Describe(machine), ElementsAreArray(rows));
                for (const std::string& loss : losses)
                    ExpectLosses(machine, loss);
            }
            title = line;
            tree.reset();
            tree.emplace();
            rows.clear();
            losses.clear();
            ++machines;
        }
        else if (line.rfind("=> ", 0) == 0)
            rows.push_back(line.substr(3));
        else if (line.rfind("ending ", 0) == 0)
            losses.push_back(line);
        else if (!line.empty() && line.front() != '#')
            tree->Change(line);
    }
    EXPECT_EQ(machines, 9);
}

std::string WhyUnreadable(const RecordedMachine& tree)
{
    try
    {
        ReadMachine(tree.Root());
    }
    catch (const std::runtime_error& error)
    {
        return error.what();
    }
    return "";
}

TEST(Machine, TellsWhatCannotBeRead)
{
    RecordedMachine tree;
    const std::string cannotRead = "cannot read " + tree.Root().string();
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit none{0, usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const std::string said = WhyUnreadable(tree);
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_EQ(said, cannotRead + "/sys/class/iscsi_session: Too many open files");
    tree.Change("gone proc");
    EXPECT_EQ(WhyUnreadable(tree), cannotRead + "/proc/self/mountinfo: it is not there");
}

TEST(Portal, IsParsedMatchedAndFormatted)
{
    struct Row
    {
        const char* text;
        const char* shown; // null if it is malformed
        bool matches;      // 192.0.2.10
    };
    for (const Row& row :
         {Row{"192.0.2.10", "192.0.2.10", true}, Row{"192.0.2.10:3260,1", "192.0.2.10", true},
          Row{"192.0.2.10:3261", "192.0.2.10:3261", false}, Row{"192.0.2.11", "192.0.2.11", false},
          Row{"[2001:db8::10]:3260,1", "[2001:db8::10]", false},
          Row{"2001:db8::10", "[2001:db8::10]", false}, Row{"array-a:1", "array-a:1", false},
          Row{"192.0.2.10:", nullptr, false}, Row{"192.0.2.10:65536", nullptr, false},
          Row{"192.0.2.10:1x", nullptr, false}, Row{"[::1]x3260", nullptr, false},
          Row{"localhost", "localhost", false}, Row{"[]:3260", nullptr, false},
          Row{"[::1", nullptr, false}, Row{"", nullptr, false}})
    {
        const std::optional<Portal> portal = ParsePortal(row.text);
        EXPECT_EQ(portal ? FormatPortal(*portal) : "none", row.shown == nullptr ? "none" : row.shown);
        EXPECT_EQ(portal && PortalMatcher("192.0.2.10").Matches(*portal), row.matches) << row.text;
    }
    EXPECT_FALSE(PortalMatcher("127.0.0.1").Matches({"localhost", 3260})) << "a name was resolved";
    const std::string noName(64, 'a'); // too long to be asked for
    EXPECT_TRUE(PortalMatcher(noName).Matches({noName, 3260}));
    EXPECT_TRUE(PortalMatcher("2001:db8:0::10").Matches({"2001:db8::10", 3260}));
    EXPECT_EQ(PortalMatcher("2001:db8:0::10").Canonical(),
              PortalMatcher("[2001:db8::10]:3260").Canonical());
}

TEST(Arguments, AreCheckedForTheTool)
{
    const std::string x253(253, 'x'), dash = "it begins with '-'", form = "it is none of ADDRESS";
    const std::tuple<std::string (*)(const std::string&), std::string, std::string> rows[] = {
        {FindPortalFault, "192.0.2.10:3260", ""},
        {FindPortalFault, "192.0.2.10:3260,1", form}, // a portal group tag
        {FindPortalFault, x253 + ".a:65535", ""},
        {FindPortalFault, x253 + ".ab:3260", form},
        {FindPortalFault, "-p", dash},
        {FindIqnFault, "naa." + x253.substr(0, 219), ""},
        {FindIqnFault, "iqn." + x253.substr(0, 220), "it is longer than 223 bytes"},
        {FindIqnFault, "xiqn.x", "it begins with none of iqn."},
        {FindIqnFault, "iqn.a\x7f", "it contains a blank or a control character"},
        {FindDeviceFault, "/chroot/dev/sdb", ""},
        {FindDeviceFault, "sdb", "it does not contain"},
        {[](const std::string& name) { return FindChapFault(name); }, "-x", ""},
        {[](const std::string& name) { return FindChapFault(name); }, "", "it is empty"}};
    for (const auto& [findFault, value, fault] : rows)
        EXPECT_EQ(findFault(value).substr(0, fault.size() + (fault.empty() ? 1 : 0)), fault) << value;
}

TEST(Questions, SelectSessionsByTargetAndPortal)
{
    const PortalMatcher portal("192.0.2.10");
    const std::vector<Session> sessions{{1, "LOGGED_IN", ParsePortal("192.0.2.10"), "iqn.x:a"},
                                        {2, "LOGGED_IN", ParsePortal("192.0.2.10:1"), "iqn.x:a"},
                                        {3, "LOGGED_IN", std::nullopt, "iqn.x:a"},
                                        {4, "LOGGED_IN", ParsePortal("192.0.2.10"), "iqn.x:ab"}};
    ASSERT_EQ(SelectSessions(sessions, "iqn.x:a", &portal).size(), 1U);
    EXPECT_EQ(SelectSessions(sessions, "iqn.x:a", &portal)[0].sid, 1);
    EXPECT_EQ(SelectSessions(sessions, "iqn.x:a").size(), 3U);
}

TEST(Questions, ListWorkingPathsFirst)
{
    const std::vector<Session> sessions{
        {1, "LOGGED_IN", std::nullopt, "", {{"/dev/sda", 1, std::nullopt, "offline"}}},
        {2, "FAILED", std::nullopt, "", {{"/dev/sdb", 1, std::nullopt, "running"}}},
        {3, "LOGGED_IN", std::nullopt, "", {{"/dev/sdc", 1, std::nullopt, "running"}}}};
    std::vector<std::string> states;
    for (const auto& [disk, session] : FindPaths(sessions, {"/dev/sdc", "/dev/sdb", "/dev/sda"}))
        states.push_back(disk.device + ' ' + DescribeState(session, &disk));
    EXPECT_THAT(states,
                ElementsAre("/dev/sdc LOGGED_IN", "/dev/sda LOGGED_IN/offline", "/dev/sdb FAILED"));
}

TEST(Questions, FormatSizesAndTables)
{
    const std::pair<unsigned long long, const char*> sizes[] = {
        {0, "0B"},           {512, "512B"},        {1023, "1023B"},       {1024, "1K"},
        {1536, "1.5K"},      {104857600, "100M"},  {1099511627775, "1T"}, {1649267441664, "1.5T"},
        {1ULL << 63U, "8E"}, {1072693248, "1023M"}};
    for (const auto& [bytes, shown] : sizes)
        EXPECT_EQ(DescribeSize(bytes), shown) << bytes;
    EXPECT_EQ(FormatTable({{"A", "BB"}, {"AAA", "B"}}), "A    BB\nAAA  B\n");
    EXPECT_EQ(FormatTable({}), "");
    const std::vector<std::string> words{"logon", "logoff", "ls", "sessions"};
    const std::pair<const char*, const char*> typed[] = {
        {"logn", "logon"}, {"log-off", "logoff"}, {"session", "sessions"}, {"l", "ls"}, {"", "ls"}};
    for (const auto& [word, nearest] : typed)
        EXPECT_EQ(FindNearest(word, words), nearest) << word;
}

TEST(NodeRecords, AreParsedLineByLine)
{
    const std::vector<NodeRecord> records =
        ParseNodeRecords("192.0.2.10:3260,1 iqn.x:a\nnot-a-record\n[2001:db8::10]:3261,-1 iqn.x:b "
                         "more\n\n:1,1 iqn.x:c\n");
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(FormatPortal(records[0].portal) + ' ' + records[0].iqn, "192.0.2.10 iqn.x:a");
    EXPECT_EQ(FormatPortal(records[1].portal) + ' ' + records[1].iqn, "[2001:db8::10]:3261 iqn.x:b");
}

TEST(Reasons, AreListedOnceWithTheNextStep)
{
    EXPECT_THAT(
        ParseReasons({"Failed to run /sbin/iscsiadm -m session -P3: iscsiadm: x\niscsiadm: y\n"
                      " ... Trying /sbin/iscsiadm -m session -i",
                      "Error returned by command is: iscsiadm: z.", "/usr/sbin/ehcmcli not found!!",
                      "Failed to run /sbin/iscsiadm -m session -i: iscsiadm: x\n",
                      "Unable to parse the input or end of input string. Volume string not found!",
                      "cannot look up /dev/x: Permission denied"}),
        ElementsAre("Failed to run /sbin/iscsiadm -m session -P3", "iscsiadm: x", "iscsiadm: y",
                    "Failed to run /sbin/iscsiadm -m session -i",
                    "cannot look up /dev/x: Permission denied"));
    EXPECT_THAT(
        ParseReasons({"Failed to run a: iscsiadm: No active sessions.\n", "Failed to run b: refused"}),
        ElementsAre("Failed to run a", "iscsiadm: No active sessions."));

    Request request;
    request.portal = "192.0.2.10";
    request.iqn = "iqn.x:a";
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"iscsiadm: No records found", "no-record", "zniscsi discover 192.0.2.10"},
        {"iscsiadm: no records found!", "no-record", "zniscsi discover 192.0.2.10"},
        {"/sbin/iscsiadm not found!!", "tool-missing", "zniscsi doctor"},
        {"iscsiadm: can not connect to iSCSI daemon (111)!", "tool-failed", "iscsid.socket"},
        {"(24 - iSCSI login failed due to authorization failure)", "not-authorized", "--chap-user"},
        {"..., but a session is using it. Logout session", "in-use",
         "zniscsi logoff 192.0.2.10 iqn.x:a"},
        {"cannot make connection to 192.0.2.10: Connection refused", "unreachable", "192.0.2.10"},
        {"(4 - encountered connection failure)", "unreachable", "192.0.2.10"},
        {"cannot make connection to 192.0.2.10: No route to host", "unreachable", "192.0.2.10"},
        {"iscsiadm: Cannot resolve host array. getaddrinfo error", "unreachable", "name"},
        {"(8 - connection timed out)", "timed-out", "192.0.2.10"},
        {"iscsiadm: Maybe you are not root?", "tool-failed", "root"},
        {"iscsiadm: No active sessions.", "no-session", "zniscsi logon PORTAL iqn.x:a"}};
    for (const auto& [reason, cause, step] : rows)
    {
        request.portal = std::string(cause) == "no-session" ? "" : "192.0.2.10";
        const Failure failure = Explain({"cannot", reason}, request, Cause::ToolFailed);
        EXPECT_STREQ(NameOf(*failure.answer->cause), cause) << reason;
        EXPECT_THAT(failure.answer->reasons.back(), testing::HasSubstr(step));
        EXPECT_EQ(failure.answer->reasons.size(), 3U);
    }
    const Failure unexplained = Explain({"cannot", "iscsiadm: broken"}, request, Cause::NoDevice);
    EXPECT_STREQ(NameOf(*unexplained.answer->cause), "no-device");
    EXPECT_THAT(unexplained.answer->reasons, ElementsAre("cannot", "iscsiadm: broken"));
    request.iqn = "iqn.x:unreachable";
    EXPECT_EQ(Explain({"cannot log on to iqn.x:unreachable"}, request, Cause::NoDevice).answer->cause,
              Cause::NoDevice);
    // A refused discovery also reports a time-out.
    EXPECT_EQ(Explain({"Connection refused", "iSCSI PDU timed out"}, request, Cause::ToolFailed)
                  .answer->cause,
              Cause::Unreachable);
}

} // namespace
