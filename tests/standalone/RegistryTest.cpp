// The registry on files of every kind. This program is the host's log, too, and keeps what is written.
#include "standalone/znlib/Registry.h"
#include "host/EvDebug.h"
#include "host/ZNPlatformInfo.h"
#include "standalone/znlib/Text.h"

#include <gmock/gmock.h>

#include <array>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

std::vector<std::string> g_log;

void Use(const std::string& file)
{
    g_log.clear();
    ASSERT_EQ(0, ::setenv("ZN_REGISTRY", file.c_str(), 1));
}

// The value of `key`, or "none", which stands there before the read.
std::string ReadString(const std::string& section, const std::string& key)
{
    std::array<char, 128> buffer = {"none"};
    ZNPlatformInfo reader;
    const int isFound = reader.getString(section.c_str(), key.c_str(), buffer.data(), buffer.size());
    EXPECT_EQ(isFound == 0, buffer.data() == std::string("none")) << key;
    return buffer.data();
}

// The value of `key` in [numbers], or -77, which stands there before the read.
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
    EXPECT_EQ(nullptr, m_instance);
    EXPECT_STREQ("%s", format);
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
        EXPECT_EQ(value, ReadString("~iStoreNode", key)) << key;
    EXPECT_EQ("none", ReadString("iStoreNode", "VolumeKey"));
    EXPECT_EQ("long", ReadString(longName, "key"));
    EXPECT_EQ("~iStoreNode", ZNPlatformInfo().getSectionName("iStoreNode", nullptr));
    EXPECT_EQ("sub", ReadString(ZNPlatformInfo().getSectionName("iStoreNode", "inst1"), "VolumeKey"));
    EXPECT_THAT(g_log, IsEmpty());

    EXPECT_EQ("none", ReadString("~iStoreNode", longName));
    EXPECT_EQ(0, ZNPlatformInfo().getString("~iStoreNode", "half", nullptr, -1));
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
        EXPECT_EQ(number, ReadInt(key)) << key;
    EXPECT_THAT(g_log, IsEmpty());

    for (const char* const text : {"", "0x10", "5s", "5 6", "1.5", "+-5", "--5", "+", "-", " 5",
                                   "2147483648", "-2147483649", "99999999999999999999"})
        EXPECT_EQ(std::nullopt, znhost::ParseNumber<int>(text)) << text;
    EXPECT_EQ(std::nullopt, znhost::ParseNumber<unsigned>("-1"));
}

TEST(Registry, TellsWhyANumberOrAFileIsOfNoUse)
{
    const std::pair<std::string, const char*> rows[] = {
        {DATA "registry-number.ini",
         "cannot use [numbers] key of FILE: \"5s\" is not a decimal number of 32 bits"},
        {DATA "registry-broken.ini", "cannot read FILE: line 3: '=' character not found in line"},
        {DATA, "cannot read FILE: Is a directory"},
        {"/dev/zero", "cannot read FILE: longer than 1048576 bytes"},
        {"/proc/self/cmdline", "cannot read FILE: not a text file"},
        {std::string(300, 'n'), "cannot read FILE: File name too long"}};
    for (auto [file, reason] : rows)
    {
        Use(file);
        EXPECT_EQ(-77, ReadInt("key"));
        const std::string expected = std::string("ZNPlatformInfo::getRegInt -1 ") + reason;
        EXPECT_THAT(g_log, ElementsAre(std::string(expected).replace(expected.find("FILE"), 4, file)));
    }
    std::string error;
    EXPECT_EQ(std::nullopt, znhost::ReadRegistryValue("Log", "File", error));
    EXPECT_THAT(error, HasSubstr("File name too long"));

    for (const char* const file : {DATA "missing.ini", DATA "registry.ini/x", "/dev/null"})
    {
        Use(file);
        EXPECT_EQ(std::nullopt, znhost::ReadRegistryValue("Log", "File", error));
        EXPECT_EQ("", error) << file;
    }
}
