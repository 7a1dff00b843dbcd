// The service interface: what a host agent may ask of this machine's iSCSI initiator.
//
// The host loads libZnISCSI.so, looks up GetInstance, passes the job identifier to the instance and
// calls the operations through the dispatch table. The host owns the instance and releases it with
// `::operator delete(instance)`, which frees everything that it owns.
//
// Every operation returns exactly 1 on success and 0 on failure, and writes the reason of a failure to
// the host's debug log only. The caller owns all strings, buffers and lists; they are used during the
// call only. Every operation fails if a required argument is null, and on a host that is not Red Hat
// family release 5 or later (except that the multipath device of a target is found on any host). The
// only exception that crosses the interface is std::bad_alloc.
//
// Thread-safety: instances share nothing. Several threads may run operations on one instance while none
// of them calls SetLogging. A call blocks while an administration tool runs.
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
    // `deviceName` is a path that contains "/dev/": a disk, a partition, or a device stacked on disks
    // that all lead to one target through one portal. The buffer sizes are in bytes, are read and never
    // written. Both buffers are zeroed before the look-up; a value is copied with its terminating zero
    // if the buffer is longer than the value. Fails if no session has the device, if its paths
    // disagree, or if a buffer is too small.
    virtual int GetTargetIPAndIQNForDevice(const char* deviceName, char* portalBuffer,
                                           unsigned long& portalBufferSize, char* iqnBuffer,
                                           unsigned long& iqnBufferSize) = 0;

    // Runs a SendTargets discovery at `portal`, in the form that `iscsiadm -p` takes. The initiator
    // records the targets found as node records; they are not returned.
    virtual int RefreshiSCSITargetPortal(const char* portal) = 0;

    // Always fails: a discovery adds the portal.
    virtual int AddiSCSITargetPortal(const char* /*portal*/)
    {
        EvEvent log;
        log.DebugLvl("ZnISCSI::AddiSCSITargetPortal", -1,
                     "AddiSCSITargetPortal not supported for the platform. Please use "
                     "RefreshiSCSITargetPortal directly");
        return 0;
    }

    // Opens a session to `targetIQN` through `portal`. Succeeds if the session already exists.
    virtual int LogOnToiSCSITarget(const char* portal, const char* targetIQN) = 0;

    // Ends the session to `targetIQN` through `portal`. The node record stays.
    virtual int LogOffFromiSCSITarget(const char* portal, const char* targetIQN) = 0;

    // Finds one local device of the target: its multipath device if there is one, else its first disk.
    //
    // `deviceBufferSize` is the size of the buffer in bytes, is read and never written. The buffer is
    // written on success only. May run the multipath tool several times, with pauses between the runs.
    virtual int GetPhysicalDeviceForTargetIQN(const char* targetIQN, char* deviceBuffer,
                                              unsigned long& deviceBufferSize) = 0;

    // Appends the local disks of the target to `devices`, in the order of the session report. Fails if
    // the target has none.
    virtual int GetPhysicalDevicesForTargetIQN(const char* /*targetIQN*/,
                                               std::list<std::string>& /*devices*/)
    {
        return 1;
    }

    // Sets the job identifier that the log lines of this instance carry from now on. The value is
    // copied.
    virtual void SetLogging(unsigned long long& jobId) = 0;

    // Writes the CHAP user name and secret into the node record and logs on with them, like
    // LogOnToiSCSITarget. The record keeps what was written if a later step fails. The secret is passed
    // on the tool's command line and appears nowhere else.
    virtual int LogOnToiSCSITargetUsingCHAP(const char* portal, const char* targetIQN,
                                            const char* userName, const char* password) = 0;
};

// Creates an instance. Returns null if this host is not Red Hat family release 5 or later.
extern "C" ZnISCSI* GetInstance();

#pragma GCC diagnostic pop
#pragma GCC visibility pop
