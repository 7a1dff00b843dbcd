// The host's operating-system detector.
//
// Thread-safety: any number of threads may call the detector at once. Its globals are read without a
// lock, right after the reader's own call.
#pragma once

#include <cstdint>

// Fills the two globals from the running system.
void detectOSType();

// The operating-system family. 1 is a Red Hat family Linux; every other value is another system.
extern std::int32_t g_iOsType;

// The major release of that system.
extern std::int32_t g_iOsVersion;
