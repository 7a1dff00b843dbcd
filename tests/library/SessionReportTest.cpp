// The number of bytes that the parser of session reports searches.

#include "redhat/ZnISCSILinuxRedhat.h"
#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

namespace
{

// The library's searches end in memchr, and this program's own takes precedence.
std::size_t g_bytesSearched = 0;

} // namespace

// Under another name, since the headers overload memchr.
extern "C" void* CountingMemchr(const void* text, int byte, std::size_t size) noexcept
    __asm__("memchr");

extern "C" void* CountingMemchr(const void* text, int byte, std::size_t size) noexcept
{
    const auto* at = static_cast<const unsigned char*>(text);
    for (const auto* const end = at + size; at != end; ++at, ++g_bytesSearched)
        if (*at == static_cast<unsigned char>(byte))
            return const_cast<unsigned char*>(at);
    return nullptr;
}

namespace
{

std::size_t CountSearched(const std::string& begin, const std::string& repeated, int times,
                          const std::string& end)
{
    std::string report = begin;
    while (times-- > 0)
        report += repeated;
    g_host = {};
    g_host.hiddenTags = {"ParseIscsiadmSessionInfoOutput"};
    g_bytesSearched = 0;
    std::vector<iSSCSISessionInfo> records;
    ParseIscsiadmSessionInfoOutput(report + end, records);
    return g_bytesSearched;
}

// Ten times the report takes at most about ten times the reading.
TEST(SessionReport, IsReadInLinearTime)
{
    const std::string target = "Target: iqn:a (non-flash)\nPersistent Portal: 192.0.2.10:3260,1\n";
    const std::string disk = "\t\t\tAttached scsi disk sdb\t\tState: running\n";
    const std::string rows[][3] = {{"", target + "Attached scsi disk sdb\n", ""}, // without a state
                                   {target, disk, ""},
                                   {"", "Target: ", '\n' + target + disk}, // on one line
                                   {"", "Target: a\n", ""},                // without a portal
                                   {"", "TargetName: a\nNetwork Portal: 1:1\n" + target + disk, ""}};
    for (const auto& [begin, repeated, end] : rows)
    {
        const std::size_t once = CountSearched(begin, repeated, 300, end);
        EXPECT_GT(once, 0U) << "no search was counted";
        EXPECT_LE(CountSearched(begin, repeated, 3000, end), 11 * once) << repeated;
    }
}

} // namespace
