// What zniscsi reads: the first byte of an input chooses the parser.
#include "cli/Request.h"
#include "cli/initiator/NodeRecords.h"
#include "cli/kernel/Losses.h"
#include "cli/kernel/Mounts.h"
#include "cli/terminal/Table.h"
#include "standalone/znlib/Registry.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <unistd.h>

using namespace cli;

namespace
{

void Require(bool holds)
{
    if (!holds)
        std::abort();
}

bool IsOneWord(const std::string& text)
{
    return !text.empty() && std::none_of(text.begin(), text.end(),
                                         [](unsigned char c) { return c <= ' ' || c == 0x7f; });
}

void RequirePortal(const Portal& portal)
{
    const auto again = ParsePortal(FormatPortal(portal));
    const std::string address = portal.host.substr(0, portal.host.find('%')); // without its zone
    Require(again && again->host == portal.host && again->port == portal.port);
    Require(IsOneWord(portal.host));
    Require(portal.host.find(':') == std::string::npos || HasAddress({address, portal.port}));
}

void TryRequest(const std::string& text)
{
    const auto portal = ParsePortal(text);
    Require(portal || !FindPortalFault(text).empty());
    if (portal)
        RequirePortal(*portal);
    for (const auto findFault : {FindPortalFault, FindIqnFault, FindDeviceFault})
        Require(!findFault(text).empty() || (IsOneWord(text) && text.front() != '-'));
    for (const NodeRecord& record : ParseNodeReport(text).records)
        RequirePortal(record.portal);
}

void TryProc(const std::string& text)
{
    for (const Mount& mount : ParseMountTable(text))
        Require(mount.deviceNumber.empty() == !mount.source.empty() &&
                mount.deviceNumber.find_first_not_of("+:0123456789") == std::string::npos);
    for (const std::string& device : ParseSwapTable(text))
        Require(!device.empty());
}

// A directory for this process. TMPDIR=/dev/shm makes it fast.
const struct Directory
{
    ~Directory() { std::filesystem::remove_all(path); }
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("fuzz-" + std::to_string(getpid()));
} kRoot;

void Write(const std::filesystem::path& file, const std::string& content)
{
    create_directories(file.parent_path());
    std::ofstream(file) << content;
}

void TryRegistry(const std::string& text)
{
    const std::string file = kRoot.path / "registry.ini";
    setenv("ZN_REGISTRY", file.c_str(), 1);
    Write(file, text);
    std::string error;
    const auto value = znhost::ReadRegistryValue("Log", "File", error);
    Require(!value || (error.empty() && !value->empty() && value->find('\n') == std::string::npos));
}

// Each line of the input is the value of an attribute; the rest is the mount table.
void TryMachine(const std::string& text)
{
    std::istringstream lines(text);
    std::string value;
    for (const char* const file :
         {"iscsi_session/session1/state", "iscsi_session/session1/targetname",
          "iscsi_connection/connection1:0/persistent_address", "iscsi_connection/connection1:0/port",
          "iscsi_session/session1/device/target0:0:0/0:0:0:1/state",
          "iscsi_session/session1/device/target0:0:0/0:0:0:1/block/sda/size",
          "block/sda/holders/dm-0/x", "block/sda/device/state", "block/sda/device/access_state",
          "block/dm-0/slaves/sda/x", "block/dm-0/dm/uuid", "block/dm-0/dm/name"})
        Write(kRoot.path / "sys/class" / file, std::getline(lines, value) ? value : "");
    Write(kRoot.path / "proc/self/mountinfo", {std::istreambuf_iterator<char>(lines), {}});
    const Machine machine = ReadUsers(kRoot.path);
    if (const auto& portal = machine.sessions.at(0).portal)
        RequirePortal(*portal);
    for (const std::string& loss : FindLosses(machine, machine.sessions))
        Require(FormatLines({loss}).find('\n') == FormatLines({loss}).size() - 1);
    Require(FindUnclaimed(machine, machine.sessions).devices.count("") == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    constexpr void (*kTries[])(const std::string&) = {TryRequest, TryProc, TryRegistry, TryMachine};
    if (size != 0)
        kTries[data[0] % std::size(kTries)](std::string(data + 1, data + size));
    return 0;
}
