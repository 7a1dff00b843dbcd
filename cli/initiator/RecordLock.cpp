#include "cli/initiator/RecordLock.h"

#include "cli/initiator/Reasons.h"
#include "cli/terminal/Output.h"
#include "cli/terminal/StatusLine.h"
#include "host/EvDebug.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace cli
{

namespace
{

using znlib::Checked;
using znlib::Descriptor;
using znlib::Uninterrupted;

constexpr const char* kDirectory = "/run/zniscsi";
constexpr const char* kDiscovery = "discovery";

// Only root may write to /run. The files are readable for root only: who can open a file can lock it.
Descriptor OpenLockFile(const std::string& name)
{
    if (mkdir(kDirectory, S_IRWXU) != 0 && errno != EEXIST)
        Checked(-1, kDirectory);
    const std::string path = std::string(kDirectory) + '/' + name;
    constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    return Descriptor(Checked(open(path.c_str(), kFlags, S_IRUSR | S_IWUSR), path.c_str()));
}

// False if another process holds the lock. `operation` is LOCK_SH or LOCK_EX.
bool TryLock(const Descriptor& file, int operation)
{
    if (Uninterrupted([&] { return flock(file.Get(), operation | LOCK_NB); }) == 0)
        return true;
    return errno != EWOULDBLOCK && Checked(-1, kDirectory) == 0;
}

void Wait(const Descriptor& file, int operation, const std::string& what,
          std::optional<unsigned> limitSeconds)
{
    using std::chrono::steady_clock;
    EvEvent().DebugLvl(words::kOwnTag, 0, "Waiting for another zniscsi at work on %s", what.c_str());
    ShowStatus("waiting for another zniscsi at work on " + what, limitSeconds);
    const auto start = steady_clock::now();
    while (!TryLock(file, operation))
    {
        if (limitSeconds && steady_clock::now() - start >= std::chrono::seconds(*limitSeconds))
            throw Failure(Cause::TimedOut, {"another zniscsi is at work on " + what +
                                            " for more than " + std::to_string(*limitSeconds) + " s"});
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EraseStatus();
}

} // namespace

RecordLock::RecordLock(const Request& request, const std::string& name, int operation,
                       const std::string& what)
{
    if (geteuid() != 0)
        return;
    try
    {
        m_file = OpenLockFile(name);
        if (!TryLock(m_file, operation))
            Wait(m_file, operation, what, request.timeoutSeconds);
    }
    catch (const std::system_error& error)
    {
        PrintError(std::string("warning: other zniscsi are not kept out: ") + error.what());
    }
}

RecordLock RecordLock::OfTarget(const Request& request)
{
    std::string name = request.iqn; // it begins with "iqn.", "eui." or "naa."
    std::replace(name.begin(), name.end(), '/', '!');
    return {request, name, LOCK_EX, request.iqn};
}

RecordLock RecordLock::OfDiscovery(const Request& request)
{
    return {request, kDiscovery, LOCK_EX, "a discovery or a log-on with CHAP"};
}

RecordLock RecordLock::AgainstDiscovery(const Request& request)
{
    return {request, kDiscovery, LOCK_SH, "a discovery"};
}

} // namespace cli
