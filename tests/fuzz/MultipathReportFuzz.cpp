#include "host/OSType.h"
#include "multipath/ZnISCSILinux.h"

#include <cstdlib>

// This program's own detector takes precedence: the host counts as served.
std::int32_t g_iOsType = 1;
std::int32_t g_iOsVersion = 9;
void detectOSType() {}

// The globals of the detector are defined twice, which the sanitizer would report.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the sanitizer's own name
extern "C" const char* __asan_default_options()
{
    return "detect_odr_violation=0";
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    static const int quiet = setenv("ZN_LOG_FILE", "/dev/null", 1);
    static_cast<void>(quiet);
    static ZnISCSI* const instance = GetInstance();
    std::vector<DellMPIOSessionInfo> records(1);
    const bool parsed = static_cast<ZnISCSIUnix*>(instance)->ParseDellMPIOOutput(
        std::string(data, data + size), records);
    if (parsed != (size != 0))
        std::abort();
    for (const DellMPIOSessionInfo& record : records)
        if ((record.sVolumeName + record.sTargetIQN + record.sMPIODevice).find('\n') !=
            std::string::npos)
            std::abort();
    return 0;
}
