// The host's operating-system detector.
//
// Thread-safety: any number of threads may call the detector at once. Callers read the globals without
// a lock, directly after their own call.
#pragma once

#include <cstdint>

// Fills the two globals from the running system.
void detectOSType();

// The operating-system family: 1 for Red Hat family Linux, any other value for another system.
extern std::int32_t g_iOsType;

// The major release of that system.
extern std::int32_t g_iOsVersion;
