#include "tests/cli/Script.h"

#include "host/ZnProcess.h"
#include "tests/cli/RecordedMachine.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <iterator>
#include <map>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace
{

struct ToolAnswer
{
    std::string words;
    int status;
    std::string output;
    std::string errorOutput;
    bool isUsed = false;
};

struct ToolEffect
{
    std::string words;
    std::string change;
};

std::vector<ToolAnswer> g_answers;
std::vector<ToolEffect> g_effects;
std::map<std::string, int> g_openErrors; // by device
std::map<std::string, dev_t> g_beneath;  // a loop device
std::string g_openedLoop;
bool g_isOrdinaryUser = false;

bool HasWords(const std::string& line, const std::string& words)
{
    std::istringstream stream(words);
    const std::string spaced = ' ' + line + ' ';
    return std::all_of(std::istream_iterator<std::string>(stream), {}, [&](const std::string& word) {
        return spaced.find(' ' + word + ' ') != std::string::npos;
    });
}

std::string Unescaped(std::string text)
{
    for (std::size_t at = 0; (at = text.find("\\n", at)) != std::string::npos; ++at)
        text.replace(at, 2, "\n");
    return text;
}

// "0 > 192.0.2.10:3260,1 iqn.x:a\n ! iscsiadm: broken\n"
ToolAnswer ParseAnswer(const std::string& words, const std::string& text)
{
    const std::size_t error = std::min(text.find(" ! "), text.size());
    const std::size_t output = std::min(text.find(" > "), error);
    const auto part = [&text](std::size_t begin, std::size_t end) {
        return Unescaped(begin + 3 < end ? text.substr(begin + 3, end - begin - 3) : "");
    };
    return {words, std::stoi(text), part(output, error), part(error, text.size())};
}

const ToolAnswer* FindAnswer(const std::string& command)
{
    ToolAnswer* last = nullptr;
    for (ToolAnswer& answer : g_answers)
    {
        if (!HasWords(command, answer.words))
            continue;
        last = &answer;
        if (!answer.isUsed)
            break;
    }
    if (last != nullptr)
        last->isUsed = true;
    return last;
}

void ChangeNowOrLater(const std::string& change)
{
    const std::string later = "later ";
    if (change.rfind(later, 0) != 0)
        return RecordedMachine::Change("/", change);
    std::thread([change, later] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        RecordedMachine::Change("/", change.substr(later.size()));
    }).detach();
}

int Open(const char* path, int flags, mode_t mode)
{
    const std::string device = path == nullptr ? "" : path;
    if (const auto error = g_openErrors.find(device); error != g_openErrors.end())
    {
        errno = error->second;
        return -1;
    }
    if (g_beneath.count(device) != 0)
        g_openedLoop = device;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

} // namespace

int ZnProcess::system(const char* command, std::string* output, std::string* errorOutput, int, bool)
{
    const ToolAnswer* const answer = FindAnswer(command);
    *output = answer == nullptr ? "" : answer->output;
    *errorOutput = answer == nullptr ? "no answer to this command\n" : answer->errorOutput;
    for (const ToolEffect& effect : g_effects)
        if (HasWords(command, effect.words))
            ChangeNowOrLater(effect.change);
    return answer == nullptr ? 99 : answer->status;
}

// Under other names, since the system's headers declare these functions with attributes.
extern "C" int ScriptedOpen(const char* path, int flags, ...) noexcept __asm__("open");
extern "C" int ScriptedCheckedOpen(const char* path, int flags) noexcept __asm__("__open_2");
extern "C" int ScriptedIoctl(int descriptor, unsigned long request, ...) noexcept __asm__("ioctl");
extern "C" uid_t ScriptedUser() noexcept __asm__("geteuid");

extern "C" int ScriptedOpen(const char* path, int flags, ...) noexcept
{
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return Open(path, flags, mode);
}

extern "C" int ScriptedCheckedOpen(const char* path, int flags) noexcept
{
    return Open(path, flags, 0);
}

extern "C" int ScriptedIoctl(int descriptor, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request != LOOP_GET_STATUS64 || g_openedLoop.empty())
        return static_cast<int>(syscall(SYS_ioctl, descriptor, request, argument));
    static_cast<loop_info64*>(argument)->lo_rdevice = g_beneath.at(g_openedLoop);
    return 0;
}

extern "C" uid_t ScriptedUser() noexcept
{
    return g_isOrdinaryUser ? 12345 : static_cast<uid_t>(syscall(SYS_geteuid));
}

void Prepare(const std::filesystem::path& root, const std::string& line)
{
    const std::string kind = line.substr(0, line.find(' '));
    const std::string rest = line.substr(std::min(kind.size() + 1, line.size()));
    const std::size_t colon = rest.find(": ");
    const std::string subject = rest.substr(0, colon);
    const std::string value = colon == std::string::npos ? "" : rest.substr(colon + 2);
    const std::size_t then = rest.find(" then ");
    if (kind == "tool" && then != std::string::npos)
        g_effects.push_back({rest.substr(0, then), rest.substr(then + 6)});
    else if (kind == "tool")
        g_answers.push_back(ParseAnswer(subject, value));
    else if (kind == "open")
        g_openErrors[subject] = value == "held" ? EBUSY : EACCES;
    else if (kind == "loop")
        g_beneath[subject] =
            makedev(static_cast<unsigned>(std::stoi(value)),
                    static_cast<unsigned>(std::stoi(value.substr(value.find(':') + 1))));
    else if (kind == "user")
        g_isOrdinaryUser = true;
    else
        RecordedMachine::Change(root, line);
}

void ForgetAnswers()
{
    g_answers.clear();
    g_effects.clear();
    g_openErrors.clear();
    g_beneath.clear();
    g_openedLoop.clear();
    g_isOrdinaryUser = false;
}
