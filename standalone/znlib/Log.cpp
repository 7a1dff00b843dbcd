#include "standalone/znlib/Log.h"

#include "host/EvDebug.h"
#include "standalone/znlib/LocalTime.h"
#include "standalone/znlib/LogFile.h"
#include "standalone/znlib/Registry.h"
#include "standalone/znlib/Text.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

// No locks: a child forked while another thread holds one would wait for ever. No static or
// thread-local objects with destructors: lines may be written during the exit of the process, and such
// a thread-local object would keep the library loaded.
namespace
{

using znhost::LogSettings;
using znhost::LogTap;

constexpr int kNoLevel = 0; // of a line without a level

// A thread's state. Lines are buffered during a call, so that the thousands of lines of a parser take
// one write.
struct ThreadLog
{
    const LogTap* tap = nullptr; // the innermost
    int openObjects = 0;
    std::string* lines = nullptr; // buffered; allocated while an object is open
    pid_t process = 0;            // owner of `lines`: a forked child has a copy of them
    std::array<char, 32> ids{};   // " [812:815] "
};
thread_local ThreadLog t_log;

std::array<char, PATH_MAX> g_file{"/var/log/zniscsi.log"};
std::array<char, 512> g_fault{};
constexpr unsigned long long kMebibyte = 1ULL << 20U;
LogSettings g_settings{g_file.data(), 0, 10 * kMebibyte, g_fault.data()};
constexpr pid_t kRead = -1;
std::atomic<pid_t> g_settingsReader{0}; // the process that is reading them, then kRead
// Copy of the level for a quick test. The maximum until the settings have been read.
std::atomic<int> g_shownLevel{INT_MAX};

// errno of the last line that was lost.
std::atomic<int> g_writeError{0};

void SetFault(std::string_view sentence)
{
    g_fault.at(sentence.copy(g_fault.data(), g_fault.size() - 1)) = '\0';
}

// The value from the environment, else from the registry, else empty.
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

// Sets `setting` if `text` is a whole number from `lowest` to `highest`.
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

// Invalid settings keep their defaults.
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
    return level <= g_shownLevel.load(std::memory_order_relaxed) &&
           level <= znhost::CurrentLogSettings().level;
}

bool TapWants(int level, const char* tag, const char* format)
{
    return t_log.tap != nullptr && t_log.tap->wants()(level, tag, format);
}

bool IsWanted(int level, const char* tag, const char* format)
{
    return FileShows(level) || TapWants(level, tag, format);
}

// The formatted text of a line; on the stack if it is short.
class FormattedText
{
public:
    FormattedText(const char* format, va_list arguments)
    {
        va_list again;
        va_copy(again, arguments);
        const int length = std::vsnprintf(m_short.data(), m_short.size(), format, arguments);
        if (length < 0)
            m_text = format;
        else if (static_cast<std::size_t>(length) < m_short.size())
            m_text = {m_short.data(), static_cast<std::size_t>(length)};
        else
        {
            m_long.resize(static_cast<std::size_t>(length) + 1); // vsnprintf writes a terminating zero
            static_cast<void>(std::vsnprintf(m_long.data(), m_long.size(), format, again));
            m_text = {m_long.data(), static_cast<std::size_t>(length)};
        }
        va_end(again);
    }
    FormattedText(const FormattedText&) = delete;
    FormattedText& operator=(const FormattedText&) = delete;
    ~FormattedText() = default;

    std::string_view Text() const { return m_text; }

private:
    std::array<char, 512> m_short;
    std::string m_long;
    std::string_view m_text;
};

struct Line
{
    int level;
    std::optional<unsigned long long> jobId;
    const char* tag;
    std::string_view text;
};

// 2026-11-22 21:10:05.123 +0000 [812:815] -1 job=42 ZnISCSILinux::LogOnToiSCSITarget: Invalid
// parameters.
void AppendLine(std::string& lines, const Line& line)
{
    znlib::AppendLocalTime(lines);
    lines += t_log.ids.data();
    lines += std::to_string(line.level);
    if (line.jobId)
        lines.append(" job=").append(std::to_string(*line.jobId));
    lines += ' ';
    znhost::AppendPrintable(lines, line.tag);
    lines += ": ";
    znhost::AppendPrintable(lines, line.text);
    lines += '\n';
}

void HandOver(std::string_view lines)
{
    const LogSettings& settings = znhost::CurrentLogSettings();
    const int error = znlib::AppendLines(settings.file, lines, settings.maxSizeBytes);
    if (error != 0)
        g_writeError = error;
}

// The buffer of this thread. In a forked child it is emptied first: the parent writes those lines.
std::string& KeptLines()
{
    if (t_log.lines == nullptr)
        t_log.lines = new std::string;
    if (const pid_t process = getpid(); t_log.process != process)
    {
        t_log.process = process;
        static_cast<void>(std::snprintf(t_log.ids.data(), t_log.ids.size(), " [%d:%ld] ", process,
                                        syscall(SYS_gettid)));
        t_log.lines->clear();
    }
    return *t_log.lines;
}

void Keep(const Line& line)
{
    const LogSettings& settings = znhost::CurrentLogSettings();
    // A single write must not exceed the size limit of the file.
    constexpr unsigned long long kMaxKeptBytes = 65536;
    const unsigned long long limit =
        settings.maxSizeBytes == 0 ? kMaxKeptBytes : std::min(kMaxKeptBytes, settings.maxSizeBytes);

    std::string& lines = KeptLines();
    const std::size_t before = lines.size();
    AppendLine(lines, line);
    if (before != 0 && lines.size() > limit)
    {
        HandOver(std::string_view(lines).substr(0, before));
        lines.erase(0, before);
    }
    const bool isAwaited = line.level < 0 || settings.file == std::string_view("-");
    if (isAwaited || lines.size() > limit)
        znhost::FlushLog();
}

void Write(int level, std::optional<unsigned long long> jobId, const char* tag, const char* format,
           va_list arguments)
{
    const int callersError = errno;
    const FormattedText text(format, arguments);
    if (TapWants(level, tag, format))
        t_log.tap->listener()({level, jobId, tag, std::string(text.Text())});
    if (FileShows(level))
        Keep({level, jobId, tag, text.Text()});
    errno = callersError;
}

} // namespace

LogTap::LogTap(Wants wants, Listener listener)
    : m_wants(std::move(wants)), m_listener(std::move(listener)), m_outer(t_log.tap)
{
    t_log.tap = this;
}

LogTap::~LogTap()
{
    t_log.tap = m_outer;
}

void znhost::FlushLog()
{
    if (t_log.lines == nullptr || t_log.lines->empty())
        return;
    if (std::string& lines = KeptLines(); !lines.empty())
    {
        HandOver(lines);
        lines.clear();
    }
}

const LogSettings& znhost::CurrentLogSettings()
{
    for (pid_t reader = 0; (reader = g_settingsReader.load(std::memory_order_acquire)) != kRead;)
    {
        if (reader == getpid())
            sched_yield(); // another thread of this process is at it
        else if (g_settingsReader.compare_exchange_strong(reader, getpid()))
        {
            // Nobody is reading, or only a thread of the parent process was, at the fork.
            const int callersError = errno;
            ReadLogSettings();
            errno = callersError;
            g_shownLevel = g_settings.level;
            g_settingsReader.store(kRead, std::memory_order_release);
        }
    }
    return g_settings;
}

std::string znhost::LastLogError()
{
    const int error = g_writeError;
    if (error == 0)
        return "";
    return std::string("cannot write the log ") + g_settings.file + ": " +
           (error == ELOOP ? "a symbolic link there is another user's, or leads round in a circle"
                           : std::generic_category().message(error));
}

// The stand-alone host has one log file only.
EvDebug::EvDebug(EvDebugFileInstance* instance) : m_instance(instance)
{
    ++t_log.openObjects;
}

EvDebug::~EvDebug()
{
    if (--t_log.openObjects > 0)
        return;
    const int callersError = errno;
    znhost::FlushLog();
    delete std::exchange(t_log.lines, nullptr);
    errno = callersError;
}

EvEvent::EvEvent() : EvDebug(nullptr) {}
EvEvent::~EvEvent() = default;

void EvDebug::Debug(const char* tag, const char* format, ...)
{
    if (!IsWanted(kNoLevel, tag, format))
        return;
    va_list arguments;
    va_start(arguments, format);
    Write(kNoLevel, std::nullopt, tag, format, arguments);
    va_end(arguments);
}

void EvDebug::DebugLvl(const char* tag, int level, const char* format, ...)
{
    if (!IsWanted(level, tag, format))
        return;
    va_list arguments;
    va_start(arguments, format);
    Write(level, std::nullopt, tag, format, arguments);
    va_end(arguments);
}

void EvDebug::DebugLvl(const char* tag, int level, long long jobId, const char* format, ...)
{
    if (!IsWanted(level, tag, format))
        return;
    va_list arguments;
    va_start(arguments, format);
    // The call passes the unsigned job identifier as a signed number.
    Write(level, static_cast<unsigned long long>(jobId), tag, format, arguments);
    va_end(arguments);
}
