// The log: one line per entry, settings, rotation, many processes with one file.

#include "standalone/znlib/Log.h"

#include "host/EvDebug.h"
#include "host/HxSleep.h"
#include "host/ZnProcess.h"
#include "standalone/znlib/Text.h"

#include <gmock/gmock-matchers.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
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
        m_older = m_folder / "log.1";
        setenv("ZN_LOG_FILE", m_ownFile.c_str(), 1);
        setenv("ZN_LOG_MAX_SIZE", "0", 1);
    }
    void TearDown() override
    {
        fs::remove_all(m_folder);
        fs::remove(m_ownFile);
    }

    // Runs the writer with `environment` ("A=b C=d") after the shell commands `before`. Returns its
    // output.
    std::string Write(const std::string& environment, int level, int count, const std::string& text,
                      const std::string& how = "", const std::string& before = "") const
    {
        std::string quoted;
        for (const char c : text)
            quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        const std::string command = before + "env ZN_REGISTRY='" + (m_folder / "registry").string() +
                                    "' ZN_LOG_FILE='" + m_file.string() + "' " + environment +
                                    " " LOG_WRITER " " + std::to_string(level) + ' ' +
                                    std::to_string(count) + " '" + quoted + "' " + how;
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
    fs::path m_older; // what it is renamed to
    // The file that this process itself writes to, in every test: it reads the settings once.
    fs::path m_ownFile = fs::temp_directory_path() / ("zniscsi-log-own-" + std::to_string(::getpid()));
};

TEST(Text, IsEscaped)
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
        {"too high \xf4\x90\x80\x80 \xf9\x80\x80\x80\x80",
         R"(too high \xf4\x90\x80\x80 \xf9\x80\x80\x80\x80)"},
        {"not continued \xe2(\xa1", R"(not continued \xe2(\xa1)"},
        {"reordered \xe2\x80\xae \xe2\x81\xa6", R"(reordered \xe2\x80\xae \xe2\x81\xa6)"},
        {"separated \xe2\x80\xa8 \xe2\x80\xa9", R"(separated \xe2\x80\xa8 \xe2\x80\xa9)"},
        {"unseen \xe2\x80\x8b \xef\xbb\xbf \xc2\xad", R"(unseen \xe2\x80\x8b \xef\xbb\xbf \xc2\xad)"},
        {"", ""}};
    for (const auto& [text, printable] : rows)
        EXPECT_EQ(znhost::Printable(text), printable);
}

TEST_F(Log, WritesOneLinePerEntry)
{
    const std::pair<const char*, std::array<const char*, 2>> rows[] = {
        {"CLOCK=1767205799 TZ=XXX-05:30",
         {"2025-12-31 23:59:59.007 \\+0530", "2026-01-01 00:00:00.007 \\+0530"}},
        {"CLOCK=1709182799 TZ=YYY03:30",
         {"2024-02-29 01:29:59.007 -0330", "2024-02-29 01:30:00.007 -0330"}}};
    for (const auto& [environment, times] : rows)
    {
        fs::remove(m_file);
        Write(environment, 0, 2, "forged\n2026-01-01 00:00:00.000 +0000 [1:1] 0 Writer: x");
        ASSERT_EQ(Lines().size(), 2U);
        for (std::size_t i = 0; i < times.size(); ++i)
            EXPECT_TRUE(std::regex_match(
                Lines()[i], std::regex(std::string(times.at(i)) +
                                       R"( \[\d+:\d+\] 0 job=18446744073709551615 Writer: forged\\n)"
                                       R"(2026-01-01 00:00:00.000 \+0000 \[1:1\] 0 Writer: x)")))
                << Lines()[i];
    }
}

TEST_F(Log, SettingsComeFromTheRegistryAndTheEnvironment)
{
    struct Row
    {
        const char* name;
        const char* registry;
        const char* environment;
        std::vector<bool> shown; // levels -1, 0, 1, 2
        const char* error;       // a part of it
    };
    for (const Row& row :
         {Row{"default", "", "", {true, true, false, false}, ""},
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
          Row{"too high", "[Log]\nLevel = 3\n", "", {true, true, false, false}, "from -1 to 2"},
          Row{"too low", "[Log]\nLevel = -2\n", "", {true, true, false, false}, "from -1 to 2"},
          Row{"empty variable", "[Log]\nLevel = 1\n", "ZN_LOG_LEVEL=", {true, true, true, false}, ""},
          Row{"broken registry", "[Log\n", "", {true, true, false, false}, "registry"}})
    {
        std::ofstream(m_folder / "registry") << row.registry;
        for (int level = -1; level <= 2; ++level)
        {
            fs::remove(m_file);
            EXPECT_THAT(Write(row.environment, level, 1, "x"), testing::HasSubstr(row.error))
                << row.name;
            EXPECT_EQ(Lines().size(), row.shown[static_cast<std::size_t>(level + 1)] ? 1U : 0U)
                << row.name << ", level " << level;
        }
    }
}

TEST_F(Log, IsSetAsideBeforeItExceedsItsLimit)
{
    for (const char* const how : {"", "kept 2>&1"})
    {
        fs::remove(m_file);
        Write("ZN_LOG_MAX_SIZE=10000", 0, 15, std::string(1000, 'x'), how);
        EXPECT_LE(fs::file_size(m_file), 10000U) << how;
        EXPECT_LE(fs::file_size(m_older), 10000U) << how;
        EXPECT_EQ(Lines().size() + Lines(m_older).size(), 15U) << how;
    }
    EXPECT_EQ(fs::status(m_file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(Log, IsSetAsideOnceByTwoProcesses)
{
    Write("ZN_LOG_MAX_SIZE=1", 0, 1, "first");
    EXPECT_FALSE(fs::exists(m_older)) << "an empty file was set aside";
    EXPECT_EQ(Write("ZN_LOG_MAX_SIZE=1", 0, 1, "second", "rotated"), "\n");
    EXPECT_THAT(Lines(m_older), testing::ElementsAre(testing::EndsWith("first")));
    EXPECT_THAT(Lines(), testing::ElementsAre("theirs", testing::EndsWith("second")));
    EXPECT_EQ(Write("ZN_LOG_MAX_SIZE=1", 0, 1, "third", "moved"), "\n");
    EXPECT_THAT(Lines(), testing::ElementsAre(testing::EndsWith("third")));
}

TEST_F(Log, GrowsIfItCannotBeSetAside)
{
    Write("", 0, 1, "x");
    const int holder = open(m_file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    EXPECT_EQ(Write("ZN_LOG_MAX_SIZE=1", 0, 1, "another process has the lock"), "\n");
    close(holder);
    fs::create_directory(m_older);
    EXPECT_THAT(Write("ZN_LOG_MAX_SIZE=1", 0, 1, "x"), testing::EndsWith("Is a directory\n"));
    EXPECT_EQ(Lines().size(), 3U);
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
    const std::vector<std::string> older = Lines(m_older);
    EXPECT_FALSE(older.empty());
    lines.insert(lines.end(), older.begin(), older.end());
    EXPECT_EQ(lines.size(), kWriters * kLines);
    for (const std::string& line : lines)
        EXPECT_TRUE(line.size() > 300 && line.compare(line.size() - 308, 308, "Writer: " + text) == 0)
            << line;
}

TEST_F(Log, FollowsLinksOfRootAndItsOwnUserOnly)
{
    const fs::path link = m_folder / "link";
    fs::create_symlink("second", link);
    fs::create_symlink(m_file, m_folder / "second");
    const std::string environment = "ZN_LOG_FILE='" + link.string() + "' ZN_LOG_MAX_SIZE=1";
    EXPECT_EQ(Write(environment, 0, 2, "x"), "\n");
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(Lines().size(), 1U);
    EXPECT_EQ(Lines(m_older).size(), 1U);

    if (lchown(link.c_str(), 65534, 65534) != 0)
        GTEST_SKIP() << "only root can make a link of another user";
    EXPECT_THAT(Write(environment, 0, 1, "y"), testing::HasSubstr("is another user's"));
    EXPECT_EQ(Lines().size(), 1U);
}

TEST_F(Log, TellsWhyLinesAreLost)
{
    const std::pair<const char*, const char*> rows[] = {
        {"/dev/full", "No space left on device"},
        {"/no/such/log", "No such file or directory"},
        {"fifo", "No such device or address"}, // without a reader
        {"circle", "a symbolic link there is another user's, or leads round in a circle"},
        {"/dev/stderr", "No such device or address"},
        {"-", "Broken pipe"}};
    // Standard error is a pipe without a reader.
    const std::string before = "cd '" + m_folder.string() +
                               "' && rm -f fifo && mkfifo -m 600 pipe fifo && ln -sf circle circle && "
                               "exec 3<>pipe 2>pipe 3<&- && rm pipe && ";
    for (const auto& [file, reason] : rows)
        for (const int level : {0, -1})
            EXPECT_EQ(Write(std::string("ZN_LOG_FILE=") + file, level, 1, "x", "", before),
                      std::string("cannot write the log ") + file + ": " + reason + '\n');
    EXPECT_THAT(Write("ZN_LOG_FILE=-", 0, 1, "x", "kept 2>&1"),
                testing::EndsWith("Writer: x\nstill open\n\n"));
    EXPECT_EQ(Write("ZN_LOG_FILE=/no/such/log", 1, 1, "x"), "\n") << "a dropped line was written";
    EXPECT_THAT(Write("ZN_LOG_FILE=" + std::string(5000, 'x'), 1, 1, "x"),
                testing::EndsWith("the name is too long\n"));
}

TEST_F(Log, IsWrittenBeforeTheHostWaits)
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
            EvEvent().DebugLvl("T", 0, "before %s", name);
            EvEvent log;
            EXPECT_EQ(Lines(m_ownFile).size(), 0U) << "the line was not buffered";
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
            alarm(60); // ends a child that blocks
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

TEST_F(Log, BeginsALineAfterATruncatedOne)
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
    EXPECT_THAT(znhost::LastLogError(), testing::HasSubstr("File too large"));
}

auto UpTo(int highest)
{
    return [highest](int level, const char*, const char*) { return level <= highest; };
}

TEST_F(Log, TapsHearTheirThreadOnly)
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
        for (const std::size_t size : {511U, 512U}) // of the buffer for short texts, and one more
            log.DebugLvl("T", 2, "%s", std::string(size, 'x').c_str());
        log.Debug("T", "no level");
        std::thread([] { EvEvent().DebugLvl("T", -1, "another thread"); }).join();
    }
    log.DebugLvl("T", 0, "dropped");
    log.DebugLvl("T", -1, 5LL, "error %d", 7);
    EXPECT_THAT(inner, testing::ElementsAre("raw\ntext", std::string(511, 'x'), std::string(512, 'x'),
                                            "no level"));
    EXPECT_THAT(outer, testing::ElementsAre("error 7"));
}

} // namespace
