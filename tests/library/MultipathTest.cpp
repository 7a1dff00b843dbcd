// The multipath status report, the look-up with retries, the preferred device and the disks beneath a
// multipath device.

#include "redhat/ZnISCSILinuxRedhat.h"
#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace
{

constexpr const char* kParserTag = "ZnISCSIUnix::ParseDellMPIOOutput";
constexpr const char* kLookupTag = "ZnISCSIUnix::GetDellMPIODeviceForTargetIQN";
const std::string kNoMoreVolumes =
    "-1 #0 Unable to parse the input or end of input string. Volume string not found!";
const std::string kDefaults = "0 #0 Reg Keys not set. Using default values...";
constexpr const char* kReadVolume = "read full-iStoreNode VolumeKey";
constexpr const char* kReadTarget = "read full-iStoreNode TargetIQNKey";
constexpr const char* kReadDevice = "read full-iStoreNode MPIODeviceKey";

std::string Volume(const char* iqn, const char* device)
{
    return std::string("Volume: v\nTarget name: ") + iqn +
           "\nStatus: connected\nDevice to mount: " + device + "\n";
}

void Store(const char* key, const std::string& value)
{
    g_host.settings[std::string("full-iStoreNode ") + key] = value;
}

using Values = std::array<const char*, 3>;

TEST(MultipathReport, Records)
{
    struct Row
    {
        const char* name;
        std::string report;
        std::vector<Values> records;
        std::vector<std::string> lines; // the last ones
    };
    const std::vector<Row> rows{
        {"two volumes",
         Volume("iqn:a", "/dev/mapper/a") + Volume("iqn:b", "/dev/mapper/b"),
         {{"v", "iqn:a", "/dev/mapper/a"}, {"v", "iqn:b", "/dev/mapper/b"}},
         {"0 #0 Volume Name [v]", "0 #0 TargetIQN [iqn:b]", "0 #0 Dell MPIO Device [/dev/mapper/b]",
          kNoMoreVolumes}},
        {"no volume", "Target name: iqn:a\nDevice to mount: /dev/a\n", {}, {kDefaults, kNoMoreVolumes}},
        {"no target",
         Volume("iqn:a", "/dev/a") + "Volume: w\nDevice to mount: /dev/b\n",
         {{"v", "iqn:a", "/dev/a"}},
         {"0 #0 Volume Name [w]", "-1 #0 Unable to parse the input. Target string not found!"}},
        {"no device",
         "Volume: w\nTarget name: iqn:b\n",
         {},
         {"0 #0 TargetIQN [iqn:b]",
          "-1 #0 Unable to parse the input. Device to mount string not found!"}},
        {"target behind the next volume",
         "Volume: w\n" + Volume("iqn:a", "/dev/a"),
         {{"w", "iqn:a", "/dev/a"}},
         {kNoMoreVolumes}},
        {"carriage returns",
         "Volume: v\r\nTarget name: iqn:a\r\nDevice to mount: /dev/a\r\n",
         {{"v\r", "iqn:a\r", "/dev/a\r"}},
         {kNoMoreVolumes}},
        {"last line without its end",
         "Volume: v\nTarget name: iqn:a\nDevice to mount: /dev/a",
         {{"v", "iqn:a", "/dev/a"}},
         {"0 #0 Dell MPIO Device [/dev/a]", kNoMoreVolumes}},
        {"volume without its line end",
         "Volume: v",
         {},
         {"0 #0 Volume Name [v]", "-1 #0 Unable to parse the input. Target string not found!"}},
        {"inside a line, and empty values",
         "x Volume: \nmy Target name: \n- Device to mount: \n",
         {{"", "", ""}},
         {"0 #0 Dell MPIO Device []", kNoMoreVolumes}},
        {"two markers on one line",
         "Volume: v Target name: iqn:a\nDevice to mount: /dev/a\n",
         {},
         {"0 #0 Volume Name [v Target name: iqn:a]",
          "-1 #0 Unable to parse the input. Target string not found!"}},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.name);
        g_host = {};
        const Instance instance = MakeInstance();
        std::vector<DellMPIOSessionInfo> records(3);
        EXPECT_TRUE(instance->ParseDellMPIOOutput(row.report, records));
        ASSERT_EQ(records.size(), row.records.size());
        for (std::size_t i = 0; i < records.size(); ++i)
        {
            EXPECT_EQ(records[i].sVolumeName, row.records[i][0]);
            EXPECT_EQ(records[i].sTargetIQN, row.records[i][1]);
            EXPECT_EQ(records[i].sMPIODevice, row.records[i][2]);
        }
        const std::string end = Lines(kParserTag, row.lines) + "}event\n}debug\n";
        EXPECT_EQ(g_host.transcript.substr(g_host.transcript.size() -
                                           std::min(end.size(), g_host.transcript.size())),
                  end);
    }
}

TEST(MultipathReport, EmptyReportEmptiesTheRecordsAndFails)
{
    g_host = {};
    g_host.keepsRawText = true;
    const Instance instance = MakeInstance();
    unsigned long long job = 7;
    instance->SetLogging(job);
    std::vector<DellMPIOSessionInfo> records(3);
    EXPECT_FALSE(instance->ParseDellMPIOOutput("", records));
    EXPECT_TRUE(records.empty());
    EXPECT_EQ(
        std::exchange(g_host.transcript, ""),
        InEventContext(Lines(kParserTag, {kReadVolume, "0 #7 Reg Keys not set. Using default values...",
                                          "-1 #7 Invalid parameters."})));
    EXPECT_TRUE(instance->ParseDellMPIOOutput("100%s", records));
    EXPECT_NE(g_host.transcript.find("2 #7 ZnISCSIUnix::ParseDellMPIOOutput: Input to parse[100%s]\n"),
              std::string::npos);
}

// All three markers come from the registry or none does, and an empty one counts as not set.
TEST(MultipathReport, Markers)
{
    const std::string longest(127, 'm');
    struct Row
    {
        const char* name;
        std::vector<std::string> stored; // volume, target, device; "-" is not set
        std::vector<std::string> lines;
        std::string report;
        Values values;
    };
    const std::vector<Row> rows{
        {"own, without blanks",
         {"V:", "T:", "D:"},
         {kReadVolume, kReadTarget, kReadDevice, "0 #0 Volume Reg Key[V:]", "0 #0 TargetIQN Key[T:]",
          "0 #0 Device to mount Key[D:]"},
         "V: v\nT: iqn:a\nD: /dev/a\n",
         {" v", " iqn:a", " /dev/a"}},
        {"127 characters",
         {longest, "T:", "D:"},
         {kReadVolume, kReadTarget, kReadDevice, "0 #0 Volume Reg Key[" + longest + "]",
          "0 #0 TargetIQN Key[T:]", "0 #0 Device to mount Key[D:]"},
         longest + "v\nT:iqn:a\nD:/dev/a\n",
         {"v", "iqn:a", "/dev/a"}},
        {"third missing",
         {"V:", "T:", "-"},
         {kReadVolume, kReadTarget, kReadDevice, kDefaults},
         Volume("iqn:a", "/dev/a"),
         {"v", "iqn:a", "/dev/a"}},
        {"second missing",
         {"V:", "-", "D:"},
         {kReadVolume, kReadTarget, kDefaults},
         Volume("iqn:a", "/dev/a"),
         {"v", "iqn:a", "/dev/a"}},
        {"all empty",
         {"", "", ""},
         {kReadVolume, kDefaults},
         Volume("iqn:a", "/dev/a"),
         {"v", "iqn:a", "/dev/a"}},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.name);
        g_host = {};
        const std::array<const char*, 3> keys{"VolumeKey", "TargetIQNKey", "MPIODeviceKey"};
        for (std::size_t i = 0; i < keys.size(); ++i)
            if (row.stored[i] != "-")
                Store(keys[i], row.stored[i]);
        const Instance instance = MakeInstance();
        std::vector<DellMPIOSessionInfo> records;
        EXPECT_TRUE(instance->ParseDellMPIOOutput(row.report, records));
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].sVolumeName, row.values[0]);
        EXPECT_EQ(records[0].sTargetIQN, row.values[1]);
        EXPECT_EQ(records[0].sMPIODevice, row.values[2]);
        const std::string begin = "debug{\nevent{\n" + Lines(kParserTag, row.lines);
        EXPECT_EQ(g_host.transcript.substr(0, begin.size()), begin);
    }
}

// The transcript with the parser's own contexts left out.
std::string WithoutParser(const std::string& transcript)
{
    std::string rest = transcript;
    const std::string begin = std::string("debug{\nevent{\n") + kReadVolume;
    const std::string end = "}event\n}debug\n";
    for (std::size_t at; (at = rest.find(begin)) != std::string::npos;)
        rest.replace(at, rest.find(end, at) + end.size() - at, "{parser}\n");
    return rest;
}

TEST(MultipathDevice, Attempts)
{
    const ScriptedRun listed{0, Volume("iqn:x", "/dev/x") + Volume("iqn:a", "/dev/a"), ""};
    const ScriptedRun absent{
        0, Volume("iqn:A", "/dev/x") + Volume("iqn:a ", "/dev/x") + Volume("iqn:ab", "/dev/x"), ""};
    const std::string access = "access /usr/sbin/ehcmcli\n";
    const std::string run = access + "0 " + kLookupTag +
                            ": Running [/usr/sbin/ehcmcli status]\nrun /usr/sbin/ehcmcli status\n";
    const std::string pause = "sleep 20000 ZnISCSILinux\n";
    const std::string parsed = run + "{parser}\n";
    const std::string missed = parsed + pause;
    const std::string spent =
        Lines(kLookupTag, {"-1 MPIO Device for for Target IQN [iqn:a] still not visible",
                           "-1 Unable to find the MPIO device for the given Target IQN [iqn:a]"});
    const std::string found =
        Lines(kLookupTag, {"0 MPIO Device [/dev/a] found for Target IQN [iqn:a]"});
    struct Row
    {
        const char* name;
        const char* limit; // empty: not set
        std::vector<ScriptedRun> runs;
        std::string lines;
        const char* device;
    };
    const std::vector<Row> rows{
        {"at once", "", {listed}, parsed + found, "/dev/a"},
        {"at the third attempt",
         "",
         {absent, absent, listed},
         missed + missed + parsed + found,
         "/dev/a"},
        {"at the last attempt", "2", {absent, listed}, missed + parsed + found, "/dev/a"},
        {"never, limit not set",
         "",
         {absent, absent, absent, absent, absent},
         missed + missed + missed + missed + parsed + spent,
         "before"},
        {"never, limit 0",
         "0",
         {absent, absent, absent, absent, absent},
         missed + missed + missed + missed + parsed + spent,
         "before"},
        {"never, limit 1", "1", {absent}, parsed + spent, "before"},
        {"never, negative limit", "-3", {absent}, parsed + spent, "before"},
        {"never, limit 7",
         "7",
         {absent, absent, absent, absent, absent, absent, absent},
         missed + missed + missed + missed + missed + missed + parsed + spent,
         "before"},
        {"listed twice: the last one",
         "",
         {{0, Volume("iqn:a", "/dev/b") + Volume("iqn:x", "/dev/x") + Volume("iqn:a", "/dev/a"), ""}},
         parsed + Lines(kLookupTag, {"0 MPIO Device [/dev/b] found for Target IQN [iqn:a]"}) + found,
         "/dev/a"},
        {"failed run",
         "",
         {{3, listed.output, "5% %s"}},
         run + Lines(kLookupTag, {"-1 Failed to run /usr/sbin/ehcmcli status: 5% %s"}),
         "before"},
        {"failed run at the second attempt",
         "",
         {absent, {3, "", "no"}},
         missed + run + Lines(kLookupTag, {"-1 Failed to run /usr/sbin/ehcmcli status: no"}),
         "before"},
        {"empty report",
         "",
         {{0, "", "noise"}},
         parsed + Lines(kLookupTag, {"-1 Failed to parse ehcmcli command output."}),
         "before"},
    };
    for (const Row& row : rows)
    {
        SCOPED_TRACE(row.name);
        g_host = {};
        if (*row.limit != '\0')
            g_host.settings["~iStoreNode nRetryCounter"] = row.limit;
        g_host.runs.assign(row.runs.begin(), row.runs.end());
        const Instance instance = MakeInstance();
        std::string device = "before";
        EXPECT_EQ(instance->GetDellMPIODeviceForTargetIQN("iqn:a", device),
                  row.device != std::string("before"));
        EXPECT_EQ(device, row.device);
        EXPECT_TRUE(g_host.runs.empty()) << "runs left over";
        EXPECT_EQ(WithoutParser(g_host.transcript),
                  InFullContext("read ~iStoreNode nRetryCounter\n" + row.lines));
    }
}

TEST(MultipathDevice, RefusesAnEmptyIqnAndNeedsTheTool)
{
    g_host = {};
    g_host.missingTools = {"/usr/sbin/ehcmcli"};
    const Instance instance = MakeInstance();
    std::string device = "before";
    EXPECT_FALSE(instance->GetDellMPIODeviceForTargetIQN("", device));
    EXPECT_EQ(std::exchange(g_host.transcript, ""),
              InFullContext(Lines(kLookupTag, {"-1 Invalid parameters."})));
    EXPECT_FALSE(instance->GetDellMPIODeviceForTargetIQN("iqn:a", device));
    EXPECT_EQ(
        g_host.transcript,
        InFullContext(Lines(kLookupTag, {"read ~iStoreNode nRetryCounter", "access /usr/sbin/ehcmcli",
                                         "-1 /usr/sbin/ehcmcli not found!!"})));
    EXPECT_EQ(device, "before");
}

// A dispatch table whose entry for the disks of a target is another function.
int OtherDisks(ZnISCSI*, const char* targetIQN, std::list<std::string>& devices)
{
    devices = {std::string("/dev/for-") + targetIQN, "/dev/second"};
    return 0; // not looked at
}

class OtherDispatch
{
public:
    explicit OtherDispatch(ZnISCSI& instance) : m_instance(instance)
    {
        std::memcpy(static_cast<void*>(&m_original), static_cast<void*>(&m_instance),
                    sizeof m_original);
        std::copy_n(m_original, m_table.size(), m_table.begin());
        m_table[6] = reinterpret_cast<void*>(&OtherDisks);
        Install(m_table.data());
    }
    ~OtherDispatch() { Install(m_original); }

private:
    void Install(void** table)
    {
        std::memcpy(static_cast<void*>(&m_instance), static_cast<void*>(&table), sizeof table);
    }

    ZnISCSI& m_instance;
    void** m_original = nullptr;
    std::array<void*, 9> m_table{};
};

struct DeviceCall
{
    std::array<char, 32> buffer{};
    int result;

    DeviceCall(ZnISCSI& instance, const char* iqn, unsigned long size)
    {
        buffer.fill('x');
        const unsigned long before = size;
        result = instance.GetPhysicalDeviceForTargetIQN(iqn, buffer.data(), size);
        EXPECT_EQ(size, before);
        EXPECT_EQ(buffer[31], 'x');
    }
    // The answer; "x" when the buffer was not touched.
    std::string Answer() const
    {
        return result == 1 ? buffer.data()
                           : std::string(buffer.data(), buffer[0] == 'x' && buffer[30] == 'x' ? 1 : 31);
    }
};

constexpr const char* kSingleTag = "ZnISCSILinux::GetPhysicalDeviceForTargetIQN";

TEST(PreferredDevice, MultipathFirstOnAnyHostThenTheDispatchTablesDisks)
{
    struct Row
    {
        const char* name;
        bool multipath;
        unsigned long size;
        int result;
        const char* answer;
    };
    // "/dev/a" has 6 characters, "/dev/for-iqn:a" 14.
    for (const Row& row :
         {Row{"multipath", true, 32, 1, "/dev/a"}, Row{"multipath, just fits", true, 7, 1, "/dev/a"},
          Row{"multipath, one short", true, 6, 0, "x"}, Row{"multipath, no room", true, 0, 0, "x"},
          Row{"disk", false, 15, 1, "/dev/for-iqn:a"}, Row{"disk, one short", false, 14, 0, "x"}})
    {
        SCOPED_TRACE(row.name);
        g_host = {};
        g_host.osType = 0; // not asked
        if (row.multipath)
            g_host.runs.push_back({0, Volume("iqn:a", "/dev/a"), ""});
        else
            g_host.missingTools = {"/usr/sbin/ehcmcli"};
        const Instance instance = MakeInstance();
        const OtherDispatch dispatch(*instance);
        const DeviceCall call(*instance, "iqn:a", row.size);
        EXPECT_EQ(call.result, row.result);
        EXPECT_EQ(call.Answer(), row.answer);
        const std::string end =
            Lines(kSingleTag,
                  {row.multipath
                       ? "0 #0 Successfully got the MPIO Device [/dev/a]"
                       : "0 #0 Unable to get the MPIO device. Getting the physical device..."}) +
            "}event\n}debug\n}platform\n";
        EXPECT_EQ(g_host.transcript.substr(g_host.transcript.size() - end.size()), end);
        EXPECT_EQ(g_host.transcript.find("detect"), std::string::npos);
    }
}

TEST(PreferredDevice, NoDiskAndRefusals)
{
    g_host = {};
    g_host.osType = 0;
    g_host.missingTools = {"/usr/sbin/ehcmcli"};
    const Instance instance = MakeInstance();
    const DeviceCall noDisk(*instance, "iqn:a", 32);
    EXPECT_EQ(noDisk.result, 0);
    EXPECT_EQ(noDisk.Answer(), "x");
    const std::string fallback =
        Lines(kSingleTag, {"0 #0 Unable to get the MPIO device. Getting the physical device..."}) +
        InFullContext(Lines("ZnISCSILinux::GetPhysicalDevicesForTargetIQN",
                            {"detect", "-1 #0 Currently not supported for this OS."}));
    EXPECT_NE(g_host.transcript.find(fallback), std::string::npos) << g_host.transcript;

    const std::string refused = InFullContext(Lines(kSingleTag, {"-1 #0 Invalid parameters."}));
    g_host.transcript.clear();
    EXPECT_EQ(DeviceCall(*instance, nullptr, 32).result, 0);
    EXPECT_EQ(std::exchange(g_host.transcript, ""), refused);
    unsigned long size = 32;
    EXPECT_EQ(instance->GetPhysicalDeviceForTargetIQN("iqn:a", nullptr, size), 0);
    EXPECT_EQ(g_host.transcript, refused);
}

TEST(DisksBeneathADevice, ChildrenElseTheParent)
{
    constexpr const char* kTag = "GetPhysicalDeviceForMultipathDevice";
    struct Row
    {
        const char* device;
        std::vector<std::string> names; // empty: refused
        std::vector<std::string> lines;
    };
    const std::vector<Row> rows{
        {"/dev/three",
         {"/dev/sdc", "/dev/sda", "/dev/sdb"},
         {"0 #5 Parent ZnDevice is [/dev/three]", "0 #5 Children Count is [3]"}},
        {"/dev/none",
         {"/dev/whole"},
         {"0 #5 Parent ZnDevice is [/dev/whole]", "0 #5 Children Count is [0]"}},
        {"/dev/unknown", {}, {"-1 #5 ZnDevice for [/dev/unknown] is NULL"}},
        {"/dev/parent-only", {}, {"-1 #5 ZnDevice for [/dev/parent-only] is NULL"}},
        {"/dev/orphan", {}, {"-1 #5 Parent ZnDevice for [/dev/orphan] is NULL"}},
    };
    for (const Row& row : rows)
    {
        g_host = {};
        g_host.devices = {{"/dev/three", {{"/dev/sdc", "/dev/sda", "/dev/sdb"}, "/dev/three", true}},
                          {"/dev/none", {{}, "/dev/whole", true}},
                          {"/dev/parent-only", {{}, "/dev/whole", false}},
                          {"/dev/orphan", {{"/dev/sda"}, std::nullopt, true}}};
        const Instance instance = MakeInstance();
        unsigned long long job = 5;
        instance->SetLogging(job);
        std::vector<std::string> names{"/dev/before"};
        EXPECT_EQ(instance->GetPhysicalDeviceForMultipathDevice(row.device, names), !row.names.empty());
        std::vector<std::string> expected{"/dev/before"};
        expected.insert(expected.end(), row.names.begin(), row.names.end());
        EXPECT_EQ(names, expected);
        std::vector<std::string> lines{std::string("0 #5 Device Name[") + row.device + "]",
                                       std::string("device ") + row.device,
                                       std::string("parent ") + row.device};
        lines.insert(lines.end(), row.lines.begin(), row.lines.end());
        EXPECT_EQ(g_host.transcript, InEventContext(Lines(kTag, lines)));
    }
}

} // namespace
