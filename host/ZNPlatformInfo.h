// The host's registry: sections of named values, the agent's settings among them.
//
// Thread-safety: a reader belongs to one thread; any number of readers may read at once.
#pragma once

#include <string>

// A reader that lives for one read.
class ZNPlatformInfo
{
public:
    ZNPlatformInfo();
    ZNPlatformInfo(const ZNPlatformInfo&) = delete;
    ZNPlatformInfo& operator=(const ZNPlatformInfo&) = delete;
    ~ZNPlatformInfo();

    // The full name of the agent section `name`, or of its sub-section `subName` when that is not null.
    std::string getSectionName(const char* name, const char* subName);

    // Copies the value `key` of `section` with its terminating zero into `buffer`, `bufferSize` bytes
    // long. Returns non-zero when the value was found and fits; otherwise the buffer is left as it was.
    int getString(const char* section, const char* key, char* buffer, int bufferSize);

    // Stores the integer `key` of `section` in `*value`. Returns true when it was found; otherwise
    // `*value` is left as it was.
    bool getRegInt(const char* section, const char* key, int* value);
};
