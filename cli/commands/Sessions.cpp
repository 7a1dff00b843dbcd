#include "cli/commands/Commands.h"
#include "cli/commands/LibraryCall.h"
#include "cli/kernel/DiskUsers.h"
#include "cli/terminal/Table.h"

#include <algorithm>

#include <unistd.h>

namespace cli
{

namespace
{

// A session with one of its disks, or without a disk.
struct Entry
{
    const Session& session;
    const Disk* disk;
};

Row RowOf(const Entry& entry)
{
    const auto& [session, disk] = entry;
    Row row{std::to_string(session.sid), DescribeState(session, disk), PortalOf(session),
            session.iface};
    if (disk == nullptr)
    {
        row.insert(row.end(), {"", "", "", "", session.iqn});
        return row;
    }
    std::string users = disk->map;
    for (const std::string& user : disk->users)
        users += (users.empty() ? "" : ",") + user;
    row.insert(row.end(), {std::to_string(disk->lun), disk->device,
                           disk->bytes ? DescribeSize(*disk->bytes) : "", users, session.iqn});
    return row;
}

Json ObjectOf(const Entry& entry)
{
    const auto& [session, disk] = entry;
    Json object{{"sid", session.sid},
                {"state", session.state},
                {"portal", TextOrNull(PortalOf(session))},
                {"iqn", TextOrNull(session.iqn)},
                {"iface", TextOrNull(session.iface)},
                {"host", nullptr},
                {"lun", nullptr},
                {"device", nullptr},
                {"bytes", nullptr},
                {"disk_state", nullptr},
                {"map", nullptr},
                {"used_by", Json::array()}};
    if (session.host)
        object["host"] = *session.host;
    if (disk == nullptr)
        return object;
    object["lun"] = disk->lun;
    object["device"] = disk->device;
    if (disk->bytes)
        object["bytes"] = *disk->bytes;
    object["disk_state"] = disk->state;
    object["map"] = TextOrNull(disk->map);
    object["used_by"] = disk->users;
    return object;
}

// What the request asks for: everything, a target, or the disks beneath a device.
std::vector<Session> SelectFor(const Request& request, const std::vector<Session>& sessions)
{
    if (!request.iqn.empty())
    {
        std::vector<Session> selected = SelectSessions(sessions, request.iqn);
        if (selected.empty())
            RequireShown("cannot list the sessions of " + request.iqn, sessions, request.iqn);
        return selected;
    }
    if (request.device.empty())
        return sessions;
    const std::vector<std::string> wanted = FindDisksBeneath(request.device);
    if (wanted.empty())
        throw Failure(Cause::NoDevice, {"there is no block device " + request.device});
    std::vector<Session> selected;
    for (Session session : sessions)
    {
        auto& disks = session.disks;
        disks.erase(std::remove_if(disks.begin(), disks.end(),
                                   [&wanted](const Disk& disk) {
                                       return std::find(wanted.begin(), wanted.end(), disk.device) ==
                                              wanted.end();
                                   }),
                    disks.end());
        if (!disks.empty())
            selected.push_back(std::move(session));
    }
    return selected;
}

// What USED BY may lack.
void NoteUnseen(const Machine& machine)
{
    if (geteuid() != 0 && (!machine.sawAllNamespaces || !machine.unseenLoops.empty()))
    {
        PrintError("note: only root sees who uses a disk in other mount namespaces, or through a loop "
                   "device");
        return;
    }
    if (!machine.sawAllNamespaces)
        PrintError("note: could not look into all mount namespaces for users of the disks");
    for (const std::string& loop : machine.unseenLoops)
        PrintError("warning: cannot tell which disk is beneath " + loop);
}

} // namespace

Answer ListSessions(const Request& request)
{
    const Machine machine = ReadUsers();
    const std::vector<Session> sessions = SelectFor(request, machine.sessions);
    std::vector<Row> rows;
    Json json = Json::array();
    const auto add = [&](const Entry& entry) {
        rows.push_back(RowOf(entry));
        json.push_back(ObjectOf(entry));
    };
    for (const Session& session : sessions)
    {
        for (const Disk& disk : session.disks)
            add({session, &disk});
        if (session.disks.empty())
            add({session, nullptr});
    }
    NoteUnseen(machine);
    if (rows.empty() && isatty(STDOUT_FILENO) != 0)
        PrintError("no session");
    const Row headings{"SID", "STATE", "PORTAL", "IFACE", "LUN", "DEVICE", "SIZE", "USED BY", "IQN"};
    return {FormatTable(headings, rows, !request.noHeadings), {{"sessions", json}}};
}

} // namespace cli
