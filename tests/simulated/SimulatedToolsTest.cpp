// The simulated tools, run as programs: against what the real ones printed, and against their scene.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tuple>
#include <vector>

namespace
{
namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

const fs::path kData = SIMULATED_TEST_DATA;
const std::string kNode = "iscsiadm -m node -T iqn.2025-01.org.example:";

std::string ReadText(const fs::path& file)
{
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

struct ToolRun
{
    int status;
    std::string out;
    std::string err;
};

// A state folder of its own, gone with the test, and the scene that the tools of this test find there.
class SimulatedTools : public testing::Test
{
protected:
    SimulatedTools()
    {
        std::string folder = fs::temp_directory_path() / "simulated-test.XXXXXX";
        m_folder = mkdtemp(folder.data());
        setenv("SIMULATED_STATE", (m_folder / "state").c_str(), 1);
        setenv("SIMULATED_SCENE", (kData / "recorded.json").c_str(), 1);
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }
    ~SimulatedTools() override { fs::remove_all(m_folder); }

    void UseScene(const std::string& text)
    {
        std::ofstream(m_folder / "scene.json") << text;
        setenv("SIMULATED_SCENE", (m_folder / "scene.json").c_str(), 1);
    }

    // `keys` are added to a scene with one portal and the targets :one (a disk at LUN 1) and :chap.
    void UseSmallScene(const std::string& keys)
    {
        UseScene(
            R"({"portals": [{"portal": "192.0.2.10"}, {"portal": "192.0.2.12", "answer": "refusing"}],
            "targets": [{"iqn": "iqn.2025-01.org.example:one", "portals": ["192.0.2.10"],
                         "luns": [{"lun": 1, "kernelNames": ["sdk"], "partitions": 1 }]},
                        {"iqn": "iqn.2025-01.org.example:chap", "portals": ["192.0.2.10"],
                         "chap": {"user": "u", "secret": "s3cret"}}])" +
            keys + "}");
        RunTool("iscsiadm -m discovery -t st -p 192.0.2.10");
    }

    ToolRun RunTool(const std::string& command) const
    {
        const std::string out = m_folder / "out";
        const std::string err = m_folder / "err";
        const std::string line =
            "PATH=" SIMULATED_TOOLS ":$PATH; " + command + " >" + out + " 2>" + err + " </dev/null";
        const int status =
            std::system(line.c_str()); // NOLINT(cert-env33-c): the recordings are shell lines
        return {WEXITSTATUS(status), ReadText(out), ReadText(err)};
    }

    // The children of the tools that have ended; as a subreaper this process inherits them.
    static void WaitForThoseLeftBehind()
    {
        while (wait(nullptr) > 0)
            continue;
    }

    fs::path State() const { return m_folder / "state"; }

    fs::path m_folder;
};

// A recording: "# command: ...", "# exit status: ...", then the two streams.
void ExpectAsRecorded(const std::string& recording, const ToolRun& run)
{
    SCOPED_TRACE(recording);
    const std::string out = "--- stdout\n";
    const std::string err = "--- stderr\n";
    const std::size_t outAt = recording.find(out) + out.size();
    const std::size_t errAt = recording.find(err);
    const std::string status = "# exit status: ";
    EXPECT_EQ(run.status, std::stoi(recording.substr(recording.find(status) + status.size())));
    EXPECT_EQ(run.out, recording.substr(outAt, errAt - outAt));
    EXPECT_EQ(run.err, recording.substr(errAt + err.size()));
}

// The whole recorded day in its order, so that session identifiers and disk names have to come out too.
// What was done off the record in between is done here as well.
TEST_F(SimulatedTools, SpeakAsTheRealOnesDid)
{
    std::vector<fs::path> recordings;
    for (const auto& entry : fs::directory_iterator(kData / "recorded"))
        recordings.push_back(entry.path());
    std::sort(recordings.begin(), recordings.end());
    ASSERT_FALSE(recordings.empty());

    const std::string update = " -o update -n node.session.auth.";
    const std::map<std::string, std::vector<std::string>> before{
        {"041",
         {kNode + "absent -o delete", kNode + "plain -p 192.0.2.99 -o delete",
          kNode + "chap -p 192.0.2.10 -u", kNode + "absent -p 192.0.2.10 -o new", kNode + "absent -l",
          kNode + "absent -o delete", kNode + "chap" + update + "username_in -v targetuser",
          kNode + "chap -p 192.0.2.10 -l"}},
        {"104", {kNode + "plain -u"}},
        {"112", {kNode + "multi -u"}},
        {"123",
         {kNode + "multi -p 192.0.2.10 -l", kNode + "multi -p 192.0.2.11 -l", kNode + "multi -u",
          kNode + "chap -p 192.0.2.11 -l", kNode + "plain -p 192.0.2.10 -l",
          kNode + "plain -p 192.0.2.11 -l", kNode + "plain -u"}}};
    for (const fs::path& file : recordings)
    {
        const auto unrecorded = before.find(file.filename().string().substr(0, 3));
        if (unrecorded != before.end())
        {
            for (const std::string& command : unrecorded->second)
                RunTool(command);
        }
        const std::string recording = ReadText(file);
        const std::string mark = "# command: ";
        ExpectAsRecorded(recording,
                         RunTool(recording.substr(mark.size(), recording.find('\n') - mark.size())));
    }
}

TEST_F(SimulatedTools, OldVersionsHaveAShortReport)
{
    UseSmallScene(R"(, "toolVersion": "2.0-865", "detailedReport": false)");
    RunTool(kNode + "one -l");
    EXPECT_EQ(RunTool("iscsiadm -m session -P3").status, 7);
    EXPECT_EQ(RunTool("iscsiadm -m session -i").out, "Session (sid 1) using module tcp\n"
                                                     "TargetName: iqn.2025-01.org.example:one\n"
                                                     "Portal Group Tag: 1\n"
                                                     "Network Portal: 192.0.2.10:3260\n"
                                                     "\tAttached scsi disk sdk\t\tState: running\n");
    EXPECT_THAT(RunTool(kNode + "one -l").err,
                HasSubstr("initiator reported error (15 - already exists)"));
}

TEST_F(SimulatedTools, WordsAndStatusesThatAreNotRecorded)
{
    UseSmallScene(R"(, "sessionExists": "session exists")");
    RunTool(kNode + "one -l");
    RunTool(kNode + "one -p 192.0.2.12 -o new");
    const std::vector<std::tuple<std::string, int, std::string>> rows{
        {kNode + "one -p 192.0.2.10 -l", 15, "initiator reported error (15 - session exists)"},
        {kNode + "one -p 192.0.2.12 -l", 4, "(4 - encountered connection failure)"},
        {"iscsiadm -m discovery -t st -p 192.0.2.12", 11, "192.0.2.12: Connection refused"},
        {"iscsiadm -m session -Z", 7, "option '-?' is not allowed/supported"},
        {"iscsiadm -m node -L all", 7, "the simulated node mode does without -L"},
        {"iscsiadm", 7, "Try `iscsiadm --help'"},
        {"ehcmcli", 1, "Usage"}};
    for (const auto& [command, status, words] : rows)
    {
        const ToolRun run = RunTool(command);
        EXPECT_EQ(run.status, status) << command;
        EXPECT_THAT(run.err, HasSubstr(words)) << command;
    }
}

TEST_F(SimulatedTools, DevicesFollowTheSessions)
{
    setenv("SIMULATED_SCENE", (kData / "../../simulated/scenes/demo.json").c_str(), 1);
    for (const char* portal : {"192.0.2.10", "192.0.2.11"})
    {
        RunTool(std::string("iscsiadm -m discovery -t st -p ") + portal);
        RunTool(kNode + "multi -p " + portal + " -l");
    }
    const fs::path block = State() / "sys/block";
    EXPECT_EQ(fs::canonical(block / "sda/device"),
              fs::canonical(State() / "sys/devices/platform/host0/session1/target0:0:0/0:0:0:1"));
    EXPECT_EQ(fs::canonical(block / "dm-0/slaves/sdb"), fs::canonical(block / "sdb"));
    EXPECT_EQ(fs::canonical(block / "sdb/holders/dm-0"), fs::canonical(block / "dm-0"));
    EXPECT_EQ(ReadText(block / "dm-1/dm/uuid"), "part1-mpath-360000000000000000e00000000030001\n");
    EXPECT_TRUE(fs::exists(block / "dm-2/slaves/dm-1"));
    EXPECT_EQ(fs::read_symlink(State() / "dev/mapper/vg-data"), "../dm-2");
    EXPECT_EQ(
        fs::read_symlink(
            State() / "dev/disk/by-path/ip-192.0.2.11:3260-iscsi-iqn.2025-01.org.example:multi-lun-1"),
        "../../sdb");
    const fs::path connection = State() / "sys/class/iscsi_connection/connection2:0";
    EXPECT_EQ(ReadText(connection / "persistent_address"), "192.0.2.11\n");
    EXPECT_EQ(ReadText(connection / "device/../iscsi_session/session2/targetname"),
              "iqn.2025-01.org.example:multi\n");

    RunTool(kNode + "multi -p 192.0.2.10 -u");
    EXPECT_FALSE(fs::exists(fs::symlink_status(block / "sda")));
    EXPECT_TRUE(fs::exists(block / "dm-0/slaves/sdb"));
    RunTool(kNode + "multi -u");
    EXPECT_EQ(std::distance(fs::directory_iterator(block), {}), 1) << "but for the machine's own disk";
    EXPECT_TRUE(fs::is_empty(State() / "dev/mapper"));
}

TEST_F(SimulatedTools, WhatIsLateShowsUpLate)
{
    UseScene(
        R"({"portals": [{"portal": "192.0.2.10"}], "targets": [{"iqn": "iqn.2025-01.org.example:late",
        "portals": ["192.0.2.10"], "luns": [{"lun": 1, "atLook": 2, "kernelNames": ["sdk"]}, {"lun": 2, "afterMs": 200, "kernelNames": ["sdl"]}]}],
        "ehcmcliInstalled": true, "ehcmcliVolumes": [{"name": "v",
        "target": "iqn.2025-01.org.example:late", "device": "/dev/mapper/v", "atLook": 3}]})");
    RunTool("iscsiadm -m discovery -t st -p 192.0.2.10");
    RunTool(kNode + "late -l");
    EXPECT_THAT(RunTool("iscsiadm -m session -P3").out, Not(HasSubstr("sdk")));
    EXPECT_THAT(RunTool("iscsiadm -m session -P3").out,
                HasSubstr("Lun: 1\n\t\t\tAttached scsi disk sdk"));
    EXPECT_EQ(RunTool("ehcmcli status").out + RunTool("ehcmcli status").out,
              "Connected volumes\nConnected volumes\n");
    EXPECT_EQ(RunTool("ehcmcli status").out,
              "Connected volumes\nVolume: v\nTarget name: iqn.2025-01.org.example:late\n"
              "Status: connected\nDevice to mount: /dev/mapper/v\n");
    WaitForThoseLeftBehind(); // no tool runs meanwhile
    EXPECT_TRUE(fs::exists(State() / "sys/block/sdl"));

    RunTool(kNode + "late -u");
    RunTool(kNode + "late -l");
    fs::rename(State(), m_folder / "gone");
    WaitForThoseLeftBehind();
    EXPECT_FALSE(fs::exists(State())) << "a folder that was gone is back";
}

TEST_F(SimulatedTools, Faults)
{
    UseSmallScene(R"(, "faults": [
        {"command": "session -P3", "times": 1, "half": true, "status": 5, "stderrOutput": "broken\n"},
        {"command": "--name=node.session.auth.password", "status": 6, "stderrOutput": "no {secret}\n"},
        {"command": "ehcmcli", "output": "Volume: v\r\n"},
        {"command": "node -l", "leaveBehindMs": 2000}])");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(RunTool("out=$(" + kNode + "one -l); :").status, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));

    const ToolRun broken = RunTool("iscsiadm -m session -P3");
    const ToolRun whole = RunTool("iscsiadm -m session -P3");
    EXPECT_EQ(broken.status, 5);
    EXPECT_EQ(broken.err, "broken\n");
    EXPECT_EQ(broken.out, whole.out.substr(0, whole.out.size() / 2));
    EXPECT_EQ(whole.status, 0);

    const ToolRun refused =
        RunTool(kNode + "chap --op=update --name=node.session.auth.password --value=s3cret");
    EXPECT_EQ(refused.err, "no s3cret\n");
    EXPECT_THAT(ReadText(State() / "state.json"), Not(HasSubstr("s3cret")));
    EXPECT_EQ(RunTool("ehcmcli status").out, "Volume: v\r\n");
}

TEST_F(SimulatedTools, ABrokenSceneIsNamedAndChangesNothing)
{
    const std::vector<std::pair<std::string, std::string>> rows{
        {"{\n  \"portals\": [}", "line 2, column 15"},
        {R"({"portal": []})", "scene.json: portal: nothing of this name is known here"},
        {R"({"portals": [{"portal": "array-a"}]})", "\"array-a\" is not an address"},
        {R"({"portals": [{"portal": "192.0.2.1", "answer": "no"}]})", "\"no\" is none of: answering"},
        {R"({"targets": [{"portals": []}]})", "targets[0].iqn: is missing"},
        {R"({"targets": [{"iqn": "a", "portals": ["192.0.2.1"]}]})",
         "a: the scene has no portal 192.0.2.1"},
        {R"({"targets": [{"iqn": "a", "luns": [{"lun": -1}]}]})",
         "targets[0].luns[0].lun: a whole number"},
        {R"({"targets": [{"iqn": "a"}, {"iqn": "a"}]})", "a is there twice"},
        {R"({"maps": [{"name": "m", "wwid": "3", "targets": ["b"]}]})",
         "map m: the scene has no target b"},
        {R"({"faults": {}})", "faults: this should be of the type array"}};
    for (const auto& [scene, words] : rows)
    {
        UseScene(scene);
        const ToolRun run = RunTool("iscsiadm -m session");
        EXPECT_EQ(run.status, 2) << scene;
        EXPECT_THAT(run.err, AllOf(HasSubstr("cannot use the scene"), HasSubstr(words)));
    }
    EXPECT_FALSE(fs::exists(State()));
}

TEST_F(SimulatedTools, ManyAtOnceLoseNothing)
{
    UseSmallScene("");
    const std::string loop = "for i in 1 2 3 4 5; do iscsiadm -m node -T iqn.x:";
    RunTool("{ (" + loop + "a$i -p 192.0.2.10 -o new; done) & (" + loop +
            "b$i -p 192.0.2.10 -o new; done) & wait; }");
    const std::string list = RunTool("iscsiadm -m node").out;
    EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), 12) << list;

    struct stat file = {};
    ASSERT_EQ(stat((State() / "state.json").c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777U, 0600U); // it holds CHAP secrets
    std::ofstream(State() / "state.json") << "{";
    EXPECT_EQ(RunTool("iscsiadm -m node").status, 2);
}

} // namespace
