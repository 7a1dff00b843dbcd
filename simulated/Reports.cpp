#include "simulated/Reports.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <iomanip>
#include <sstream>

namespace simulated
{
namespace
{

// A new node record, "name = value" a line, as version 2.1.8 shows one.
constexpr const char* kNewRecord =
#include "simulated/NodeRecord.inc"
    ;

// A session in the detailed report, up to its logical units. Levels 1 and 2 end before these headings.
constexpr const char* kSession =
#include "simulated/SessionReport.inc"
    ;
constexpr const char* kSecondLevel = "\t\t*********\n\t\tTimeouts:";
constexpr const char* kThirdLevel = "\t\t************************\n\t\tAttached SCSI devices:";

std::string Bracketed(const std::string& address)
{
    return address.find(':') == std::string::npos ? address : "[" + address + "]";
}

std::string AddressAndPort(const PortalAddress& at)
{
    return Bracketed(at.address) + ":" + std::to_string(at.port);
}

// The kernel writes an IPv6 address in full: [2001:0db8:0000:0000:0000:0000:0000:0010].
std::string AsKernelWritesIt(const std::string& address)
{
    std::array<unsigned char, sizeof(in6_addr)> bytes{};
    if (inet_pton(AF_INET6, address.c_str(), bytes.data()) != 1)
        return address;
    std::ostringstream full;
    full << '[' << std::hex << std::setfill('0');
    for (std::size_t i = 0; i < bytes.size(); i += 2)
        full << (i == 0 ? "" : ":") << std::setw(4) << (bytes.at(i) << 8U | bytes.at(i + 1));
    full << ']';
    return full.str();
}

std::string OrEmptyMark(const std::string& text)
{
    return text.empty() ? "<empty>" : text;
}

std::string Suffix(const Scene& scene)
{
    return scene.ToolIsOld() ? "" : " (non-flash)";
}

std::vector<Disk> DisksOfSession(const Scene& scene, const State& state, int sid)
{
    std::vector<Disk> disks = DisksOf(scene, state);
    disks.erase(std::remove_if(disks.begin(), disks.end(),
                               [&](const Disk& disk) { return disk.session->sid != sid; }),
                disks.end());
    return disks;
}

std::string AttachedDisk(const Disk& disk)
{
    return "Attached scsi disk " + disk.name + "\t\tState: " + disk.lun->state + "\n";
}

// `text` with every {name} replaced by its value.
std::string Filled(std::string text, const std::map<std::string, std::string>& values)
{
    for (const auto& [name, value] : values)
    {
        const std::string mark = "{" + name + "}";
        text.replace(text.find(mark), mark.size(), value);
    }
    return text;
}

void PrintLuns(std::ostream& out, const Scene& scene, const Session& session,
               const std::vector<Disk>& disks)
{
    const Target* target = scene.FindTarget(session.iqn);
    std::set<std::string> numbers; // the tool sorts them as text
    for (const Lun& lun : target != nullptr ? target->luns : std::vector<Lun>())
        numbers.insert(std::to_string(lun.lun));
    for (const std::string& number : numbers)
    {
        out << "\t\tscsi" << session.host << " Channel 00 Id 0 Lun: " << number << "\n";
        for (const Disk& disk : disks)
        {
            if (std::to_string(disk.lun->lun) == number)
                out << "\t\t\t" << AttachedDisk(disk);
        }
    }
}

} // namespace

std::vector<Session> InReportOrder(std::vector<Session> sessions)
{
    std::sort(sessions.begin(), sessions.end(), [](const Session& a, const Session& b) {
        return std::to_string(a.sid) < std::to_string(b.sid);
    });
    return sessions;
}

std::string TargetAndPortal(const std::string& iqn, const PortalAddress& at)
{
    return "target: " + iqn + ", portal: " + at.address + "," + std::to_string(at.port);
}

std::string ListedAs(const PortalAddress& at, int tpgt, const std::string& iqn)
{
    return AddressAndPort(at) + "," + std::to_string(static_cast<unsigned>(tpgt)) + " " + iqn;
}

std::string SessionList(const Scene& scene, const std::vector<Session>& sessions)
{
    std::string list;
    for (const Session& session : sessions)
        list += "tcp: [" + std::to_string(session.sid) + "] " +
                ListedAs(session.portal, 1, session.iqn) + Suffix(scene) + "\n";
    return list;
}

std::string DetailedReport(const Scene& scene, const State& state, const std::vector<Session>& sessions,
                           int level)
{
    std::ostringstream out;
    if (level >= 3)
        out << "iSCSI Transport Class version 2.0-870\nversion " << scene.toolVersion << "\n";
    std::string lastIqn;
    for (const Session& session : sessions)
    {
        if (session.iqn != lastIqn)
            out << "Target: " << session.iqn << Suffix(scene) << "\n";
        lastIqn = session.iqn;
        const std::vector<Disk> disks = DisksOfSession(scene, state, session.sid);
        const bool isPath = std::any_of(disks.begin(), disks.end(), [&](const Disk& disk) {
            return FindMapOf(scene, state, disk) != nullptr;
        });
        std::string block =
            Filled(kSession, {{"current", AsKernelWritesIt(session.portal.address) + ":" +
                                              std::to_string(session.portal.port)},
                              {"persistent", AddressAndPort(session.portal)},
                              {"initiator", scene.initiatorName},
                              {"address", AsKernelWritesIt(scene.initiatorAddress)},
                              {"sid", std::to_string(session.sid)},
                              {"recovery", isPath ? "5" : "120"}, // multipathd shortens it for a path
                              {"user", OrEmptyMark(session.user)},
                              {"userIn", OrEmptyMark(session.userIn)},
                              {"host", std::to_string(session.host)}});
        if (level < 3)
            block.erase(block.find(level < 2 ? kSecondLevel : kThirdLevel));
        out << block;
        if (level >= 3)
            PrintLuns(out, scene, session, disks);
    }
    return out.str();
}

std::string ShortReport(const Scene& scene, const State& state, const std::vector<Session>& sessions)
{
    std::string report;
    for (const Session& session : sessions)
    {
        report += "Session (sid " + std::to_string(session.sid) + ") using module tcp\n" +
                  "TargetName: " + session.iqn + "\nPortal Group Tag: 1\n" +
                  "Network Portal: " + AddressAndPort(session.portal) + "\n";
        for (const Disk& disk : DisksOfSession(scene, state, session.sid))
            report += "\t" + AttachedDisk(disk);
    }
    return report;
}

std::string RecordReport(const Scene& scene, const NodeRecord& record)
{
    std::map<std::string, std::string> values = record.settings;
    values["node.name"] = record.iqn;
    values["node.tpgt"] = std::to_string(record.tpgt);
    values["node.discovery_address"] = values["node.conn[0].address"] = record.portal.address;
    values["node.discovery_port"] = values["node.conn[0].port"] = std::to_string(record.portal.port);
    for (const char* secret : {"node.session.auth.password", "node.session.auth.password_in"})
    {
        if (!record.Setting(secret).empty())
            values[secret] = "********";
    }
    std::string report = "# BEGIN RECORD " + scene.toolVersion + "\n";
    std::istringstream lines(kNewRecord + 1);
    for (std::string line; std::getline(lines, line);)
    {
        const std::string name = line.substr(0, line.find(" = "));
        const auto value = values.find(name);
        report += (value == values.end() ? line : name + " = " + OrEmptyMark(value->second)) + "\n";
    }
    return report + "# END RECORD\n";
}

bool IsSetting(const std::string& name)
{
    return std::string(kNewRecord).find("\n" + name + " = ") != std::string::npos;
}

} // namespace simulated
