// The log: one line an entry whatever the text, levels, the size limit, many processes on one file.

#include "standalone/znlib/Log.h"
#include "host/EvDebug.h"
#include "host/HxSleep.h"
#include "host/ZnProcess.h"
#include "standalone/znlib/Text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;

class Log : public testing::Test
{
protected:
    void SetUp() override
    {
        std::string name = (fs::temp_directory_path() / "zniscsi-log-XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        m_folder = name;
        m_file = m_folder / "log";
        setenv("ZN_LOG_FILE", m_ownFile.c_str(), 1);
        setenv("ZN_LOG_MAX_SIZE", "0", 1);
    }
    void TearDown() override
    {
        fs::remove_all(m_folder);
        fs::remove(m_ownFile);
    }

    // Runs the writer with `environment` ("A=b C=d"), behind the shell's `before`, and answers what it
    // printed.
    std::string Write(const std::string& environment, int level, int count, const std::string& text,
                      const std::string& before = "") const
    {
        std::string quoted;
        for (const char c : text)
            quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        const std::string command = before + "env ZN_REGISTRY='" + (m_folder / "registry").string() +
                                    "' ZN_LOG_FILE='" + m_file.string() + "' " + environment +
                                    " " LOG_WRITER " " + std::to_string(level) + ' ' +
                                    std::to_string(count) + " '" + quoted + '\'';
        const std::unique_ptr<FILE, int (*)(FILE*)> pipe(
            popen(command.c_str(), "r"), // NOLINT(cert-env33-c)
            &pclose);
        std::string printed;
        for (int c = 0; pipe && (c = std::fgetc(pipe.get())) != EOF;)
            printed += static_cast<char>(c);
        return printed;
    }

    std::vector<std::string> Lines(const fs::path& file) const
    {
        std::vector<std::string> lines;
        std::ifstream stream(file);
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line);
        return lines;
    }
    std::vector<std::string> Lines() const { return Lines(m_file); }

    fs::path m_folder;
    fs::path m_file;
    // What this process itself writes to, in every test: it reads the settings once.
    fs::path m_ownFile = fs::temp_directory_path() / ("zniscsi-log-own-" + std::to_string(::getpid()));
};

TEST(Text, IsPrintableWhateverItHolds)
{
    const std::pair<const char*, const char*> rows[] = {
        {"plain 100% %s %n", "plain 100% %s %n"},
        {"two\nlines\r\n", R"(two\nlines\r\n)"},
        {"\x1b[31mred\x1b[0m\a\tx\x7f", R"(\x1b[31mred\x1b[0m\x07\tx\x7f)"},
        {"C:\\n", "C:\\\\n"},
        {"C1 \xc2\x9b, \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80",
         "C1 \\xc2\\x9b, \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"},
        {"no first byte \x9b \xc0\x80 \xff", R"(no first byte \x9b \xc0\x80 \xff)"},
        {"cut \xe2\x82", R"(cut \xe2\x82)"},
        {"overlong \xe0\x80\xaf \xf0\x80\x80\xaf", R"(overlong \xe0\x80\xaf \xf0\x80\x80\xaf)"},
        {"surrogate \xed\xa0\x80", R"(surrogate \xed\xa0\x80)"},
        {"too high \xf4\x90\x80\x80 \xf8\x88\x80\x80\x80",
         R"(too high \xf4\x90\x80\x80 \xf8\x88\x80\x80\x80)"},
        {"reordered \xe2\x80\xae \xe2\x81\xa6", R"(reordered \xe2\x80\xae \xe2\x81\xa6)"},
        {"separated \xe2\x80\xa8 \xe2\x80\xa9", R"(separated \xe2\x80\xa8 \xe2\x80\xa9)"},
        {"unseen \xe2\x80\x8b \xef\xbb\xbf \xc2\xad", R"(unseen \xe2\x80\x8b \xef\xbb\xbf \xc2\xad)"},
        {"", ""}};
    for (const auto& [text, printable] : rows)
        EXPECT_EQ(znhost::Printable(text), printable);
}

TEST_F(Log, WritesOneLineAnEntry)
{
    Write("TZ=XXX-05:30", 0, 1, "forged\n2026-01-01 00:00:00.000 +0000 [1:1] 0 Writer: x");
    std::array<char, 32> today{};
    const std::time_t shifted = std::time(nullptr) + 5 * 3600 + 30 * 60;
    std::strftime(today.data(), today.size(), "%Y-%m-%d ", std::gmtime(&shifted));
    ASSERT_EQ(Lines().size(), 1U);
    EXPECT_TRUE(std::regex_match(
        Lines()[0],
        std::regex(
            today.data() +
            std::string(R"(\d\d:\d\d:\d\d\.\d{3} \+0530 \[\d+:\d+\] 0 job=18446744073709551615 )"
                        R"(Writer: forged\\n2026-01-01 00:00:00.000 \+0000 \[1:1\] 0 Writer: x)"))))
        << Lines()[0];
}

TEST_F(Log, SettingsComeFromTheRegistryAndTheEnvironment)
{
    struct Row
    {
        const char* name;
        const char* registry;
        const char* environment;
        std::vector<bool> shown; // levels -1, 0, 1, 2
        const char* trouble;     // a part of it
    };
    for (const Row& row :
         {Row{"usual", "", "", {true, true, false, false}, ""},
          Row{"registry", "[Log]\nLevel = 2\n", "", {true, true, true, true}, ""},
          Row{"environment wins",
              "[Log]\nLevel = 2\n",
              "ZN_LOG_LEVEL=-1",
              {true, false, false, false},
              ""},
          Row{"no number",
              "",
              "ZN_LOG_LEVEL=loud",
              {true, true, false, false},
              "level cannot be \"loud\""},
          Row{"out of range", "[Log]\nLevel = 3\n", "", {true, true, false, false}, "from -1 to 2"},
          Row{"broken registry", "[Log\n", "", {true, true, false, false}, "registry"}})
    {
        std::ofstream(m_folder / "registry") << row.registry;
        for (int level = -1; level <= 2; ++level)
        {
            fs::remove(m_file);
            EXPECT_THAT(Write(row.environment, level, 1, "x"), testing::HasSubstr(row.trouble))
                << row.name;
            EXPECT_EQ(Lines().size(), row.shown[static_cast<std::size_t>(level + 1)] ? 1U : 0U)
                << row.name << ", level " << level;
        }
    }
}

TEST_F(Log, IsSetAsideBeforeItGrowsPastItsLimit)
{
    const std::string text(1000, 'x');
    Write("ZN_LOG_MAX_SIZE=10000", 0, 15, text);
    EXPECT_LE(fs::file_size(m_file), 10000U);
    EXPECT_LE(fs::file_size(m_file.string() + ".1"), 10000U);
    EXPECT_EQ(Lines().size() + Lines(m_file.string() + ".1").size(), 15U);
    EXPECT_EQ(fs::status(m_file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(Log, ManyProcessesWriteOneFile)
{
    constexpr std::size_t kWriters = 4;
    constexpr std::size_t kLines = 200;
    const std::string text(300, 'y');
    std::vector<std::thread> writers;
    for (std::size_t i = 0; i < kWriters; ++i)
        writers.emplace_back([&] { Write("ZN_LOG_MAX_SIZE=180000", 0, kLines, text); });
    for (std::thread& writer : writers)
        writer.join();
    std::vector<std::string> lines = Lines();
    const std::vector<std::string> older = Lines(m_file.string() + ".1");
    EXPECT_FALSE(older.empty());
    lines.insert(lines.end(), older.begin(), older.end());
    EXPECT_EQ(lines.size(), kWriters * kLines);
    for (const std::string& line : lines)
        EXPECT_TRUE(line.size() > 300 && line.compare(line.size() - 308, 308, "Writer: " + text) == 0)
            << line;
}

TEST_F(Log, GoesOnGrowingWhileAnotherProcessHoldsTheLock)
{
    Write("", 0, 1, "x");
    const int holder = open(m_file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    Write("ZN_LOG_MAX_SIZE=1", 0, 2, "y");
    close(holder);
    EXPECT_EQ(Lines().size(), 3U);
}

TEST_F(Log, FollowsLinksOfRootAndItsOwnUserAlone)
{
    const fs::path link = m_folder / "link";
    fs::create_symlink("log", link);
    const std::string environment = "ZN_LOG_FILE='" + link.string() + "' ZN_LOG_MAX_SIZE=1";
    EXPECT_EQ(Write(environment, 0, 2, "x"), "\n");
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(Lines().size(), 1U);
    EXPECT_EQ(Lines(m_file.string() + ".1").size(), 1U);

    if (lchown(link.c_str(), 65534, 65534) != 0)
        GTEST_SKIP() << "only root can make a link of another user";
    EXPECT_THAT(Write(environment, 0, 1, "y"), testing::HasSubstr("is another user's"));
    EXPECT_EQ(Lines().size(), 1U);
}

TEST_F(Log, SaysWhatKeepsLinesFromIt)
{
    const std::pair<const char*, const char*> rows[] = {
        {"ZN_LOG_FILE=/dev/full", "/dev/full: No space left on device\n"},
        {"ZN_LOG_FILE=/no/such/log", "/no/such/log: No such file or directory\n"},
        {"ZN_LOG_FILE=unread", "unread: No such device or address\n"}, // a FIFO
        {"ZN_LOG_FILE=-", "-: Broken pipe\n"}};
    // Standard error is a pipe that nobody reads.
    const std::string before =
        "cd '" + m_folder.string() +
        "' && mkfifo -m 600 p && exec 3<>p 2>p 3<&- && rm p && mkfifo unread && ";
    for (const auto& [environment, reason] : rows)
    {
        EXPECT_EQ(Write(environment, 0, 1, "x", before), std::string("cannot write the log ") + reason);
        fs::remove(m_folder / "unread");
    }
    EXPECT_EQ(Write("ZN_LOG_FILE=/no/such/log", 1, 1, "x"), "\n") << "a dropped line touches nothing";
}

TEST_F(Log, IsWholeBeforeAnybodyWaits)
{
    const std::pair<const char*, std::function<void(EvEvent&)>> rows[] = {
        {"an error", [](EvEvent& log) { log.DebugLvl("T", -1, "error"); }},
        {"a tool",
         [](EvEvent&) {
             std::string output, errorOutput;
             ZnProcess::system("/bin/true", &output, &errorOutput, 0, false);
         }},
        {"a pause", [](EvEvent&) { HXSLEEP_InTeRnAl(0, "test", 0); }},
        {"many lines",
         [](EvEvent& log) {
             for (int i = 0; i < 1000; ++i)
                 log.DebugLvl("T", 0, "%100d", i);
         }},
        {"the end of the call", nullptr}};
    for (const auto& [name, wait] : rows)
    {
        {
            const EvEvent outer;
            EvEvent log;
            log.DebugLvl("T", 0, "before %s", name);
            EXPECT_EQ(Lines(m_ownFile).size(), 0U) << "nothing is kept";
            if (wait)
                wait(log);
            EXPECT_EQ(Lines(m_ownFile).empty(), !wait) << name;
        }
        EXPECT_THAT(Lines(m_ownFile).at(0), testing::EndsWith(std::string("before ") + name));
        fs::remove(m_ownFile);
    }
}

TEST_F(Log, AnyForkedChildMayWrite)
{
    EvEvent log;
    log.DebugLvl("T", 0, "written once, by the parent");
    std::atomic<bool> isOver{false};
    std::vector<std::thread> writers;
    for (int i = 0; i < 3; ++i)
        writers.emplace_back([&] {
            while (!isOver)
                EvEvent().DebugLvl("T", 0, "parent");
        });
    for (int child = 0; child < 100; ++child)
    {
        const pid_t pid = fork();
        if (pid == 0)
        {
            alarm(60); // ends a child that waits for a lock
            log.DebugLvl("T", 0, "child %d", child);
            znhost::FlushLog();
            _exit(0);
        }
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0) << child;
    }
    isOver = true;
    for (std::thread& writer : writers)
        writer.join();
    znhost::FlushLog();
    const std::vector<std::string> lines = Lines(m_ownFile);
    EXPECT_THAT(lines, testing::Contains(testing::HasSubstr("written once")).Times(1));
    EXPECT_EQ(
        std::count_if(lines.begin(), lines.end(),
                      [](const std::string& line) { return line.find("child ") != std::string::npos; }),
        100);
}

TEST_F(Log, DoesNotGoOnInALineThatWasCutShort)
{
    ASSERT_NE(std::signal(SIGXFSZ, SIG_IGN), SIG_ERR);
    rlimit usual{};
    getrlimit(RLIMIT_FSIZE, &usual);
    const rlimit tight{100, usual.rlim_max};
    setrlimit(RLIMIT_FSIZE, &tight);
    EvEvent().DebugLvl("T", 0, "%s", std::string(200, 'x').c_str());
    EvEvent().DebugLvl("T", 0, "lost");
    setrlimit(RLIMIT_FSIZE, &usual);
    EvEvent().DebugLvl("T", 0, "whole");
    const std::vector<std::string> lines = Lines(m_ownFile);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].size(), 100U);
    EXPECT_THAT(lines[1], testing::EndsWith("T: whole"));
    EXPECT_THAT(znhost::LogTrouble(), testing::HasSubstr("File too large"));
}

auto UpTo(int highest)
{
    return [highest](int level, const char*, const char*) { return level <= highest; };
}

TEST_F(Log, TapsHearTheirThreadAlone)
{
    EvEvent log;
    std::vector<std::string> outer;
    std::vector<std::string> inner;
    const znhost::LogTap outerTap(UpTo(-1),
                                  [&](const znhost::LogEntry& entry) { outer.push_back(entry.text); });
    {
        const znhost::LogTap innerTap(
            UpTo(2), [&](const znhost::LogEntry& entry) { inner.push_back(entry.text); });
        log.DebugLvl("T", 2, "%s", "raw\ntext");
        log.Debug("T", "no level");
        std::thread([] { EvEvent().DebugLvl("T", -1, "another thread"); }).join();
    }
    log.DebugLvl("T", 0, "dropped");
    log.DebugLvl("T", -1, 5LL, "error %d", 7);
    EXPECT_THAT(inner, testing::ElementsAre("raw\ntext", "no level"));
    EXPECT_THAT(outer, testing::ElementsAre("error 7"));
}

} // namespace
