// The operations that change the initiator's state: every branch, with the exact sequence of contexts,
// log lines, tool checks and runs.

#include "redhat/ZnISCSILinuxRedhat.h"
#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <functional>

namespace
{

using Arguments = std::vector<const char*>;

constexpr const char* kPortal = "192.0.2.10";
constexpr const char* kIqn = "iqn.2000-01.test:vol1";
constexpr const char* kSecret = "s3cret%s;$(x)";

struct Step
{
    std::string command;
    std::string shown; // as the log has it; empty when it is the command
    const std::string& Shown() const { return shown.empty() ? command : shown; }
};

struct Operation
{
    const char* name;
    const char* methodTag;
    const char* workTag;
    Arguments arguments;
    std::function<int(ZnISCSILinuxRedhat&, const Arguments&)> method;
    std::function<int(const Arguments&)> work;
    std::vector<Step> steps;
    bool endsInLogOn;
};

const std::string kNode = "/sbin/iscsiadm -m node -T iqn.2000-01.test:vol1 -p 192.0.2.10";

const std::vector<Operation> kOperations{
    {"discovery",
     "ZnISCSILinux::RefreshiSCSITargetPortal",
     "RefreshISCSISystemBus_RedHat5",
     {kPortal},
     [](ZnISCSILinuxRedhat& z, const Arguments& a) { return z.RefreshiSCSITargetPortal(a[0]); },
     [](const Arguments& a) { return RefreshISCSISystemBus_RedHat5(a[0]); },
     {{"/sbin/iscsiadm -m discovery -t sendtargets -p 192.0.2.10", ""}},
     false},
    {"log-on",
     "ZnISCSILinux::LogOnToiSCSITarget",
     "LogOnToISCSITarget_RedHat5",
     {kPortal, kIqn},
     [](ZnISCSILinuxRedhat& z, const Arguments& a) { return z.LogOnToiSCSITarget(a[0], a[1]); },
     [](const Arguments& a) { return LogOnToISCSITarget_RedHat5(a[0], a[1]); },
     {{kNode + " -l", ""}},
     true},
    {"CHAP log-on",
     "ZnISCSILinux::LogOnToiSCSITargetUsingCHAP",
     "LogOnToISCSITargetUsingChap_RedHat5",
     {kPortal, kIqn, "user", kSecret},
     [](ZnISCSILinuxRedhat& z, const Arguments& a)
     { return z.LogOnToiSCSITargetUsingCHAP(a[0], a[1], a[2], a[3]); },
     [](const Arguments& a) { return LogOnToISCSITargetUsingCHAP_RedHat5(a[0], a[1], a[2], a[3]); },
     {{kNode + " --op=update --name=node.session.auth.authmethod --value=CHAP", ""},
      {kNode + " --op=update --name=node.session.auth.username --value=user", ""},
      {kNode + " --op=update --name=node.session.auth.password --value=" + kSecret,
       kNode + " --op=update --name=node.session.auth.password"},
      {kNode + " -l", ""}},
     true},
    {"log-off",
     "ZnISCSILinux::LogOffFromiSCSITarget",
     "LogOffFromISCSITarget_RedHat5",
     {kPortal, kIqn},
     [](ZnISCSILinuxRedhat& z, const Arguments& a) { return z.LogOffFromiSCSITarget(a[0], a[1]); },
     [](const Arguments& a) { return LogOffFromISCSITarget_RedHat5(a[0], a[1]); },
     {{kNode + " -u", ""}},
     false},
    {"node record deletion",
     "ZnISCSILinux::DeleteiSCSIIQNFromiSCSIAdmDb",
     "DeleteiSCSIIQNFromiSCSIAdmDb_RedHat5",
     {kPortal, kIqn},
     [](ZnISCSILinuxRedhat& z, const Arguments& a)
     { return z.DeleteiSCSIIQNFromiSCSIAdmDb(a[0], a[1]); },
     [](const Arguments& a) { return DeleteiSCSIIQNFromiSCSIAdmDb_RedHat5(a[0], a[1]); },
     {{"/sbin/iscsiadm -m node -o delete -T iqn.2000-01.test:vol1 -p 192.0.2.10", ""}},
     false},
};

void PrintTo(const Operation& operation, std::ostream* stream)
{
    *stream << operation.name;
}

class EveryOperation : public testing::TestWithParam<Operation>
{
protected:
    const Operation& Op() const { return GetParam(); }

    // What the method writes around its work.
    std::string InMethod(const std::string& inside) const { return InFullContext(inside); }
    std::string InWork(const std::vector<std::string>& lines) const
    {
        return InFullContext(Lines(Op().workTag, lines));
    }

    int Call(const Arguments& arguments)
    {
        const Instance instance = MakeInstance();
        unsigned long long job = 42;
        instance->SetLogging(job);
        return Op().method(*instance, arguments);
    }

    // The check and the runs up to and with step `last`.
    std::vector<std::string> LinesUpTo(std::size_t last) const
    {
        std::vector<std::string> lines{"access /sbin/iscsiadm"};
        for (std::size_t step = 0; step <= last; ++step)
        {
            lines.push_back("0 Running [" + Op().steps[step].Shown() + "]");
            lines.push_back("run " + Op().steps[step].command);
        }
        return lines;
    }

    void SetUp() override { g_host = {}; }
};

TEST_P(EveryOperation, RefusesEachNullArgumentBeforeAnythingElse)
{
    g_host.osType = 0; // not even looked at
    for (std::size_t null = 0; null < Op().arguments.size(); ++null)
    {
        Arguments arguments = Op().arguments;
        arguments[null] = nullptr;
        EXPECT_EQ(Call(arguments), 0);
        EXPECT_EQ(std::exchange(g_host.transcript, ""),
                  InMethod(Lines(Op().methodTag, {"-1 #42 Invalid parameters."})));
        EXPECT_EQ(Op().work(arguments), 0);
        EXPECT_EQ(std::exchange(g_host.transcript, ""), InWork({"-1 Invalid parameters."}));
    }
}

TEST_P(EveryOperation, RefusesAnotherHostOnEveryCall)
{
    for (const auto& [type, version] : {std::pair{1, 4}, std::pair{0, 7}})
    {
        g_host.osType = type;
        g_host.osVersion = version;
        EXPECT_EQ(Call(Op().arguments), 0);
        EXPECT_EQ(
            std::exchange(g_host.transcript, ""),
            InMethod(Lines(Op().methodTag, {"detect", "-1 #42 Currently not supported for this OS."})));
    }
}

TEST_P(EveryOperation, NeedsTheTool)
{
    g_host.missingTools = {"/sbin/iscsiadm"};
    EXPECT_EQ(Call(Op().arguments), 0);
    EXPECT_EQ(g_host.transcript, InMethod("detect\n" + InWork({"access /sbin/iscsiadm",
                                                               "-1 /sbin/iscsiadm not found!!"})));
}

TEST_P(EveryOperation, SucceedsWhateverTheToolPrints)
{
    for (std::size_t step = 0; step < Op().steps.size(); ++step)
        g_host.runs.push_back({0, "192.0.2.10:3260,1 iqn", "iscsiadm: a warning"});
    EXPECT_EQ(Call(Op().arguments), 1);
    EXPECT_EQ(g_host.transcript, InMethod("detect\n" + InWork(LinesUpTo(Op().steps.size() - 1))));
}

// A failed step ends the operation. Only the log-on looks at the reason; the secret is in no line.
TEST_P(EveryOperation, EndsAtTheFirstFailedStep)
{
    struct Row
    {
        const char* errorOutput;
        const char* logged;
    };
    for (const Row& row :
         {Row{"iscsiadm: 100% wrong %s %n\nsecond line\n", "iscsiadm: 100% wrong %s %n\nsecond line\n"},
          Row{"", ""}, Row{"iscsiadm: already exists\n", "iscsiadm: already exists\n"},
          Row{"no s3cret%s;$(x)s3cret%s;$(x)!",
              Op().arguments.size() == 4 ? "no ****************!" : "no s3cret%s;$(x)s3cret%s;$(x)!"}})
        for (const int result : {1, 15, 139, -1})
            for (std::size_t failed = 0; failed < Op().steps.size(); ++failed)
            {
                g_host = {};
                for (std::size_t step = 0; step < failed; ++step)
                    g_host.runs.push_back({0, "", ""});
                g_host.runs.push_back({result, "printed", row.errorOutput});
                EXPECT_EQ(Call(Op().arguments), 0);
                std::vector<std::string> lines = LinesUpTo(failed);
                if (Op().endsInLogOn && failed + 1 == Op().steps.size())
                    lines.push_back(std::string("-1 Error returned by command is: ") + row.logged +
                                    ".");
                lines.push_back("-1 Failed to run " + Op().steps[failed].Shown() + ": " + row.logged);
                EXPECT_EQ(g_host.transcript, InMethod("detect\n" + InWork(lines)));
            }
}

TEST_P(EveryOperation, TakesAnExistingSessionForALogOn)
{
    struct Row
    {
        const char* errorOutput;
        bool exists;
    };
    for (const Row& row :
         {Row{"iscsiadm: initiator reported error (15 - already exists)\n", true},
          Row{"initiator reported error\n...\nalready exists", true},
          Row{"already exists, initiator reported error (15 - already exists)", true},
          Row{"already exists: initiator reported error (8)", false},
          Row{"Initiator reported error (15 - already exists)", false},
          Row{"initiator reported error (15 - Already exists)", false},
          Row{"iscsiadm: default: 1 session requested, but 1 already present.\n", false},
          Row{"iscsiadm: initiator reported error (15 - session exists)\n", false}})
    {
        g_host = {};
        g_host.runs.assign(Op().steps.size() - 1, {});
        g_host.runs.push_back({15, "", row.errorOutput});
        const bool done = Op().endsInLogOn && row.exists;
        EXPECT_EQ(Call(Op().arguments), done ? 1 : 0) << row.errorOutput;
        const std::string last = done ? ": Already logged on to this target.\n" : ": Failed to run ";
        EXPECT_NE(g_host.transcript.find(last), std::string::npos) << g_host.transcript;
        EXPECT_EQ(g_host.transcript.find("Failed to run ") == std::string::npos, done);
    }
}

TEST_P(EveryOperation, HandsEmptyArgumentsToTheTool)
{
    g_host.runs.assign(Op().steps.size(), {});
    EXPECT_EQ(Call(Arguments(Op().arguments.size(), "")), 1);
    const std::string blanks = Op().arguments.size() == 1 ? "sendtargets -p \n" : " -T  -p ";
    EXPECT_NE(g_host.transcript.find(blanks), std::string::npos) << g_host.transcript;
}

INSTANTIATE_TEST_SUITE_P(Initiator, EveryOperation, testing::ValuesIn(kOperations),
                         [](const testing::TestParamInfo<Operation>& operation)
                         {
                             std::string name = operation.param.name;
                             name.erase(std::remove_if(
                                            name.begin(), name.end(),
                                            [](char c) {
                                                return std::isalnum(static_cast<unsigned char>(c)) == 0;
                                            }),
                                        name.end());
                             return name;
                         });

} // namespace
