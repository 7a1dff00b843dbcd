// The built file: what it exports, and what it needs in which order.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <set>
#include <sstream>

namespace
{

// What a tool of the compiler's prints about the library.
std::string ToolOutput(const std::string& tool)
{
    const std::string command = tool + " '" LIBRARY "' 2>&1"; // the build's own path
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"),
                                                     &pclose); // NOLINT(cert-env33-c)
    std::string output;
    std::array<char, 4096> chunk{};
    while (pipe && std::fgets(chunk.data(), chunk.size(), pipe.get()) != nullptr)
        output += chunk.data();
    return output;
}

TEST(BinaryFace, ExportsTheFunctionsAndNothingElse)
{
    const std::set<std::string> expected{
        "GetInstance",
        "ZnISCSICommonUtils::SetLogging(unsigned long long&)",
        "ZnISCSICommonUtils::GetRegStr(char const*, char const*, char*, int)",
        "ZnISCSICommonUtils::GetRegInt(char const*, char const*, int*)",
        "ZnISCSIUnix::ParseDellMPIOOutput(std::string, std::vector<DellMPIOSessionInfo>&)",
        "ZnISCSIUnix::GetDellMPIODeviceForTargetIQN(std::string, std::string&)",
        "ZnISCSIUnix::GetPhysicalDeviceForMultipathDevice(std::string, std::vector<std::string>&)",
        "ZnISCSILinuxRedhat::GetTargetIPAndIQNForDevice(char const*, char*, unsigned long&, char*, "
        "unsigned long&)",
        "ZnISCSILinuxRedhat::RefreshiSCSITargetPortal(char const*)",
        "ZnISCSILinuxRedhat::LogOnToiSCSITarget(char const*, char const*)",
        "ZnISCSILinuxRedhat::LogOffFromiSCSITarget(char const*, char const*)",
        "ZnISCSILinuxRedhat::GetPhysicalDeviceForTargetIQN(char const*, char*, unsigned long&)",
        "ZnISCSILinuxRedhat::GetPhysicalDevicesForTargetIQN(char const*, std::list<std::string>&)",
        "ZnISCSILinuxRedhat::LogOnToiSCSITargetUsingCHAP(char const*, char const*, char const*, char "
        "const*)",
        "ZnISCSILinuxRedhat::DeleteiSCSIIQNFromiSCSIAdmDb(char const*, char const*)",
        "RefreshISCSISystemBus_RedHat5(char const*)",
        "LogOnToISCSITarget_RedHat5(char const*, char const*)",
        "LogOnToISCSITargetUsingCHAP_RedHat5(char const*, char const*, char const*, char const*)",
        "LogOffFromISCSITarget_RedHat5(char const*, char const*)",
        "DeleteiSCSIIQNFromiSCSIAdmDb_RedHat5(char const*, char const*)",
        "FindPhyDeviceNameFromISCSITargetIQN_RedHat5(std::string, std::list<std::string>&)",
        "FindISCSITargetPortalAndIQN_RedHat5(std::string const&, std::string&, std::string&)",
        "ParseIscsiadmSessionInfoOutput(std::string const&, std::vector<iSSCSISessionInfo>&)",
    };
    const auto shortened = [](std::string name)
    {
        const auto replaceAll = [&name](const std::string& from, const std::string& to)
        {
            for (std::size_t at; (at = name.find(from)) != std::string::npos;)
                name.replace(at, from.size(), to);
        };
        replaceAll("std::__cxx11::", "std::");
        replaceAll("std::basic_string<char, std::char_traits<char>, std::allocator<char> >",
                   "std::string");
        for (const char* element : {"std::string ", "DellMPIOSessionInfo", "iSSCSISessionInfo"})
            replaceAll(std::string(", std::allocator<") + element + "> >", ">");
        return name;
    };
    std::set<std::string> exported;
    std::istringstream symbols(ToolOutput("nm -D -C --defined-only"));
    for (std::string address, kind, name;
         symbols >> address >> kind && std::getline(symbols >> std::ws, name);)
        exported.insert(shortened(name));
    EXPECT_EQ(exported, expected);
    EXPECT_EQ(expected.size(), 23U);
}

TEST(BinaryFace, NeedsTheHostsLibrariesFirstAndInOrder)
{
    std::vector<std::string> needed;
    std::istringstream lines(ToolOutput("readelf -d -W"));
    for (std::string line; std::getline(lines, line);)
    {
        const bool isSanitizer =
            line.find("san.so") != std::string::npos; // the compiler puts its own in front
        if (line.find("(NEEDED)") != std::string::npos && !isSanitizer)
            needed.push_back(line.substr(line.find('[')));
    }
    needed.resize(std::min<std::size_t>(needed.size(), 4));
    EXPECT_EQ(needed, (std::vector<std::string>{"[libZnLib.so]", "[libZNSnapHandler.so]",
                                                "[libZnDeviceTree.so]", "[libHxUtils.so]"}));
}

} // namespace
