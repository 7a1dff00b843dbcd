#include "agent/KernelSessions.h"

#include <fstream>

namespace
{

// Empty when there is no such attribute.
std::string ReadAttribute(const std::filesystem::path& path)
{
    std::ifstream file(path);
    std::string value;
    std::getline(file, value);
    return value;
}

} // namespace

// class/iscsi_session/session7/targetname:                   iqn.2025-01.org.example:chap
// class/iscsi_connection/connection7:0/persistent_address:   192.0.2.10
// class/iscsi_connection/connection7:0/persistent_port:      3260
std::vector<KernelSession> ReadKernelSessions(const std::filesystem::path& sysfs)
{
    std::vector<KernelSession> sessions;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(sysfs / "class/iscsi_session", error), end;
         !error && entry != end; entry.increment(error))
    {
        std::string name = entry->path().filename();
        name.replace(0, sizeof "session" - 1, "connection") += ":0";
        const auto connection = sysfs / "class/iscsi_connection" / name;
        const std::string address = ReadAttribute(connection / "persistent_address");
        const std::string port = ReadAttribute(connection / "persistent_port");
        if (const std::optional<Portal> portal =
                ParsePortal(std::string("[").append(address).append("]:").append(port)))
            sessions.push_back({ReadAttribute(entry->path() / "targetname"), *portal});
    }
    return sessions;
}
