// Runs the case files: every branch of every operation, with the exact sequence of contexts, log lines,
// tool checks, runs and look-ups.

#include "tests/library/CaseFile.h"
#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <sstream>
#include <utility>

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

// What a call hands back: its result, then each value in brackets.
struct Answer
{
    template <class Values = std::list<std::string>>
    Answer(int result, const Values& values = {}) : text(std::to_string(result))
    {
        for (const std::string& value : values)
            text += " [" + Escaped(value) + ']';
    }

    std::string text;
};

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

    // The text, in the buffer itself if it fits: a caller may pass one buffer as name and result.
    const char* Holding(const char* text)
    {
        const bool fits = m_isGiven && text != nullptr && std::strlen(text) < m_given;
        return fits ? std::strcpy(m_bytes.data(), text) : text;
    }

    // The bytes up to the last one that was written.
    std::string Touched() const
    {
        EXPECT_EQ(m_size, m_given);
        const std::string all(m_bytes.data(), m_bytes.size());
        return all.substr(0, all.find_last_not_of(kUntouched) + 1);
    }

private:
    static constexpr char kUntouched = '~';

    bool m_isGiven;
    unsigned long m_given;
    unsigned long m_size;
    std::array<char, 64> m_bytes{};
};

using Object = ZnISCSILinuxRedhat;
using Function = std::function<Answer(Object&, const Arguments&)>;

const std::map<std::string, Function> kFunctions{
    {"GetInstance",
     [](auto&, auto&) { return std::unique_ptr<ZnISCSI, ReleaseStorage>(GetInstance()) != nullptr; }},
    {"SetLogging",
     [](auto& z, auto& a) {
         unsigned long long job = std::stoull(a[0]);
         z.SetLogging(job);
         job = 1; // too late
         return 0;
     }},
    {"AddiSCSITargetPortal", [](auto& z, auto& a) { return z.AddiSCSITargetPortal(a[0]); }},
    {"RefreshiSCSITargetPortal", [](auto& z, auto& a) { return z.RefreshiSCSITargetPortal(a[0]); }},
    {"RefreshISCSISystemBus_RedHat5",
     [](auto&, auto& a) { return RefreshISCSISystemBus_RedHat5(a[0]); }},
    {"LogOnToiSCSITarget", [](auto& z, auto& a) { return z.LogOnToiSCSITarget(a[0], a[1]); }},
    {"LogOnToISCSITarget_RedHat5",
     [](auto&, auto& a) { return LogOnToISCSITarget_RedHat5(a[0], a[1]); }},
    {"LogOnToiSCSITargetUsingCHAP",
     [](auto& z, auto& a) { return z.LogOnToiSCSITargetUsingCHAP(a[0], a[1], a[2], a[3]); }},
    {"LogOnToISCSITargetUsingCHAP_RedHat5",
     [](auto&, auto& a) { return LogOnToISCSITargetUsingCHAP_RedHat5(a[0], a[1], a[2], a[3]); }},
    {"LogOffFromiSCSITarget", [](auto& z, auto& a) { return z.LogOffFromiSCSITarget(a[0], a[1]); }},
    {"LogOffFromISCSITarget_RedHat5",
     [](auto&, auto& a) { return LogOffFromISCSITarget_RedHat5(a[0], a[1]); }},
    {"DeleteiSCSIIQNFromiSCSIAdmDb",
     [](auto& z, auto& a) { return z.DeleteiSCSIIQNFromiSCSIAdmDb(a[0], a[1]); }},
    {"DeleteiSCSIIQNFromiSCSIAdmDb_RedHat5",
     [](auto&, auto& a) { return DeleteiSCSIIQNFromiSCSIAdmDb_RedHat5(a[0], a[1]); }},
    {"GetPhysicalDevicesForTargetIQN",
     [](auto& z, auto& a) {
         std::list<std::string> devices{"/dev/sdb"};
         return Answer(z.GetPhysicalDevicesForTargetIQN(a[0], devices), devices);
     }},
    {"GetPhysicalDeviceForTargetIQN",
     [](auto& z, auto& a) {
         Buffer device(a[1]);
         const int result = z.GetPhysicalDeviceForTargetIQN(a[0], device.Data(), device.Size());
         return Answer(result, {device.Touched()});
     }},
    {"GetTargetIPAndIQNForDevice",
     [](auto& z, auto& a) {
         Buffer portal(a[1]);
         Buffer iqn(a[2]);
         const int result = z.GetTargetIPAndIQNForDevice(portal.Holding(a[0]), portal.Data(),
                                                         portal.Size(), iqn.Data(), iqn.Size());
         return Answer(result, {portal.Touched(), iqn.Touched()});
     }},
    {"FindISCSITargetPortalAndIQN_RedHat5",
     [](auto&, auto& a) {
         std::array<std::string, 2> found{"before", "before"};
         return Answer(FindISCSITargetPortalAndIQN_RedHat5(a[0], found[0], found[1]), found);
     }},
    {"GetPhysicalDeviceForMultipathDevice",
     [](auto& z, auto& a) {
         std::vector<std::string> names{"/dev/before"};
         return Answer(z.GetPhysicalDeviceForMultipathDevice(a[0], names), names);
     }},
    {"GetDellMPIODeviceForTargetIQN",
     [](auto& z, auto& a) {
         std::array<std::string, 1> device{"before"};
         return Answer(z.GetDellMPIODeviceForTargetIQN(a[0], device[0]), device);
     }},
    {"ParseDellMPIOOutput",
     [](auto& z, auto& a) {
         std::vector<DellMPIOSessionInfo> records(3);
         const int result = z.ParseDellMPIOOutput(a[0], records);
         std::list<std::string> values;
         for (const auto& record : records)
             values.push_back(record.sVolumeName + '|' + record.sTargetIQN + '|' + record.sMPIODevice);
         return Answer(result, values);
     }},
    {"ParseIscsiadmSessionInfoOutput",
     [](auto&, auto& a) {
         std::vector<iSSCSISessionInfo> records{{"before", "", ""}};
         const int result = ParseIscsiadmSessionInfoOutput(a[0], records);
         EXPECT_EQ(records.at(0).sDeviceName, "before");
         std::list<std::string> values;
         for (auto record = records.begin() + 1; record < records.end(); ++record)
             values.push_back(record->sDeviceName + '|' + record->sTargetPortal + '|' +
                              record->sTargetVolIQN);
         return Answer(result, values);
     }},
    {"GetRegStr",
     [](auto& z, auto& a) {
         Buffer value(a[2]);
         const int result = z.GetRegStr(a[0], a[1], value.Data(), a.Number(2));
         return Answer(result, {value.Touched()});
     }},
    {"GetRegInt",
     [](auto& z, auto& a) {
         int value = 99;
         const int result = z.GetRegInt(a[0], a[1], &value);
         return Answer(result, {std::to_string(value)});
     }},
};

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

// What the verb of a call shows of everything that happened.
std::string Shown(const std::string& verb, const std::string& happened)
{
    if (verb != "why")
        return verb == "ask" ? "" : happened;
    std::string errors;
    std::istringstream lines(happened);
    for (std::string line; std::getline(lines >> std::ws, line);)
        if (line.compare(0, 3, "-1 ") == 0)
            errors += line + '\n';
    return errors;
}

void RunCase(const Case& test)
{
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
        const auto below = std::find_if(at, statements.end(),
                                        [](const Statement& call) { return !call.expected.empty(); });
        ASSERT_NE(below, statements.end()) << "nothing expected";
        for (const std::vector<Word>& call : Calls(at->words))
        {
            const Function& function = kFunctions.at(call.at(1).value());
            const Answer answer = function(*object, Arguments({call.begin() + 1, call.end()}));
            const std::string happened = Shown(verb, std::exchange(g_host.transcript, {}));
            EXPECT_EQ(happened + "= " + answer.text + '\n', below->expected);
        }
    }
    EXPECT_TRUE(g_host.runs.empty()) << test.name << ": runs left over";
}

TEST(Library, AnswersAndLogsAsItsCasesSay)
{
    for (const std::string file :
         {"instance", "operations", "disks", "targets", "multipath", "sessions"})
    {
        SCOPED_TRACE(file);
        const std::vector<Case> cases = ParseCases(ReadFile("data/" + file + ".cases"));
        EXPECT_FALSE(cases.empty());
        for (const Case& test : cases)
            RunCase(test);
    }
}

} // namespace
