#include "agent/RecordLock.h"

#include "agent/Terminal.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace
{

using znlib::Checked;
using znlib::Descriptor;
using znlib::Uninterrupted;

constexpr const char* kFolder = "/run/lock/zniscsi";

// The folder belongs to this user: in a folder that others may write to, they could hold the lock.
Descriptor OpenFolder()
{
    if (mkdir(kFolder, S_IRWXU) != 0 && errno != EEXIST)
        Checked(-1, kFolder);
    Descriptor folder(Checked(open(kFolder, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC), kFolder));
    struct stat status
    {
    };
    Checked(fstat(folder.Get(), &status), kFolder);
    if (status.st_uid != geteuid())
        throw std::runtime_error(std::string(kFolder) + " belongs to another user");
    return folder;
}

// `operation` is LOCK_SH or LOCK_EX.
Descriptor Lock(const Descriptor& folder, std::string name, int operation, const std::string& what)
{
    std::replace(name.begin(), name.end(), '/', '!');
    name.resize(std::min<std::size_t>(name.size(), NAME_MAX));
    Descriptor file(Checked(openat(folder.Get(), name.c_str(),
                                   O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR),
                            kFolder));
    if (Uninterrupted([&] { return flock(file.Get(), operation | LOCK_NB); }) == 0)
        return file;
    if (errno == EWOULDBLOCK)
        ShowStatusLine("waiting for another zniscsi at work on " + what);
    Checked(Uninterrupted([&] { return flock(file.Get(), operation); }), kFolder);
    EraseStatusLine();
    return file;
}

} // namespace

RecordLock::RecordLock(const PortalMatcher& portal, const std::string& iqn)
{
    try
    {
        const Descriptor folder = OpenFolder();
        const std::string address = portal.Canonical();
        m_portal = Lock(folder, address, iqn.empty() ? LOCK_EX : LOCK_SH, address);
        if (!iqn.empty())
            m_record = Lock(folder, address + ',' + iqn, LOCK_EX, iqn + " at " + address);
    }
    catch (const std::runtime_error& error)
    {
        m_error = error.what();
    }
}
