#include "redhat/ZnISCSILinuxRedhat.h"

#include "host/BeginsWith.h"
#include "host/CallLog.h"
#include "host/ToolRun.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace
{

constexpr const char* kIscsiadm = "/sbin/iscsiadm";

// Selects the node record of one target at one portal.
std::string NodeCommand(const char* targetIQN, const char* portal)
{
    return std::string("/sbin/iscsiadm -m node -T ") + targetIQN + " -p " + portal;
}

// iscsiadm: initiator reported error (15 - already exists)
bool SaysAlreadyLoggedOn(const std::string& errorOutput)
{
    const char* const report = std::strstr(errorOutput.c_str(), "initiator reported error");
    return report != nullptr && std::strstr(report, "already exists") != nullptr;
}

// A failed log-on counts as success if the session already exists.
bool LogOn(const CallLog& log, ToolRun& iscsiadm, const std::string& nodeCommand)
{
    const std::string command = nodeCommand + " -l";
    if (iscsiadm.Run(command))
        return true;
    log.Error("Error returned by command is: %s.", iscsiadm.PrintableErrorOutput().c_str());
    if (SaysAlreadyLoggedOn(iscsiadm.ErrorOutput()))
    {
        log.Info("Already logged on to this target.");
        return true;
    }
    iscsiadm.LogFailure(command);
    return false;
}

// Runs the detailed report, and the short one of the oldest tools if that fails. `iscsiadm` has the
// output of the last run.
bool RunSessionReport(ToolRun& iscsiadm)
{
    const std::string detailed = "/sbin/iscsiadm -m session -P3";
    if (iscsiadm.Run(detailed))
        return true;
    iscsiadm.LogFailure(detailed, " ... Trying /sbin/iscsiadm -m session -i");
    return iscsiadm.RunOrLogFailure("/sbin/iscsiadm -m session -i");
}

// Reads the attached disks of all sessions. False when the tool cannot report them.
bool ReadSessions(const CallLog& log, std::vector<iSSCSISessionInfo>& sessions)
{
    ToolRun iscsiadm(log, kIscsiadm);
    if (!iscsiadm.ToolExists() || !RunSessionReport(iscsiadm))
        return false;
    if (!ParseIscsiadmSessionInfoOutput(iscsiadm.Output(), sessions))
    {
        log.Error("Failed to parse iscsiadm info.");
        return false;
    }
    log.Info("Number of sessions - [%d]", static_cast<int>(sessions.size()));
    return true;
}

// Finds the disks that a session report may name for `deviceName`: the disks beneath it, or the device
// itself if the device tree gives none.
bool FindPhysicalDevices(const CallLog& log, const std::string& deviceName,
                         std::vector<std::string>& physicalDevices)
{
    ZnISCSILinuxRedhat resolver;
    if (!resolver.GetPhysicalDeviceForMultipathDevice(deviceName, physicalDevices))
    {
        log.Error("Unable to get the Physical Device for the given Multipath Device[%s]",
                  deviceName.c_str());
        return false;
    }
    if (physicalDevices.empty())
    {
        log.Error("Unable to use ZnDeviceTree. Going ahead with the input device [%s]",
                  deviceName.c_str());
        physicalDevices.push_back(deviceName);
    }
    for (const std::string& physicalDevice : physicalDevices)
        log.Info("Physical Device [%s]", physicalDevice.c_str());
    return true;
}

// Whether a further path of the device leads to the same target as the first: the portal and the IQN of
// the first path begin with those of this one.
bool PathAgrees(const CallLog& log, const std::string& deviceName, const std::string& portal,
                const std::string& targetIQN, const iSSCSISessionInfo& path)
{
    if (!BeginsWith(portal, path.sTargetPortal))
    {
        log.Error(
            "The Device[%s] maybe a multipathing device. [%s] does not match [%s]. The Target Portals "
            "for all children should match.",
            deviceName.c_str(), portal.c_str(), path.sTargetPortal.c_str());
        return false;
    }
    if (!BeginsWith(targetIQN, path.sTargetVolIQN))
    {
        log.Error(
            "The Device[%s] maybe a multipathing device. [%s] does not match [%s]. The Target Volume "
            "IQNs for all children should match.",
            deviceName.c_str(), targetIQN.c_str(), path.sTargetVolIQN.c_str());
        return false;
    }
    return true;
}

// Copies `value` with its terminating zero. False if it does not fit; nothing is written then.
bool CopyToCaller(const std::string& value, char* buffer, unsigned long bufferSize)
{
    if (bufferSize <= value.size())
        return false;
    std::memcpy(buffer, value.c_str(), value.size() + 1);
    return true;
}

// Forward searches for one marker in one text. Text that one search has ruled out is not searched
// again: a sequence of searches from growing positions takes time linear in the text.
class MarkerSearch
{
public:
    MarkerSearch(const std::string& text, std::string_view marker) : m_text(text), m_marker(marker) {}

    // Position of the first marker at or after `from`, or npos.
    std::size_t Find(std::size_t from)
    {
        if (from < m_from || from > m_found)
        {
            m_from = from;
            m_found = m_text.find(m_marker, from);
        }
        return m_found;
    }

    std::size_t Length() const { return m_marker.size(); }

private:
    std::string_view m_text;
    std::string_view m_marker;
    // No marker begins in [m_from, m_found). Initially no position is in this interval.
    std::size_t m_from = 1;
    std::size_t m_found = 0;
};

struct ReportLayout
{
    std::string_view target;
    std::string_view portal;
};

constexpr std::array<ReportLayout, 2> kLayouts{{
    {"TargetName: ", "Network Portal: "},
    {"Target: ", "Persistent Portal: "},
}};

// One pass over a session report with the markers of one layout. In the second layout:
//
// Target: iqn.2001-04.example:vol3 (non-flash)
// 	Current Portal: 192.0.2.20:3260,1
// 	Persistent Portal: 192.0.2.20:3260,1
// 		Host Number: 4	State: running
// 		scsi4 Channel 00 Id 0 Lun: 0
// 			Attached scsi disk sdd		State: running
//
// In the first, all at the beginning of the line:
//
// TargetName: iqn.2001-04.example:vol1
// Network Portal: 192.0.2.10:3260
//
// A search is not limited to the block it starts in: a block without a portal gets that of the next.
class SessionScan
{
public:
    SessionScan(const CallLog& log, const std::string& report, const ReportLayout& layout,
                std::vector<iSSCSISessionInfo>& records)
        : m_log(log),
          m_report(report),
          m_targets(report, layout.target),
          m_portals(report, layout.portal),
          m_disks(report, "Attached scsi disk "),
          m_states(report, "State:"),
          m_records(records)
    {
    }

    // False if the text ends within a target line or before its portal.
    bool Run()
    {
        for (;;)
        {
            const std::size_t target = m_targets.Find(m_position);
            if (target == std::string::npos)
                return true;
            m_current = {};
            if (!TakeIQN(target) || !TakePortal())
                return false;
            TakeDisks();
        }
    }

private:
    bool TakeIQN(std::size_t target)
    {
        const std::size_t begin = target + m_targets.Length();
        const std::size_t end = m_report.find('\n', begin);
        if (end == std::string::npos)
            return false;
        std::string& targetIQN = m_current.sTargetVolIQN;
        targetIQN = m_report.substr(begin, end - begin);
        m_nextTarget = m_targets.Find(target + 1);
        m_log.Info("sTargetVolIQN = [%s].", targetIQN.c_str());
        if (const std::size_t blank = targetIQN.find(' '); blank != std::string::npos)
        {
            targetIQN.erase(blank);
            m_log.Info("sTargetVolIQN after removing invalid characters = [%s].", targetIQN.c_str());
        }
        m_position = end + 1;
        return true;
    }

    bool TakePortal()
    {
        const std::size_t portal = m_portals.Find(m_position);
        if (portal == std::string::npos)
            return false;
        const std::size_t begin = portal + m_portals.Length();
        const std::size_t colon = m_report.find(':', begin);
        if (colon == std::string::npos)
            return false;
        m_current.sTargetPortal = m_report.substr(begin, colon - begin);
        m_log.Info("sTargetPortal = [%s].", m_current.sTargetPortal.c_str());
        m_position = colon + 1;
        return true;
    }

    // Takes all disk lines before the next target line. A disk line without a state ends the target.
    void TakeDisks()
    {
        for (;;)
        {
            const std::size_t disk = m_disks.Find(m_position);
            if (disk >= m_nextTarget)
                break;
            m_position = disk;
            m_log.Info("Valid Device.");
            const std::size_t begin = disk + m_disks.Length();
            const std::size_t state = m_states.Find(begin);
            if (state == std::string::npos)
                return;
            TakeDisk(std::string_view(m_report).substr(begin, state - begin));
            m_position = state + 1;
        }
        m_log.Info("No new device found in target %s.", m_current.sTargetVolIQN.c_str());
    }

    // `line` is the text between the marker and the state: "sdb\t\t".
    void TakeDisk(std::string_view line)
    {
        std::string& device = m_current.sDeviceName;
        device = line.substr(0, line.find_first_of(" \t"));
        m_log.Info("sDeviceName = [%s].", device.c_str());
        device.insert(0, "/dev/");
        m_log.Info("'Fixed' sDeviceName = [%s].", device.c_str());
        m_records.push_back(m_current);
    }

    const CallLog& m_log;
    const std::string& m_report;
    MarkerSearch m_targets;
    MarkerSearch m_portals;
    MarkerSearch m_disks;
    MarkerSearch m_states;
    std::vector<iSSCSISessionInfo>& m_records;
    iSSCSISessionInfo m_current;
    std::size_t m_position = 0;
    // Position of the next target line, or npos at the last target.
    std::size_t m_nextTarget = std::string::npos;
};

} // namespace

ZnISCSILinuxRedhat::ZnISCSILinuxRedhat() = default;
ZnISCSILinuxRedhat::~ZnISCSILinuxRedhat() = default;

int ZnISCSILinuxRedhat::GetTargetIPAndIQNForDevice(const char* deviceName, char* portalBuffer,
                                                   unsigned long& portalBufferSize, char* iqnBuffer,
                                                   unsigned long& iqnBufferSize)
{
    const FullLog log("ZnISCSILinux::GetTargetIPAndIQNForDevice", m_jobId);
    if (!log.Accepts({deviceName}))
        return 0;
    // A copy: the caller may pass one buffer as name and as result.
    const std::string device = deviceName;
    if (device.find("/dev/") == std::string::npos)
    {
        log.Error("Device name [%s] not in expected format.", device.c_str());
        return 0;
    }
    if (!log.Accepts({portalBuffer, iqnBuffer}))
        return 0;
    std::fill_n(portalBuffer, portalBufferSize, '\0');
    std::fill_n(iqnBuffer, iqnBufferSize, '\0');
    if (!log.MachineIsServed())
        return 0;

    std::string portal;
    std::string targetIQN;
    return FindISCSITargetPortalAndIQN_RedHat5(device, portal, targetIQN) &&
           CopyToCaller(portal, portalBuffer, portalBufferSize) &&
           CopyToCaller(targetIQN, iqnBuffer, iqnBufferSize);
}

int ZnISCSILinuxRedhat::RefreshiSCSITargetPortal(const char* portal)
{
    const FullLog log("ZnISCSILinux::RefreshiSCSITargetPortal", m_jobId);
    if (!log.Accepts({portal}) || !log.MachineIsServed())
        return 0;
    return RefreshISCSISystemBus_RedHat5(portal);
}

int ZnISCSILinuxRedhat::LogOnToiSCSITarget(const char* portal, const char* targetIQN)
{
    const FullLog log("ZnISCSILinux::LogOnToiSCSITarget", m_jobId);
    if (!log.Accepts({portal, targetIQN}) || !log.MachineIsServed())
        return 0;
    return LogOnToISCSITarget_RedHat5(portal, targetIQN);
}

int ZnISCSILinuxRedhat::LogOffFromiSCSITarget(const char* portal, const char* targetIQN)
{
    const FullLog log("ZnISCSILinux::LogOffFromiSCSITarget", m_jobId);
    if (!log.Accepts({portal, targetIQN}) || !log.MachineIsServed())
        return 0;
    return LogOffFromISCSITarget_RedHat5(portal, targetIQN);
}

// Without a check of the machine: a multipath device is valid on any. The fallback has its own check.
int ZnISCSILinuxRedhat::GetPhysicalDeviceForTargetIQN(const char* targetIQN, char* deviceBuffer,
                                                      unsigned long& deviceBufferSize)
{
    const FullLog log("ZnISCSILinux::GetPhysicalDeviceForTargetIQN", m_jobId);
    if (!log.Accepts({targetIQN, deviceBuffer}))
        return 0;
    std::string mpioDevice;
    if (GetDellMPIODeviceForTargetIQN(targetIQN, mpioDevice))
    {
        log.Info("Successfully got the MPIO Device [%s]", mpioDevice.c_str());
        return CopyToCaller(mpioDevice, deviceBuffer, deviceBufferSize);
    }
    log.Info("Unable to get the MPIO device. Getting the physical device...");
    std::list<std::string> devices;
    GetPhysicalDevicesForTargetIQN(targetIQN, devices);
    return !devices.empty() && CopyToCaller(devices.front(), deviceBuffer, deviceBufferSize);
}

int ZnISCSILinuxRedhat::GetPhysicalDevicesForTargetIQN(const char* targetIQN,
                                                       std::list<std::string>& devices)
{
    const FullLog log("ZnISCSILinux::GetPhysicalDevicesForTargetIQN", m_jobId);
    if (!log.Accepts({targetIQN}) || !log.MachineIsServed())
        return 0;
    return FindPhyDeviceNameFromISCSITargetIQN_RedHat5(targetIQN, devices);
}

int ZnISCSILinuxRedhat::LogOnToiSCSITargetUsingCHAP(const char* portal, const char* targetIQN,
                                                    const char* userName, const char* password)
{
    const FullLog log("ZnISCSILinux::LogOnToiSCSITargetUsingCHAP", m_jobId);
    if (!log.Accepts({portal, targetIQN, userName, password}) || !log.MachineIsServed())
        return 0;
    return LogOnToISCSITargetUsingCHAP_RedHat5(portal, targetIQN, userName, password);
}

int ZnISCSILinuxRedhat::DeleteiSCSIIQNFromiSCSIAdmDb(const char* portal, const char* targetIQN)
{
    const FullLog log("ZnISCSILinux::DeleteiSCSIIQNFromiSCSIAdmDb", m_jobId);
    if (!log.Accepts({portal, targetIQN}) || !log.MachineIsServed())
        return 0;
    return DeleteiSCSIIQNFromiSCSIAdmDb_RedHat5(portal, targetIQN);
}

int RefreshISCSISystemBus_RedHat5(const char* portal)
{
    const FullLog log("RefreshISCSISystemBus_RedHat5");
    if (!log.Accepts({portal}))
        return 0;
    ToolRun iscsiadm(log, kIscsiadm);
    return iscsiadm.ToolExists() &&
           iscsiadm.RunOrLogFailure(std::string("/sbin/iscsiadm -m discovery -t sendtargets -p ") +
                                    portal);
}

int LogOnToISCSITarget_RedHat5(const char* portal, const char* targetIQN)
{
    const FullLog log("LogOnToISCSITarget_RedHat5");
    if (!log.Accepts({portal, targetIQN}))
        return 0;
    ToolRun iscsiadm(log, kIscsiadm);
    return iscsiadm.ToolExists() && LogOn(log, iscsiadm, NodeCommand(targetIQN, portal));
}

int LogOnToISCSITargetUsingCHAP_RedHat5(const char* portal, const char* targetIQN, const char* userName,
                                        const char* password)
{
    const FullLog log("LogOnToISCSITargetUsingChap_RedHat5");
    if (!log.Accepts({portal, targetIQN, userName, password}))
        return 0;
    ToolRun iscsiadm(log, kIscsiadm, password);
    const std::string node = NodeCommand(targetIQN, portal);
    const std::string update = node + " --op=update --name=node.session.auth.";
    return iscsiadm.ToolExists() && iscsiadm.RunOrLogFailure(update + "authmethod --value=CHAP") &&
           iscsiadm.RunOrLogFailure(update + "username --value=" + userName) &&
           iscsiadm.RunWithSecretOrLogFailure(update + "password", " --value=") &&
           LogOn(log, iscsiadm, node);
}

int LogOffFromISCSITarget_RedHat5(const char* portal, const char* targetIQN)
{
    const FullLog log("LogOffFromISCSITarget_RedHat5");
    if (!log.Accepts({portal, targetIQN}))
        return 0;
    ToolRun iscsiadm(log, kIscsiadm);
    return iscsiadm.ToolExists() && iscsiadm.RunOrLogFailure(NodeCommand(targetIQN, portal) + " -u");
}

int DeleteiSCSIIQNFromiSCSIAdmDb_RedHat5(const char* portal, const char* targetIQN)
{
    const FullLog log("DeleteiSCSIIQNFromiSCSIAdmDb_RedHat5");
    if (!log.Accepts({portal, targetIQN}))
        return 0;
    ToolRun iscsiadm(log, kIscsiadm);
    return iscsiadm.ToolExists() &&
           iscsiadm.RunOrLogFailure(std::string("/sbin/iscsiadm -m node -o delete -T ") + targetIQN +
                                    " -p " + portal);
}

bool FindPhyDeviceNameFromISCSITargetIQN_RedHat5(std::string targetIQN, std::list<std::string>& devices)
{
    const PlainLog log("FindPhyDeviceNameFromISCSITargetIQN_RedHat5");
    log.Info("Input target IQN: [%s].", targetIQN.c_str());
    std::vector<iSSCSISessionInfo> sessions;
    if (!ReadSessions(log, sessions))
        return false;

    bool found = false;
    for (const iSSCSISessionInfo& session : sessions)
    {
        if (session.sTargetVolIQN != targetIQN)
            continue;
        if (session.sDeviceName.empty())
        {
            log.Info("****************DEVICE NAME IS EMPTY FOR TARGET IQN [%s]****************",
                     targetIQN.c_str());
            return false;
        }
        devices.push_back(session.sDeviceName);
        log.Info("Device name [%s] found for Target IQN [%s].", session.sDeviceName.c_str(),
                 targetIQN.c_str());
        found = true;
    }
    return found;
}

bool FindISCSITargetPortalAndIQN_RedHat5(const std::string& deviceName, std::string& portal,
                                         std::string& targetIQN)
{
    const PlainLog log("FindISCSITargetPortalAndIQN_RedHat5");
    portal.clear();
    targetIQN.clear();
    log.Info("Input Device name: [%s].", deviceName.c_str());
    std::vector<std::string> physicalDevices;
    std::vector<iSSCSISessionInfo> sessions;
    if (!FindPhysicalDevices(log, deviceName, physicalDevices) || !ReadSessions(log, sessions))
        return false;

    bool found = false;
    for (const iSSCSISessionInfo& session : sessions)
    {
        if (std::find(physicalDevices.begin(), physicalDevices.end(), session.sDeviceName) ==
            physicalDevices.end())
            continue;
        if (!portal.empty() && !targetIQN.empty())
        {
            if (!PathAgrees(log, deviceName, portal, targetIQN, session))
                return false;
            continue;
        }
        portal = session.sTargetPortal;
        targetIQN = session.sTargetVolIQN;
        log.Info("Target Portal [%s] found for device [%s].", portal.c_str(), deviceName.c_str());
        log.Info("Target Volume IQN [%s] found for device [%s].", targetIQN.c_str(),
                 deviceName.c_str());
        found = true;
    }
    return found;
}

bool ParseIscsiadmSessionInfoOutput(const std::string& report, std::vector<iSSCSISessionInfo>& records)
{
    const PlainLog log("ParseIscsiadmSessionInfoOutput");
    log.Detail("Input to parse.");
    log.Detail("[");
    log.Detail("%s", report.c_str());
    log.Detail("]");
    // If one layout meets truncated text, the other layout is not tried.
    for (const ReportLayout& layout : kLayouts)
        if (!SessionScan(log, report, layout, records).Run())
            break;
    return true;
}
