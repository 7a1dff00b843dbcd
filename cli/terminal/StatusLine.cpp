#include "cli/terminal/StatusLine.h"

#include "standalone/helpers/Text.h"

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include <sys/ioctl.h>
#include <unistd.h>

namespace cli
{

namespace
{

using std::chrono::seconds, std::chrono::steady_clock;

std::size_t Columns()
{
    constexpr std::size_t kDefault = 80;
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : kDefault;
}

bool HasStatusLine()
{
    const char* const terminal = std::getenv("TERM");
    return isatty(STDERR_FILENO) != 0 && terminal != nullptr && terminal != std::string_view("dumb");
}

// Cuts `text` to `columns` with an ellipsis. A character is at most as wide as its bytes are many.
std::string Fit(std::string text, std::size_t columns)
{
    constexpr std::string_view kEllipsis = "...";
    if (text.size() <= columns)
        return text;
    std::size_t length = columns < kEllipsis.size() ? 0 : columns - kEllipsis.size();
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xc0U) == 0x80)
        --length; // do not cut a character
    text.resize(length);
    return text.append(kEllipsis.substr(0, columns));
}

class StatusLine
{
public:
    StatusLine(const std::string& text, std::optional<unsigned> limitSeconds, seconds delay)
        : m_text(znlib::Printable(text)),
          m_limit(limitSeconds ? " of " + std::to_string(*limitSeconds) : ""),
          m_delay(delay)
    {
        // Signals are for the thread that can end what it does.
        sigset_t all, before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        try
        {
            m_thread = std::thread([this] { Run(); });
        }
        catch (const std::system_error&) // the work goes on without a status
        {
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    StatusLine(const StatusLine&) = delete;
    StatusLine& operator=(const StatusLine&) = delete;
    ~StatusLine()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_hasEnded = true;
        }
        m_end.notify_one();
        if (m_thread.joinable())
            m_thread.join();
        Erase();
    }

    void WriteAbove(std::string_view line)
    {
        const std::lock_guard lock(m_mutex);
        Erase();
        WriteToStandardError(line); // the thread shows the status again
    }

private:
    void Run()
    {
        const auto start = steady_clock::now();
        std::unique_lock lock(m_mutex);
        for (seconds passed = m_delay;
             !m_end.wait_until(lock, start + passed, [this] { return m_hasEnded; }); ++passed)
            Show(passed.count());
    }

    void Show(long passed)
    {
        const std::string time = passed == 0 ? "" : " (" + std::to_string(passed) + m_limit + " s)";
        const std::size_t columns = Columns() - 1; // behind the last column, terminals begin a line
        const std::size_t left = columns - std::min(columns, time.size());
        WriteToStandardError("\r" + Fit(m_text, left) + Fit(time, columns) + "\033[K");
        m_isShown = true;
    }

    void Erase()
    {
        if (m_isShown)
            WriteToStandardError("\r\033[K");
        m_isShown = false;
    }

    const std::string m_text;
    const std::string m_limit;
    const seconds m_delay;
    std::mutex m_mutex;
    std::condition_variable m_end;
    bool m_hasEnded = false;
    bool m_isShown = false;
    std::thread m_thread;
};

std::unique_ptr<StatusLine> g_status;

void StartStatus(const std::string& text, std::optional<unsigned> limitSeconds, seconds delay)
{
    g_status.reset();
    if (HasStatusLine())
        g_status = std::make_unique<StatusLine>(text, limitSeconds, delay);
}

} // namespace

void ShowStatus(const std::string& text, std::optional<unsigned> limitSeconds)
{
    StartStatus(text, limitSeconds, seconds(0));
}

void EraseStatus()
{
    g_status.reset();
}

void WriteAboveStatus(std::string_view line)
{
    if (g_status)
        g_status->WriteAbove(line);
    else
        WriteToStandardError(line);
}

SlowWork::SlowWork(const std::string& text)
{
    StartStatus(text, std::nullopt, seconds(1));
}

void WriteToStandardError(std::string_view text)
{
    static_cast<void>(!write(STDERR_FILENO, text.data(), text.size()));
}

} // namespace cli
