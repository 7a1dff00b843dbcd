// From a target to its disks, and from a device to its target.

#include "redhat/ZnISCSILinuxRedhat.h"
#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <array>

namespace
{

constexpr const char* kIqn = "iqn.2000-01.invalid.demo:vol1";
constexpr const char* kDetailed = "0 Running [/sbin/iscsiadm -m session -P3]";
constexpr const char* kRunDetailed = "run /sbin/iscsiadm -m session -P3";
constexpr const char* kShort = "0 Running [/sbin/iscsiadm -m session -i]";
constexpr const char* kRunShort = "run /sbin/iscsiadm -m session -i";
constexpr const char* kFellBack = "-1 Failed to run /sbin/iscsiadm -m session -P3: iscsiadm: 5% %s\n "
                                  "... Trying /sbin/iscsiadm -m session -i";
constexpr const char* kShortFailed = "-1 Failed to run /sbin/iscsiadm -m session -i: no";

struct Disk
{
    const char* name;
    const char* portal;
    const char* iqn;
};

// A report with a target line for each disk.
std::string Report(const std::vector<Disk>& disks)
{
    std::string report;
    for (const Disk& disk : disks)
        report += std::string("Target: ") + disk.iqn + "\n\tPersistent Portal: " + disk.portal +
                  ":3260,1\n\t\t\tAttached scsi disk " + disk.name + "\t\tState: running\n";
    return report;
}

const std::string kTwoDisks = Report({{"sdb", "192.0.2.10", kIqn},
                                      {"sdx", "192.0.2.10", "iqn.2000-01.invalid.demo:vol12"},
                                      {"sdc", "192.0.2.10", kIqn}});

// The transcript with the parser's own lines, which have their own tests, left out.
std::string WithoutParser(const std::string& transcript)
{
    std::string rest;
    std::size_t line = 0;
    for (std::size_t end; (end = transcript.find('\n', line)) != std::string::npos; line = end + 1)
        if (transcript.compare(line, 32, "0 ParseIscsiadmSessionInfoOutput") != 0)
            rest += transcript.substr(line, end + 1 - line);
    return rest;
}

const char* const kParser = "{parser}";

// As Lines, with the parser's context in place of the marker.
std::string LookupLines(const char* tag, const std::vector<std::string>& lines)
{
    std::string all;
    for (const std::string& line : lines)
        all += line == kParser ? InPlainContext("") : Lines(tag, {line});
    return all;
}

TEST(DisksOfATarget, EveryBranch)
{
    struct Row
    {
        const char* name;
        const char* iqn;
        bool toolMissing;
        std::vector<ScriptedRun> runs;
        std::vector<std::string> lines;
        std::list<std::string> devices;
    };
    const std::string found =
        "0 Device name [/dev/sdb] found for Target IQN [" + std::string(kIqn) + "].";
    const std::vector<Row> rows{
        {"two disks",
         kIqn,
         false,
         {{0, kTwoDisks, "noise"}},
         {kDetailed, kRunDetailed, kParser, "0 Number of sessions - [3]", found,
          "0 Device name [/dev/sdc] found for Target IQN [" + std::string(kIqn) + "]."},
         {"/dev/sdb", "/dev/sdc"}},
        {"tool missing", kIqn, true, {}, {"-1 /sbin/iscsiadm not found!!"}, {}},
        {"short report",
         kIqn,
         false,
         {{7, kTwoDisks, "iscsiadm: 5% %s\n"}, {0, Report({{"sdb", "192.0.2.10", kIqn}}), ""}},
         {kDetailed, kRunDetailed, kFellBack, kShort, kRunShort, kParser, "0 Number of sessions - [1]",
          found},
         {"/dev/sdb"}},
        {"both reports fail",
         kIqn,
         false,
         {{7, kTwoDisks, "iscsiadm: 5% %s\n"}, {-1, kTwoDisks, "no"}},
         {kDetailed, kRunDetailed, kFellBack, kShort, kRunShort, kShortFailed},
         {}},
        {"empty report",
         kIqn,
         false,
         {{0, "", ""}},
         {kDetailed, kRunDetailed, kParser, "0 Number of sessions - [0]"},
         {}},
        {"other letter case",
         "IQN.2000-01.invalid.demo:vol1",
         false,
         {{0, kTwoDisks, ""}},
         {kDetailed, kRunDetailed, kParser, "0 Number of sessions - [3]"},
         {}},
        {"beginning of another",
         "iqn.2000-01.invalid.demo:vol",
         false,
         {{0, kTwoDisks, ""}},
         {kDetailed, kRunDetailed, kParser, "0 Number of sessions - [3]"},
         {}},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.name);
        g_host = {};
        g_host.runs.assign(row.runs.begin(), row.runs.end());
        if (row.toolMissing)
            g_host.missingTools = {"/sbin/iscsiadm"};
        std::vector<std::string> lines{std::string("0 Input target IQN: [") + row.iqn + "].",
                                       "access /sbin/iscsiadm"};
        lines.insert(lines.end(), row.lines.begin(), row.lines.end());
        std::list<std::string> devices{"/dev/before"};
        std::list<std::string> expected{"/dev/before"};
        expected.insert(expected.end(), row.devices.begin(), row.devices.end());

        const Instance instance = MakeInstance();
        EXPECT_EQ(instance->GetPhysicalDevicesForTargetIQN(row.iqn, devices),
                  row.devices.empty() ? 0 : 1);
        EXPECT_EQ(devices, expected);
        EXPECT_EQ(
            WithoutParser(g_host.transcript),
            InFullContext("detect\n" + InPlainContext(LookupLines(
                                           "FindPhyDeviceNameFromISCSITargetIQN_RedHat5", lines))));
    }
}

TEST(DisksOfATarget, Refusals)
{
    constexpr const char* kTag = "ZnISCSILinux::GetPhysicalDevicesForTargetIQN";
    g_host = {};
    g_host.osVersion = 4;
    const Instance instance = MakeInstance();
    std::list<std::string> devices;
    EXPECT_EQ(instance->GetPhysicalDevicesForTargetIQN(nullptr, devices), 0);
    EXPECT_EQ(std::exchange(g_host.transcript, ""),
              InFullContext(Lines(kTag, {"-1 #0 Invalid parameters."})));
    EXPECT_EQ(instance->GetPhysicalDevicesForTargetIQN(kIqn, devices), 0);
    EXPECT_EQ(g_host.transcript,
              InFullContext(Lines(kTag, {"detect", "-1 #0 Currently not supported for this OS."})));
}

// What the device tree and the log say of a device with the given physical disks.
std::string Resolution(const char* device, const char* parent, const std::vector<std::string>& children)
{
    return std::string("debug{\nevent{\n") +
           Lines("GetPhysicalDeviceForMultipathDevice",
                 {std::string("0 #0 Device Name[") + device + "]", std::string("device ") + device,
                  std::string("parent ") + device,
                  std::string("0 #0 Parent ZnDevice is [") + parent + "]",
                  "0 #0 Children Count is [" + std::to_string(children.size()) + "]"}) +
           "}event\n}debug\n";
}

constexpr const char* kTargetTag = "FindISCSITargetPortalAndIQN_RedHat5";
constexpr const char* kMap = "/dev/mapper/m";

TEST(TargetOfADevice, PathsMustAgree)
{
    const std::string portalFound = "0 Target Portal [192.0.2.10] found for device [/dev/mapper/m].";
    const std::string iqnFound = "0 Target Volume IQN [iqn:a] found for device [/dev/mapper/m].";
    const std::string differs = "-1 The Device[/dev/mapper/m] maybe a multipathing device. ";
    struct Row
    {
        const char* name;
        std::vector<Disk> report;
        std::vector<std::string> lines;
        bool found;
        const char* portal;
        const char* iqn;
    };
    const std::vector<Row> rows{
        {"one target",
         {{"sdb", "192.0.2.10", "iqn:a"}, {"sdz", "9", "iqn:z"}, {"sdc", "192.0.2.10", "iqn:a"}},
         {portalFound, iqnFound},
         true,
         "192.0.2.10",
         "iqn:a"},
        {"none matches",
         {{"sda", "192.0.2.10", "iqn:a"}, {"sdbb", "192.0.2.10", "iqn:a"}},
         {},
         false,
         "",
         ""},
        {"two portals",
         {{"sdb", "192.0.2.10", "iqn:a"}, {"sdc", "192.0.2.20", "iqn:a"}},
         {portalFound, iqnFound,
          differs + "[192.0.2.10] does not match [192.0.2.20]. The Target Portals for all "
                    "children should match."},
         false,
         "192.0.2.10",
         "iqn:a"},
        {"two targets",
         {{"sdb", "192.0.2.10", "iqn:a"}, {"sdc", "192.0.2.10", "iqn:b"}},
         {portalFound, iqnFound,
          differs + "[iqn:a] does not match [iqn:b]. The Target Volume IQNs for all children "
                    "should match."},
         false,
         "192.0.2.10",
         "iqn:a"},
        {"later portal shorter",
         {{"sdb", "192.0.2.10", "iqn:a"}, {"sdc", "192.0.2.1", "iqn:a"}},
         {portalFound, iqnFound},
         true,
         "192.0.2.10",
         "iqn:a"},
        {"later portal longer",
         {{"sdb", "192.0.2.1", "iqn:a"}, {"sdc", "192.0.2.10", "iqn:a"}},
         {"0 Target Portal [192.0.2.1] found for device [/dev/mapper/m].", iqnFound,
          differs + "[192.0.2.1] does not match [192.0.2.10]. The Target Portals for all children "
                    "should match."},
         false,
         "192.0.2.1",
         "iqn:a"},
        {"later IQN shorter",
         {{"sdb", "192.0.2.10", "iqn:a"}, {"sdc", "192.0.2.10", "iqn:"}},
         {portalFound, iqnFound},
         true,
         "192.0.2.10",
         "iqn:a"},
        {"later IQN longer",
         {{"sdb", "192.0.2.10", "iqn:a"}, {"sdc", "192.0.2.10", "iqn:ab"}},
         {portalFound, iqnFound,
          differs + "[iqn:a] does not match [iqn:ab]. The Target Volume IQNs for all children "
                    "should match."},
         false,
         "192.0.2.10",
         "iqn:a"},
        {"later portal and IQN empty",
         {{"sdb", "192.0.2.10", "iqn:a"}, {"sdc", "", " "}},
         {portalFound, iqnFound},
         true,
         "192.0.2.10",
         "iqn:a"},
        {"first portal empty",
         {{"sdb", "", "iqn:z"}, {"sdc", "192.0.2.10", "iqn:a"}, {"sdb", "192.0.2.10", "iqn:a"}},
         {"0 Target Portal [] found for device [/dev/mapper/m].",
          "0 Target Volume IQN [iqn:z] found for device [/dev/mapper/m].", portalFound, iqnFound},
         true,
         "192.0.2.10",
         "iqn:a"},
        {"first IQN empty",
         {{"sdb", "8", " x"}, {"sdc", "192.0.2.10", "iqn:a"}},
         {"0 Target Portal [8] found for device [/dev/mapper/m].",
          "0 Target Volume IQN [] found for device [/dev/mapper/m].", portalFound, iqnFound},
         true,
         "192.0.2.10",
         "iqn:a"},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.name);
        g_host = {};
        g_host.devices[kMap] = {{"/dev/sdb", "/dev/sdc"}, kMap, true};
        g_host.runs.push_back({0, Report(row.report), ""});
        std::string portal = "old";
        std::string iqn = "old";
        EXPECT_EQ(FindISCSITargetPortalAndIQN_RedHat5(kMap, portal, iqn), row.found);
        EXPECT_EQ(portal, row.portal);
        EXPECT_EQ(iqn, row.iqn);
        std::vector<std::string> lines{"0 Physical Device [/dev/sdb]",
                                       "0 Physical Device [/dev/sdc]",
                                       "access /sbin/iscsiadm",
                                       kDetailed,
                                       kRunDetailed,
                                       kParser,
                                       "0 Number of sessions - [" + std::to_string(row.report.size()) +
                                           "]"};
        lines.insert(lines.end(), row.lines.begin(), row.lines.end());
        EXPECT_EQ(WithoutParser(g_host.transcript),
                  InPlainContext(Lines(kTargetTag, {"0 Input Device name: [/dev/mapper/m]."}) +
                                 Resolution(kMap, kMap, {"/dev/sdb", "/dev/sdc"}) +
                                 LookupLines(kTargetTag, lines)));
    }
}

TEST(TargetOfADevice, FailsBeforeTheReport)
{
    struct Row
    {
        const char* name;
        bool toolMissing;
        std::vector<ScriptedRun> runs;
        std::vector<std::string> lines;
    };
    for (const Row& row : {Row{"tool missing", true, {}, {"-1 /sbin/iscsiadm not found!!"}},
                           Row{"both reports fail",
                               false,
                               {{7, "", "iscsiadm: 5% %s\n"}, {7, "", "no"}},
                               {kDetailed, kRunDetailed, kFellBack, kShort, kRunShort, kShortFailed}}})
    {
        SCOPED_TRACE(row.name);
        g_host = {};
        g_host.devices["/dev/sdb1"] = {{}, "/dev/sdb", true};
        g_host.runs.assign(row.runs.begin(), row.runs.end());
        if (row.toolMissing)
            g_host.missingTools = {"/sbin/iscsiadm"};
        std::vector<std::string> lines{"0 Physical Device [/dev/sdb]", "access /sbin/iscsiadm"};
        lines.insert(lines.end(), row.lines.begin(), row.lines.end());
        std::string portal;
        std::string iqn;
        EXPECT_FALSE(FindISCSITargetPortalAndIQN_RedHat5("/dev/sdb1", portal, iqn));
        EXPECT_EQ(g_host.transcript,
                  InPlainContext(Lines(kTargetTag, {"0 Input Device name: [/dev/sdb1]."}) +
                                 Resolution("/dev/sdb1", "/dev/sdb", {}) + Lines(kTargetTag, lines)));
    }
}

// Calls the method with buffers of the given sizes inside larger ones; 'x' is what was not touched.
struct TargetCall
{
    std::array<char, 32> portal;
    std::array<char, 32> iqn;
    unsigned long portalSize;
    unsigned long iqnSize;
    int result = -1;

    TargetCall(const char* device, unsigned long portalBytes, unsigned long iqnBytes)
        : portalSize(portalBytes), iqnSize(iqnBytes)
    {
        portal.fill('x');
        iqn.fill('x');
        const Instance instance = MakeInstance();
        result = instance->GetTargetIPAndIQNForDevice(device, portal.data(), portalSize, iqn.data(),
                                                      iqnSize);
        EXPECT_EQ(portalSize, portalBytes);
        EXPECT_EQ(iqnSize, iqnBytes);
    }
};

// `value`, then zeros up to `size`, then what was not touched.
std::string Filled(const std::string& value, std::size_t size)
{
    std::string all = value;
    all.resize(size, '\0');
    all.resize(32, 'x');
    return all;
}

TEST(TargetOfADevice, BuffersAreZeroedAndFilledWhenTheyAreLargeEnough)
{
    const std::string portal = "192.0.2.10"; // 10 characters
    const std::string iqn = "iqn:a";         // 5
    struct Row
    {
        unsigned long portalSize;
        unsigned long iqnSize;
        int result;
        bool hasPortal;
    };
    for (const Row& row : {Row{11, 6, 1, true}, Row{12, 20, 1, true}, Row{10, 6, 0, false},
                           Row{0, 6, 0, false}, Row{11, 5, 0, true}, Row{11, 0, 0, true}})
    {
        g_host = {};
        g_host.devices["/dev/sdb"] = {{}, "/dev/sdb", true};
        g_host.runs.push_back({0, Report({{"sdb", "192.0.2.10", "iqn:a"}}), ""});
        const TargetCall call("/dev/sdb", row.portalSize, row.iqnSize);
        EXPECT_EQ(call.result, row.result);
        EXPECT_EQ(std::string(call.portal.data(), 32),
                  Filled(row.hasPortal ? portal : "", row.portalSize));
        EXPECT_EQ(std::string(call.iqn.data(), 32), Filled(row.result == 1 ? iqn : "", row.iqnSize));
    }
}

TEST(TargetOfADevice, RefusalsInTheirOrder)
{
    constexpr const char* kTag = "ZnISCSILinux::GetTargetIPAndIQNForDevice";
    const std::string untouched = Filled("", 0);
    const std::string zeroed = Filled("", 4);
    struct Row
    {
        const char* device;
        const char* line;
        bool touched;
    };
    for (const Row& row :
         {Row{nullptr, "-1 #0 Invalid parameters.", false},
          Row{"sdb", "-1 #0 Device name [sdb] not in expected format.", false},
          Row{"/devices/%s", "-1 #0 Device name [/devices/%s] not in expected format.", false},
          Row{"", "-1 #0 Device name [] not in expected format.", false},
          Row{"/chroot/dev/sdb", "-1 #0 Currently not supported for this OS.", true}})
    {
        g_host = {};
        g_host.osType = 0;
        const TargetCall call(row.device, 4, 4);
        EXPECT_EQ(call.result, 0);
        EXPECT_EQ(std::string(call.portal.data(), 32), row.touched ? zeroed : untouched);
        EXPECT_EQ(std::string(call.iqn.data(), 32), row.touched ? zeroed : untouched);
        EXPECT_EQ(g_host.transcript,
                  InFullContext((row.touched ? "detect\n" : "") + Lines(kTag, {row.line})));
    }

    const Instance instance = MakeInstance();
    std::array<char, 4> buffer{'x', 'x', 'x', 'x'};
    unsigned long size = buffer.size();
    for (const auto& [portal, iqn] :
         {std::pair<char*, char*>{buffer.data(), nullptr}, {nullptr, buffer.data()}})
    {
        g_host = {};
        EXPECT_EQ(instance->GetTargetIPAndIQNForDevice("/dev/sdb", portal, size, iqn, size), 0);
        EXPECT_EQ(std::string(buffer.data(), 4), "xxxx");
        EXPECT_EQ(g_host.transcript, InFullContext(Lines(kTag, {"-1 #0 Invalid parameters."})));
        EXPECT_EQ(instance->GetTargetIPAndIQNForDevice("sdb", portal, size, iqn, size), 0);
        EXPECT_NE(g_host.transcript.find("not in expected format"), std::string::npos);
    }
}

} // namespace
