// Multipath: the volumes that the storage array's tool reports, and the disks beneath a multipath
// device. Thread-safety: as the interface.
#pragma once

#include "../interface/ZnISCSICommonUtils.h"

#include <string>
#include <vector>

#pragma GCC visibility push(default)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // there is none, for the dispatch order's sake

// One volume of an ehcmcli status report. The values are not trimmed.
struct DellMPIOSessionInfo
{
    std::string sVolumeName;
    std::string sTargetIQN;
    std::string sMPIODevice; // the multipath device's path
};

class ZnISCSIUnix : public ZnISCSICommonUtils
{
public:
    // Number of runs of the array's tool if "nRetryCounter" in the registry is missing or 0.
    static constexpr int kDefaultAttempts = 5;

    // Replaces `records` with one record for each volume of `report`, in its order. Returns false only
    // if the report is empty. The markers come from the registry if it has all three.
    bool ParseDellMPIOOutput(std::string report, std::vector<DellMPIOSessionInfo>& records);

    // Finds the multipath device of a target. Runs the array's tool again, after a pause of 20 s, until
    // it reports the target or the number of runs in the registry is reached. Any other failure ends
    // the look-up at once. Sets `mpioDevice` on success only.
    bool GetDellMPIODeviceForTargetIQN(std::string targetIQN, std::string& mpioDevice);

    // Appends the names of the physical disks beneath `device` to `physicalDevices`: the names of its
    // children in the device tree or, if it has none, the name of its parent. Returns false and appends
    // nothing if the tree has no device or no parent for that path.
    bool GetPhysicalDeviceForMultipathDevice(std::string device,
                                             std::vector<std::string>& physicalDevices);
};

#pragma GCC diagnostic pop
#pragma GCC visibility pop
