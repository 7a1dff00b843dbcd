#include "host/ServedHost.h"

#include "host/OSType.h"

bool IsServedHost()
{
    constexpr int kRedHatFamily = 1;
    constexpr int kFirstServedRelease = 5;
    detectOSType();
    return g_iOsType == kRedHatFamily && g_iOsVersion >= kFirstServedRelease;
}
