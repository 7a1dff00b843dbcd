// The log: one line an entry whatever the text, levels, the size limit, many processes on one file.

#include "host/EvDebug.h"
#include "standalone/znlib/LogTap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <thread>
#include <vector>

#include <sys/resource.h>

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
        setenv("ZN_LOG_FILE", m_file.c_str(),
               1); // this process's own lines: the first test to write decides
    }
    void TearDown() override { fs::remove_all(m_folder); }

    // Runs the writer with `environment` ("A=b C=d") and answers what it printed.
    std::string Write(const std::string& environment, int level, int count,
                      const std::string& text) const
    {
        std::string quoted;
        for (const char c : text)
            quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        const std::string command = "env ZN_REGISTRY='" + (m_folder / "registry").string() +
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
};

TEST_F(Log, OneLineAnEntryWhateverTheText)
{
    struct Row
    {
        const char* text;
        const char* logged;
    };
    const std::vector<Row> rows{
        {"plain 100% %s %n", "plain 100% %s %n"},
        {"two\nlines\r\n", R"(two\nlines\r\n)"},
        {"\x1b[31mred\x1b[0m\a\tx\x7f", R"(\x1b[31mred\x1b[0m\x07\tx\x7f)"},
        {"C:\\n", "C:\\\\n"},
        {"\xc2\x9b 1A \xc3\xa9 \xe2\x82\xac", "\\xc2\\x9b 1A \xc3\xa9 \xe2\x82\xac"},
        {"\x9b 1A \xe2\x82", R"(\x9b 1A \xe2\x82)"},
        {"forged\n2026-01-01 00:00:00.000 +0000 [1:1] 0 Writer: x",
         "forged\\n2026-01-01 00:00:00.000 +0000 [1:1] 0 Writer: x"},
        {"", ""},
    };
    for (const Row& row : rows)
        EXPECT_EQ(Write("", 0, 1, row.text), "\n");
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), rows.size());
    const std::regex head(
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [+-]\d{4} \[\d+:\d+\] 0 job=42 Writer: )");
    for (std::size_t i = 0; i < rows.size(); ++i)
    {
        std::smatch match;
        ASSERT_TRUE(std::regex_search(lines[i], match, head)) << lines[i];
        EXPECT_EQ(match.position(), 0);
        EXPECT_EQ(match.suffix(), rows[i].logged);
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

TEST_F(Log, SaysWhatKeepsLinesFromIt)
{
    EXPECT_EQ(Write("ZN_LOG_FILE=/dev/full", 0, 1, "x"),
              "cannot write the log /dev/full: No space left on device\n");
    EXPECT_EQ(Write("ZN_LOG_FILE=/no/such/log", 0, 1, "x"),
              "cannot write the log /no/such/log: No such file or directory\n");
    EXPECT_EQ(Write("ZN_LOG_FILE=/no/such/log", 1, 1, "x"), "\n") << "a dropped line touches nothing";
}

TEST_F(Log, DoesNotGoOnInALineThatWasCutShort)
{
    ASSERT_NE(std::signal(SIGXFSZ, SIG_IGN), SIG_ERR);
    rlimit usual{};
    getrlimit(RLIMIT_FSIZE, &usual);
    const rlimit tight{100, usual.rlim_max};
    setrlimit(RLIMIT_FSIZE, &tight);
    EvEvent log;
    log.DebugLvl("T", 0, "%s", std::string(200, 'x').c_str());
    log.DebugLvl("T", 0, "lost");
    setrlimit(RLIMIT_FSIZE, &usual);
    log.DebugLvl("T", 0, "whole");
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].size(), 100U);
    EXPECT_THAT(lines[1], testing::EndsWith("T: whole"));
    EXPECT_THAT(znhost::LogTrouble(), testing::HasSubstr("File too large"));
}

TEST_F(Log, TapsHearTheirThreadAlone)
{
    EvEvent log;
    std::vector<std::string> outer;
    std::vector<std::string> inner;
    const znhost::LogTap outerTap(-1,
                                  [&](const znhost::LogEntry& entry) { outer.push_back(entry.text); });
    {
        const znhost::LogTap innerTap(
            2, [&](const znhost::LogEntry& entry) { inner.push_back(entry.text); });
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
