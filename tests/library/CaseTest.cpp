// Runs the case files: every branch of every operation, with the exact sequence of contexts, log lines,
// tool checks, runs and look-ups.

#include "tests/library/CaseFile.h"
#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>

namespace
{

// The words of a statement after the first.
class Arguments
{
public:
    explicit Arguments(std::vector<Word> words) : m_words(std::move(words)) {}

    const char* operator[](std::size_t at) const
    {
        const Word& word = m_words.at(at + 1);
        return word ? word->c_str() : nullptr;
    }
    int Number(std::size_t at) const { return std::stoi(m_words.at(at + 1).value()); }
    std::size_t Count() const { return m_words.size() - 1; }

private:
    std::vector<Word> m_words;
};

using SetUp = std::function<void(const Arguments&)>;

const std::map<std::string, SetUp> kSetUps{
    {"os", [](const Arguments& a) { g_host.osType = a.Number(0), g_host.osVersion = a.Number(1); }},
    {"missing", [](const Arguments& a) { g_host.missingTools.insert(a[0]); }},
    {"hide", [](const Arguments& a) { g_host.hiddenTags.insert(a[0]); }},
    {"setting", [](const Arguments& a) { g_host.settings[a[0] + std::string(" ") + a[1]] = a[2]; }},
    // A device of the tree, and the physical disks beneath it.
    {"device",
     [](const Arguments& a) {
         ScriptedDevice& device = g_host.devices[a[0]];
         device.isKnown = true;
         for (std::size_t child = 1; child < a.Count(); ++child)
             device.children.emplace_back(a[child]);
     }},
    {"parent", [](const Arguments& a) { g_host.devices[a[0]].parent = a[1]; }},
    // The next run: result, output, error output.
    {"run",
     [](const Arguments& a) {
         g_host.runs.push_back({a.Number(0), a.Count() > 1 ? a[1] : "", a.Count() > 2 ? a[2] : ""});
     }},
    // The number of runs like the one before.
    {"times",
     [](const Arguments& a) {
         const ScriptedRun run = g_host.runs.back();
         g_host.runs.resize(g_host.runs.size() + static_cast<std::size_t>(a.Number(0)) - 1, run);
     }},
};

std::string InBrackets(const std::list<std::string>& values)
{
    std::string all;
    for (const std::string& value : values)
        all += " [" + Escaped(value) + ']';
    return all;
}

// A caller's buffer of the given size (null: no buffer), followed by bytes that must not be written.
class Buffer
{
public:
    explicit Buffer(const char* size)
        : m_isGiven(size != nullptr), m_given(m_isGiven ? std::stoul(size) : 1), m_size(m_given)
    {
        m_bytes.fill(kUntouched);
    }

    char* Data() { return m_isGiven ? m_bytes.data() : nullptr; }
    unsigned long& Size() { return m_size; }

    // The bytes up to the last one that was written.
    std::string Touched() const
    {
        EXPECT_EQ(m_size, m_given);
        const std::string all(m_bytes.data(), m_bytes.size());
        return InBrackets({all.substr(0, all.find_last_not_of(kUntouched) + 1)});
    }

private:
    static constexpr char kUntouched = '~';

    bool m_isGiven;
    unsigned long m_given;
    unsigned long m_size;
    std::array<char, 64> m_bytes{};
};

using Object = ZnISCSILinuxRedhat;
// Calls a function and describes the result, then the values handed back.
using Function = std::function<std::string(Object&, const Arguments&)>;

std::string Text(int result)
{
    return std::to_string(result);
}

const std::map<std::string, Function> kFunctions{
    {"GetInstance",
     [](Object&, const Arguments&) {
         return std::unique_ptr<ZnISCSI, ReleaseStorage>(GetInstance()) ? "instance" : "null";
     }},
    {"AddiSCSITargetPortal",
     [](Object& z, const Arguments& a) { return Text(z.AddiSCSITargetPortal(a[0])); }},
    {"RefreshiSCSITargetPortal",
     [](Object& z, const Arguments& a) { return Text(z.RefreshiSCSITargetPortal(a[0])); }},
    {"RefreshISCSISystemBus_RedHat5",
     [](Object&, const Arguments& a) { return Text(RefreshISCSISystemBus_RedHat5(a[0])); }},
    {"LogOnToiSCSITarget",
     [](Object& z, const Arguments& a) { return Text(z.LogOnToiSCSITarget(a[0], a[1])); }},
    {"LogOnToISCSITarget_RedHat5",
     [](Object&, const Arguments& a) { return Text(LogOnToISCSITarget_RedHat5(a[0], a[1])); }},
    {"LogOnToiSCSITargetUsingCHAP",
     [](Object& z, const Arguments& a) {
         return Text(z.LogOnToiSCSITargetUsingCHAP(a[0], a[1], a[2], a[3]));
     }},
    {"LogOnToISCSITargetUsingCHAP_RedHat5",
     [](Object&, const Arguments& a) {
         return Text(LogOnToISCSITargetUsingCHAP_RedHat5(a[0], a[1], a[2], a[3]));
     }},
    {"LogOffFromiSCSITarget",
     [](Object& z, const Arguments& a) { return Text(z.LogOffFromiSCSITarget(a[0], a[1])); }},
    {"LogOffFromISCSITarget_RedHat5",
     [](Object&, const Arguments& a) { return Text(LogOffFromISCSITarget_RedHat5(a[0], a[1])); }},
    {"DeleteiSCSIIQNFromiSCSIAdmDb",
     [](Object& z, const Arguments& a) { return Text(z.DeleteiSCSIIQNFromiSCSIAdmDb(a[0], a[1])); }},
    {"DeleteiSCSIIQNFromiSCSIAdmDb_RedHat5",
     [](Object&, const Arguments& a) {
         return Text(DeleteiSCSIIQNFromiSCSIAdmDb_RedHat5(a[0], a[1]));
     }},
    {"GetPhysicalDevicesForTargetIQN",
     [](Object& z, const Arguments& a) {
         std::list<std::string> devices{"/dev/before"};
         const int result = z.GetPhysicalDevicesForTargetIQN(a[0], devices);
         return Text(result) + InBrackets(devices);
     }},
    {"GetPhysicalDeviceForTargetIQN",
     [](Object& z, const Arguments& a) {
         Buffer device(a[1]);
         const int result = z.GetPhysicalDeviceForTargetIQN(a[0], device.Data(), device.Size());
         return Text(result) + device.Touched();
     }},
    {"GetTargetIPAndIQNForDevice",
     [](Object& z, const Arguments& a) {
         Buffer portal(a[1]);
         Buffer iqn(a[2]);
         const int result =
             z.GetTargetIPAndIQNForDevice(a[0], portal.Data(), portal.Size(), iqn.Data(), iqn.Size());
         return Text(result) + portal.Touched() + iqn.Touched();
     }},
    {"FindISCSITargetPortalAndIQN_RedHat5",
     [](Object&, const Arguments& a) {
         std::string portal = "before";
         std::string iqn = "before";
         const int result = FindISCSITargetPortalAndIQN_RedHat5(a[0], portal, iqn);
         return Text(result) + InBrackets({portal, iqn});
     }},
    {"GetPhysicalDeviceForMultipathDevice",
     [](Object& z, const Arguments& a) {
         std::vector<std::string> names{"/dev/before"};
         const int result = z.GetPhysicalDeviceForMultipathDevice(a[0], names);
         return Text(result) + InBrackets({names.begin(), names.end()});
     }},
    {"GetDellMPIODeviceForTargetIQN",
     [](Object& z, const Arguments& a) {
         std::string device = "before";
         const int result = z.GetDellMPIODeviceForTargetIQN(a[0], device);
         return Text(result) + InBrackets({device});
     }},
    {"ParseDellMPIOOutput",
     [](Object& z, const Arguments& a) {
         std::vector<DellMPIOSessionInfo> records(3);
         std::string all = Text(z.ParseDellMPIOOutput(a[0], records));
         for (const auto& record : records)
             all += '\n' + InBrackets({record.sVolumeName, record.sTargetIQN, record.sMPIODevice});
         return all;
     }},
    {"ParseIscsiadmSessionInfoOutput",
     [](Object&, const Arguments& a) {
         std::vector<iSSCSISessionInfo> records;
         std::string all = Text(ParseIscsiadmSessionInfoOutput(a[0], records));
         for (const auto& record : records)
             all += '\n' + InBrackets({record.sDeviceName, record.sTargetPortal, record.sTargetVolIQN});
         return all;
     }},
    {"GetRegStr",
     [](Object& z, const Arguments& a) {
         Buffer value(a[2]);
         const int result = z.GetRegStr(a[0], a[1], value.Data(), a.Number(2));
         return Text(result) + value.Touched();
     }},
    {"GetRegInt",
     [](Object& z, const Arguments& a) {
         int value = 99;
         const int result = z.GetRegInt(a[0], a[1], &value);
         return Text(result) + " [" + Text(value) + ']';
     }},
};

std::string Answer(Object& object, const std::vector<Word>& call)
{
    return kFunctions.at(call.at(1).value())(object, Arguments({call.begin() + 1, call.end()}));
}

// The calls that a statement makes.
std::vector<std::vector<Word>> Calls(const std::vector<Word>& words)
{
    if (words.at(0) != "nulls")
        return {words};
    std::vector<std::vector<Word>> calls(words.size() - 2, words);
    for (std::size_t i = 0; i < calls.size(); ++i)
        calls[i][i + 2] = std::nullopt;
    return calls;
}

void RunCase(const Case& test)
{
    g_host = {};
    const Instance object = MakeInstance();
    unsigned long long job = 42;
    object->SetLogging(job);
    const auto& statements = test.statements;
    for (auto at = statements.begin(); at != statements.end(); ++at)
    {
        SCOPED_TRACE(test.name + ", line " + std::to_string(at->line));
        const std::string verb = at->words.at(0).value();
        if (const auto setUp = kSetUps.find(verb); setUp != kSetUps.end())
        {
            setUp->second(Arguments(at->words));
            continue;
        }
        const auto expected = std::find_if(
            at, statements.end(), [](const Statement& call) { return !call.transcript.empty(); });
        ASSERT_NE(expected, statements.end()) << "no transcript";
        for (const std::vector<Word>& call : Calls(at->words))
        {
            g_host.transcript.clear();
            const std::string answer = Answer(*object, call);
            if (verb == "ask")
                g_host.transcript.clear();
            g_host.Happened("= " + answer);
            EXPECT_EQ(g_host.transcript, expected->transcript);
        }
    }
    EXPECT_TRUE(g_host.runs.empty()) << test.name << ": runs left over";
}

class CaseFile : public testing::TestWithParam<const char*>
{
};

TEST_P(CaseFile, EveryCase)
{
    const std::vector<Case> cases = ParseCases(ReadData(GetParam() + std::string(".cases")));
    EXPECT_FALSE(cases.empty());
    for (const Case& test : cases)
        RunCase(test);
}

INSTANTIATE_TEST_SUITE_P(Library, CaseFile,
                         testing::Values("instance", "operations", "disks", "target-of-device",
                                         "multipath", "session-reports"),
                         [](const auto& file) {
                             std::string name = file.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

} // namespace
