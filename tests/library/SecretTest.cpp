// The library gives no memory back that contains the CHAP secret.
#include "host/ZnProcess.h"
#include "redhat/ZnISCSILinuxRedhat.h"
#include "tests/WatchedHeap.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace
{

constexpr const char* kSecret = "correct-horse-battery-staple";
bool g_takesSecret = true;

} // namespace

// Both tools are installed. Under another name, since the system's header names the parameters
// otherwise.
extern "C" int InstalledAccess(const char* path, int mode) noexcept __asm__("access");

extern "C" int InstalledAccess(const char* /*path*/, int /*mode*/) noexcept
{
    return 0;
}

// A host's runner that wipes nothing. The tool repeats its command line on both streams. The strings
// get new buffers; one has the secret in its text, the other in its spare capacity.
int ZnProcess::system(const char* command, std::string* output, std::string* errorOutput, int, bool)
{
    for (std::string* const text : {output, errorOutput})
    {
        text->reserve(text->capacity() + std::strlen(command) + 1);
        text->assign(command);
    }
    output->resize(1);
    return g_takesSecret || std::strstr(command, kSecret) == nullptr ? 0 : 1;
}

TEST(Secret, IsWipedFromAllBuffers)
{
    setenv("ZN_LOG_FILE", "/dev/null", 1);
    setenv("ZN_LOG_LEVEL", "2", 1);
    for (const bool takesSecret : {true, false})
    {
        g_takesSecret = takesSecret;
        g_leaks = 0;
        g_secret = kSecret;
        const int result = LogOnToISCSITargetUsingCHAP_RedHat5("192.0.2.10", "iqn:a", "user", kSecret);
        g_secret = nullptr;
        EXPECT_EQ(result, takesSecret ? 1 : 0);
        EXPECT_EQ(g_leaks, 0);
    }
}
