#include "host/Wipe.h"
#include "host/ZnProcess.h"
#include "standalone/znlib/ChildProcess.h"
#include "standalone/znlib/Log.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>

using znlib::Checked;
using znlib::ChildEnd;
using znlib::ChildProcess;
using znlib::Descriptor;
using znlib::Uninterrupted;

namespace
{

// Result of a run without exit status; the error output has the reason.
constexpr int kFailedRun = -1;

// Grows the capacity to `size`, at least by a factor of two. Output may contain a secret, so the old
// buffer is wiped before it is freed.
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

// A command line, split at spaces. There are no empty words. The line may contain a secret, so it is
// wiped.
class Words
{
public:
    // A null `line` is an empty line.
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

    // The first word, or null if there is none.
    const char* Tool() const { return m_words.front(); }
    // All words, ended by a null.
    char* const* All() const { return m_words.data(); }

private:
    std::string m_line;
    std::vector<char*> m_words;
};

// Defers a cancellation of this thread to the end of the run.
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

// Reads both streams until `child` has ended. The end of the pipes is not awaited: a daemon that the
// tool left behind may keep them open.
void CaptureUntilEnd(ChildProcess& child, std::string& output, std::string& errorOutput)
{
    constexpr int kMaxPauseMs = 50;
    int pauseMs = 1; // for kernels without an event for the child's end
    for (bool hasEnded = false; !hasEnded;)
    {
        pollfd events[] = {{child.Output().Get(), POLLIN, 0},
                           {child.ErrorOutput().Get(), POLLIN, 0},
                           {child.EndEvent().Get(), POLLIN, 0}};
        const int timeoutMs = child.EndEvent().IsOpen() ? -1 : pauseMs;
        // EINTR ends the pause too: restarted after each signal, it might never end.
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

// The sentence for a failure that the tool itself has not explained; else empty.
std::string DescribeEnd(const std::string& tool, const ChildEnd& end, const std::string& output,
                        const std::string& errorOutput)
{
    if (end.signal != 0)
        return tool + ": killed by signal " + std::to_string(end.signal);
    if (end.result > 0 && errorOutput.empty())
        return tool + ": ended with exit status " + std::to_string(end.result) +
               (output.empty() ? " and said nothing" : " and wrote no error");
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

// ZnProcess::system for a line that is not empty. Throws if the tool cannot be started or read.
int Run(const Words& words, std::string& output, std::string& errorOutput)
{
    if (*words.Tool() != '/')
        throw std::invalid_argument("not a full path");
    ChildProcess child(words.All());
    CaptureUntilEnd(child, output, errorOutput);
    const std::string sentence = DescribeEnd(words.Tool(), child.End(), output, errorOutput);
    if (!sentence.empty())
        AppendLine(errorOutput, sentence);
    return child.End().result;
}

} // namespace

int ZnProcess::system(const char* command, std::string* output, std::string* errorOutput,
                      int /*reserved*/, bool /*reserved*/)
{
    const CancellationPause pause;
    znhost::FlushLog(); // if the tool hangs, its command line is in the file
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
