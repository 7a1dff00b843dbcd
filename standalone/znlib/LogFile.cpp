#include "standalone/znlib/LogFile.h"

#include "standalone/helpers/Descriptor.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <new>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace
{

using znlib::Descriptor;
using znlib::Uninterrupted;
using FileStatus = struct stat;

struct OpenFile
{
    Descriptor descriptor; // if not open, errno has the reason
    std::string path;      // after following symbolic links
};

// The file's type is looked at before it is opened: opening a block device has effects. `linkFlag` is 0
// to follow a symbolic link at the end of `path`.
Descriptor OpenToAppend(const std::string& path, int linkFlag)
{
    // O_NONBLOCK: opening a FIFO without a reader must not block.
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    // Only for its owner: the log names hosts, targets and CHAP users.
    constexpr mode_t kMode = 0600;
    FileStatus status{};
    const bool isThere = (linkFlag == 0 ? stat : lstat)(path.c_str(), &status) == 0;
    if (isThere && S_ISBLK(status.st_mode))
    {
        errno = ENOTBLK;
        return {};
    }
    return Descriptor(open(path.c_str(), kFlags | linkFlag, kMode));
}

// The target of the symbolic link `path`; empty, with errno set, if it must not be followed.
std::string ReadTrustedLink(const std::string& path)
{
    // Owner and target are read through one descriptor, so that the link cannot be replaced in between.
    const Descriptor link(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    FileStatus status{};
    std::array<char, PATH_MAX> target{};
    if (!link.IsOpen() || fstat(link.Get(), &status) != 0)
        return {};
    errno = ELOOP;
    if (status.st_uid != 0 && status.st_uid != geteuid())
        return {};
    const ssize_t length = readlinkat(link.Get(), "", target.data(), target.size());
    return {target.data(), static_cast<std::size_t>(length < 0 ? 0 : length)};
}

// Links in /proc, as behind /dev/stderr, lead to an open file and not to the path that they show.
bool IsInProc(const std::string& link)
{
    struct statfs directory
    {
    };
    return statfs(link.substr(0, link.rfind('/') + 1).append(".").c_str(), &directory) == 0 &&
           directory.f_type == PROC_SUPER_MAGIC;
}

// A link that another user planted would make root append to, and rename, a file of that user's choice.
OpenFile OpenLog(std::string path)
{
    constexpr int kMaxLinks = 40; // as for the kernel
    for (int links = 0; links <= kMaxLinks; ++links)
    {
        Descriptor file = OpenToAppend(path, O_NOFOLLOW);
        if (file.IsOpen() || errno != ELOOP)
            return {std::move(file), path};
        if (IsInProc(path))
            return {OpenToAppend(path, 0), path};
        const std::string target = ReadTrustedLink(path);
        if (target.empty())
            break;
        path.erase(target.front() == '/' ? 0 : path.rfind('/') + 1).append(target);
    }
    return {Descriptor(), path};
}

bool IsFullWith(const FileStatus& file, std::size_t addition, unsigned long long maxSizeBytes)
{
    return maxSizeBytes != 0 && S_ISREG(file.st_mode) && file.st_size > 0 &&
           static_cast<unsigned long long>(file.st_size) + addition > maxSizeBytes;
}

// Renames the file to PATH.1 under its lock, unless another process holds the lock or has just renamed
// it. Returns 0 or an errno value.
int Rotate(const OpenFile& full)
{
    if (Uninterrupted([&] { return flock(full.descriptor.Get(), LOCK_EX | LOCK_NB); }) != 0)
        return errno == EWOULDBLOCK ? 0 : errno;
    FileStatus ours{};
    FileStatus current{};
    if (fstat(full.descriptor.Get(), &ours) != 0 || lstat(full.path.c_str(), &current) != 0)
        return errno == ENOENT ? 0 : errno;
    const bool isOurs = ours.st_ino == current.st_ino && ours.st_dev == current.st_dev;
    return isOurs && std::rename(full.path.c_str(), (full.path + ".1").c_str()) != 0 ? errno : 0;
}

// During its lifetime, a write to a pipe without a reader, or beyond the limit of this process for
// files, fails and raises no signal.
class WriteSignalBlock
{
public:
    WriteSignalBlock()
    {
        sigset_t pending;
        sigpending(&pending);
        for (const int signal : {SIGPIPE, SIGXFSZ})
        {
            if (sigismember(&pending, signal) == 0)
                sigaddset(&m_raised, signal);
        }
        pthread_sigmask(SIG_BLOCK, &m_raised, &m_before);
    }
    WriteSignalBlock(const WriteSignalBlock&) = delete;
    WriteSignalBlock& operator=(const WriteSignalBlock&) = delete;
    ~WriteSignalBlock()
    {
        const timespec now{};
        sigtimedwait(&m_raised, nullptr, &now); // consumes the signal of a failed write
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
    }

private:
    sigset_t m_raised{}; // by a write in the meantime
    sigset_t m_before{};
};

// Returns how many bytes could not be written; errno has the reason.
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

// Whether the last line of this process was truncated, for example by a full disk. The next line then
// begins with a line end. (The file's last byte does not tell: another process may be writing.)
std::atomic<bool> g_cutShort{false};

// Writes with one call, so that lines of several processes do not mix. Returns 0 or an errno value.
int WriteLines(int descriptor, std::string_view lines)
{
    const WriteSignalBlock block;
    if (g_cutShort && WriteAll(descriptor, "\n") > 0)
        return errno;
    const std::size_t left = WriteAll(descriptor, lines);
    g_cutShort = left > 0 && left < lines.size();
    return left == 0 ? 0 : errno;
}

} // namespace

int znlib::AppendLines(const char* path, std::string_view lines,
                       unsigned long long maxSizeBytes) noexcept
try
{
    const bool isStandardError = path == std::string_view("-");
    OpenFile log;
    if (!isStandardError)
        log = OpenLog(path);
    FileStatus file{};
    const int descriptor = isStandardError ? STDERR_FILENO : log.descriptor.Get();
    if (descriptor < 0 || fstat(descriptor, &file) != 0)
        return errno;
    if (S_ISBLK(file.st_mode))
        return ENOTBLK;
    if (isStandardError || !IsFullWith(file, lines.size(), maxSizeBytes))
        return WriteLines(descriptor, lines);

    // If the file cannot be renamed, it continues to grow; no line is lost.
    const int error = Rotate(log);
    log = OpenLog(path);
    if (!log.descriptor.IsOpen())
        return errno;
    const int writeError = WriteLines(log.descriptor.Get(), lines);
    return writeError != 0 ? writeError : error;
}
catch (const std::bad_alloc&)
{
    return ENOMEM;
}
