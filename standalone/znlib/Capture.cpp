#include "standalone/znlib/Capture.h"

#include "host/Wipe.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <iterator>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>

namespace znlib
{

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using namespace std::chrono_literals;

// How many bytes `pipe` contains.
size_t CountThere(const Descriptor& pipe)
{
    int count = 0;
    Checked(ioctl(pipe.Get(), FIONREAD, &count), "cannot read its output");
    return static_cast<size_t>(count);
}

// Appends the bytes of one read from `pipe` to `text` and returns their number. Blocks while the pipe
// is empty. Closes the pipe at its end.
size_t ReadSome(Descriptor& pipe, std::string& text)
{
    constexpr size_t kFullPipe = 65536;
    constexpr int kLargePipe = 1 << 20;
    // Read directly into `text`: an intermediate buffer would have to be touched and wiped.
    const size_t before = text.size();
    const size_t wanted = std::max<size_t>(CountThere(pipe), 1);
    ReserveWiping(text, before + wanted);
    text.resize(before + wanted);
    const auto count = Uninterrupted([&] { return read(pipe.Get(), &text[before], wanted); });
    text.resize(before + static_cast<size_t>(std::max<ssize_t>(count, 0)));
    if (Checked(count, "cannot read its output") == 0)
        pipe.Close();
    // A larger pipe saves context switches between this process and a tool with much output.
    else if (wanted == kFullPipe)
        static_cast<void>(fcntl(pipe.Get(), F_SETPIPE_SZ, kLargePipe));
    return text.size() - before;
}

// Appends what `pipe` contains now. A daemon that the tool left behind may write for ever.
void ReadRest(Descriptor& pipe, std::string& text)
{
    const size_t wanted = text.size() + (pipe.IsOpen() ? CountThere(pipe) : 0);
    while (text.size() < wanted && ReadSome(pipe, text) > 0)
    {
    }
}

// Ends a tool whose time is up: SIGTERM, SIGKILL, and at last no more waiting.
class Deadline
{
public:
    explicit Deadline(std::optional<milliseconds> limit) : m_limit(limit), m_due(limit.value_or(0ms)) {}

    // For how long to wait until the next call of Enforce.
    int RemainingMs() const
    {
        if (!m_limit)
            return INT_MAX;
        const milliseconds remaining = m_due - Elapsed();
        return static_cast<int>(std::clamp<milliseconds::rep>(remaining.count(), 0, INT_MAX));
    }

    // Takes the next step if it is due. Returns true if it has given `child` up.
    bool Enforce(ChildProcess& child)
    {
        constexpr int kSignals[] = {SIGTERM, SIGKILL};
        constexpr milliseconds kGrace = 2s;
        if (!m_limit || Elapsed() < m_due)
            return false;
        if (m_sent == std::size(kSignals))
        {
            child.Abandon();
            return true;
        }
        child.Signal(kSignals[m_sent++]);
        m_due = Elapsed() + kGrace;
        return false;
    }

    bool HasPassed() const { return m_sent > 0; }

private:
    milliseconds Elapsed() const
    {
        return std::chrono::duration_cast<milliseconds>(steady_clock::now() - m_start);
    }

    steady_clock::time_point m_start = steady_clock::now();
    std::optional<milliseconds> m_limit;
    milliseconds m_due; // since m_start
    size_t m_sent = 0;
};

} // namespace

bool CaptureUntilEnd(ChildProcess& child, std::optional<milliseconds> timeLimit, std::string& output,
                     std::string& errorOutput)
{
    constexpr int kMaxPauseMs = 50;
    int pauseMs = 1; // for kernels without an event for the child's end
    Deadline deadline(timeLimit);
    for (bool isOver = false; !isOver;)
    {
        pollfd events[] = {{child.Output().Get(), POLLIN, 0},
                           {child.ErrorOutput().Get(), POLLIN, 0},
                           {child.EndEvent().Get(), POLLIN, 0}};
        const int maxMs = child.EndEvent().IsOpen() ? INT_MAX : pauseMs;
        const int ready = poll(events, std::size(events), std::min(deadline.RemainingMs(), maxMs));
        // EINTR ends the pause too: restarted after each signal, it might never end.
        if (ready < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "cannot wait for its end");
        if (events[0].revents != 0)
            ReadSome(child.Output(), output);
        if (events[1].revents != 0)
            ReadSome(child.ErrorOutput(), errorOutput);
        if (events[2].revents != 0 || !child.EndEvent().IsOpen())
            isOver = child.HasEnded();
        if (!isOver && ready >= 0) // after a signal the child may have ended before it was due
            isOver = deadline.Enforce(child);
        pauseMs = std::min(2 * pauseMs, kMaxPauseMs);
    }
    ReadRest(child.Output(), output);
    ReadRest(child.ErrorOutput(), errorOutput);
    return !deadline.HasPassed();
}

} // namespace znlib
