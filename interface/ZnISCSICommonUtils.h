// What every instance has on any platform: the job identifier and access to the agent's registry
// settings. Thread-safety: as the interface.
#pragma once

#include "ZnISCSI.h"

#pragma GCC visibility push(default)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // there is none, for the dispatch order's sake

class ZnISCSICommonUtils : public ZnISCSI
{
public:
    void SetLogging(unsigned long long& jobId) override;

    // Fails without a line of log: the default for a platform without CHAP.
    int LogOnToiSCSITargetUsingCHAP(const char* /*portal*/, const char* /*targetIQN*/,
                                    const char* /*userName*/, const char* /*password*/) override
    {
        return 0;
    }

    // Reads a text setting of the agent into `buffer` of `bufferSize` bytes, which is zeroed first. A
    // null `subSection` selects the agent's own section. Returns true if the value exists.
    bool GetRegStr(const char* subSection, const char* key, char* buffer, int bufferSize);

    // Reads an integer setting of the agent. Returns true if it exists; otherwise `*value` holds what
    // the host's reader left there: set a default before the call.
    bool GetRegInt(const char* subSection, const char* key, int* value);

protected:
    unsigned long long m_jobId = 0;
};

#pragma GCC diagnostic pop
#pragma GCC visibility pop
