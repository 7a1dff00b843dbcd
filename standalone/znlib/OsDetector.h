// Reads the release files of a system, for detectOSType().
//
// Thread-safety: any number of threads may read at once.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace znhost
{

// The values of g_iOsType and g_iOsVersion, and what people call the system.
struct OperatingSystem
{
    std::int32_t family = 0;  // 1: Red Hat family
    std::int32_t release = 0; // major release; 0 if it is not a number
    std::string name{};       // "Debian GNU/Linux 12"; empty if there is no release file
};

// Reads the first existing file of etc/os-release, usr/lib/os-release and, for old releases,
// etc/redhat-release below `root`. All members keep their defaults if none exists.
//
// Throws std::runtime_error with the reason if the file exists but cannot be read.
OperatingSystem ReadOperatingSystem(const std::filesystem::path& root);

} // namespace znhost
