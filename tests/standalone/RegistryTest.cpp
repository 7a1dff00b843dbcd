// The registry with files of every kind.
#include "standalone/znlib/Registry.h"

#include "host/ZNPlatformInfo.h"
#include "standalone/helpers/Text.h"
#include "standalone/znlib/Log.h"

#include <gmock/gmock-matchers.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

class Registry : public testing::Test
{
protected:
    Registry()
    {
        setenv("ZN_LOG_FILE", "/dev/null", 1);
        fs::create_directory(m_directory);
        Use(DATA "registry.ini");
    }
    ~Registry() override { fs::remove_all(m_directory); }

    void Use(const std::string& file)
    {
        setenv("ZN_REGISTRY", file.c_str(), 1);
        m_log.clear();
    }

    const fs::path m_directory = testing::TempDir() + "registry-" + std::to_string(getpid());
    std::vector<std::string> m_log;

private:
    znhost::LogTap m_tap{[](int level, const char*, const char*) { return level < 0; },
                         [this](const znhost::LogEntry& entry) {
                             m_log.push_back(std::string(entry.tag) + ' ' + entry.text);
                         }};
};

// The value of `key`, or "none", which the buffer contains before the read.
std::string ReadString(const std::string& section, const std::string& key, int size = 64)
{
    std::array<char, 64> buffer = {"none"};
    ZNPlatformInfo reader;
    const int isFound = reader.getString(section.c_str(), key.c_str(), buffer.data(), size);
    EXPECT_EQ(isFound == 0, buffer.data() == std::string("none")) << key;
    return buffer.data();
}

// The value of `key` in [numbers], or -77, its value before the read.
int ReadInt(const char* key)
{
    int value = -77;
    const bool isFound = ZNPlatformInfo().getRegInt("numbers", key, &value);
    EXPECT_EQ(isFound, value != -77);
    return value;
}

TEST_F(Registry, FindsStrings)
{
    const std::pair<const char*, const char*> rows[] = {{"VolumeKey", "Volume: "},
                                                        {"bare", "two  words ; and no comment"},
                                                        {"quoted", " a ; b # c = d "},
                                                        {"half", "\""},
                                                        {"empty", "none"},
                                                        {"nothing", "none"},
                                                        {"a.b/c", "dots"},
                                                        {"a", "none"},
                                                        {"UTF", "\xc3\xa9"},
                                                        {"volumekey", "none"}};
    for (const auto& [key, value] : rows)
        EXPECT_EQ(ReadString("~iStoreNode", key), value) << key;
    EXPECT_EQ(ReadString("iStoreNode", "VolumeKey"), "none");
    EXPECT_EQ(ZNPlatformInfo().getSectionName("iStoreNode", nullptr), "~iStoreNode");
    EXPECT_EQ(ReadString(ZNPlatformInfo().getSectionName("iStoreNode", "inst1"), "VolumeKey"), "sub");
    EXPECT_EQ(ReadString("~iStoreNode", "a.b/c", 5), "dots");
    EXPECT_THAT(m_log, ElementsAre());

    EXPECT_EQ(ReadString("~iStoreNode", "a.b/c", 4), "none");
    EXPECT_EQ(ReadString("~iStoreNode", "half", -1), "none");
    EXPECT_THAT(m_log, ElementsAre("ZNPlatformInfo::getString cannot use [~iStoreNode] a.b/c of " DATA
                                   "registry.ini: 4 bytes do not fit into 4 with the terminating zero",
                                   HasSubstr("1 bytes do not fit into -1 ")));
}

TEST_F(Registry, FindsNumbers)
{
    const std::pair<const char*, int> rows[] = {
        {"zero", 0},          {"negative", -3},    {"signed", 7},  {"zeros", 7},    {"quoted", 8},
        {"highest", INT_MAX}, {"lowest", INT_MIN}, {"empty", -77}, {"missing", -77}};
    for (const auto& [key, number] : rows)
        EXPECT_EQ(ReadInt(key), number) << key;
    EXPECT_THAT(m_log, ElementsAre());

    for (const char* const text : {"", "0x10", "5s", "5 6", "1.5", "+-5", "--5", "+", "-", " 5",
                                   "2147483648", "-2147483649", "99999999999999999999"})
        EXPECT_EQ(znlib::ParseNumber<int>(text), std::nullopt) << text;
    EXPECT_EQ(znlib::ParseNumber<unsigned>("-1"), std::nullopt);
}

TEST_F(Registry, TellsWhyANumberOrAFileIsNotUsed)
{
    const std::string file = m_directory / "file";
    const auto error = [&] {
        Use(file);
        EXPECT_EQ(ReadInt("key"), -77);
        std::string text = m_log.empty() ? "" : m_log[0];
        const std::size_t name = text.find(file);
        return name == std::string::npos ? text : text.replace(name, file.size(), "FILE");
    };
    const std::pair<std::string, const char*> rows[] = {
        {"[numbers]\nkey = 5s\n",
         "getRegInt cannot use [numbers] key of FILE: \"5s\" is not a decimal number of 32 bits"},
        {"[a]\nkey = 1\nno equals sign\n", "cannot read FILE: line 3: '=' character not found in line"},
        {std::string(1 << 20, '#'), ""},
        {std::string((1 << 20) + 1, '#'), "cannot read FILE: longer than 1048576 bytes"},
        {std::string("\0", 1), "cannot read FILE: not a text file"}};
    for (const auto& [text, reason] : rows)
    {
        std::ofstream(file) << text;
        EXPECT_THAT(error(), testing::EndsWith(reason));
        EXPECT_EQ(m_log.empty(), *reason == '\0') << reason;
    }
    fs::permissions(file, fs::perms::none);
    ASSERT_EQ(seteuid(getuid() == 0 ? 65534 : getuid()), 0);
    EXPECT_THAT(error(), HasSubstr("cannot read FILE: Permission denied"));
    ASSERT_EQ(seteuid(getuid()), 0);

    std::string reason;
    Use(std::string(300, 'n'));
    EXPECT_EQ(znhost::ReadRegistryValue("Log", "File", reason), std::nullopt);
    EXPECT_THAT(reason, HasSubstr("File name too long"));
    ASSERT_EQ(mkfifo((m_directory / "fifo").c_str(), 0600), 0);
    for (const char* const absent : {"missing", "file/x", "fifo"})
    {
        Use(m_directory / absent);
        EXPECT_EQ(znhost::ReadRegistryValue("Log", "File", reason), std::nullopt);
        EXPECT_EQ(reason, "") << absent;
    }
    Use(m_directory);
    EXPECT_EQ(ReadInt("key"), -77);
    EXPECT_THAT(m_log, ElementsAre(testing::EndsWith("Is a directory")));
    Use("");
    EXPECT_EQ(znhost::RegistryFile(), "/etc/zniscsi/registry.ini");
}

} // namespace
