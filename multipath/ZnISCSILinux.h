// Multipath: the volumes that the storage array's own tool reports, and the disks beneath a multipath
// device.
#pragma once

#include "../interface/ZnISCSICommonUtils.h"

#include <string>
#include <vector>

#pragma GCC visibility push(default)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // there is none, for the dispatch order's sake

// One volume of an ehcmcli status report. Values stand as in the report, nothing trimmed.
struct DellMPIOSessionInfo
{
    std::string sVolumeName;
    std::string sTargetIQN;
    std::string sMPIODevice; // the multipath device's path
};

class ZnISCSIUnix : public ZnISCSICommonUtils
{
public:
    // How often the array's tool is asked where the registry has no "nRetryCounter", or 0.
    static constexpr int kDefaultAttempts = 5;

    // Replaces `records` with one record for each volume of `report`, in its order. False only when the
    // report is empty. The markers come from the registry, all three or none.
    bool ParseDellMPIOOutput(std::string report, std::vector<DellMPIOSessionInfo>& records);

    // Finds the multipath device of a target, asking the array's tool again, with a pause, until it
    // reports the target or the attempts that the registry allows are spent. `mpioDevice` is set on
    // success only.
    bool GetDellMPIODeviceForTargetIQN(std::string targetIQN, std::string& mpioDevice);

    // Appends the names of the physical disks beneath `device` to `physicalDevices`: those of its
    // children in the device tree or, without children, its parent's. False, and nothing appended, when
    // the tree knows no device or no parent by that path.
    bool GetPhysicalDeviceForMultipathDevice(std::string device,
                                             std::vector<std::string>& physicalDevices);
};

#pragma GCC diagnostic pop
#pragma GCC visibility pop
