#include "tests/library/ScriptedHost.h"

#include "host/EvDebug.h"
#include "host/HxSleep.h"
#include "host/OSType.h"
#include "host/ZNPI_PlatformBase.h"
#include "host/ZNPlatformInfo.h"
#include "host/ZnDeviceTree.h"
#include "host/ZnProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include <unistd.h>

ScriptedHost g_host;

void ScriptedHost::Happened(const std::string& what)
{
    transcript += std::string(m_contexts.size(), ' ') + what + '\n';
    m_isOpening = false;
}

void ScriptedHost::Ran(const std::string& command)
{
    const std::string announced = "Running [" + Escaped(command) + "]\n";
    const std::size_t end = transcript.size() - std::min(transcript.size(), announced.size());
    if (transcript.compare(end, announced.size(), announced) == 0)
        transcript.insert(transcript.size() - 1, " and does");
    else
        Happened("run " + Escaped(command));
}

void ScriptedHost::Opened(const std::string& context)
{
    if (m_isOpening)
        transcript.insert(transcript.size() - 1, ' ' + context);
    else
        Happened(context);
    m_contexts.push_back(context);
    m_isOpening = true;
}

void ScriptedHost::Focused(const std::string& focus)
{
    EXPECT_TRUE(m_isOpening && m_contexts.back() == "platform") << "focus " << focus << " set too late";
    transcript.insert(transcript.size() - 1, ' ' + focus);
}

void ScriptedHost::Closed(const std::string& context)
{
    ASSERT_FALSE(m_contexts.empty());
    EXPECT_EQ(m_contexts.back(), context) << "closed out of order";
    m_contexts.pop_back();
    m_isOpening = false;
}

namespace
{

void WriteLine(const std::string& level, const std::string& tag, const char* format, va_list arguments)
{
    if (g_host.hiddenTags.count(tag) != 0)
        return;
    std::array<char, 4096> text{};
    static_cast<void>(std::vsnprintf(text.data(), text.size(), format, arguments)); // may truncate it
    g_host.Happened(level + ' ' + tag + ": " + Escaped(text.data()));
}

// The value of `key` in `section`, or null. Records the look-up.
const std::string* FindSetting(const char* section, const char* key)
{
    const std::string name = std::string(section) + ' ' + key;
    g_host.Happened("read " + name);
    ++g_host.reads;
    const auto value = g_host.settings.find(name);
    return value == g_host.settings.end() ? nullptr : &value->second;
}

} // namespace

EvDebug::EvDebug(EvDebugFileInstance* instance) : m_instance(instance)
{
    EXPECT_EQ(m_instance, nullptr);
    g_host.Opened("log");
}

EvDebug::~EvDebug()
{
    g_host.Closed("log");
}

EvEvent::EvEvent() : EvDebug(nullptr)
{
    g_host.Opened("event");
}

EvEvent::~EvEvent()
{
    g_host.Closed("event");
}

void EvDebug::Debug(const char* tag, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    WriteLine("-", tag, format, arguments);
    va_end(arguments);
}

void EvDebug::DebugLvl(const char* tag, int level, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    WriteLine(std::to_string(level), tag, format, arguments);
    va_end(arguments);
}

void EvDebug::DebugLvl(const char* tag, int level, long long jobId, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    WriteLine(std::to_string(level) + " #" + std::to_string(jobId), tag, format, arguments);
    va_end(arguments);
}

const char* ZNPI_Focus::getFocus()
{
    return "test";
}

ZNPI_PlatformBase::ZNPI_PlatformBase()
{
    g_host.Opened("platform");
}

ZNPI_PlatformBase::~ZNPI_PlatformBase()
{
    g_host.Closed("platform");
}

void ZNPI_PlatformBase::setFocus(const char* focus)
{
    m_focus = focus;
    g_host.Focused(m_focus);
}

int ZnProcess::system(const char* command, std::string* output, std::string* errorOutput, int number,
                      bool flag)
{
    g_host.Ran(command);
    EXPECT_TRUE(number == 0 && !flag) << "reserved arguments";
    // What an earlier run left there may repeat a secret.
    EXPECT_TRUE(output->empty() && errorOutput->empty()) << "not wiped before the next run";
    if (g_host.runs.empty())
    {
        ADD_FAILURE() << "not expected to run: " << command;
        return -1;
    }
    const ScriptedRun run = g_host.runs.front();
    g_host.runs.pop_front();
    *output = run.output;
    *errorOutput = run.errorOutput;
    return run.result;
}

// Under another name, since the system's header names the parameters otherwise.
extern "C" int ScriptedAccess(const char* path, int mode) noexcept __asm__("access");

extern "C" int ScriptedAccess(const char* path, int mode) noexcept
{
    EXPECT_EQ(mode, F_OK) << path;
    g_host.Happened(std::string("access ") + path);
    return g_host.missingTools.count(path) == 0 ? 0 : -1;
}

std::int32_t g_iOsType = 0;
std::int32_t g_iOsVersion = 0;

void detectOSType()
{
    g_host.Happened("detect");
    g_iOsType = g_host.osType;
    g_iOsVersion = g_host.osVersion;
}

ZNPlatformInfo::ZNPlatformInfo()
{
    EXPECT_EQ(std::exchange(g_host.reads, 0), -1) << "another reader is open";
}

ZNPlatformInfo::~ZNPlatformInfo()
{
    EXPECT_EQ(std::exchange(g_host.reads, -1), 1) << "one reader, one read";
}

std::string ZNPlatformInfo::getSectionName(const char* name, const char* subName)
{
    return std::string("full-") + name + (subName == nullptr ? "" : std::string("-") + subName);
}

int ZNPlatformInfo::getString(const char* section, const char* key, char* buffer, int bufferSize)
{
    const std::string* const value = FindSetting(section, key);
    if (value == nullptr)
        return 0;
    // A value that is too long fills the buffer: no terminating zero.
    std::copy_n(value->c_str(), std::min(value->size() + 1, static_cast<std::size_t>(bufferSize)),
                buffer);
    return 7; // any value but 0 means found
}

bool ZNPlatformInfo::getRegInt(const char* section, const char* key, int* value)
{
    const std::string* const stored = FindSetting(section, key);
    if (stored == nullptr)
        return false;
    *value = std::stoi(*stored);
    return stored->back() != '?'; // a reader may store a value that it does not report
}

void HXSLEEP_InTeRnAl(unsigned long milliseconds, const char* file, int line)
{
    EXPECT_GT(line, 0);
    g_host.Happened("sleep " + std::to_string(milliseconds) + ' ' + file);
}

SP<ZnDevice> ZnDeviceTree::getDevice(const char* path, CHxError* error)
{
    EXPECT_NE(error, nullptr);
    g_host.treeError = error;
    g_host.Happened(std::string("device ") + path);
    const ScriptedDevice& device = g_host.devices[path];
    std::list<SP<ZnDevice>> children;
    for (const std::string& child : device.children)
        children.emplace_back(new ZnDevice(child, {}));
    return device.isKnown ? new ZnDevice(path, children) : nullptr;
}

SP<ZnDevice> ZnDeviceTree::getParentDevice(const char* path, CHxError* error)
{
    EXPECT_EQ(error, g_host.treeError) << "not the error object of the other look-up";
    g_host.Happened(std::string("parent ") + path);
    const std::string& parent = g_host.devices[path].parent;
    return parent.empty() ? nullptr : new ZnDevice(parent, {});
}

Instance MakeInstance()
{
    g_host = {};
    Instance made(static_cast<ZnISCSILinuxRedhat*>(GetInstance()));
    g_host = {};
    return made;
}

std::string Escaped(const std::string& text)
{
    const std::string quoted = testing::PrintToString(text);
    return quoted.substr(1, quoted.size() - 2);
}
