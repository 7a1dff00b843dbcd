#include "multipath/ZnISCSILinux.h"

#include "host/CallLog.h"
#include "host/HxSleep.h"
#include "host/ToolRun.h"
#include "host/ZnDeviceTree.h"

#include <algorithm>
#include <array>

namespace
{

constexpr const char* kEhcmcli = "/usr/sbin/ehcmcli";
constexpr const char* kStatusCommand = "/usr/sbin/ehcmcli status";

// The texts in front of the three values of a volume in the report.
struct ReportMarkers
{
    std::string volume;
    std::string target;
    std::string device;
};

// False if the setting is missing or empty: an empty marker would match everywhere.
bool ReadMarker(ZnISCSICommonUtils& settings, const char* key, std::string& marker)
{
    std::array<char, 128> buffer{};
    if (!settings.GetRegStr(nullptr, key, buffer.data(), static_cast<int>(buffer.size())))
        return false;
    buffer.back() = '\0'; // a reader may fill the buffer and leave no room for it
    marker = buffer.data();
    return !marker.empty();
}

ReportMarkers ReadMarkers(ZnISCSICommonUtils& settings, const CallLog& log)
{
    ReportMarkers stored;
    if (!ReadMarker(settings, "VolumeKey", stored.volume) ||
        !ReadMarker(settings, "TargetIQNKey", stored.target) ||
        !ReadMarker(settings, "MPIODeviceKey", stored.device))
    {
        log.Info("Reg Keys not set. Using default values...");
        return {"Volume: ", "Target name: ", "Device to mount: "};
    }
    log.Info("Volume Reg Key[%s]", stored.volume.c_str());
    log.Info("TargetIQN Key[%s]", stored.target.c_str());
    log.Info("Device to mount Key[%s]", stored.device.c_str());
    return stored;
}

// Takes the text between the next `marker` and the end of its line, and moves `position` behind that
// line. False if there is no such marker at or after `position`.
bool TakeValue(const std::string& report, const std::string& marker, std::size_t& position,
               std::string& value)
{
    const std::size_t found = report.find(marker, position);
    if (found == std::string::npos)
        return false;
    const std::size_t begin = found + marker.size();
    const std::size_t end = std::min(report.find('\n', begin), report.size());
    value = report.substr(begin, end - begin);
    position = std::min(end + 1, report.size());
    return true;
}

// Volume: vol-alpha
// Target name: iqn.2000-01.test.array:vol-alpha
// Status: connected
// Device to mount: /dev/mapper/vol-alpha
//
// False at the first missing value.
bool TakeVolume(const std::string& report, const ReportMarkers& markers, std::size_t& position,
                DellMPIOSessionInfo& volume, const CallLog& log)
{
    if (!TakeValue(report, markers.volume, position, volume.sVolumeName))
    {
        log.Error("Unable to parse the input or end of input string. Volume string not found!");
        return false;
    }
    log.Info("Volume Name [%s]", volume.sVolumeName.c_str());
    if (!TakeValue(report, markers.target, position, volume.sTargetIQN))
    {
        log.Error("Unable to parse the input. Target string not found!");
        return false;
    }
    log.Info("TargetIQN [%s]", volume.sTargetIQN.c_str());
    if (!TakeValue(report, markers.device, position, volume.sMPIODevice))
    {
        log.Error("Unable to parse the input. Device to mount string not found!");
        return false;
    }
    log.Info("Dell MPIO Device [%s]", volume.sMPIODevice.c_str());
    return true;
}

// If the report lists the target more than once, the last record decides.
bool FindMPIODevice(const std::vector<DellMPIOSessionInfo>& volumes, const std::string& targetIQN,
                    std::string& mpioDevice, const CallLog& log)
{
    bool found = false;
    for (const DellMPIOSessionInfo& volume : volumes)
    {
        if (volume.sTargetIQN != targetIQN)
            continue;
        mpioDevice = volume.sMPIODevice;
        log.Info("MPIO Device [%s] found for Target IQN [%s]", mpioDevice.c_str(), targetIQN.c_str());
        found = true;
    }
    return found;
}

int ReadAttemptLimit(ZnISCSICommonUtils& settings)
{
    int limit = ZnISCSIUnix::kDefaultAttempts;
    settings.GetRegInt(nullptr, "nRetryCounter", &limit);
    return limit == 0 ? ZnISCSIUnix::kDefaultAttempts : limit;
}

} // namespace

bool ZnISCSIUnix::ParseDellMPIOOutput(std::string report, std::vector<DellMPIOSessionInfo>& records)
{
    const EventLog log("ZnISCSIUnix::ParseDellMPIOOutput", m_jobId);
    const ReportMarkers markers = ReadMarkers(*this, log);
    records.clear();
    if (report.empty())
    {
        log.RefuseParameters();
        return false;
    }
    log.Detail("Input to parse[%s]", report.c_str());

    std::size_t position = 0;
    for (DellMPIOSessionInfo volume; TakeVolume(report, markers, position, volume, log);)
        records.push_back(volume);
    return true;
}

bool ZnISCSIUnix::GetDellMPIODeviceForTargetIQN(std::string targetIQN, std::string& mpioDevice)
{
    constexpr unsigned long kPauseMilliseconds = 20000;
    const FullLog log("ZnISCSIUnix::GetDellMPIODeviceForTargetIQN");
    if (targetIQN.empty())
    {
        log.RefuseParameters();
        return false;
    }
    const int limit = ReadAttemptLimit(*this);
    for (int attempt = 1;; ++attempt)
    {
        ToolRun ehcmcli(log, kEhcmcli);
        if (!ehcmcli.ToolExists() || !ehcmcli.RunOrLogFailure(kStatusCommand))
            return false;
        std::vector<DellMPIOSessionInfo> volumes;
        if (!ParseDellMPIOOutput(ehcmcli.Output(), volumes))
        {
            log.Error("Failed to parse ehcmcli command output.");
            return false;
        }
        if (FindMPIODevice(volumes, targetIQN, mpioDevice, log))
            return true;
        if (attempt >= limit)
            break;
        HXSLEEP_InTeRnAl(kPauseMilliseconds, "ZnISCSILinux", __LINE__);
    }
    log.Error("MPIO Device for for Target IQN [%s] still not visible", targetIQN.c_str());
    log.Error("Unable to find the MPIO device for the given Target IQN [%s]", targetIQN.c_str());
    return false;
}

bool ZnISCSIUnix::GetPhysicalDeviceForMultipathDevice(std::string device,
                                                      std::vector<std::string>& physicalDevices)
{
    const EventLog log("GetPhysicalDeviceForMultipathDevice", m_jobId);
    log.Info("Device Name[%s]", device.c_str());

    CHxError error = CHxError::Success();
    const SP<ZnDevice> node = ZnDeviceTree::getDevice(device.c_str(), &error);
    const SP<ZnDevice> parent = ZnDeviceTree::getParentDevice(device.c_str(), &error);
    if (node.operator->() == nullptr)
    {
        log.Error("ZnDevice for [%s] is NULL", device.c_str());
        return false;
    }
    if (parent.operator->() == nullptr)
    {
        log.Error("Parent ZnDevice for [%s] is NULL", device.c_str());
        return false;
    }
    const std::list<SP<ZnDevice>> children = node->getChildren();
    log.Info("Parent ZnDevice is [%s]", parent->getName().c_str());
    log.Info("Children Count is [%d]", static_cast<int>(children.size()));
    for (const SP<ZnDevice>& child : children)
        physicalDevices.push_back(child->getName());
    if (children.empty())
        physicalDevices.push_back(parent->getName());
    return true;
}
