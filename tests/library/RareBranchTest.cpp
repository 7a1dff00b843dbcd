// Branches that the library's own parser and its walk of the device tree never reach: this program's
// take precedence.

#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

namespace
{

bool g_parses = true;

} // namespace

bool ParseIscsiadmSessionInfoOutput(const std::string& /*report*/,
                                    std::vector<iSSCSISessionInfo>& records)
{
    records = {{"/dev/sda", "", "iqn:a"}, {"", "", "iqn:a"}, {"/dev/sdb", "192.0.2.10", "iqn:a"}};
    return g_parses;
}

bool ZnISCSIUnix::GetPhysicalDeviceForMultipathDevice(std::string /*device*/,
                                                      std::vector<std::string>& /*physicalDevices*/)
{
    return true;
}

TEST(RareBranch, OfBothLookUps)
{
    g_host.runs.resize(4);
    std::list<std::string> disks;
    std::string portal;
    std::string iqn;
    EXPECT_FALSE(FindPhyDeviceNameFromISCSITargetIQN_RedHat5("iqn:a", disks));
    EXPECT_EQ(disks, std::list<std::string>{"/dev/sda"});
    EXPECT_TRUE(FindISCSITargetPortalAndIQN_RedHat5("/dev/sdb", portal, iqn));
    g_parses = false;
    EXPECT_FALSE(FindPhyDeviceNameFromISCSITargetIQN_RedHat5("iqn:a", disks));
    EXPECT_FALSE(FindISCSITargetPortalAndIQN_RedHat5("/dev/sdb", portal, iqn));

    const std::string fromTarget = " FindPhyDeviceNameFromISCSITargetIQN_RedHat5: ";
    const std::string fromDevice = " FindISCSITargetPortalAndIQN_RedHat5: ";
    const std::string stars(16, '*');
    for (const std::string& line :
         {" 0" + fromTarget + stars + "DEVICE NAME IS EMPTY FOR TARGET IQN [iqn:a]" + stars,
          "-1" + fromTarget + "Failed to parse iscsiadm info.",
          "-1" + fromDevice +
              "Unable to use ZnDeviceTree. Going ahead with the input device [/dev/sdb]",
          "-1" + fromDevice + "Failed to parse iscsiadm info."})
        EXPECT_NE(g_host.transcript.find(line + '\n'), std::string::npos) << line;
}
