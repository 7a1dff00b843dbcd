#include "cli/commands/Commands.h"
#include "cli/commands/LibraryCall.h"
#include "cli/initiator/Reasons.h"
#include "cli/kernel/DiskUsers.h"
#include "cli/terminal/StatusLine.h"
#include "cli/terminal/Table.h"
#include "standalone/hxutils/Pauses.h"

#include <algorithm>
#include <array>
#include <list>
#include <utility>

namespace cli
{

namespace
{

bool HasDevice(const std::vector<std::string>& devices, const std::string& device)
{
    return std::find(devices.begin(), devices.end(), device) != devices.end();
}

// Fails with the reason why no disk was found: from `all`, the sessions at the last look, or else from
// the log.
[[noreturn]] void FailWithoutDisk(const LibraryCall& call, const std::vector<Session>& all)
{
    const std::string& iqn = call.request.iqn;
    const std::string sentence = "cannot find a disk of " + iqn;
    const std::vector<Session> sessions = SelectSessions(all, iqn);
    if (sessions.empty())
    {
        RequireShown(sentence, all, iqn);
        call.Fail(Cause::NoSession, {sentence, "there is no session with " + iqn},
                  "log on first: zniscsi logon IQN");
    }
    const std::vector<std::string> devices = DevicesOf(sessions);
    if (devices.empty())
        call.Fail(Cause::NoDevice, {sentence, "the session has no disk yet; --wait S waits for one"});
    FailReportLacks(call, sentence, devices.front());
}

// One look at the disks of a target.
struct DisksLook
{
    std::vector<std::string> devices{}; // reported, and known to the kernel
    std::vector<Session> all{};
    std::vector<Session> sessions{}; // of the target
};

DisksLook LookForDisks(const LibraryCall& call)
{
    const std::string& iqn = call.request.iqn;
    std::list<std::string> reported;
    call.initiator->GetPhysicalDevicesForTargetIQN(iqn.c_str(), reported);
    DisksLook look{{}, ReadSessions()};
    look.sessions = SelectSessions(look.all, iqn);
    const std::vector<std::string> known = DevicesOf(look.sessions);
    for (const std::string& device : reported)
        if (HasDevice(known, device))
            look.devices.push_back(device);
    return look;
}

[[noreturn]] void FailWithoutAllDisks(const LibraryCall& call, const DisksLook& look)
{
    const Request& request = call.request;
    const std::string found = std::to_string(look.devices.size());
    if (look.devices.empty())
        FailWithoutDisk(call, look.all);
    if (request.diskCount)
        call.Fail(Cause::NoDevice, {"found " + found + " of " + std::to_string(*request.diskCount) +
                                    " disks of " + request.iqn});
    call.Fail(Cause::NoDevice,
              {"cannot find all disks of " + request.iqn,
               "the disks were still changing after " +
                   std::to_string(request.waitSeconds.value_or(0)) + " s (" + found + " found)"},
              "wait longer (--wait S), or say how many there are (--count N)");
}

// How often the library asks the multipath tool.
int ReadAttemptLimit(const Initiator& initiator)
{
    int limit = ZnISCSIUnix::kDefaultAttempts;
    initiator.Concrete().GetRegInt(nullptr, "nRetryCounter", &limit);
    return limit == 0 ? ZnISCSIUnix::kDefaultAttempts : std::max(limit, 1);
}

// One look at the device to use for a target.
struct DiskLook
{
    std::string device{};            // reported; may be empty
    Machine machine{};               // with maps
    std::vector<Session> sessions{}; // of the target
    std::vector<Path> paths{};       // of the target, beneath `device`
};

DiskLook LookForDisk(const LibraryCall& call)
{
    const std::string& iqn = call.request.iqn;
    std::array<char, 4096> buffer{};
    unsigned long size = buffer.size();
    call.initiator->GetPhysicalDeviceForTargetIQN(iqn.c_str(), buffer.data(), size);
    DiskLook look{buffer.data(), ReadMaps()};
    look.sessions = SelectSessions(look.machine.sessions, iqn);
    if (!look.device.empty())
        look.paths = FindPaths(look.sessions, FindDisksBeneath(look.device));
    return look;
}

// Returns `path`, or if that does not work, one to the same LUN that does.
Path PreferWorking(const Path& path, const std::vector<Session>& sessions)
{
    if (!Works(path.session, path.disk))
        for (const Path& other : FindPaths(sessions, DevicesOf(sessions)))
            if (other.disk.lun == path.disk.lun && Works(other.session, other.disk))
                return other;
    return path;
}

// The answer for the device that the library prefers, or for the map of its disk.
Answer AnswerDisk(const DiskLook& look)
{
    if (look.paths.front().disk.device != look.device) // it is a map
    {
        WarnOfDeadPaths(look.paths);
        return {FormatLines({look.device}), {{"device", look.device}, {"path", nullptr}}};
    }
    const Path path = PreferWorking(look.paths.front(), look.sessions);
    const Disk& disk = path.disk;
    if (disk.map.empty())
    {
        WarnOfDeadPaths({path});
        return {FormatLines({disk.device}), {{"device", disk.device}, {"path", nullptr}}};
    }
    std::vector<std::string> beneath;
    for (const auto& [device, works] : look.machine.maps.at(disk.map))
        beneath.push_back(device);
    WarnOfDeadPaths(FindPaths(look.machine.sessions, beneath));
    return {FormatLines({disk.map}), {{"device", disk.map}, {"path", disk.device}}};
}

} // namespace

Answer FindDisks(const Request& request)
{
    LibraryCall call(request);
    // Disks appear one by one: with --wait, two looks must agree.
    const bool waits = request.waitSeconds.value_or(0) > 0;
    DisksLook look;
    const bool isFound = call.WaitFor("the disks of " + request.iqn, [&] {
        const std::vector<std::string> before = look.devices;
        look = LookForDisks(call);
        if (request.diskCount)
            return look.devices.size() >= *request.diskCount;
        return !look.devices.empty() && (!waits || look.devices == before);
    });
    if (!isFound)
        FailWithoutAllDisks(call, look);
    for (const std::string& device : DevicesOf(look.sessions))
        if (!HasDevice(look.devices, device))
            PrintError("warning: the report of /sbin/iscsiadm lacks " + device +
                       ", which the kernel shows");
    WarnOfDeadPaths(FindPaths(look.sessions, look.devices));
    return {FormatLines(look.devices), {{"devices", look.devices}}};
}

Answer FindDisk(const Request& request)
{
    if (request.retryPauseSeconds)
        znhost::LimitPauses(std::chrono::seconds(*request.retryPauseSeconds));
    LibraryCall call(request);
    const std::string attempts = std::to_string(ReadAttemptLimit(call.initiator));
    int attempt = 0;
    call.watch.OnRun([&](const std::string& line) {
        if (line == words::kEhcmcliRun)
            ShowStatus("attempt " + std::to_string(++attempt) + " of " + attempts +
                       ": multipath device of " + request.iqn);
    });
    DiskLook look;
    const bool isFound = call.WaitFor("a disk of " + request.iqn, [&] {
        attempt = 0;
        look = LookForDisk(call);
        return !look.paths.empty();
    });
    if (!isFound && !look.device.empty())
        call.Fail(Cause::NoDevice, {"cannot find a disk of " + request.iqn,
                                    look.device + " is reported, but the kernel shows no disk of " +
                                        request.iqn + " beneath it"});
    if (!isFound)
        FailWithoutDisk(call, look.machine.sessions);
    return AnswerDisk(look);
}

} // namespace cli
