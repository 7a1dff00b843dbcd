// What every instance has, whatever the platform: its job identifier and the agent's registry settings.
#pragma once

#include "ZnISCSI.h"

#pragma GCC visibility push(default)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor" // there is none, for the dispatch order's sake

class ZnISCSICommonUtils : public ZnISCSI
{
public:
    void SetLogging(unsigned long long& jobId) override;

    // A platform without CHAP cannot log on with it.
    int LogOnToiSCSITargetUsingCHAP(const char* /*portal*/, const char* /*targetIQN*/,
                                    const char* /*userName*/, const char* /*password*/) override
    {
        return 0;
    }

    // Reads a text setting of the agent into `buffer`, `bufferSize` bytes long, which is zeroed first.
    // A null `subSection` means the agent's own section. Returns true when the value was found.
    bool GetRegStr(const char* subSection, const char* key, char* buffer, int bufferSize);

    // Reads a whole number of the agent. Returns true when it was found; otherwise `*value` holds what
    // the host's reader left there, so set a default before the call.
    bool GetRegInt(const char* subSection, const char* key, int* value);

protected:
    unsigned long long m_jobId = 0;
};

#pragma GCC diagnostic pop
#pragma GCC visibility pop
