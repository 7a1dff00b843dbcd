#include "standalone/znlib/LogFile.h"

#include "standalone/znlib/Descriptor.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace
{

using znlib::Descriptor;
using znlib::Uninterrupted;
using FileStatus = struct stat;

// Readable by its owner: the log names hosts, targets and CHAP users.
constexpr mode_t kLogMode = 0600;

Descriptor OpenLog(const std::string& path)
{
    // Not to hang on a FIFO that nobody reads.
    return Descriptor(open(
        path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, kLogMode));
}

// How much of `text` could not be written; errno says why.
std::size_t WriteAll(int descriptor, std::string_view text)
{
    while (!text.empty())
    {
        const ssize_t written =
            Uninterrupted([&] { return write(descriptor, text.data(), text.size()); });
        if (written < 0)
            break;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return text.size();
}

bool IsFullWith(const FileStatus& file, std::size_t addition, unsigned long long maxSizeBytes)
{
    return maxSizeBytes != 0 && S_ISREG(file.st_mode) && file.st_size > 0 &&
           static_cast<unsigned long long>(file.st_size) + addition > maxSizeBytes;
}

// Sets the file aside unless another thread or process, which would hold the lock meanwhile, has done
// so. A symbolic link stays where it is. Returns 0, or the errno of what failed.
int SetAside(const std::string& path, const Descriptor& full)
{
    if (Uninterrupted([&] { return flock(full.Get(), LOCK_EX); }) != 0)
        return errno;
    const std::unique_ptr<char, decltype(&std::free)> file(realpath(path.c_str(), nullptr), &std::free);
    FileStatus ours{};
    FileStatus current{};
    if (file == nullptr || fstat(full.Get(), &ours) != 0 || stat(file.get(), &current) != 0)
        return errno == ENOENT ? 0 : errno; // just set aside
    const bool isOurs = ours.st_ino == current.st_ino && ours.st_dev == current.st_dev;
    return isOurs && std::rename(file.get(), (file.get() + std::string(".1")).c_str()) != 0 ? errno : 0;
}

// Whether the last line of this process was cut short, by a full disk say: what follows must not be
// taken for a part of it. (A look at the file's last byte would tell it of other processes' lines too,
// but also catch them in the middle of a write.)
std::atomic<bool> g_cutShort{false};

// One write, so that the line is appended whole, whoever else is writing.
int WriteLine(int descriptor, const std::string& line)
{
    const std::string text = g_cutShort.exchange(false) ? '\n' + line : line;
    const std::size_t left = WriteAll(descriptor, text);
    if (left == 0)
        return 0;
    const int error = errno;
    g_cutShort = left < text.size() || text.size() > line.size();
    return error;
}

void AppendEscape(std::string& text, unsigned char byte)
{
    constexpr char kDigits[] = "0123456789abcdef";
    switch (byte)
    {
    case '\n':
        text += "\\n";
        break;
    case '\r':
        text += "\\r";
        break;
    case '\t':
        text += "\\t";
        break;
    case '\\':
        text += "\\\\";
        break;
    default:
        text += "\\x";
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 0xfU];
    }
}

// How many bytes the UTF-8 character at the beginning of `text` has; 0 when there is none. Overlong
// forms and the like are none of a log's business.
std::size_t CharacterLength(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80)
        return 1;
    if (first < 0xc2 || first > 0xf4)
        return 0;
    const std::size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    const std::string_view rest = text.substr(1, length - 1);
    const bool isWhole = rest.size() + 1 == length && std::all_of(rest.begin(), rest.end(), [](char c) {
                             return (static_cast<unsigned char>(c) & 0xc0U) == 0x80;
                         });
    return isWhole ? length : 0;
}

// Control characters: those of ASCII, those above it, which UTF-8 has as C2 80 to C2 9F, and what is no
// character at all, since a terminal may take it for one of these.
bool IsPrintable(std::string_view character)
{
    if (character.size() == 1)
        return static_cast<unsigned char>(character[0]) >= 0x20 && character[0] != 0x7f &&
               character[0] != '\\';
    return character.size() > 1 &&
           (character[0] != '\xc2' || static_cast<unsigned char>(character[1]) >= 0xa0);
}

} // namespace

std::string znhost::EscapeControls(const std::string& text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (std::string_view rest = text; !rest.empty();)
    {
        const std::string_view character = rest.substr(0, CharacterLength(rest));
        const std::string_view taken = rest.substr(0, std::max<std::size_t>(character.size(), 1));
        if (IsPrintable(character))
            escaped += taken;
        else
            for (const char byte : taken)
                AppendEscape(escaped, static_cast<unsigned char>(byte));
        rest.remove_prefix(taken.size());
    }
    return escaped;
}

int znhost::AppendLine(const std::string& path, const std::string& line,
                       unsigned long long maxSizeBytes)
{
    const std::string whole = line + '\n';
    if (path == "-")
        return WriteLine(STDERR_FILENO, whole);

    Descriptor log = OpenLog(path);
    FileStatus file{};
    if (!log.IsOpen() || fstat(log.Get(), &file) != 0)
        return errno;
    int error = 0;
    if (IsFullWith(file, whole.size(), maxSizeBytes))
    {
        // A file that cannot be set aside goes on growing: no line is lost for it.
        error = SetAside(path, log);
        log = OpenLog(path);
        if (!log.IsOpen())
            return errno;
    }
    const int writeError = WriteLine(log.Get(), whole);
    return writeError != 0 ? writeError : error;
}
