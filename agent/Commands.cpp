#include "agent/Commands.h"

#include "agent/Initiator.h"
#include "agent/KernelSessions.h"
#include "agent/LogWatch.h"
#include "agent/Secret.h"
#include "agent/Terminal.h"
#include "standalone/hxutils/Pauses.h"
#include "standalone/znlib/Text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <iomanip>
#include <sstream>
#include <thread>

namespace
{

// One command's use of the library.
struct Work
{
    explicit Work(const Request& asked) : request(asked), watch(asked.verbosity), initiator(asked.jobId)
    {
    }

    // Ends the command unless `done`: what could not be done, then the reasons that the log gives.
    void Require(bool done, const std::string& sentence) const
    {
        if (done)
            return;
        std::vector<std::string> reasons = ParseReasons(watch.Errors());
        reasons.insert(reasons.begin(), sentence);
        throw Failure(watch.ToolWasMissing() ? Exit::ToolMissing : Exit::Failed, reasons);
    }

    // Looks again, once a second, until `lookUp` succeeds; ends the command when the user's patience is
    // spent, or the tool is missing.
    void WaitFor(const std::string& what, const std::function<int()>& lookUp)
    {
        using std::chrono::seconds, std::chrono::steady_clock;
        const auto deadline = steady_clock::now() + seconds(request.waitSeconds);
        while (lookUp() == 0)
        {
            const auto left = deadline - steady_clock::now();
            Require(left > seconds(0) && !watch.ToolWasMissing(),
                    "cannot find " + what + " in any session");
            ShowStatusLine("waiting, " + std::to_string(std::chrono::ceil<seconds>(left).count()) +
                           " s left: " + what);
            std::this_thread::sleep_for(std::min<steady_clock::duration>(left, seconds(1)));
            watch.Forget();
        }
    }

    const Request& request;
    LogWatch watch;
    Initiator initiator;
};

template <class Values>
std::string Lines(const Values& values)
{
    std::string text;
    for (const std::string& value : values)
        text += znhost::Printable(value) + '\n';
    return text;
}

std::string NodeOf(const Request& request)
{
    return request.iqn + " at " + request.portal;
}

int LogOnPlainly(const Initiator& initiator, const Request& request)
{
    return initiator->LogOnToiSCSITarget(request.portal.c_str(), request.iqn.c_str());
}

int LogOnWithChap(const Initiator& initiator, const Request& request)
{
    const std::string& user = *request.chapUser;
    const Secret secret = request.chapSecretFile ? ReadSecretFile(*request.chapSecretFile)
                                                 : ReadSecretFromStandardInput(user);
    return initiator->LogOnToiSCSITargetUsingCHAP(request.portal.c_str(), request.iqn.c_str(),
                                                  user.c_str(), secret.c_str());
}

bool HasKernelSession(const Request& request)
{
    const PortalMatcher wanted(request.portal);
    const std::vector<KernelSession> sessions = ReadKernelSessions();
    return std::any_of(sessions.begin(), sessions.end(), [&](const KernelSession& session) {
        return session.iqn == request.iqn && wanted.Matches(session.portal);
    });
}

// How often the library asks the multipath tool before it gives up.
int ReadAttemptLimit(const Initiator& initiator)
{
    constexpr int kUsual = 5;
    int limit = kUsual;
    initiator.Concrete().GetRegInt(nullptr, "nRetryCounter", &limit);
    return limit == 0 ? kUsual : std::max(limit, 1);
}

std::string FormatTable(const std::vector<iSSCSISessionInfo>& disks)
{
    std::vector<iSSCSISessionInfo> rows{{"DEVICE", "PORTAL", "IQN"}};
    for (const iSSCSISessionInfo& disk : disks)
        rows.push_back({znhost::Printable(disk.sDeviceName), znhost::Printable(disk.sTargetPortal),
                        znhost::Printable(disk.sTargetVolIQN)});
    std::size_t deviceWidth = 0, portalWidth = 0;
    for (const iSSCSISessionInfo& row : rows)
    {
        deviceWidth = std::max(deviceWidth, row.sDeviceName.size());
        portalWidth = std::max(portalWidth, row.sTargetPortal.size());
    }
    std::ostringstream table;
    for (const iSSCSISessionInfo& row : rows)
        table << std::left << std::setw(static_cast<int>(deviceWidth)) << row.sDeviceName << "  "
              << std::setw(static_cast<int>(portalWidth)) << row.sTargetPortal << "  "
              << row.sTargetVolIQN << '\n';
    return table.str();
}

} // namespace

Answer Discover(const Request& request)
{
    const PortalMatcher wanted(request.portal);
    const Work work(request);
    work.Require(work.initiator->RefreshiSCSITargetPortal(request.portal.c_str()) == 1,
                 "cannot discover targets at " + request.portal);
    const std::optional<std::vector<NodeRecord>> records = RunNodeReport();
    work.Require(records.has_value(),
                 "discovered the targets at " + request.portal + " but cannot list them");

    std::vector<std::string> targets;
    for (const NodeRecord& record : *records)
        if (wanted.Matches(record.portal) &&
            std::find(targets.begin(), targets.end(), record.iqn) == targets.end())
            targets.push_back(record.iqn);
    if (targets.empty())
        Complain("no node record names " + request.portal + ": iscsiadm -m node lists them all");
    return {Lines(targets), {{"targets", targets}}};
}

Answer LogOn(const Request& request)
{
    Work work(request);
    bool already = false;
    work.watch.OnProgress([&already](const std::string& line) {
        already = already || line == "Already logged on to this target.";
    });
    const int done = request.chapUser ? LogOnWithChap(work.initiator, request)
                                      : LogOnPlainly(work.initiator, request);
    // Newer tools refuse a second log-on in words that the library does not know.
    if (done == 0 && work.watch.LogOnFailed())
        already = HasKernelSession(request);
    work.Require(done == 1 || already, "cannot log on to " + NodeOf(request));
    return {already ? "already logged on\n" : "logged on\n", {{"already", already}}};
}

Answer LogOff(const Request& request)
{
    const Work work(request);
    const int done = work.initiator->LogOffFromiSCSITarget(request.portal.c_str(), request.iqn.c_str());
    work.Require(done == 1, "cannot log off from " + NodeOf(request));
    return {"logged off\n"};
}

Answer Forget(const Request& request)
{
    const Work work(request);
    const int done = work.initiator.Concrete().DeleteiSCSIIQNFromiSCSIAdmDb(request.portal.c_str(),
                                                                            request.iqn.c_str());
    work.Require(done == 1, "cannot delete the node record of " + NodeOf(request));
    return {"forgotten\n"};
}

Answer FindDisks(const Request& request)
{
    Work work(request);
    std::list<std::string> devices;
    work.WaitFor("a disk of " + request.iqn, [&] {
        devices.clear();
        return work.initiator->GetPhysicalDevicesForTargetIQN(request.iqn.c_str(), devices);
    });
    return {Lines(devices), {{"devices", devices}}};
}

Answer FindDisk(const Request& request)
{
    if (request.retryPauseSeconds)
        znhost::LimitPauses(std::chrono::seconds(*request.retryPauseSeconds));
    Work work(request);
    const std::string attempts = std::to_string(ReadAttemptLimit(work.initiator));
    int attempt = 0;
    work.watch.OnProgress([&](const std::string& line) {
        if (line == "Running [/usr/sbin/ehcmcli status]")
            ShowStatusLine("attempt " + std::to_string(++attempt) + " of " + attempts +
                           ": multipath device of " + request.iqn);
    });
    std::array<char, 4096> device{};
    unsigned long size = device.size();
    work.WaitFor("a disk of " + request.iqn, [&] {
        attempt = 0;
        return work.initiator->GetPhysicalDeviceForTargetIQN(request.iqn.c_str(), device.data(), size);
    });
    return {Lines(std::array<std::string, 1>{device.data()}), {{"device", device.data()}}};
}

Answer FindTarget(const Request& request)
{
    Work work(request);
    std::array<char, 4096> portal{}, iqn{};
    unsigned long portalSize = portal.size(), iqnSize = iqn.size();
    work.WaitFor("the target of " + request.device, [&] {
        return work.initiator->GetTargetIPAndIQNForDevice(request.device.c_str(), portal.data(),
                                                          portalSize, iqn.data(), iqnSize);
    });
    return {Lines(std::array<std::string, 2>{portal.data(), iqn.data()}),
            {{"portal", portal.data()}, {"iqn", iqn.data()}}};
}

Answer ListSessions(const Request& request)
{
    const Work work(request);
    const std::optional<std::vector<iSSCSISessionInfo>> disks = RunSessionReport();
    work.Require(disks.has_value(), "cannot list the sessions");
    auto sessions = nlohmann::ordered_json::array();
    for (const iSSCSISessionInfo& disk : *disks)
        sessions.push_back({{"device", disk.sDeviceName},
                            {"portal", disk.sTargetPortal},
                            {"iqn", disk.sTargetVolIQN}});
    if (!disks->empty())
        return {FormatTable(*disks), {{"sessions", sessions}}};
    return {ReadKernelSessions().empty() ? "no sessions\n" : "no session presents a disk\n",
            {{"sessions", sessions}}};
}
