#include "host/EvDebug.h"
#include "standalone/znlib/LogFile.h"
#include "standalone/znlib/LogTap.h"
#include "standalone/znlib/Registry.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <memory>
#include <mutex>
#include <sstream>
#include <system_error>

#include <sys/syscall.h>
#include <unistd.h>

namespace
{

using znhost::LogEntry;
using znhost::LogSettings;
using znhost::LogTap;

constexpr int kNoLevel = 0; // what a line without a level counts as

// The innermost tap of this thread.
thread_local const LogTap* t_tap = nullptr;

class Trouble
{
public:
    void Set(const std::string& sentence)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_sentence = sentence;
    }

    std::string Get() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_sentence;
    }

private:
    mutable std::mutex m_mutex;
    std::string m_sentence;
};

// Never destroyed: lines may be written while the process ends.
Trouble& LogTroubleOfProcess()
{
    static Trouble& trouble = *new Trouble;
    return trouble;
}

// A setting's text: from the environment, else from the registry, else empty.
std::string ReadSetting(const char* variable, const char* key)
{
    if (const char* const value = std::getenv(variable); value != nullptr && *value != '\0')
        return value;
    std::string error;
    const std::optional<std::string> stored = znhost::ReadRegistryValue("Log", key, error);
    if (!error.empty())
        LogTroubleOfProcess().Set(error);
    return stored.value_or("");
}

// The number in `text` when it is a whole one from `least` to `most`, else `usual`.
template <class Number>
Number NumberOr(Number usual, const std::string& text, const char* name, Number least, Number most)
{
    if (text.empty())
        return usual;
    const std::optional<Number> number = znhost::ParseNumber<Number>(text);
    if (number && *number >= least && *number <= most)
        return *number;
    LogTroubleOfProcess().Set("the log's " + std::string(name) + " cannot be \"" + text +
                              "\": a whole number from " + std::to_string(least) + " to " +
                              std::to_string(most) + " is needed");
    return usual;
}

LogSettings ReadLogSettings()
{
    constexpr unsigned long long kMebibyte = 1ULL << 20U;
    LogSettings settings{"/var/log/zniscsi.log", 0, 10 * kMebibyte};
    if (std::string file = ReadSetting("ZN_LOG_FILE", "File"); !file.empty())
        settings.file = std::move(file);
    settings.level = NumberOr(settings.level, ReadSetting("ZN_LOG_LEVEL", "Level"), "level", -1, 2);
    settings.maxSizeBytes = NumberOr(settings.maxSizeBytes, ReadSetting("ZN_LOG_MAX_SIZE", "MaxSize"),
                                     "size limit", 0ULL, kMebibyte << 20U);
    return settings;
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

// "2026-11-22 21:10:05.123 +0000"
std::string Now()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    std::ostringstream text;
    text << std::put_time(&local, "%Y-%m-%d %H:%M:%S.") << std::setw(3) << std::setfill('0')
         << now.tv_nsec / 1'000'000 << std::put_time(&local, " %z");
    return text.str();
}

// 2026-11-22 21:10:05.123 +0000 [812:815] -1 job=42 ZnISCSILinux::LogOnToiSCSITarget: Invalid
// parameters.
std::string Line(const LogEntry& entry)
{
    std::string line = Now();
    line += " [" + std::to_string(getpid()) + ':' + std::to_string(syscall(SYS_gettid)) + "] ";
    line += std::to_string(entry.level);
    if (entry.jobId)
        line += " job=" + std::to_string(*entry.jobId);
    line += ' ' + znhost::EscapeControls(entry.tag) + ": " + znhost::EscapeControls(entry.text);
    return line;
}

void WriteToFile(const EvDebugFileInstance* instance, const LogEntry& entry)
{
    const LogSettings& settings = znhost::CurrentLogSettings();
    const std::string& file = instance == nullptr ? settings.file : instance->File();
    if (const int error = znhost::AppendLine(file, Line(entry), settings.maxSizeBytes); error != 0)
        LogTroubleOfProcess().Set("cannot write the log " + file + ": " +
                                  std::generic_category().message(error));
}

void Write(const EvDebugFileInstance* instance, int level, std::optional<long long> jobId,
           const char* tag, const char* format, va_list arguments)
{
    const int callersError = errno;
    const LogEntry entry{level, jobId, tag, Format(format, arguments)};
    if (TapHears(level))
        t_tap->Hear(entry);
    if (FileShows(level))
        WriteToFile(instance, entry);
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
    static const LogSettings& settings = *new LogSettings(ReadLogSettings());
    return settings;
}

std::string znhost::LogTrouble()
{
    return LogTroubleOfProcess().Get();
}

EvDebugFileInstance::EvDebugFileInstance(std::string file) : m_file(std::move(file)) {}

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
    Write(m_instance, kNoLevel, std::nullopt, tag, format, arguments);
    va_end(arguments);
}

void EvDebug::DebugLvl(const char* tag, int level, const char* format, ...)
{
    if (!FileShows(level) && !TapHears(level))
        return;
    va_list arguments;
    va_start(arguments, format);
    Write(m_instance, level, std::nullopt, tag, format, arguments);
    va_end(arguments);
}

void EvDebug::DebugLvl(const char* tag, int level, long long jobId, const char* format, ...)
{
    if (!FileShows(level) && !TapHears(level))
        return;
    va_list arguments;
    va_start(arguments, format);
    Write(m_instance, level, jobId, tag, format, arguments);
    va_end(arguments);
}
