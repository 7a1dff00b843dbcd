// The registry with files of every kind. This program defines the host's log, and records its lines.
#include "standalone/znlib/Registry.h"

#include "host/EvDebug.h"
#include "host/ZNPlatformInfo.h"
#include "standalone/helpers/Text.h"

#include <gmock/gmock-matchers.h>

#include <array>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

std::vector<std::string> g_log;

void Use(const std::string& file)
{
    g_log.clear();
    ASSERT_EQ(::setenv("ZN_REGISTRY", file.c_str(), 1), 0);
}

// The value of `key`, or "none", which the buffer contains before the read.
std::string ReadString(const std::string& section, const std::string& key)
{
    std::array<char, 128> buffer = {"none"};
    ZNPlatformInfo reader;
    const int isFound = reader.getString(section.c_str(), key.c_str(), buffer.data(), buffer.size());
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

} // namespace

EvDebug::EvDebug(EvDebugFileInstance* instance) : m_instance(instance) {}
EvDebug::~EvDebug() = default;
EvEvent::EvEvent() : EvDebug(nullptr) {}
EvEvent::~EvEvent() = default;

void EvDebug::DebugLvl(const char* tag, int level, const char* format, ...)
{
    EXPECT_EQ(m_instance, nullptr);
    EXPECT_STREQ(format, "%s");
    va_list arguments;
    va_start(arguments, format);
    g_log.push_back(std::string(tag) + ' ' + std::to_string(level) + ' ' +
                    va_arg(arguments, const char*));
    va_end(arguments);
}

TEST(Registry, FindsStrings)
{
    Use(DATA "registry.ini");
    const std::string longName(300, 'n');
    const std::pair<const char*, std::string> rows[] = {{"VolumeKey", "Volume: "},
                                                        {"bare", "two  words ; and no comment"},
                                                        {"quoted", " a ; b # c = d "},
                                                        {"half", "\""},
                                                        {"empty", "none"},
                                                        {"nothing", "none"},
                                                        {"a.b/c", "dots"},
                                                        {"a", "none"},
                                                        {"UTF", "\xc3\xa9"},
                                                        {"volumekey", "none"},
                                                        {"longest", std::string(127, 'x')}};
    for (const auto& [key, value] : rows)
        EXPECT_EQ(ReadString("~iStoreNode", key), value) << key;
    EXPECT_EQ(ReadString("iStoreNode", "VolumeKey"), "none");
    EXPECT_EQ(ReadString(longName, "key"), "long");
    EXPECT_EQ(ZNPlatformInfo().getSectionName("iStoreNode", nullptr), "~iStoreNode");
    EXPECT_EQ(ReadString(ZNPlatformInfo().getSectionName("iStoreNode", "inst1"), "VolumeKey"), "sub");
    EXPECT_THAT(g_log, ElementsAre());

    EXPECT_EQ(ReadString("~iStoreNode", longName), "none");
    EXPECT_EQ(ZNPlatformInfo().getString("~iStoreNode", "half", nullptr, -1), 0);
    EXPECT_THAT(g_log,
                ElementsAre("ZNPlatformInfo::getString -1 cannot use [~iStoreNode] " + longName +
                                " of " DATA "registry.ini: 128 bytes do not fit into 128 with the "
                                "terminating zero",
                            HasSubstr("1 bytes do not fit into -1 ")));
}

TEST(Registry, FindsNumbers)
{
    Use(DATA "registry.ini");
    const std::pair<const char*, int> rows[] = {
        {"zero", 0},          {"negative", -3},    {"signed", 7},  {"zeros", 7},    {"quoted", 8},
        {"highest", INT_MAX}, {"lowest", INT_MIN}, {"empty", -77}, {"missing", -77}};
    for (const auto& [key, number] : rows)
        EXPECT_EQ(ReadInt(key), number) << key;
    EXPECT_THAT(g_log, ElementsAre());

    for (const char* const text : {"", "0x10", "5s", "5 6", "1.5", "+-5", "--5", "+", "-", " 5",
                                   "2147483648", "-2147483649", "99999999999999999999"})
        EXPECT_EQ(znlib::ParseNumber<int>(text), std::nullopt) << text;
    EXPECT_EQ(znlib::ParseNumber<unsigned>("-1"), std::nullopt);
}

TEST(Registry, TellsWhyANumberOrAFileIsNotUsed)
{
    const std::string large = testing::TempDir() + "large-" + std::to_string(::getpid());
    std::ofstream(large) << '#' << std::string(1 << 20, 'x');
    const std::pair<std::string, const char*> rows[] = {
        {DATA "registry-number.ini",
         "cannot use [numbers] key of FILE: \"5s\" is not a decimal number of 32 bits"},
        {DATA "registry-broken.ini", "cannot read FILE: line 3: '=' character not found in line"},
        {DATA, "cannot read FILE: Is a directory"},
        {large, "cannot read FILE: longer than 1048576 bytes"},
        {"/proc/self/cmdline", "cannot read FILE: not a text file"},
        {std::string(300, 'n'), "cannot read FILE: File name too long"}};
    for (auto [file, reason] : rows)
    {
        Use(file);
        EXPECT_EQ(ReadInt("key"), -77);
        const std::string expected = std::string("ZNPlatformInfo::getRegInt -1 ") + reason;
        EXPECT_THAT(g_log, ElementsAre(std::string(expected).replace(expected.find("FILE"), 4, file)));
    }
    ::unlink(large.c_str());
    std::string error;
    EXPECT_EQ(znhost::ReadRegistryValue("Log", "File", error), std::nullopt);
    EXPECT_THAT(error, HasSubstr("File name too long"));

    const std::string fifo = testing::TempDir() + "registry-" + std::to_string(::getpid());
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& file :
         {std::string(DATA "missing.ini"), std::string(DATA "registry.ini/x"), fifo})
    {
        Use(file);
        EXPECT_EQ(znhost::ReadRegistryValue("Log", "File", error), std::nullopt);
        EXPECT_EQ(error, "") << file;
    }
    ::unlink(fifo.c_str());
    Use("");
    EXPECT_EQ(znhost::RegistryFile(), "/etc/zniscsi/registry.ini");
}
