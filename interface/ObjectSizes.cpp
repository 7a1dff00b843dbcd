// The sizes of the objects that cross between library and host, and the order of the records' fields,
// part of the binary face: each side makes or keeps objects whose members are the other's. A host that
// needs more state keeps it elsewhere.
#include "host/CHxError.h"
#include "host/EvDebug.h"
#include "host/ZNPI_PlatformBase.h"
#include "host/ZNPlatformInfo.h"
#include "host/ZnDeviceTree.h"
#include "redhat/ZnISCSILinuxRedhat.h"

#include <cstddef>

#if defined(__LP64__) && defined(__GLIBCXX__) && _GLIBCXX_USE_CXX11_ABI

// libZnISCSI.so
static_assert(sizeof(ZnISCSI) == 8);
static_assert(sizeof(ZnISCSILinuxRedhat) == 16);
static_assert(sizeof(iSSCSISessionInfo) == 96);
static_assert(offsetof(iSSCSISessionInfo, sDeviceName) == 0);
static_assert(offsetof(iSSCSISessionInfo, sTargetPortal) == 32);
static_assert(offsetof(iSSCSISessionInfo, sTargetVolIQN) == 64);
static_assert(sizeof(DellMPIOSessionInfo) == 96);
static_assert(offsetof(DellMPIOSessionInfo, sVolumeName) == 0);
static_assert(offsetof(DellMPIOSessionInfo, sTargetIQN) == 32);
static_assert(offsetof(DellMPIOSessionInfo, sMPIODevice) == 64);

// libZnLib.so
static_assert(sizeof(EvDebug) == 8);
static_assert(sizeof(EvEvent) == 8);
static_assert(sizeof(ZNPI_PlatformBase) == 8);
static_assert(sizeof(ZNPlatformInfo) == 1);

// libZnDeviceTree.so
static_assert(sizeof(ZnDevice) == 72);

// libHxUtils.so
static_assert(sizeof(SPEnabled) == 16);
static_assert(sizeof(SPBase) == 8);
static_assert(sizeof(SP<ZnDevice>) == 8);
static_assert(sizeof(CHxError) == 16);

#endif
