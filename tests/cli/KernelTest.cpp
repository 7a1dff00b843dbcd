// Reads recorded machines (machines.txt): sessions, disks, their users, and what ends with a session.
#include "cli/kernel/Losses.h"
#include "standalone/helpers/Text.h"
#include "tests/cli/RecordedMachine.h"

#include <gmock/gmock-matchers.h>

#include <optional>
#include <sstream>

#include <sys/resource.h>

using namespace cli;
using testing::ElementsAreArray;

namespace
{

std::string OrDash(const std::string& text)
{
    return text.empty() ? "-" : text;
}

template <class Parts>
std::string Join(const Parts& parts, const char* separator)
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
                                  OrDash(PortalOf(session)) + ' ' + OrDash(iqn) + ' ';
        for (const Disk& disk : session.disks)
            rows.push_back(begin + std::to_string(disk.lun) + ' ' + disk.device + ' ' +
                           std::to_string(disk.bytes.value_or(0)) + ' ' + disk.state + ' ' +
                           OrDash(disk.map) + ' ' + znlib::Printable(Join(disk.users, ",")));
        if (session.disks.empty())
            rows.push_back(begin + "- - - - - -");
    }
    return rows;
}

// "ending 8 9 => /dev/sdd: /mnt ? /dev/sda ! /dev/sdb"
void ExpectLosses(const Machine& machine, const std::string& line)
{
    std::istringstream words(line.substr(line.find(' ')));
    std::vector<Session> ending;
    for (int sid = 0; words >> sid;)
        for (const Session& session : machine.sessions)
            if (session.sid == sid)
                ending.push_back(session);
    const Unclaimed unclaimed = FindUnclaimed(machine, ending);
    std::string found = znlib::Printable(Join(FindLosses(machine, ending), ";"));
    if (!unclaimed.devices.empty())
        found += " ? " + Join(unclaimed.devices, " ");
    for (const Path& path : unclaimed.notWorking)
        found += " ! " + path.disk.device;
    EXPECT_EQ(found, line.substr(line.find("=> ") + 3));
}

struct Expected
{
    std::vector<std::string> rows{};
    std::vector<std::string> losses{};
};

void ExpectMachine(const Case& tested)
{
    const RecordedMachine tree;
    Expected expected;
    for (const std::string& line : tested.preparation)
    {
        if (line.rfind("=> ", 0) == 0)
            expected.rows.push_back(line.substr(3));
        else if (line.rfind("ending ", 0) == 0)
            expected.losses.push_back(line);
        else
            RecordedMachine::Change(tree.Root(), line);
    }
    const Machine machine = ReadUsers(tree.Root());
    EXPECT_THAT(Describe(machine), ElementsAreArray(expected.rows));
    for (const std::string& loss : expected.losses)
        ExpectLosses(machine, loss);
}

[[maybe_unused]] const bool kRegistered = [] {
    RegisterCases("Kernel", HERE "/machines.txt", ExpectMachine);
    return true;
}();

std::string WhyUnreadable(const RecordedMachine& tree)
{
    try
    {
        ReadUsers(tree.Root());
    }
    catch (const std::runtime_error& error)
    {
        return error.what();
    }
    return "";
}

TEST(Kernel, TellsWhatCannotBeRead)
{
    const RecordedMachine tree;
    const std::string cannotRead = "cannot read " + tree.Root().string();
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit none{0, usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const std::string said = WhyUnreadable(tree);
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_EQ(said, cannotRead + "/sys/class/iscsi_session: Too many open files");
    RecordedMachine::Change(tree.Root(), "gone proc");
    EXPECT_EQ(WhyUnreadable(tree), cannotRead + "/proc/self/mountinfo: it is not there");
}

// 64 MiB of all tables together are read, and 4 MiB of each: their owners choose how long they are.
TEST(Kernel, ReadsOnlySoMuchOfOtherNamespaces)
{
    const RecordedMachine tree;
    std::ofstream(tree.Root() / "table") << std::string(5 << 20, ' ');
    for (int process = 10; process < 26; ++process)
    {
        const std::string directory = "proc/" + std::to_string(process) + '/';
        RecordedMachine::Change(tree.Root(),
                                directory + "ns/mnt -> mnt:[" + std::to_string(process) + ']');
        RecordedMachine::Change(tree.Root(), directory + "mountinfo -> ../../table");
    }
    RecordedMachine::Change(tree.Root(), "proc/9/ns/mnt -> mnt:[9]");
    RecordedMachine::Change(tree.Root(), "proc/9/mountinfo: 30 1 8:0 / /mnt rw - ext4 /dev/sda rw");
    const Machine machine = ReadUsers(tree.Root());
    EXPECT_FALSE(machine.sawAllNamespaces);
    EXPECT_TRUE(machine.sessions.at(0).disks.at(0).users.empty());
}

TEST(Sessions, AreSelectedByTargetAndPortal)
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

TEST(Sessions, ListWorkingPathsFirst)
{
    const std::vector<Session> sessions{
        {1, "LOGGED_IN", std::nullopt, "", {{"/dev/sda", 1, std::nullopt, "offline"}}},
        {2, "FAILED", std::nullopt, "", {{"/dev/sdb", 1, std::nullopt, "running"}}},
        {3, "LOGGED_IN", std::nullopt, "", {{"/dev/sdc", 1, std::nullopt, "running"}}}};
    std::string states;
    for (const auto& [disk, session] : FindPaths(sessions, {"/dev/sdc", "/dev/sdb", "/dev/sda"}))
        states += disk.device + ' ' + DescribeState(session, &disk) + '\n';
    EXPECT_EQ(states, "/dev/sdc LOGGED_IN\n/dev/sda LOGGED_IN/offline\n/dev/sdb FAILED\n");
}

} // namespace
