// The readers of sysfs, on synthetic machines with ten to ten thousand disks.

#include "agent/Machine.h"
#include "agent/Questions.h"
#include "bench/Groups.h"
#include "bench/Measure.h"
#include "standalone/zndevicetree/SysfsTree.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

// Sessions of ten disks each; every two disks are the paths of a multipath map that is mounted.
class MadeUpMachine
{
public:
    explicit MadeUpMachine(int disks)
        : m_root(fs::temp_directory_path() /
                 ("bench-" + std::to_string(getpid()) + '-' + std::to_string(disks)))
    {
        fs::create_directories(m_root / "sys/class/block");
        fs::create_directories(m_root / "dev/mapper");
        fs::create_directories(m_root / "proc/self");
        std::ofstream mounts(m_root / "proc/self/mountinfo");
        for (int disk = 0; disk < disks; ++disk)
        {
            if (disk % 10 == 0)
                AddSession(disk / 10);
            AddDisk(disk / 10, disk);
            if (disk % 2 == 1)
                AddMap(disk / 2, mounts);
        }
    }
    MadeUpMachine(const MadeUpMachine&) = delete;
    MadeUpMachine& operator=(const MadeUpMachine&) = delete;
    ~MadeUpMachine()
    {
        std::error_code ignored;
        fs::remove_all(m_root, ignored);
    }

    const fs::path& Root() const { return m_root; }

    void RemoveUdevsLinks() const { fs::remove_all(m_root / "dev/mapper"); }

private:
    void AddSession(int session) const
    {
        const std::string number = std::to_string(session);
        const fs::path connection =
            m_root / "sys/class/iscsi_connection" / ("connection" + number + ":0");
        const fs::path attributes = m_root / "sys/class/iscsi_session" / ("session" + number);
        Write(connection / "persistent_address", "192.0.2.10");
        Write(connection / "persistent_port", "3260");
        Write(attributes / "state", "LOGGED_IN");
        Write(attributes / "targetname", "iqn.2025-01.org.example:volume-" + number);
        fs::create_directory_symlink(SessionFolder(session), attributes / "device");
    }

    void AddDisk(int session, int disk) const
    {
        const std::string name = DiskName(disk);
        const std::string host = std::to_string(session) + ":0:0";
        const fs::path unit =
            SessionFolder(session) / ("target" + host) / (host + ':' + std::to_string(disk % 10));
        Write(unit / "state", "running");
        Write(unit / "block" / name / "size", "204800");
        fs::create_directory(unit / "block" / name / "slaves");
        fs::create_directory_symlink(unit / "block" / name, m_root / "sys/class/block" / name);
    }

    void AddMap(int map, std::ostream& mounts) const
    {
        const std::string number = std::to_string(map);
        const fs::path folder = m_root / "sys/devices/virtual/block" / ("dm-" + number);
        Write(folder / "dm/name", "mpath" + number);
        Write(folder / "dm/uuid", "mpath-" + number);
        for (const int disk : {2 * map, 2 * map + 1})
            fs::create_directories(folder / "slaves" / DiskName(disk));
        fs::create_directory_symlink(folder, m_root / "sys/class/block" / folder.filename());
        fs::create_directories(m_root / "sys/dev/block");
        fs::create_directory_symlink(folder, m_root / "sys/dev/block" / ("253:" + number));
        fs::create_symlink("../dm-" + number, m_root / "dev/mapper" / ("mpath" + number));
        mounts << "36 35 253:" << map << " / /mnt/" << map << " rw - ext4 /dev/mapper/mpath" << map
               << " rw\n";
    }

    static std::string DiskName(int disk) { return "sd" + std::to_string(disk); }

    fs::path SessionFolder(int session) const
    {
        const std::string number = std::to_string(session);
        return m_root / "sys/devices/platform" / ("host" + number) / ("session" + number);
    }

    static void Write(const fs::path& file, const std::string& line)
    {
        fs::create_directories(file.parent_path());
        std::ofstream(file) << line << '\n';
    }

    fs::path m_root;
};

void LookUp(const MadeUpMachine& machine, const char* map)
{
    const znhost::SysfsTree tree(machine.Root() / "sys", machine.Root() / "dev");
    if (tree.FindDevice(map).get() == nullptr)
        throw std::runtime_error(std::string("there is no ") + map);
}

// What `zniscsi sessions` does, but for the JSON.
void ListSessions(const MadeUpMachine& machine)
{
    std::vector<std::vector<std::string>> rows;
    for (const Session& session : ReadMachine(machine.Root()).sessions)
        for (const Disk& disk : session.disks)
            rows.push_back({std::to_string(session.sid), DescribeState(session, &disk),
                            FormatPortal(session.portal.value()), session.iqn, std::to_string(disk.lun),
                            disk.device, DescribeSize(disk.bytes.value()),
                            disk.map + ',' + disk.users.at(0)});
    FormatTable(rows);
}

void CompareSessions(const std::string& key, const MadeUpMachine& large, const MadeUpMachine& small)
{
    const auto listSmallOnes = [&] {
        for (int i = 0; i < 10; ++i)
            ListSessions(small);
    };
    bench::CompareTimes(
        key, [&] { ListSessions(large); }, listSmallOnes);
}

} // namespace

void bench::MeasureMachines()
{
    const MadeUpMachine disks10(10), disks100(100), disks1000(1000), disks10000(10000);
    CompareSessions("sessions/100", disks100, disks10);
    CompareSessions("sessions/1000", disks1000, disks100);
    CompareSessions("sessions/10000", disks10000, disks1000);

    const auto lookUpOfMany = [&] { LookUp(disks10000, "/dev/mapper/mpath4999"); };
    const auto lookUpOfFew = [&] { LookUp(disks10, "/dev/mapper/mpath4"); };
    CompareTimes("device/linked", lookUpOfMany, lookUpOfFew);
    disks10000.RemoveUdevsLinks();
    CompareTimes("device/searched", lookUpOfMany, [&] {
        const fs::directory_iterator list(disks10000.Root() / "sys/class/block");
        if (std::distance(begin(list), end(list)) < 10000)
            throw std::runtime_error("a device is missing");
    });
}
