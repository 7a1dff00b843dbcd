// The host's registry: sections of named values, the agent's settings among them.
//
// Thread-safety: use a reader on one thread only. Any number of readers may read at once.
#pragma once

#include <string>

// A reader, made for one read.
class ZNPlatformInfo
{
public:
    ZNPlatformInfo();
    ZNPlatformInfo(const ZNPlatformInfo&) = delete;
    ZNPlatformInfo& operator=(const ZNPlatformInfo&) = delete;
    ~ZNPlatformInfo();

    // The full name of the agent's section `name`, or of its sub-section `subName` if that is not null.
    std::string getSectionName(const char* name, const char* subName);

    // Copies the value `key` of `section` with its terminating zero into `buffer` of `bufferSize`
    // bytes. Returns non-zero if the value exists and fits; otherwise the buffer is unchanged.
    int getString(const char* section, const char* key, char* buffer, int bufferSize);

    // Stores the integer `key` of `section` in `*value`. Returns true if it exists; otherwise `*value`
    // is unchanged.
    bool getRegInt(const char* section, const char* key, int* value);
};
