// Which machines the library serves: Red Hat family Linux from release 5 on.
#pragma once

#include "host/OSType.h"

constexpr int kRedHatFamily = 1;
constexpr int kFirstServedRelease = 5;

// The factory and every operation log this on another machine.
constexpr char kUnsupportedMachine[] = "Currently not supported for this OS.";

// Calls the host's detector every time: its answer may change.
inline bool IsServedMachine()
{
    detectOSType();
    return g_iOsType == kRedHatFamily && g_iOsVersion >= kFirstServedRelease;
}
