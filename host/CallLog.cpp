#include "host/CallLog.h"

#include <algorithm>

CallLog::CallLog(EvDebug& log, const char* tag, std::optional<unsigned long long> jobId)
    : m_log(log), m_tag(tag), m_jobId(jobId)
{
}

bool CallLog::Accepts(std::initializer_list<const void*> required) const
{
    if (std::find(required.begin(), required.end(), nullptr) == required.end())
        return true;
    RefuseParameters();
    return false;
}

bool CallLog::MachineIsServed() const
{
    if (IsServedMachine())
        return true;
    Error(kUnsupportedMachine);
    return false;
}

void CallLog::RefuseParameters() const
{
    Error("Invalid parameters.");
}
