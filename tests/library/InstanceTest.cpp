// The instance: the defaults of its base classes, its dispatch table, its allocation; its log.

#include "host/CallLog.h"
#include "tests/library/ScriptedHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <type_traits>

namespace
{

// A line of log whose format is text from outside does not compile.
[[maybe_unused]] const auto kLogText = [](const auto& log,
                                          const auto& text) -> decltype(log.Error(text)) {};
static_assert(std::is_invocable_v<decltype(kLogText), CallLog, const char (&)[3]>);
static_assert(!std::is_invocable_v<decltype(kLogText), CallLog, const char*>);

} // namespace

// The factory lets std::bad_alloc pass: nobody there looks for null. Weak: Clang's thread sanitizer has
// its own.
[[gnu::weak]] void* operator new(std::size_t /*size*/, const std::nothrow_t& /*tag*/) noexcept
{
    return nullptr;
}

namespace
{

TEST(Instance, DefaultsOfABarePlatformAreSilent)
{
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

TEST(Instance, PreferredDeviceIsTheFirstOfTheDispatchTablesDisks)
{
    const Instance instance = MakeInstance();
    g_host.missingTools = {"/usr/sbin/ehcmcli"};
    std::array<void*, 9> table{};
    void** current = nullptr;
    std::memcpy(static_cast<void*>(&current), static_cast<void*>(instance.get()), sizeof current);
    std::copy_n(current, table.size(), table.begin());
    table[6] = reinterpret_cast<void*>(&OtherDisks);
    current = table.data();
    std::memcpy(static_cast<void*>(instance.get()), static_cast<void*>(&current), sizeof current);

    std::array<char, 32> buffer{};
    unsigned long size = buffer.size();
    EXPECT_EQ(instance->GetPhysicalDeviceForTargetIQN("iqn:a", buffer.data(), size), 1);
    EXPECT_STREQ(buffer.data(), "/dev/for-iqn:a");
}

} // namespace
