// The operations on Red Hat family Linux: the concrete class, the function behind each of its methods,
// and the parser of the initiator's session reports.
//
// GetInstance makes every instance, and a host that needs more than the interface reaches it with
// static_cast<ZnISCSILinuxRedhat*>(instance): constructor, destructor and type information are not
// exported.
//
// Thread-safety: as the interface. The free functions and the parser share nothing.
#pragma once

#include "../multipath/ZnISCSILinux.h"

#include <list>
#include <string>
#include <vector>

#pragma GCC visibility push(default)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // there is none, for the dispatch order's sake

class ZnISCSILinuxRedhat : public ZnISCSIUnix
{
public:
    ZnISCSILinuxRedhat();
    ~ZnISCSILinuxRedhat();

    int GetTargetIPAndIQNForDevice(const char* deviceName, char* portalBuffer,
                                   unsigned long& portalBufferSize, char* iqnBuffer,
                                   unsigned long& iqnBufferSize) override;
    int RefreshiSCSITargetPortal(const char* portal) override;
    int LogOnToiSCSITarget(const char* portal, const char* targetIQN) override;
    int LogOffFromiSCSITarget(const char* portal, const char* targetIQN) override;
    int GetPhysicalDeviceForTargetIQN(const char* targetIQN, char* deviceBuffer,
                                      unsigned long& deviceBufferSize) override;
    int GetPhysicalDevicesForTargetIQN(const char* targetIQN, std::list<std::string>& devices) override;
    int LogOnToiSCSITargetUsingCHAP(const char* portal, const char* targetIQN, const char* userName,
                                    const char* password) override;

    // Deletes the initiator's node record of the target at the portal. Not part of the interface. Fails
    // if there is no such record, or if the tool refuses because a session is using it.
    int DeleteiSCSIIQNFromiSCSIAdmDb(const char* portal, const char* targetIQN);
};

// The functions behind the methods return what these return. They skip the check of the machine, and
// their log lines carry no job identifier. The first five refuse null arguments themselves.
int RefreshISCSISystemBus_RedHat5(const char* portal);
int LogOnToISCSITarget_RedHat5(const char* portal, const char* targetIQN);
int LogOnToISCSITargetUsingCHAP_RedHat5(const char* portal, const char* targetIQN, const char* userName,
                                        const char* password);
int LogOffFromISCSITarget_RedHat5(const char* portal, const char* targetIQN);
int DeleteiSCSIIQNFromiSCSIAdmDb_RedHat5(const char* portal, const char* targetIQN);

// Appends the disks of the target to `devices`. Returns true if there was one. After a failure the list
// holds what it held before, and the disks that were found before the failure.
bool FindPhyDeviceNameFromISCSITargetIQN_RedHat5(std::string targetIQN,
                                                 std::list<std::string>& devices);

// Finds the portal and the IQN behind a device; "/dev/" in its name is not asked for here. Both strings
// are emptied first, so neither may be the name. After a failure they may hold values found before it.
bool FindISCSITargetPortalAndIQN_RedHat5(const std::string& deviceName, std::string& portal,
                                         std::string& targetIQN);

// One attached disk of a session report.
struct iSSCSISessionInfo
{
    std::string sDeviceName;   // "/dev/sdb"
    std::string sTargetPortal; // "192.0.2.10": the address up to its first colon
    std::string sTargetVolIQN;
};

// Appends a record for each attached disk of `report` to `records`, in the order of the report. Always
// returns true; truncated text yields the records before the truncation. Linear in the length of the
// report.
bool ParseIscsiadmSessionInfoOutput(const std::string& report, std::vector<iSSCSISessionInfo>& records);

#pragma GCC diagnostic pop
#pragma GCC visibility pop
