// What the running system says of itself: the reader behind detectOSType().
//
// Thread-safety: any number of threads may read at once.
#pragma once

#include <cstdint>
#include <filesystem>

namespace znhost
{

// The values of g_iOsType and g_iOsVersion.
struct OperatingSystem
{
    std::int32_t family = 0;  // 1 for the Red Hat family
    std::int32_t release = 0; // the major release; 0 when it is not stated as a number
};

// Reads the system whose root folder is `root`: etc/os-release, or usr/lib/os-release, or, for releases
// that had neither, etc/redhat-release. The first that is there decides. All zero without any.
//
// Throws std::runtime_error, which says why, when that file cannot be read.
OperatingSystem ReadOperatingSystem(const std::filesystem::path& root);

} // namespace znhost
