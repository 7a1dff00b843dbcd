#include "interface/ZnISCSICommonUtils.h"

#include "host/CallLog.h"
#include "host/ServedMachine.h"
#include "host/ZNPlatformInfo.h"
#include "redhat/ZnISCSILinuxRedhat.h"

#include <algorithm>

namespace
{

// The agent's section of the registry.
constexpr const char* kAgentSection = "iStoreNode";

} // namespace

ZnISCSI* GetInstance()
{
    constexpr const char* kTag = "ZnISCSI::GetInstance";
    EvEvent log;
    if (!IsServedMachine())
    {
        log.Debug(kTag, kUnsupportedMachine);
        return nullptr;
    }
    log.Debug(kTag, "Creating a Linux - RedHat Instance...");
    return new ZnISCSILinuxRedhat;
}

void ZnISCSICommonUtils::SetLogging(unsigned long long& jobId)
{
    m_jobId = jobId;
}

bool ZnISCSICommonUtils::GetRegStr(const char* subSection, const char* key, char* buffer,
                                   int bufferSize)
{
    ZNPlatformInfo registry;
    const std::string section = registry.getSectionName(kAgentSection, subSection);
    std::fill_n(buffer, bufferSize, '\0');
    return registry.getString(section.c_str(), key, buffer, bufferSize) != 0;
}

// Numbers are looked up under a name of the library's own making, not under the reader's.
bool ZnISCSICommonUtils::GetRegInt(const char* subSection, const char* key, int* value)
{
    ZNPlatformInfo registry;
    std::string section = std::string("~") + kAgentSection;
    if (subSection != nullptr)
        section.append("/").append(subSection);
    return registry.getRegInt(section.c_str(), key, value);
}
