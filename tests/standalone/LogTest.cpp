// The log: one line per entry, settings, rotation, many processes with one file.
#include "standalone/znlib/Log.h"

#include "host/EvDebug.h"
#include "host/HxSleep.h"
#include "host/ZnProcess.h"
#include "standalone/helpers/Text.h"

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
#include <iomanip>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
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

std::string Escaped(std::string_view text)
{
    std::ostringstream escaped;
    for (const char byte : text)
        escaped << "\\x" << std::hex << std::setw(2) << std::setfill('0') << (byte & 0xff);
    return escaped.str();
}

TEST(Text, IsEscapedWhereItIsNotPlain)
{
    EXPECT_EQ(znlib::Printable("two\nlines\r\n\tC:\\n"), R"(two\nlines\r\n\tC:\\n)");
    const std::string plain =
        "100% %s ~ \xc3\xa9 \xe0\xa0\x80 \xe2\x82\xac \xed\x9f\xbf \xf0\x9f\x98\x80";
    EXPECT_EQ(znlib::Printable(plain), plain);
    for (const char* const other : {"\x1b",
                                    "\a",
                                    "\x7f",
                                    "\xc2\x9b", // control characters
                                    "\x9b",
                                    "\xff",
                                    "\xe2\x82",
                                    "\xe2", // no first byte, cut
                                    "\xc0\x80",
                                    "\xe0\x9f\xbf",
                                    "\xf0\x8f\xbf\xbf", // overlong
                                    "\xed\xa0\x80",
                                    "\xf4\x90\x80\x80",
                                    "\xf9\x80\x80", // a surrogate, too high
                                    "\xe2\x80\xae",
                                    "\xe2\x81\xa6",
                                    "\xe2\x80\xa8", // reordered, a line separator
                                    "\xe2\x80\x8b",
                                    "\xef\xbb\xbf",
                                    "\xc2\xad"}) // unseen
        EXPECT_EQ(znlib::Printable(std::string(other) + "("), Escaped(other) + '(');
}

TEST_F(Log, WritesOneLinePerEntryInUtc)
{
    const std::pair<const char*, std::array<const char*, 2>> rows[] = {
        {"1767225599 TZ=XXX-05:30", {"2025-12-31T23:59:59.007Z", "2026-01-01T00:00:00.007Z"}},
        {"1709164799 TZ=YYY03:30", {"2024-02-28T23:59:59.007Z", "2024-02-29T00:00:00.007Z"}}};
    for (const auto& [clock, times] : rows)
    {
        fs::remove(m_file);
        Write(std::string("CLOCK=") + clock, 0, 2,
              "forged\n2026-01-01T00:00:00.000Z [1:1] 0 Writer: x");
        ASSERT_EQ(Lines().size(), 2U);
        for (std::size_t i = 0; i < times.size(); ++i)
            EXPECT_TRUE(std::regex_match(
                Lines()[i], std::regex(std::string(times.at(i)) +
                                       R"( \[\d+:\d+\] 0 job=18446744073709551615 Writer: forged\\n)"
                                       R"(2026-01-01T00:00:00.000Z \[1:1\] 0 Writer: x)")))
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
        std::size_t shown; // of the levels -1, 0, 1 and 2
        const char* error; // a part of it
    };
    for (const Row& row :
         {Row{"default", "", "", 2, ""}, Row{"registry", "[Log]\nLevel = 2\n", "", 4, ""},
          Row{"environment wins", "[Log]\nLevel = 2\n", "ZN_LOG_LEVEL=-1", 1, ""},
          Row{"no number", "", "ZN_LOG_LEVEL=loud", 2, "level cannot be \"loud\""},
          Row{"too high", "[Log]\nLevel = 3\n", "", 2, "from -1 to 2"},
          Row{"too low", "[Log]\nLevel = -2\n", "", 2, "from -1 to 2"},
          Row{"empty variable", "[Log]\nLevel = 1\n", "ZN_LOG_LEVEL=", 3, ""},
          Row{"broken registry", "[Log\n", "", 2, "registry"}})
    {
        std::ofstream(m_folder / "registry") << row.registry;
        fs::remove(m_file);
        EXPECT_THAT(Write(row.environment, -1, 4, "x", "rising"), testing::HasSubstr(row.error))
            << row.name;
        EXPECT_EQ(Lines().size(), row.shown) << row.name;
    }
}

TEST_F(Log, IsRotatedBeforeItExceedsItsLimit)
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
    for (const char* const how : {"full", "overfull"})
    {
        fs::remove(m_older);
        fs::remove(m_file);
        Write("ZN_LOG_MAX_SIZE=10000", 0, 2, "x", how);
        EXPECT_EQ(fs::exists(m_older), how == std::string("overfull"));
    }
}

TEST_F(Log, IsRotatedOnceByTwoProcesses)
{
    Write("ZN_LOG_MAX_SIZE=1", 0, 1, "first");
    EXPECT_FALSE(fs::exists(m_older)) << "an empty file was rotated";
    EXPECT_EQ(Write("ZN_LOG_MAX_SIZE=1", 0, 1, "second", "rotated"), "\n");
    EXPECT_THAT(Lines(m_older), testing::ElementsAre(testing::EndsWith("first")));
    EXPECT_THAT(Lines(), testing::ElementsAre("theirs", testing::EndsWith("second")));
    EXPECT_EQ(Write("ZN_LOG_MAX_SIZE=1", 0, 1, "third", "moved"), "\n");
    EXPECT_THAT(Lines(), testing::ElementsAre(testing::EndsWith("third")));
}

TEST_F(Log, GrowsIfItCannotBeRotated)
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

    const fs::path block = m_folder / "block"; // without a driver: it cannot be opened
    if (lchown(link.c_str(), 65534, 65534) != 0 || mknod(block.c_str(), S_IFBLK | 0600, 0xfff00) != 0)
        GTEST_SKIP() << "only root can make a link of another user and a block device";
    EXPECT_THAT(Write(environment, 0, 1, "y"), testing::HasSubstr("is another user's"));
    EXPECT_EQ(Lines().size(), 1U);
    EXPECT_THAT(Write("ZN_LOG_FILE='" + block.string() + "'", 0, 1, "y"),
                testing::EndsWith(": it is a block device\n"));
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
    const auto linesWith = [&lines](const char* text) {
        return std::count_if(lines.begin(), lines.end(), [text](const std::string& line) {
            return line.find(text) != std::string::npos;
        });
    };
    EXPECT_EQ(linesWith("written once"), 1);
    EXPECT_EQ(linesWith("child "), 100);
}

TEST_F(Log, LosesWhatALimitForFilesForbids)
{
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

TEST_F(Log, TapsHearTheirThreadOnlyAndNothingOfThemselves)
{
    EvEvent log;
    std::vector<std::string> outer;
    std::vector<std::string> inner;
    const znhost::LogTap outerTap(UpTo(-1), [&](const znhost::LogEntry& entry) {
        outer.push_back(entry.text);
        log.DebugLvl("T", -1, "heard %s", entry.text.c_str());
    });
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
    for (const int number : {7, 8})
        log.DebugLvl("T", -1, 5LL, "error %d", number);
    EXPECT_THAT(inner, testing::ElementsAre("raw\ntext", std::string(511, 'x'), std::string(512, 'x'),
                                            "no level"));
    EXPECT_THAT(outer, testing::ElementsAre("error 7", "error 8"));
    EXPECT_THAT(Lines(m_ownFile).back(), testing::EndsWith("T: heard error 8"));
}

} // namespace
