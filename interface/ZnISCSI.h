// The service interface: what a host agent may ask of this machine's iSCSI initiator.
//
// The host loads libZnISCSI.so, looks up GetInstance, hands the instance its job identifier and calls
// the operations through the dispatch table. It owns the instance; there is no release function, and
// `::operator delete(instance)` releases all that an instance owns.
//
// Every operation answers exactly 1 on success and 0 on failure. Why it failed stands in the host's
// debug log and nowhere else. All strings, buffers and lists are the caller's and are used for the call
// only. Errors common to all: a null required argument, and a host that is not Red Hat family release 5
// or later, give 0 (but a target's multipath device is an answer on any host). No exception but an
// allocation's own failure crosses the interface.
//
// Thread-safety: instances share nothing. Operations may run on one instance from several threads as
// long as none of them calls SetLogging meanwhile. A call blocks while an administration tool runs.
#pragma once

#include "../host/EvDebug.h"

#include <list>
#include <string>

#pragma GCC visibility push(default)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // there is none, for the dispatch order's sake

// The order of the virtual functions is a contract with every host that calls them; nothing virtual, a
// destructor included, may come before or between them.
class ZnISCSI
{
public:
    // Finds the portal and the IQN of the target behind a local block device.
    //
    // `deviceName` is a path that contains "/dev/": a disk, a partition or a device stacked on disks
    // whose paths all lead to one target through one portal. The buffers' sizes are in bytes, read and
    // never written; both buffers are zeroed before the look-up, and a value is copied with its
    // terminating zero when the size is greater than its length. 0 when no session has the device, when
    // its paths disagree, or when a buffer is too small.
    virtual int GetTargetIPAndIQNForDevice(const char* deviceName, char* portalBuffer,
                                           unsigned long& portalBufferSize, char* iqnBuffer,
                                           unsigned long& iqnBufferSize) = 0;

    // Runs a SendTargets discovery at `portal`, as the initiator's tool takes it after -p. The targets
    // found become node records of the initiator; they are not handed back.
    virtual int RefreshiSCSITargetPortal(const char* portal) = 0;

    // Always 0: portals are added by discovering them.
    virtual int AddiSCSITargetPortal(const char* /*portal*/)
    {
        EvEvent log;
        log.DebugLvl("ZnISCSI::AddiSCSITargetPortal", -1,
                     "AddiSCSITargetPortal not supported for the platform. Please use "
                     "RefreshiSCSITargetPortal directly");
        return 0;
    }

    // Opens a session to `targetIQN` through `portal`. A session that is there already is a success.
    virtual int LogOnToiSCSITarget(const char* portal, const char* targetIQN) = 0;

    // Ends the session with `targetIQN` through `portal`. The node record stays.
    virtual int LogOffFromiSCSITarget(const char* portal, const char* targetIQN) = 0;

    // Finds one local device of the target: its multipath device where there is one, else its first
    // disk.
    //
    // `deviceBufferSize` is the buffer's size in bytes, read and never written. The buffer is written
    // on success only. May take several runs of the multipath tool with pauses between them.
    virtual int GetPhysicalDeviceForTargetIQN(const char* targetIQN, char* deviceBuffer,
                                              unsigned long& deviceBufferSize) = 0;

    // Appends the local disks of the target to `devices`, in the order of the session report. 0 when it
    // has none.
    virtual int GetPhysicalDevicesForTargetIQN(const char* /*targetIQN*/,
                                               std::list<std::string>& /*devices*/)
    {
        return 1;
    }

    // Gives the instance the job identifier that its log lines carry from now on. The value is copied.
    virtual void SetLogging(unsigned long long& jobId) = 0;

    // Writes CHAP user name and secret into the node record and logs on with them, as
    // LogOnToiSCSITarget does. What was written stays written when a later step fails. The secret
    // reaches the tool's command line and nothing else.
    virtual int LogOnToiSCSITargetUsingCHAP(const char* portal, const char* targetIQN,
                                            const char* userName, const char* password) = 0;
};

// Makes an instance, or answers null when this host is not Red Hat family release 5 or later.
extern "C" ZnISCSI* GetInstance();

#pragma GCC diagnostic pop
#pragma GCC visibility pop
