#include "standalone/znlib/Log.h"

#include "host/EvDebug.h"
#include "standalone/znlib/LogFile.h"
#include "standalone/znlib/LogLine.h"
#include "standalone/znlib/LogSettings.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

#include <sys/syscall.h>
#include <unistd.h>

// No locks: a child forked while another thread holds one would wait for ever. No static or
// thread-local objects with destructors: lines may be written during the exit of the process, and such
// a thread-local object would keep the library loaded. No exception leaves: where memory ends, a line
// is lost.
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
    std::array<char, 32> ids{};   // "[812:815]"
};
thread_local ThreadLog t_log;

// errno of the last line that was lost.
std::atomic<int> g_writeError{0};

// While a tap's functions run there is none: a line of their own does not call them again.
class TapCall
{
public:
    TapCall() : m_tap(std::exchange(t_log.tap, nullptr)) {}
    TapCall(const TapCall&) = delete;
    TapCall& operator=(const TapCall&) = delete;
    ~TapCall() { t_log.tap = m_tap; }

    // Null if there is none.
    const LogTap* Tap() const { return m_tap; }

private:
    const LogTap* m_tap;
};

bool TapWants(int level, const char* tag, const char* format)
{
    const TapCall call;
    return call.Tap() != nullptr && call.Tap()->wants()(level, tag, format);
}

void CallTap(const znhost::LogEntry& entry)
{
    const TapCall call;
    call.Tap()->listener()(entry);
}

void WriteBuffer(std::string_view lines)
{
    const LogSettings& settings = znhost::CurrentLogSettings();
    const int error = znlib::AppendLines(settings.file, lines, settings.maxSizeBytes);
    if (error != 0)
        g_writeError = error;
}

// The buffer of this thread. In a forked child it is emptied first: the parent writes those lines.
std::string& BufferedLines()
{
    if (t_log.lines == nullptr)
        t_log.lines = new std::string;
    if (const pid_t process = getpid(); t_log.process != process)
    {
        t_log.process = process;
        static_cast<void>(std::snprintf(t_log.ids.data(), t_log.ids.size(), "[%d:%ld]", process,
                                        syscall(SYS_gettid)));
        t_log.lines->clear();
    }
    return *t_log.lines;
}

void Buffer(const znlib::LogLine& line)
{
    const LogSettings& settings = znhost::CurrentLogSettings();
    // A single write must not exceed the size limit of the file.
    constexpr unsigned long long kMaxBufferedBytes = 65536;
    const unsigned long long limit = settings.maxSizeBytes == 0
                                         ? kMaxBufferedBytes
                                         : std::min(kMaxBufferedBytes, settings.maxSizeBytes);

    std::string& lines = BufferedLines();
    const std::size_t before = lines.size();
    znlib::AppendLogLine(lines, t_log.ids.data(), line);
    if (before != 0 && lines.size() > limit)
    {
        WriteBuffer(std::string_view(lines).substr(0, before));
        lines.erase(0, before);
    }
    const bool mustFlush =
        line.level < 0 || lines.size() > limit || settings.file == std::string_view("-");
    if (mustFlush)
        znhost::FlushLog();
}

void Write(int level, std::optional<unsigned long long> jobId, const char* tag, const char* format,
           va_list arguments)
{
    const int callersError = errno;
    try
    {
        const bool isShown = znlib::LogFileShows(level);
        const bool isTapped = TapWants(level, tag, format);
        if (isShown || isTapped)
        {
            const znlib::FormattedText text(format, arguments);
            if (isShown)
                Buffer({level, jobId, tag, text.Text()});
            if (isTapped)
                CallTap({level, jobId, tag, std::string(text.Text())});
        }
    }
    catch (const std::bad_alloc&)
    {
        g_writeError = ENOMEM;
        if (level < 0)
            znhost::FlushLog(); // what came before the lost error
    }
    errno = callersError;
}

bool MayBeWanted(int level)
{
    return t_log.tap != nullptr || znlib::LogFileShows(level);
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

void znhost::FlushLog() noexcept
{
    if (t_log.lines == nullptr || t_log.lines->empty())
        return;
    if (std::string& lines = BufferedLines(); !lines.empty())
    {
        WriteBuffer(lines);
        lines.clear();
    }
}

std::string znhost::LastLogError()
{
    const int error = g_writeError;
    if (error == 0)
        return "";
    return std::string("cannot write the log ") + CurrentLogSettings().file + ": " +
           (error == ELOOP     ? "a symbolic link there is another user's, or leads round in a circle"
            : error == ENOTBLK ? "it is a block device"
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
    if (!MayBeWanted(kNoLevel))
        return;
    va_list arguments;
    va_start(arguments, format);
    Write(kNoLevel, std::nullopt, tag, format, arguments);
    va_end(arguments);
}

void EvDebug::DebugLvl(const char* tag, int level, const char* format, ...)
{
    if (!MayBeWanted(level))
        return;
    va_list arguments;
    va_start(arguments, format);
    Write(level, std::nullopt, tag, format, arguments);
    va_end(arguments);
}

void EvDebug::DebugLvl(const char* tag, int level, long long jobId, const char* format, ...)
{
    if (!MayBeWanted(level))
        return;
    va_list arguments;
    va_start(arguments, format);
    // The call passes the unsigned job identifier as a signed number.
    Write(level, static_cast<unsigned long long>(jobId), tag, format, arguments);
    va_end(arguments);
}
