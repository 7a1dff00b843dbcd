#include "tests/library/ScriptedHost.h"

#include "host/EvDebug.h"
#include "host/HxSleep.h"
#include "host/OSType.h"
#include "host/ZNPI_PlatformBase.h"
#include "host/ZNPlatformInfo.h"
#include "host/ZnDeviceTree.h"
#include "host/ZnProcess.h"

#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include <unistd.h>

ScriptedHost g_host;

namespace
{

void Happened(const std::string& line)
{
    g_host.transcript += line + '\n';
}

void WriteLine(const std::string& level, const char* tag, const char* format, va_list arguments)
{
    if (level.front() == '2' && !g_host.keepsRawText)
        return;
    std::array<char, 4096> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    Happened(level + ' ' + tag + ": " + text.data());
}

const ScriptedDevice* FindScripted(const char* path)
{
    const auto device = g_host.devices.find(path);
    return device == g_host.devices.end() ? nullptr : &device->second;
}

} // namespace

EvDebug::EvDebug(EvDebugFileInstance* instance) : m_instance(instance)
{
    Happened("debug{");
}

EvDebug::~EvDebug()
{
    Happened("}debug");
}

EvEvent::EvEvent() : EvDebug(nullptr)
{
    Happened("event{");
}

EvEvent::~EvEvent()
{
    Happened("}event");
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
    Happened("platform{");
}

ZNPI_PlatformBase::~ZNPI_PlatformBase()
{
    Happened("}platform");
}

void ZNPI_PlatformBase::setFocus(const char* focus)
{
    m_focus = focus;
    Happened(std::string("focus ") + m_focus);
}

int ZnProcess::system(const char* command, std::string* output, std::string* errorOutput, int, bool)
{
    Happened(std::string("run ") + command);
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

extern "C" int access(const char* path, int mode) noexcept
{
    EXPECT_EQ(mode, F_OK) << path;
    Happened(std::string("access ") + path);
    return g_host.missingTools.count(path) == 0 ? 0 : -1;
}

std::int32_t g_iOsType = 0;
std::int32_t g_iOsVersion = 0;

void detectOSType()
{
    Happened("detect");
    g_iOsType = g_host.osType;
    g_iOsVersion = g_host.osVersion;
}

ZNPlatformInfo::ZNPlatformInfo() = default;
ZNPlatformInfo::~ZNPlatformInfo() = default;

std::string ZNPlatformInfo::getSectionName(const char* name, const char* subName)
{
    return std::string("full-") + name + (subName == nullptr ? "" : std::string("-") + subName);
}

int ZNPlatformInfo::getString(const char* section, const char* key, char* buffer, int bufferSize)
{
    const std::string name = std::string(section) + ' ' + key;
    Happened("read " + name);
    const auto value = g_host.settings.find(name);
    if (value == g_host.settings.end())
        return 0;
    std::snprintf(buffer, static_cast<std::size_t>(bufferSize), "%s", value->second.c_str());
    return 7; // any value but zero says "found"
}

bool ZNPlatformInfo::getRegInt(const char* section, const char* key, int* value)
{
    const std::string name = std::string(section) + ' ' + key;
    Happened("read " + name);
    const auto stored = g_host.settings.find(name);
    if (stored == g_host.settings.end())
        return false;
    *value = std::stoi(stored->second);
    return true;
}

void HXSLEEP_InTeRnAl(unsigned long milliseconds, const char* file, int line)
{
    EXPECT_GT(line, 0);
    Happened("sleep " + std::to_string(milliseconds) + ' ' + file);
}

SP<ZnDevice> ZnDeviceTree::getDevice(const char* path, CHxError* error)
{
    EXPECT_NE(error, nullptr);
    Happened(std::string("device ") + path);
    const ScriptedDevice* const device = FindScripted(path);
    if (device == nullptr || !device->known)
        return nullptr;
    std::list<SP<ZnDevice>> children;
    for (const std::string& child : device->children)
        children.emplace_back(new ZnDevice(child, {}));
    return new ZnDevice(path, children);
}

SP<ZnDevice> ZnDeviceTree::getParentDevice(const char* path, CHxError* error)
{
    EXPECT_NE(error, nullptr);
    Happened(std::string("parent ") + path);
    const ScriptedDevice* const device = FindScripted(path);
    if (device == nullptr || !device->parent)
        return nullptr;
    return new ZnDevice(*device->parent, {});
}

Instance MakeInstance()
{
    const ScriptedHost setUp = std::exchange(g_host, {});
    ZnISCSI* const made = GetInstance();
    g_host = setUp;
    g_host.transcript.clear();
    return Instance(static_cast<ZnISCSILinuxRedhat*>(made));
}

std::string InFullContext(const std::string& inside)
{
    return "platform{\nfocus test\n" + InEventContext(inside) + "}platform\n";
}

// An event is a log object too: both layers open and close.
std::string InEventContext(const std::string& inside)
{
    return "debug{\nevent{\n" + inside + "}event\n}debug\n";
}

std::string InPlainContext(const std::string& inside)
{
    return "debug{\n" + inside + "}debug\n";
}

std::string Lines(const std::string& tag, const std::vector<std::string>& lines)
{
    std::string all;
    for (const std::string& line : lines)
    {
        if (std::isalpha(static_cast<unsigned char>(line.front())) != 0)
        {
            all += line + '\n';
            continue;
        }
        std::size_t text = line.find(' ') + 1;
        if (line.compare(text, 1, "#") == 0)
            text = line.find(' ', text) + 1;
        all += line.substr(0, text) + tag + ": " + line.substr(text) + '\n';
    }
    return all;
}
