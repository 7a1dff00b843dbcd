#include "standalone/znlib/ProcessRunner.h"

#include "host/Wipe.h"
#include "host/ZnProcess.h"
#include "standalone/znlib/Capture.h"
#include "standalone/znlib/ChildProcess.h"
#include "standalone/znlib/Log.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

namespace
{

using std::chrono::milliseconds;
using znhost::RunLimits;
using znlib::ChildEnd;
using znlib::ChildProcess;

// Result of a run without exit status; the error output has the reason.
constexpr int kFailedRun = -1;

constexpr milliseconds::rep kNoLimit = -1;
std::atomic<bool> g_endWithProgram{false};
std::atomic<milliseconds::rep> g_timeLimitMs{kNoLimit};

RunLimits CurrentLimits()
{
    RunLimits limits;
    limits.endWithProgram = g_endWithProgram;
    if (const milliseconds::rep timeLimitMs = g_timeLimitMs; timeLimitMs != kNoLimit)
        limits.timeLimit = milliseconds(timeLimitMs);
    return limits;
}

// A command line, split at spaces. There are no empty words. The line may contain a secret, so it is
// wiped.
class Words
{
public:
    // A null `line` is an empty line.
    explicit Words(const char* line)
    {
        const std::string_view text = line == nullptr ? "" : line;
        // All memory before the copy: a constructor that throws runs no destructor that wipes it.
        m_words.reserve(static_cast<size_t>(std::count(text.begin(), text.end(), ' ')) + 2);
        m_line = text;
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

// 2500 ms: "TOOL: did not end within 2.5 s"
std::string DescribeDelay(const std::string& tool, milliseconds limit)
{
    std::string fraction = std::to_string(1000 + limit.count() % 1000);
    fraction.front() = '.';
    fraction.erase(fraction.find_last_not_of("0.") + 1);
    return tool + ": did not end within " + std::to_string(limit.count() / 1000) + fraction + " s";
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
    return unknown + std::generic_category().message(end.error);
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
    const RunLimits limits = CurrentLimits();
    ChildProcess child(words.All(), limits);
    const bool isInTime = CaptureUntilEnd(child, limits.timeLimit, output, errorOutput);
    const std::string sentence = isInTime ? DescribeEnd(words.Tool(), child.End(), output, errorOutput)
                                          : DescribeDelay(words.Tool(), *limits.timeLimit);
    if (!sentence.empty())
        AppendLine(errorOutput, sentence);
    return isInTime ? child.End().result : kFailedRun;
}

} // namespace

void znhost::LimitRuns(const RunLimits& limits)
{
    g_endWithProgram = limits.endWithProgram;
    g_timeLimitMs =
        limits.timeLimit ? std::max<milliseconds::rep>(0, limits.timeLimit->count()) : kNoLimit;
}

int ZnProcess::system(const char* command, std::string* output, std::string* errorOutput,
                      int /*reserved*/, bool /*reserved*/)
{
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
