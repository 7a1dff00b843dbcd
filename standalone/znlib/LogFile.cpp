#include "standalone/znlib/LogFile.h"

#include "standalone/znlib/Descriptor.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
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
// so.
void SetAside(const std::string& path, const Descriptor& full)
{
    if (flock(full.Get(), LOCK_EX) != 0)
        return;
    FileStatus ours{};
    FileStatus current{};
    if (fstat(full.Get(), &ours) == 0 && stat(path.c_str(), &current) == 0 &&
        ours.st_ino == current.st_ino && ours.st_dev == current.st_dev)
        static_cast<void>(std::rename(path.c_str(), (path + ".1").c_str()));
}

// Whether a line of this process was cut short, by a full disk say: what follows must not be taken for
// a part of it.
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

bool IsControl(unsigned char byte)
{
    return byte < 0x20 || byte == 0x7f;
}

// The control characters above ASCII, as UTF-8 has them: C2 80 to C2 9F.
bool BeginsHighControl(std::string_view text)
{
    return text.size() >= 2 && text[0] == '\xc2' && static_cast<unsigned char>(text[1]) >= 0x80 &&
           static_cast<unsigned char>(text[1]) < 0xa0;
}

} // namespace

std::string znhost::EscapeControls(const std::string& text)
{
    std::string escaped;
    escaped.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at)
    {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (BeginsHighControl(std::string_view(text).substr(at)))
        {
            AppendEscape(escaped, byte);
            AppendEscape(escaped, static_cast<unsigned char>(text[++at]));
        }
        else if (IsControl(byte) || byte == '\\')
            AppendEscape(escaped, byte);
        else
            escaped += text[at];
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
    if (IsFullWith(file, whole.size(), maxSizeBytes))
    {
        SetAside(path, log);
        log = OpenLog(path);
        if (!log.IsOpen() || fstat(log.Get(), &file) != 0)
            return errno;
    }
    return WriteLine(log.Get(), whole);
}
