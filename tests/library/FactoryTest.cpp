// The factory, the defaults of the upper layers, the job identifier and the readers of the registry.

#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>

namespace
{

TEST(Factory, MakesInstancesForServedHostsOnly)
{
    struct Row
    {
        int family;
        int release;
        bool served;
    };
    for (const Row& row : {Row{1, 5, true}, Row{1, 10, true}, Row{1, 4, false}, Row{1, -1, false},
                           Row{0, 7, false}, Row{2, 7, false}})
    {
        g_host = {};
        g_host.osType = row.family;
        g_host.osVersion = row.release;
        const std::unique_ptr<ZnISCSI, ReleaseStorage> one(GetInstance());
        const std::unique_ptr<ZnISCSI, ReleaseStorage> two(GetInstance());
        EXPECT_EQ(one != nullptr, row.served) << row.family << ' ' << row.release;
        EXPECT_EQ(two != nullptr, row.served);
        EXPECT_TRUE(!row.served || one != two);
        const std::string once = InEventContext(Lines(
            "ZnISCSI::GetInstance", {"detect", row.served ? "- Creating a Linux - RedHat Instance..."
                                                          : "- Currently not supported for this OS."}));
        EXPECT_EQ(g_host.transcript, once + once);
    }
}

TEST(Factory, JobIdentifierStartsAtZeroAndIsCopied)
{
    g_host = {};
    const Instance instance = MakeInstance();
    unsigned long long job = 42;
    const auto refuse = [&](const char* jobId)
    {
        EXPECT_EQ(instance->LogOnToiSCSITarget("192.0.2.10", nullptr), 0);
        EXPECT_EQ(std::exchange(g_host.transcript, ""),
                  InFullContext(Lines("ZnISCSILinux::LogOnToiSCSITarget",
                                      {std::string("-1 #") + jobId + " Invalid parameters."})));
    };
    refuse("0");
    instance->SetLogging(job);
    job = 9;
    refuse("42");
    instance->SetLogging(job);
    refuse("9");
    job = 18446744073709551615ULL; // handed on as a signed value
    instance->SetLogging(job);
    refuse("-1");
}

TEST(Factory, PortalsAreNotAdded)
{
    g_host = {};
    const Instance instance = MakeInstance();
    for (const char* portal : {"192.0.2.10", static_cast<const char*>(nullptr)})
    {
        EXPECT_EQ(instance->AddiSCSITargetPortal(portal), 0);
        EXPECT_EQ(
            std::exchange(g_host.transcript, ""),
            InEventContext(Lines("ZnISCSI::AddiSCSITargetPortal",
                                 {"-1 AddiSCSITargetPortal not supported for the platform. Please use "
                                  "RefreshiSCSITargetPortal directly"})));
    }
}

TEST(Factory, DefaultsOfABarePlatformAreSilent)
{
    g_host = {};
    const Instance instance = MakeInstance();
    std::list<std::string> devices{"/dev/sda"};
    EXPECT_EQ(instance->ZnISCSI::GetPhysicalDevicesForTargetIQN(nullptr, devices), 1);
    EXPECT_EQ(instance->ZnISCSICommonUtils::LogOnToiSCSITargetUsingCHAP("p", "i", "u", "s"), 0);
    EXPECT_EQ(devices.size(), 1U);
    EXPECT_EQ(g_host.transcript, "");
}

TEST(Registry, TextsAndNumbersComeFromTheirOwnSections)
{
    g_host = {};
    g_host.settings = {{"full-iStoreNode VolumeKey", "Vol: "},
                       {"full-iStoreNode-inst1 VolumeKey", "Own: "},
                       {"~iStoreNode nRetryCounter", "3"},
                       {"~iStoreNode/inst1 nRetryCounter", "-2"}};
    const Instance instance = MakeInstance();
    const auto text = [&](const char* subSection, const char* key, bool found)
    {
        std::array<char, 16> buffer{};
        buffer.fill('x');
        EXPECT_EQ(instance->GetRegStr(subSection, key, buffer.data(), 12), found);
        EXPECT_EQ(std::string(&buffer[12], 4), "xxxx") << "written behind the given size";
        EXPECT_EQ(buffer[11], '\0') << "not zeroed";
        return std::string(buffer.data());
    };
    EXPECT_EQ(text(nullptr, "VolumeKey", true), "Vol: ");
    EXPECT_EQ(text("inst1", "VolumeKey", true), "Own: ");
    EXPECT_EQ(text(nullptr, "TargetIQNKey", false), "");

    int number = 99;
    EXPECT_TRUE(instance->GetRegInt(nullptr, "nRetryCounter", &number));
    EXPECT_EQ(number, 3);
    EXPECT_TRUE(instance->GetRegInt("inst1", "nRetryCounter", &number));
    EXPECT_EQ(number, -2);
    EXPECT_FALSE(instance->GetRegInt("inst2", "nRetryCounter", &number));
    EXPECT_EQ(number, -2) << "touched though not found";
    EXPECT_EQ(g_host.transcript, "read full-iStoreNode VolumeKey\n"
                                 "read full-iStoreNode-inst1 VolumeKey\n"
                                 "read full-iStoreNode TargetIQNKey\n"
                                 "read ~iStoreNode nRetryCounter\n"
                                 "read ~iStoreNode/inst1 nRetryCounter\n"
                                 "read ~iStoreNode/inst2 nRetryCounter\n");
}

} // namespace
