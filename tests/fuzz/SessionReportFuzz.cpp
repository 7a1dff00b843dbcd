#include "redhat/ZnISCSILinuxRedhat.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    static const int quiet = setenv("ZN_LOG_LEVEL", "-1", 1);
    static_cast<void>(quiet);
    std::vector<iSSCSISessionInfo> records;
    if (!ParseIscsiadmSessionInfoOutput(std::string(data, data + size), records))
        std::abort();
    for (const iSSCSISessionInfo& record : records)
        if (record.sDeviceName.compare(0, 5, "/dev/") != 0 ||
            record.sTargetPortal.find(':') != std::string::npos ||
            record.sTargetVolIQN.find_first_of(" \n") != std::string::npos)
            std::abort();
    return 0;
}
