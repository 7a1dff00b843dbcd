// The instance: its job identifier, the defaults of its base classes, its dispatch table.

#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace
{

TEST(Instance, JobIdentifierStartsAtZeroAndIsCopied)
{
    g_host = {};
    const Instance instance = MakeInstance();
    const Instance other = MakeInstance();
    EXPECT_NE(instance, other);
    const auto marked = [](ZnISCSI& marking) {
        g_host.transcript.clear();
        EXPECT_EQ(marking.LogOnToiSCSITarget("192.0.2.10", nullptr), 0);
        const std::size_t mark = g_host.transcript.find('#');
        return g_host.transcript.substr(mark, g_host.transcript.find(' ', mark) - mark);
    };
    EXPECT_EQ(marked(*instance), "#0");
    unsigned long long job = 42;
    instance->SetLogging(job);
    job = 18446744073709551615ULL; // passed as a signed number
    EXPECT_EQ(marked(*instance), "#42");
    instance->SetLogging(job);
    EXPECT_EQ(marked(*instance), "#-1");
    EXPECT_EQ(marked(*other), "#0");
}

TEST(Instance, DefaultsOfABarePlatformAreSilent)
{
    g_host = {};
    const Instance instance = MakeInstance();
    std::list<std::string> devices{"/dev/sda"};
    EXPECT_EQ(instance->ZnISCSI::GetPhysicalDevicesForTargetIQN(nullptr, devices), 1);
    EXPECT_EQ(instance->ZnISCSICommonUtils::LogOnToiSCSITargetUsingCHAP("p", "i", "u", "s"), 0);
    EXPECT_EQ(devices.size(), 1U);
    EXPECT_EQ(g_host.transcript, "");
}

int OtherDisks(ZnISCSI*, const char* targetIQN, std::list<std::string>& devices)
{
    devices = {std::string("/dev/for-") + targetIQN, "/dev/second"};
    return 0; // ignored
}

// Replaces the entry of GetPhysicalDevicesForTargetIQN in the dispatch table of an instance.
class OtherDispatch
{
public:
    explicit OtherDispatch(ZnISCSI& instance) : m_instance(instance)
    {
        std::memcpy(static_cast<void*>(&m_original), static_cast<void*>(&m_instance),
                    sizeof m_original);
        std::copy_n(m_original, m_table.size(), m_table.begin());
        m_table[6] = reinterpret_cast<void*>(&OtherDisks);
        Install(m_table.data());
    }
    ~OtherDispatch() { Install(m_original); }

private:
    void Install(void** table)
    {
        std::memcpy(static_cast<void*>(&m_instance), static_cast<void*>(&table), sizeof table);
    }

    ZnISCSI& m_instance;
    void** m_original = nullptr;
    std::array<void*, 9> m_table{};
};

TEST(Instance, PreferredDeviceIsTheFirstOfTheDispatchTablesDisks)
{
    g_host = {};
    g_host.missingTools = {"/usr/sbin/ehcmcli"};
    const Instance instance = MakeInstance();
    const OtherDispatch dispatch(*instance);
    const std::string disk = "/dev/for-iqn:a";
    for (const bool isLargeEnough : {false, true})
    {
        std::array<char, 32> buffer{};
        unsigned long size = disk.size() + (isLargeEnough ? 1 : 0);
        EXPECT_EQ(instance->GetPhysicalDeviceForTargetIQN("iqn:a", buffer.data(), size), isLargeEnough);
        EXPECT_EQ(buffer.data(), isLargeEnough ? disk : "");
    }
}

} // namespace
