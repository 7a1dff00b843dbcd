#include "host/ZnProcess.h"

#include "host/Wipe.h"
#include "standalone/znlib/ChildProcess.h"
#include "standalone/znlib/Log.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <vector>

using znlib::Checked;
using znlib::ChildEnd;
using znlib::ChildProcess;
using znlib::Descriptor;
using znlib::Uninterrupted;

namespace
{

// The result of a run without an exit status. The error output says why.
constexpr int kFailedRun = -1;

// Makes room for `size` bytes in `text`, at least twice as much as it had. What a tool reports may be
// secret: no buffer goes back to the heap with its contents.
void ReserveWiping(std::string& text, size_t size)
{
    if (size <= text.capacity())
        return;
    std::string grown;
    grown.reserve(std::max(size, 2 * text.capacity()));
    grown.append(text);
    Wipe(text);
    text.swap(grown);
}

// A command line, cut at its blanks, the space character. Blanks that follow each other count as one,
// and those at the ends as none: there are no empty words. It may hold a secret, so it is wiped.
class Words
{
public:
    // `line` may be null, which is an empty line.
    explicit Words(const char* line) : m_line(line == nullptr ? "" : line)
    {
        char* const end = m_line.data() + m_line.size();
        for (char* word = m_line.data(); word != end;)
        {
            char* const blank = std::find(word, end, ' ');
            if (word != blank)
                m_words.push_back(word);
            word = blank == end ? end : blank + 1;
            *blank = '\0';
        }
        m_words.push_back(nullptr);
    }
    Words(const Words&) = delete;
    Words& operator=(const Words&) = delete;
    ~Words() { Wipe(m_line); }

    // The path of the tool; null if there is no word at all.
    const char* Tool() const { return m_words.front(); }
    // All words, the tool first; a null ends them.
    char* const* All() const { return m_words.data(); }

private:
    std::string m_line;
    std::vector<char*> m_words;
};

// While it lives, a request to cancel this thread waits: no run is given up half-way.
class CancellationPause
{
public:
    CancellationPause() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_before); }
    CancellationPause(const CancellationPause&) = delete;
    CancellationPause& operator=(const CancellationPause&) = delete;
    ~CancellationPause() { pthread_setcancelstate(m_before, nullptr); }

private:
    int m_before = PTHREAD_CANCEL_ENABLE;
};

// How many bytes lie in `pipe`.
size_t CountThere(const Descriptor& pipe)
{
    int count = 0;
    Checked(ioctl(pipe.Get(), FIONREAD, &count), "cannot read its output");
    return static_cast<size_t>(count);
}

// Appends what one read of `pipe` gives to `text` and returns its size in bytes. Blocks while the pipe
// is empty; at its end, closes it and returns 0.
size_t ReadSome(Descriptor& pipe, std::string& text)
{
    constexpr size_t kFullPipe = 65536;
    constexpr int kLargePipe = 1 << 20;
    // What is there is read to its place at once: a buffer between would be touched, and wiped.
    const size_t before = text.size();
    const size_t wanted = std::max<size_t>(CountThere(pipe), 1);
    ReserveWiping(text, before + wanted);
    text.resize(before + wanted);
    const auto count = Uninterrupted([&] { return read(pipe.Get(), &text[before], wanted); });
    text.resize(before + static_cast<size_t>(std::max<ssize_t>(count, 0)));
    if (Checked(count, "cannot read its output") == 0)
        pipe.Close();
    // A tool with much to say and this process take turns less often with more room between them.
    else if (wanted == kFullPipe)
        static_cast<void>(fcntl(pipe.Get(), F_SETPIPE_SZ, kLargePipe));
    return text.size() - before;
}

// Appends what lies in `pipe` to `text`, but nothing that is written later: there may be no end of
// that.
void ReadRest(Descriptor& pipe, std::string& text)
{
    const size_t wanted = text.size() + (pipe.IsOpen() ? CountThere(pipe) : 0);
    while (text.size() < wanted && ReadSome(pipe, text) > 0)
    {
    }
}

// Reads both streams until `child` has ended. Its end decides, not that of the pipes: a daemon that it
// leaves behind may hold these open.
void CaptureUntilEnd(ChildProcess& child, std::string& output, std::string& errorOutput)
{
    constexpr int kMaxPauseMs = 50;
    int pauseMs = 1; // between two looks at a child that has no event for its end
    for (bool hasEnded = false; !hasEnded;)
    {
        pollfd events[] = {{child.Output().Get(), POLLIN, 0},
                           {child.ErrorOutput().Get(), POLLIN, 0},
                           {child.EndEvent().Get(), POLLIN, 0}};
        const int timeoutMs = child.EndEvent().IsOpen() ? -1 : pauseMs;
        // A signal ends the pause as well: begun anew after each, it might never end.
        if (poll(events, std::size(events), timeoutMs) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "cannot wait for its end");
        if (events[0].revents != 0)
            ReadSome(child.Output(), output);
        if (events[1].revents != 0)
            ReadSome(child.ErrorOutput(), errorOutput);
        if (events[2].revents != 0 || !child.EndEvent().IsOpen())
            hasEnded = child.HasEnded();
        pauseMs = std::min(2 * pauseMs, kMaxPauseMs);
    }
    ReadRest(child.Output(), output);
    ReadRest(child.ErrorOutput(), errorOutput);
}

// What there is to say about a run beyond the tool's own words; nothing about a success, or about a
// failure that the tool has explained.
std::string DescribeEnd(const std::string& tool, const ChildEnd& end, const std::string& errorOutput)
{
    if (end.signal != 0)
        return tool + ": killed by signal " + std::to_string(end.signal);
    if (end.result > 0 && errorOutput.empty())
        return tool + ": ended with exit status " + std::to_string(end.result) + " and said nothing";
    if (end.result >= 0)
        return "";
    const std::string unknown = "cannot tell the exit status of " + tool + ": ";
    if (end.error == ECHILD)
        return unknown + "taken away by this process, which ignores SIGCHLD or reaps every child";
    return unknown + (end.error == 0 ? "the kernel's answer was about no child of this process"
                                     : std::generic_category().message(end.error));
}

void AppendLine(std::string& text, const std::string& line)
{
    ReserveWiping(text, text.size() + 1 + line.size());
    text.append(text.empty() || text.back() == '\n' ? "" : "\n").append(line);
}

// As ZnProcess::system, for a line that has words. Throws when the tool cannot be started or read.
int Run(const Words& words, std::string& output, std::string& errorOutput)
{
    if (*words.Tool() != '/')
        throw std::invalid_argument("not a full path");
    ChildProcess child(words.All());
    CaptureUntilEnd(child, output, errorOutput);
    const std::string sentence = DescribeEnd(words.Tool(), child.End(), errorOutput);
    if (!sentence.empty())
        AppendLine(errorOutput, sentence);
    return child.End().result;
}

} // namespace

int ZnProcess::system(const char* command, std::string* output, std::string* errorOutput,
                      int /*reserved*/, bool /*reserved*/)
{
    const CancellationPause pause;
    znhost::FlushLog(); // whoever watches the log sees what a tool that hangs was told
    Wipe(*output);
    Wipe(*errorOutput);
    const Words words(command);
    if (words.Tool() == nullptr)
    {
        *errorOutput = "cannot run a tool: the command line is empty";
        return kFailedRun;
    }
    try
    {
        return Run(words, *output, *errorOutput);
    }
    catch (const std::exception& error)
    {
        Wipe(*output);
        Wipe(*errorOutput);
        *errorOutput = std::string("cannot run ") + words.Tool() + ": " + error.what();
        return kFailedRun;
    }
}
