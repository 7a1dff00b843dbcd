// The functions of zniscsi that take and return values only.
#include "cli/Request.h"
#include "cli/initiator/Reasons.h"
#include "cli/kernel/Portal.h"
#include "cli/terminal/Table.h"

#include <gmock/gmock-matchers.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <unistd.h>

using namespace cli;
using testing::ElementsAre;

namespace
{

TEST(Portal, IsParsedMatchedAndFormatted)
{
    struct PortalRow
    {
        const char* text;
        const char* shown; // null if it is malformed
        bool matches;      // 192.0.2.10
    };
    for (const PortalRow& row :
         {PortalRow{"192.0.2.10", "192.0.2.10", true},
          PortalRow{"192.0.2.10:3260,1", "192.0.2.10", true},
          PortalRow{"192.0.2.10:3261", "192.0.2.10:3261", false},
          PortalRow{"192.0.2.11", "192.0.2.11", false},
          PortalRow{"[2001:db8::10]:3260,1", "[2001:db8::10]", false},
          PortalRow{"2001:db8::10", "[2001:db8::10]", false},
          PortalRow{"array-a:1", "array-a:1", false}, PortalRow{"192.0.2.10:", nullptr, false},
          PortalRow{"fe80::1%eth0", "[fe80::1%eth0]", false}, PortalRow{"a:b:c", nullptr, false},
          PortalRow{"192.0.2.10:65536", nullptr, false}, PortalRow{"192.0.2.10:0", nullptr, false},
          PortalRow{"192.0.2.10:1x", nullptr, false}, PortalRow{"[::1]x3260", nullptr, false},
          PortalRow{"localhost", "localhost", false}, PortalRow{"[]:3260", nullptr, false},
          PortalRow{":3260", nullptr, false}, PortalRow{"[::1", nullptr, false},
          PortalRow{"", nullptr, false}})
    {
        const std::optional<Portal> portal = ParsePortal(row.text);
        EXPECT_EQ(portal ? FormatPortal(*portal) : "none", row.shown == nullptr ? "none" : row.shown);
        EXPECT_EQ(portal && PortalMatcher("192.0.2.10").Matches(*portal), row.matches) << row.text;
    }
    EXPECT_FALSE(PortalMatcher("127.0.0.1").Matches({"localhost", 3260})) << "a name was resolved";
    const std::string noName(64, 'a'); // too long to be asked for
    EXPECT_TRUE(PortalMatcher(noName).Matches({noName, 3260}));
    EXPECT_TRUE(PortalMatcher("2001:db8:0::10").Matches({"2001:db8::10", 3260}));
}

TEST(Request, IsCheckedForTheTool)
{
    const std::string x253(253, 'x'), dash = "must not begin with '-'", form = "expected ADDRESS",
                                      blank = "must not contain a blank", empty = "must not be empty";
    const auto findChapFault = [](const std::string& name) { return FindChapFault(name); };
    const std::tuple<std::string (*)(const std::string&), std::string, std::string> rows[] = {
        {FindPortalFault, "192.0.2.10:3260", ""},
        {FindPortalFault, "[fe80::1%eth0]:3260", ""},
        {FindPortalFault, "array_a-1.example", ""},
        {FindPortalFault, "192.0.2.10:3260,1", form}, // a portal group tag
        {FindPortalFault, "$(id)", form},
        {FindPortalFault, "iqn.x", form},
        {FindPortalFault, x253 + ".a:65535", ""},
        {FindPortalFault, x253 + ".ab:3260", form},
        {FindPortalFault, "-p", dash},
        {FindPortalFault, "", empty},
        {FindPortalFault, "a b", blank},
        {FindIqnFault, "naa." + x253.substr(0, 219), ""},
        {FindIqnFault, "eui.1", ""},
        {FindIqnFault, "iqn." + x253.substr(0, 220), "must not be longer than 223 bytes"},
        {FindIqnFault, "xiqn.x", "must begin with iqn., eui. or naa."},
        {FindIqnFault, "iqn.a\x7f", blank},
        {FindIqnFault, "-iqn", dash},
        {FindDeviceFault, "/chroot/dev/sdb", ""},
        {FindDeviceFault, "sdb", "must contain \"/dev/\""},
        {FindDeviceFault, "/dev/" + std::string(4091, 'x'), "must not be longer"},
        {FindDeviceFault, "/dev/\x1b", blank},
        {findChapFault, "-x", ""},
        {findChapFault, std::string(255, 'x'), ""},
        {findChapFault, std::string(256, 'x'), "must not be longer than 255 bytes"},
        {findChapFault, "a\tb", blank},
        {findChapFault, "", empty}};
    for (const auto& [findFault, value, fault] : rows)
        EXPECT_EQ(findFault(value).substr(0, fault.size() + (fault.empty() ? 1 : 0)), fault) << value;
}

TEST(Table, FormatsSizesAndColumns)
{
    const std::pair<unsigned long long, const char*> sizes[] = {
        {0, "0B"},           {512, "512B"},        {1023, "1023B"},       {1024, "1K"},
        {1536, "1.5K"},      {104857600, "100M"},  {1099511627775, "1T"}, {1649267441664, "1.5T"},
        {1ULL << 63U, "8E"}, {1072693248, "1023M"}};
    for (const auto& [bytes, shown] : sizes)
        EXPECT_EQ(DescribeSize(bytes), shown) << bytes;
    EXPECT_EQ(FormatTable({"A", "BB"}, {{"AAA", "\x1b"}, {"", "B"}}, true),
              "A    BB\nAAA  \\x1b\n-    B\n");
    EXPECT_EQ(FormatTable({"LONG", "B"}, {{"A", "B"}}, false), "A  B\n");
    EXPECT_EQ(FormatTable({"A"}, {}, true), "");
}

TEST(Reasons, AreListedOnce)
{
    const LoggedReasons reasons =
        ParseReasons({"Failed to run /sbin/iscsiadm -m session -P3: iscsiadm: x\niscsiadm: y\n"
                      " ... Trying /sbin/iscsiadm -m session -i",
                      "Error returned by command is: iscsiadm: z.", "/usr/sbin/ehcmcli not found!!",
                      "Failed to run /sbin/iscsiadm -m session -i: iscsiadm: x\n",
                      "Unable to parse the input or end of input string. Volume string not found!",
                      "cannot look up /dev/x: Permission denied"});
    EXPECT_THAT(reasons.lines, ElementsAre("Failed to run /sbin/iscsiadm -m session -P3", "iscsiadm: x",
                                           "iscsiadm: y", "Failed to run /sbin/iscsiadm -m session -i",
                                           "cannot look up /dev/x: Permission denied"));
    EXPECT_THAT(reasons.toolLines, ElementsAre("iscsiadm: x", "iscsiadm: y"));
    EXPECT_THAT(
        ParseReasons({"Failed to run a: iscsiadm: No active sessions.\n", "Failed to run b: refused"})
            .lines,
        ElementsAre("Failed to run a", "iscsiadm: No active sessions."));
}

// Only what the tool says, and no name in it, decides about the cause.
TEST(Reasons, ShowCauseAndNextStep)
{
    Request request;
    request.iqn = "iqn.x:timed";
    const auto explain = [&request](const std::string& error) {
        return *Explain({"cannot"}, ParseReasons({error}), request, Cause::NoDevice, "IQN, PORTAL")
                    .answer;
    };
    // Only root's tool can tell that there is no record.
    const bool isRoot = geteuid() == 0;
    const char* const noRecord = isRoot ? "no-record" : "tool-failed";
    const char* const discover =
        isRoot ? "zniscsi discover 192.0.2.10" : "run as root: iscsiadm requires it";
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"iscsiadm: No records found", noRecord, discover},
        {"iscsiadm: no records found!", noRecord, discover},
        {"iscsiadm: can not connect to iSCSI daemon (111)!", "tool-failed", "iscsid.socket"},
        {"(24 - iSCSI login failed due to authorization failure)", "not-authorized", "--chap-user"},
        {"..., but a session is using it. Logout session", "in-use", "logoff 192.0.2.10 iqn.x:timed"},
        {"initiator reported error (28 - device or resource in use)", "in-use", "in use)"},
        {"cannot make connection to 192.0.2.10: Connection refused", "unreachable", "192.0.2.10"},
        {"(4 - encountered connection failure)", "unreachable", "192.0.2.10"},
        {"cannot make connection to 192.0.2.10: No route to host", "unreachable", "192.0.2.10"},
        {"cannot make connection to 192.0.2.10: Network is unreachable", "unreachable",
         "route to 192.0.2"},
        {"iscsiadm: Cannot resolve host array. getaddrinfo error", "unreachable", "name"},
        {"(8 - connection timed out)", "timed-out", "192.0.2.10"},
        {"/sbin/iscsiadm: did not end within 5 s", "timed-out", "daemon may still"},
        {"iscsiadm: Maybe you are not root?", "tool-failed", "run as root"},
        {"iscsiadm: No active sessions.", "no-session", "zniscsi logon iqn.x:timed"},
        // A refused discovery also reports a time-out.
        {"Connection refused\niSCSI PDU timed out", "unreachable", "192.0.2.10"},
        {"[iface: refused, target: iqn.x:unreachable, portal: timed]", "no-device",
         "iqn.x:timed, 192.0.2.10"}};
    for (const auto& [said, cause, step] : rows)
    {
        request.portal = "192.0.2.10";
        const Answer answer = explain("Failed to run x: " + std::string(said));
        EXPECT_STREQ(NameOf(*answer.cause), cause) << said;
        EXPECT_THAT(answer.reasons.back(), testing::HasSubstr(step));
        // The library's own words are not the tool's.
        const std::string isMissing = "/sbin/iscsiadm not found!!";
        EXPECT_STREQ(NameOf(*explain(said).cause), "no-device") << said;
        EXPECT_EQ(explain(isMissing).cause, Cause::ToolMissing);
    }
    request.portal = "IQN"; // a host's name, too
    EXPECT_EQ(explain("x").reasons.back(), "iqn.x:timed, IQN");
    request.portal = "";
    request.chapUser = "backup";
    EXPECT_EQ(explain("Failed to run x: authorization failure").reasons.back(),
              "check the CHAP name and the secret");
    EXPECT_EQ(explain("x").reasons.back(), "iqn.x:timed, PORTAL");
}

} // namespace
