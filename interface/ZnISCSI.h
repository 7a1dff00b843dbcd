// The service interface: what a host, the program that loads libZnISCSI.so, may ask of its machine's
// iSCSI initiator.
//
// The host looks up GetInstance, passes its job identifier to the instance and calls the operations
// through the dispatch table. It owns the instance and releases it with `::operator delete(instance)`,
// which frees everything that the instance owns.
//
// Results: every operation returns exactly 1 on success and 0 on failure, and writes the reason of a
// failure to the host's debug log only. It fails if a required argument is null, and on a machine that
// is not Red Hat family release 5 or later (but a target's multipath device is found on any machine).
// The only exception that crosses the interface is std::bad_alloc.
//
// Arguments: the caller owns all strings, buffers and lists; they are used during the call only. A
// portal, an IQN, a CHAP name and a secret may not contain blanks or control characters: they become
// part of a tool's command line as they are, unchecked, and a blank starts a new argument of a tool
// that runs as root. An empty string is passed on, too.
//
// Time: a call blocks while a tool runs, and no call has a time limit. A log-on to a silent portal
// takes minutes, as the tool does.
//
// Thread-safety: instances share nothing. Several threads may run operations on one instance while none
// of them calls SetLogging.
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
    // that all lead to one target through one portal. It may stand in one of the buffers. The buffer
    // sizes are in bytes, are read and never written. Both buffers are zeroed before the look-up; a
    // value is copied with its terminating zero if the buffer is longer than the value. Fails if no
    // session has the device, if its paths disagree, or if a buffer is too small. If only the IQN's is
    // too small, the portal has been copied.
    //
    // A portal ends at its first colon: it has no port, and [2001:db8::10] gives "[2001". Of the paths,
    // the first in the session report that has a portal and an IQN is the answer (if none has both, the
    // last path is). A later path agrees if the answer's portal begins with its portal, and the
    // answer's IQN with its IQN: a later 192.0.2.1 agrees with 192.0.2.10, but not the other way round.
    virtual int GetTargetIPAndIQNForDevice(const char* deviceName, char* portalBuffer,
                                           unsigned long& portalBufferSize, char* iqnBuffer,
                                           unsigned long& iqnBufferSize) = 0;

    // Runs a SendTargets discovery at `portal`, in the form that `iscsiadm -p` takes. The initiator
    // records the targets found as node records; they are not returned. Existing records of these
    // targets are written anew and lose their CHAP settings.
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

    // Opens a session to `targetIQN` through `portal`. Succeeds if the tool's exit status is 0, or if
    // the tool says that the session already exists.
    //
    // Neither proves a session: some versions of the tool report success for a refused log-on, and
    // newer ones word an existing session in a way that counts as a failure here. Ask the kernel:
    // /sys/class/iscsi_session/session*/targetname and state.
    virtual int LogOnToiSCSITarget(const char* portal, const char* targetIQN) = 0;

    // Ends the session to `targetIQN` through `portal`, even while its disks are in use. The node
    // record stays. The tool's exit status decides; with some versions it is 0 without a session, too.
    virtual int LogOffFromiSCSITarget(const char* portal, const char* targetIQN) = 0;

    // Finds one local device of the target: its multipath device if there is one, else its first disk.
    //
    // `deviceBufferSize` is the size of the buffer in bytes, is read and never written. The buffer is
    // written on success only. Where the multipath tool is installed and does not report the target, it
    // is run again after a pause of 20 s: five times in all, which takes 80 s and more, or as often as
    // "nRetryCounter" in the registry says.
    virtual int GetPhysicalDeviceForTargetIQN(const char* targetIQN, char* deviceBuffer,
                                              unsigned long& deviceBufferSize) = 0;

    // Appends the local disks of the target ("/dev/sdb") to `devices`, in the order of the session
    // report; a disk that is listed twice is appended twice. Fails if the target has none.
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
    // on the tool's command line, where everybody who may list processes can read it while the tool
    // runs, and appears nowhere else.
    virtual int LogOnToiSCSITargetUsingCHAP(const char* portal, const char* targetIQN,
                                            const char* userName, const char* password) = 0;
};

// Creates an instance. Returns null if this machine is not Red Hat family release 5 or later.
extern "C" ZnISCSI* GetInstance();

#pragma GCC diagnostic pop
#pragma GCC visibility pop
