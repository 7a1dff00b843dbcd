#include "standalone/znlib/Log.h"

#include "host/EvDebug.h"
#include "standalone/znlib/LocalTime.h"
#include "standalone/znlib/LogFile.h"
#include "standalone/znlib/Registry.h"
#include "standalone/znlib/Text.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

// Nothing here takes a lock: a child forked while another thread held it would wait for it for ever.
// Nothing here has a destructor: lines are written while the process ends, too.
namespace
{

using znhost::LogEntry;
using znhost::LogSettings;
using znhost::LogTap;

constexpr int kNoLevel = 0; // what a line without a level counts as

// The innermost tap of this thread.
thread_local const LogTap* t_tap = nullptr;

std::array<char, PATH_MAX> g_file{"/var/log/zniscsi.log"};
std::array<char, 512> g_fault{};
constexpr unsigned long long kMebibyte = 1ULL << 20U;
LogSettings g_settings{g_file.data(), 0, 10 * kMebibyte, g_fault.data()};
constexpr pid_t kRead = -1;
std::atomic<pid_t> g_settingsReader{0}; // the process that reads them, then kRead

// Of the last line that was lost.
std::atomic<int> g_writeError{0};

void SetFault(std::string_view sentence)
{
    g_fault.at(sentence.copy(g_fault.data(), g_fault.size() - 1)) = '\0';
}

// A setting's text: from the environment, else from the registry, else empty.
std::string ReadSetting(const char* variable, const char* key)
{
    if (const char* const value = std::getenv(variable); value != nullptr && *value != '\0')
        return value;
    std::string error;
    const std::optional<std::string> stored = znhost::ReadRegistryValue("Log", key, error);
    if (!error.empty())
        SetFault(error);
    return stored.value_or("");
}

// Sets `setting` to the number in `text` when it is a whole one from `lowest` to `highest`.
template <class Number>
void SetNumber(Number& setting, const std::string& text, const char* name, Number lowest,
               Number highest)
{
    if (text.empty())
        return;
    const std::optional<Number> number = znhost::ParseNumber<Number>(text);
    if (number && *number >= lowest && *number <= highest)
        setting = *number;
    else
        SetFault("the log's " + std::string(name) + " cannot be \"" + text +
                 "\": a whole number from " + std::to_string(lowest) + " to " +
                 std::to_string(highest) + " is needed");
}

void SetFile(const std::string& file)
{
    if (file.size() >= g_file.size())
        SetFault("the log's file cannot be \"" + file.substr(0, 32) + "...\": the name is too long");
    else if (!file.empty())
        std::memcpy(g_file.data(), file.c_str(), file.size() + 1);
}

// What cannot be read keeps its default.
void ReadLogSettings() noexcept
try
{
    SetFile(ReadSetting("ZN_LOG_FILE", "File"));
    SetNumber(g_settings.level, ReadSetting("ZN_LOG_LEVEL", "Level"), "level", -1, 2);
    SetNumber(g_settings.maxSizeBytes, ReadSetting("ZN_LOG_MAX_SIZE", "MaxSize"), "size limit", 0ULL,
              kMebibyte << 20U);
}
catch (const std::exception&)
{
    SetFault("cannot read the log's settings: out of memory");
}

bool FileShows(int level)
{
    return level <= znhost::CurrentLogSettings().level;
}

bool TapHears(int level)
{
    return t_tap != nullptr && level <= t_tap->Level();
}

std::string Format(const char* format, va_list arguments)
{
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) < 0)
        return format;
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    return text;
}

// 2026-11-22 21:10:05.123 +0000 [812:815] -1 job=42 ZnISCSILinux::LogOnToiSCSITarget: Invalid
// parameters.
std::string Line(const LogEntry& entry)
{
    std::string line;
    znlib::AppendLocalTime(line);
    line += " [" + std::to_string(getpid()) + ':' + std::to_string(syscall(SYS_gettid)) + "] ";
    line += std::to_string(entry.level);
    if (entry.jobId)
        line += " job=" + std::to_string(*entry.jobId);
    line += ' ';
    znhost::AppendPrintable(line, entry.tag);
    line += ": ";
    znhost::AppendPrintable(line, entry.text);
    line += '\n';
    return line;
}

void Write(int level, std::optional<unsigned long long> jobId, const char* tag, const char* format,
           va_list arguments)
{
    const int callersError = errno;
    const LogEntry entry{level, jobId, tag, Format(format, arguments)};
    if (TapHears(level))
        t_tap->Hear(entry);
    if (FileShows(level))
    {
        const LogSettings& settings = znhost::CurrentLogSettings();
        const int error = znlib::AppendLines(settings.file, Line(entry), settings.maxSizeBytes);
        if (error != 0)
            g_writeError = error;
    }
    errno = callersError;
}

} // namespace

LogTap::LogTap(int level, std::function<void(const LogEntry&)> listener)
    : m_level(level), m_listener(std::move(listener)), m_outer(t_tap)
{
    t_tap = this;
}

LogTap::~LogTap()
{
    t_tap = m_outer;
}

const LogSettings& znhost::CurrentLogSettings()
{
    for (pid_t reader = 0; (reader = g_settingsReader.load(std::memory_order_acquire)) != kRead;)
    {
        if (reader == getpid())
            sched_yield(); // another thread of this process is reading them
        else if (g_settingsReader.compare_exchange_strong(reader, getpid()))
        {
            // Nobody has begun, or a parent process had at the fork: that one reads for itself.
            ReadLogSettings();
            g_settingsReader.store(kRead, std::memory_order_release);
        }
    }
    return g_settings;
}

std::string znhost::LogTrouble()
{
    const int error = g_writeError;
    if (error == 0)
        return "";
    return std::string("cannot write the log ") + g_settings.file + ": " +
           (error == ELOOP ? "a symbolic link there is another user's, or leads round in a circle"
                           : std::generic_category().message(error));
}

// The stand-alone host has no log files but the usual one.
EvDebug::EvDebug(EvDebugFileInstance* instance) : m_instance(instance) {}
EvDebug::~EvDebug() = default;
EvEvent::EvEvent() : EvDebug(nullptr) {}
EvEvent::~EvEvent() = default;

void EvDebug::Debug(const char* tag, const char* format, ...)
{
    if (!FileShows(kNoLevel) && !TapHears(kNoLevel))
        return;
    va_list arguments;
    va_start(arguments, format);
    Write(kNoLevel, std::nullopt, tag, format, arguments);
    va_end(arguments);
}

void EvDebug::DebugLvl(const char* tag, int level, const char* format, ...)
{
    if (!FileShows(level) && !TapHears(level))
        return;
    va_list arguments;
    va_start(arguments, format);
    Write(level, std::nullopt, tag, format, arguments);
    va_end(arguments);
}

void EvDebug::DebugLvl(const char* tag, int level, long long jobId, const char* format, ...)
{
    if (!FileShows(level) && !TapHears(level))
        return;
    va_list arguments;
    va_start(arguments, format);
    // Job identifiers are unsigned; only the call carries them as signed numbers.
    Write(level, static_cast<unsigned long long>(jobId), tag, format, arguments);
    va_end(arguments);
}
