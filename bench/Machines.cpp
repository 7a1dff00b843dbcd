// The readers of sysfs, on made-up machines with ten to ten thousand disks.

#include "bench/Bench.h"
#include "host/ZnDeviceTree.h"

#include <filesystem>
#include <iterator>
#include <stdexcept>

#include <sys/mount.h>

namespace
{

// Puts the parts of a machine that bench.sh has made in the place of those of the simulated machine.
void Enter(int disks)
{
    for (const std::string part : {"/sys", "/proc", "/dev/mapper"})
    {
        umount2(part.c_str(), MNT_DETACH); // the one before; there may be none
        const std::string source = std::to_string(disks) + part;
        if (mount(source.c_str(), part.c_str(), nullptr, MS_BIND, nullptr) != 0)
            throw std::runtime_error("cannot mount " + source);
    }
}

// Compares work on a machine of so many disks with other work on one of `othersDisks`.
void CompareMachines(const bench::Row& row, int disks, const bench::Function& ours, int othersDisks,
                     const bench::Function& others)
{
    bool isOurs = false;
    const auto change = [&] { Enter((isOurs = !isOurs) ? disks : othersDisks); };
    bench::Compare(bench::Seconds, row, ours, others, change);
}

// One list of so many disks against ten of a tenth.
void CompareLists(const std::string& title, int disks)
{
    const auto list = [] { bench::RunWithPosixSpawn({ZNISCSI, "sessions"}); };
    const auto listTenTimes = [&] {
        for (int i = 0; i < 10; ++i)
            list();
    };
    CompareMachines({title, "1.2x"}, disks, list, disks / 10, listTenTimes);
}

void LookUp(const char* map)
{
    if (ZnDeviceTree::getDevice(map, nullptr).get() == nullptr)
        throw std::runtime_error(std::string("there is no ") + map);
}

void ListDevices()
{
    const std::filesystem::directory_iterator list("/sys/class/block");
    if (std::distance(begin(list), end(list)) < 10000)
        throw std::runtime_error("a device is missing");
}

} // namespace

void bench::MeasureMachines()
{
    const auto showVersion = [] { RunWithPosixSpawn({ZNISCSI, "--version"}); };
    PrintHeading("The start of a program, against that of /bin/true");
    Compare(Seconds, {"zniscsi --version", "5x"}, showVersion, RunOthers);
    PrintHeading("The time per disk of zniscsi sessions");
    CompareLists("100 disks against 10", 100);
    CompareLists("1,000 against 100", 1000);
    CompareLists("10,000 against 1,000", 10000);
    PrintHeading("The device tree's look-up of a map");
    const auto lookUpLast = [] { LookUp("/dev/mapper/map4999"); };
    CompareMachines({"with udev's link: 10,000 disks against 10", "1.1x"}, 10000, lookUpLast, 10,
                    [] { LookUp("/dev/mapper/map4"); });
    Enter(10000);
    umount("/dev/mapper");
    Compare(Seconds, {"without: 10,000 disks, against listing them", "20x"}, lookUpLast, ListDevices);
}
