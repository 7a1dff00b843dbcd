// The log: one line per entry, settings, rotation, many processes with one file.
#include "standalone/znlib/Log.h"

#include "host/EvDebug.h"
#include "host/HxSleep.h"
#include "host/ZnProcess.h"
#include "standalone/helpers/Text.h"

#include <gmock/gmock-matchers.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

long g_now = 0; // if not 0, the second of the next line; each further one is a second later
int g_writes = 0;
std::function<void()> g_atLock; // what another process does before the log takes its lock

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    if (g_now == 0)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = {g_now++, 7'999'999};
    return 0;
}

extern "C" ssize_t write(int file, const void* text, std::size_t size)
{
    ++g_writes;
    return syscall(SYS_write, file, text, size);
}

extern "C" int flock(int file, int operation) noexcept
{
    if (g_atLock)
        g_atLock();
    return static_cast<int>(syscall(SYS_flock, file, operation));
}

namespace
{

namespace fs = std::filesystem;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

std::vector<std::string> Lines(const fs::path& file)
{
    std::vector<std::string> lines;
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

// Writes lines in calls of their own.
void Write(int count, const std::string& text = "x", int level = 0)
{
    errno = EDOM;
    for (; count > 0; --count) // -1: how a call passes the highest job identifier
        EvEvent().DebugLvl("Writer", level, -1LL, "%s", text.c_str());
    EXPECT_EQ(errno, EDOM);
}

class Log : public testing::Test
{
protected:
    Log()
    {
        setenv("ZN_REGISTRY", m_registry.c_str(), 1);
        setenv("ZN_LOG_FILE", m_file.c_str(), 1);
        setenv("ZN_LOG_MAX_SIZE", "0", 1);
    }
    ~Log() override { fs::remove_all(m_directory); }

    // Runs `host` in a process of its own, since the log reads its settings once. Returns what is wrong
    // with them, or why lines were lost.
    std::string Run(const std::map<std::string, std::string>& settings,
                    const std::function<void()>& host) const
    {
        const fs::path said = m_directory / "said";
        const pid_t pid = fork();
        if (pid == 0)
        {
            alarm(100);
            umask(0);
            for (const auto& [name, value] : settings)
                setenv(name.c_str(), value.c_str(), 1);
            host();
            sigset_t blocked;
            pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
            EXPECT_EQ(sigismember(&blocked, SIGPIPE), 0);
            std::ofstream(said) << znhost::CurrentLogSettings().fault << znhost::LastLogError();
            std::fflush(stdout);
            _exit(HasFailure() ? 1 : 0);
        }
        int status = -1;
        waitpid(pid, &status, 0);
        EXPECT_EQ(status, 0);
        std::ifstream words(said);
        return {std::istreambuf_iterator<char>(words), {}};
    }

    fs::path m_directory = testing::TempDir() + "log-" + std::to_string(getpid());
    fs::path m_registry = m_directory / "registry";
    fs::path m_file = m_directory / "log";
    fs::path m_older = m_directory / "log.1"; // what it is renamed to
    bool m_isMade = fs::create_directory(m_directory);
};

TEST(Text, IsEscapedWhereItIsNotPlain)
{
    EXPECT_EQ(znlib::Printable("two\nlines\r\n\tC:\\n\x9b("), R"(two\nlines\r\n\tC:\\n\x9b()");
    const std::string plain =
        "100% %s ~ \xc3\xa9 \xe0\xa0\x80 \xe2\x82\xac \xed\x9f\xbf \xf0\x9f\x98\x80";
    EXPECT_EQ(znlib::Printable(plain), plain);
    // Control characters; no first byte, cut; overlong; a surrogate, too high; reordered, a line
    // separator; unseen. One after the other.
    std::istringstream others("\x1b \a \x7f \xc2\x9b "
                              "\x9b \xff \xe2\x82 \xe2 "
                              "\xc0\x80 \xe0\x9f\xbf \xf0\x8f\xbf\xbf "
                              "\xed\xa0\x80 \xf4\x90\x80\x80 \xf9\x80\x80 "
                              "\xe2\x80\xae \xe2\x81\xa6 \xe2\x80\xa8 "
                              "\xe2\x80\x8b \xef\xbb\xbf \xc2\xad");
    for (std::string other; others >> other;)
        EXPECT_EQ(znlib::Printable(other + '(').size(), 4 * other.size() + 1) << other;
}

TEST_F(Log, WritesOneLinePerEntryInUtc)
{
    Run({{"TZ", "XXX-05:30"}}, [] {
        g_now = 1767225599;
        Write(2, "forged\n2026-01-01T00:00:00.000Z [1:1] 0 Writer: x");
        g_now = 0;
    });
    const std::string rest = R"( \[[0-9]+:[0-9]+\] 0 job=18446744073709551615 Writer: )"
                             R"(forged\\n2026-01-01T00:00:00\.000Z \[1:1\] 0 Writer: x)";
    EXPECT_THAT(Lines(m_file),
                ElementsAre(testing::MatchesRegex(R"(2025-12-31T23:59:59\.007Z)" + rest),
                            testing::MatchesRegex(R"(2026-01-01T00:00:00\.007Z)" + rest)));
}

TEST_F(Log, SettingsComeFromTheRegistryAndTheEnvironment)
{
    struct Row
    {
        const char* name;
        const char* registry;
        const char* level;
        std::size_t shown; // of the levels -1, 0, 1 and 2
        const char* error; // a pattern of it
    };
    for (const Row& row :
         {Row{"default", "", "", 2, "^$"}, Row{"registry", "[Log]\nLevel = 1\n", "", 3, "^$"},
          Row{"environment wins", "[Log]\nLevel = 1\n", "2", 4, "^$"},
          Row{"lowest", "[Log]\nLevel = -1\n", "", 1, "^$"},
          Row{"no number", "", "loud", 2, "level cannot be \"loud\""},
          Row{"too high", "[Log]\nLevel = 3\n", "", 2, "from -1 to 2"},
          Row{"too low", "[Log]\nLevel = -2\n", "", 2, "from -1 to 2"},
          Row{"broken registry", "[Log\n", "", 2, "registry"}})
    {
        std::ofstream(m_registry) << row.registry;
        const auto writeAll = [] {
            for (const int level : {-1, 0, 1, 2})
                Write(1, "x", level);
        };
        EXPECT_THAT(Run({{"ZN_LOG_LEVEL", row.level}}, writeAll), ContainsRegex(row.error)) << row.name;
        EXPECT_EQ(Lines(m_file).size(), row.shown) << row.name;
        fs::remove(m_file);
    }
}

TEST_F(Log, IsRotatedBeforeItExceedsItsLimit)
{
    const std::tuple<std::size_t, const char*, const char*> limits[] = {
        {10000, "10000", "[Log]\nMaxSize = 1\n"},
        {20000, nullptr, "[Log]\nMaxSize = 20000\n"},
        {10U << 20U, nullptr, ""}};
    for (const auto& [limit, variable, registry] : limits)
        for (const std::size_t excess : {0U, 1U})
        {
            std::ofstream(m_registry) << registry;
            Run({}, [&, bytes = limit + excess, size = variable] {
                size == nullptr ? unsetenv("ZN_LOG_MAX_SIZE") : setenv("ZN_LOG_MAX_SIZE", size, 1);
                Write(1);
                fs::resize_file(m_file, bytes - fs::file_size(m_file));
                Write(1);
            });
            EXPECT_EQ(fs::exists(m_older), excess == 1) << limit;
            fs::remove(m_file);
            fs::remove(m_older);
        }
    for (const bool isOneCall : {false, true})
    {
        Run({{"ZN_LOG_MAX_SIZE", "10000"}}, [&] {
            const std::unique_ptr<EvEvent> call(isOneCall ? new EvEvent : nullptr);
            Write(15, std::string(1000, 'x'));
        });
        EXPECT_LE(fs::file_size(m_file), 10000U);
        EXPECT_LE(fs::file_size(m_older), 10000U);
        EXPECT_EQ(Lines(m_file).size() + Lines(m_older).size(), 15U);
        fs::remove(m_file);
    }
    EXPECT_EQ(fs::status(m_older).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(Log, IsRotatedOnceByTwoProcesses)
{
    const auto writeTiny = [this](const char* text, const std::function<void()>& atLock) {
        EXPECT_EQ(Run({{"ZN_LOG_MAX_SIZE", "1"}},
                      [&] {
                          g_atLock = atLock;
                          Write(1, text);
                      }),
                  "");
    };
    const auto rename = [this] { fs::rename(m_file, m_older); };
    writeTiny("first", [] { FAIL() << "an empty file was rotated"; });
    writeTiny("second", [&] {
        rename();
        std::ofstream(m_file) << "theirs\n";
    });
    EXPECT_THAT(Lines(m_older), ElementsAre(EndsWith("first")));
    EXPECT_THAT(Lines(m_file), ElementsAre("theirs", EndsWith("second")));
    writeTiny("third", rename);
    EXPECT_THAT(Lines(m_file), ElementsAre(EndsWith("third")));
}

TEST_F(Log, GrowsIfItCannotBeRotated)
{
    const auto writeOne = [] { Write(1); };
    Run({}, writeOne);
    const int holder = open(m_file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(holder, LOCK_SH), 0); // the log takes it alone
    EXPECT_EQ(Run({{"ZN_LOG_MAX_SIZE", "1"}}, writeOne), "") << "another process has the lock";
    flock(holder, LOCK_UN);
    close(holder);
    fs::create_directory(m_older);
    EXPECT_THAT(Run({{"ZN_LOG_MAX_SIZE", "1"}}, writeOne), EndsWith("Is a directory"));
    EXPECT_EQ(Lines(m_file).size(), 3U);
}

TEST_F(Log, FollowsLinksOfRootAndItsOwnUserOnly)
{
    const fs::path link = m_directory / "link";
    fs::create_symlink("second", link);
    fs::create_symlink(m_file, m_directory / "second");
    const std::map<std::string, std::string> tiny{{"ZN_LOG_FILE", link}, {"ZN_LOG_MAX_SIZE", "1"}};
    EXPECT_EQ(Run(tiny, [] { Write(2); }), "");
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(Lines(m_file).size(), 1U);
    EXPECT_EQ(Lines(m_older).size(), 1U);

    const fs::path block = m_directory / "block"; // without a driver: it cannot be opened
    if (lchown(link.c_str(), 65534, 65534) != 0 || mknod(block.c_str(), S_IFBLK | 0600, 0xfff00) != 0)
        GTEST_SKIP() << "only root can make a link of another user and a block device";
    EXPECT_THAT(Run(tiny, [] { Write(1); }), HasSubstr("is another user's"));
    EXPECT_EQ(Lines(m_file).size(), 1U);
    EXPECT_THAT(Run({{"ZN_LOG_FILE", block}}, [] { Write(1); }), EndsWith(": it is a block device"));
}

TEST_F(Log, TellsWhyLinesAreLost)
{
    const auto writeWithoutReader = [this](int level) {
        int ends[2]{};
        ASSERT_EQ(pipe(ends), 0);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        fs::current_path(m_directory);
        Write(1, "x", level);
    };
    ASSERT_EQ(mkfifo((m_directory / "fifo").c_str(), 0600), 0);
    fs::create_symlink("circle", m_directory / "circle");
    const std::pair<const char*, const char*> rows[] = {
        {"/dev/full", "No space left on device"},
        {"/no/such/log", "No such file or directory"},
        {"fifo", "No such device or address"}, // without a reader
        {"circle", "a symbolic link there is another user's, or leads round in a circle"},
        {"/dev/stderr", "Broken pipe"},
        {"-", "Broken pipe"}};
    for (const auto& [file, reason] : rows)
        for (const int level : {0, -1})
            EXPECT_EQ(Run({{"ZN_LOG_FILE", file}}, [&] { writeWithoutReader(level); }),
                      std::string("cannot write the log ") + file + ": " + reason);
    const auto writeToFile = [this] {
        dup2(open(m_file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDERR_FILENO);
        const EvEvent call;
        Write(1);
        EXPECT_THAT(Lines(m_file), ElementsAre(EndsWith("Writer: x"))) << "the line was buffered";
    };
    EXPECT_EQ(Run({{"ZN_LOG_FILE", "-"}}, writeToFile), "");
    EXPECT_EQ(Run({{"ZN_LOG_FILE", "/no/such/log"}}, [] { Write(1, "x", 1); }), "")
        << "a dropped line was written";
    EXPECT_THAT(Run({{"ZN_LOG_FILE", std::string(5000, 'x')}}, [] { Write(1, "x", 1); }),
                EndsWith("the name is too long"));
}

TEST_F(Log, IsWrittenBeforeTheHostWaits)
{
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"an error", [] { EvEvent().DebugLvl("T", -1, "error"); }},
        {"a tool",
         [] {
             std::string output, errorOutput;
             ZnProcess::system("/bin/true", &output, &errorOutput, 0, false);
         }},
        {"a pause", [] { HXSLEEP_InTeRnAl(0, "test", 0); }},
        {"many lines", [] { Write(1000, std::string(100, 'x')); }},
        {"the end of the call", nullptr}};
    for (const auto& row : rows)
    {
        Run({}, [&] {
            g_writes = 0;
            const EvEvent outer;
            EvEvent().DebugLvl("T", 0, "before %s", row.first);
            const EvEvent log;
            EXPECT_FALSE(fs::exists(m_file)) << "the line was not buffered";
            if (row.second)
                row.second();
            EXPECT_EQ(fs::exists(m_file), row.second != nullptr) << row.first;
            EXPECT_LE(g_writes, 3) << "lines of several processes would mix";
        });
        EXPECT_THAT(Lines(m_file).at(0), EndsWith(std::string("before ") + row.first));
        fs::remove(m_file);
    }
}

TEST_F(Log, IsWrittenByTheProcessOfEachLine)
{
    Run({}, [this] {
        EvEvent log;
        log.DebugLvl("T", 0, "parent");
        const pid_t child = fork();
        if (child == 0)
        {
            log.DebugLvl("T", -1, "child");
            _exit(0);
        }
        wait(nullptr);
        EXPECT_THAT(Lines(m_file), ElementsAre(HasSubstr('[' + std::to_string(child) + ':')));
    });
    EXPECT_THAT(Lines(m_file), ElementsAre(EndsWith("-1 T: child"), EndsWith("0 T: parent")));
}

TEST_F(Log, LosesWhatALimitForFilesForbids)
{
    const std::string error = Run({}, [] {
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = 100;
        setrlimit(RLIMIT_FSIZE, &limit);
        Write(1, std::string(200, 'x'));
        Write(1, "lost");
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_FSIZE, &limit);
        Write(1, "whole");
    });
    EXPECT_THAT(Lines(m_file), ElementsAre(testing::SizeIs(100), EndsWith("Writer: whole")));
    EXPECT_THAT(error, HasSubstr("File too large"));
}

auto UpTo(int highest)
{
    return [highest](int level, const char*, const char*) { return level <= highest; };
}

TEST_F(Log, TapsHearTheirThreadOnlyAndNothingOfThemselves)
{
    Run({}, [] {
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
        EXPECT_THAT(inner,
                    ElementsAre("raw\ntext", std::string(511, 'x'), std::string(512, 'x'), "no level"));
        EXPECT_THAT(outer, ElementsAre("error 7", "error 8"));
    });
    EXPECT_THAT(Lines(m_file).back(), EndsWith("T: heard error 8"));
}

} // namespace
