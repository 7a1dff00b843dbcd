// The device tree on machines written as data, and on this one.
#include "standalone/zndevicetree/SysfsTree.h"

#include "standalone/znlib/Log.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

// A machine unpacked into a folder.
class Machine
{
public:
    Machine() { fs::create_directories(m_root / "dev"); }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;
    ~Machine() { fs::remove_all(m_root); }

    // Takes in what a line of device-trees.txt says.
    void Add(std::istringstream line)
    {
        std::string kind, name, other;
        line >> kind >> name;
        const fs::path folder = m_root / "sys/devices" / name;
        if (kind == "link" && line >> other)
            return AddLink(m_root / "dev" / name, other);
        AddLink(m_root / "sys/class/block" / folder.filename(), folder);
        fs::create_directories(folder / (kind == "partition" ? "partition" : "slaves"));
        if (kind == "map" && line >> other && fs::create_directory(folder / "dm"))
            std::ofstream(folder / "dm/name") << other << '\n';
        while (line >> other)
            AddLink(folder / "slaves" / other, "../../" + other);
    }

    // "DEVICE [CHILDREN] PARENT", "none" for what is not found.
    std::string Describe(const char* path) const
    {
        const znhost::SysfsTree tree(m_root / "sys", m_root / "dev");
        const SP<ZnDevice> device = tree.FindDevice(path);
        std::string text = NameOf(device) + " [";
        if (device.get() != nullptr)
        {
            for (const SP<ZnDevice>& child : device->getChildren())
                text += (text.back() == '[' ? "" : " ") + child->getName();
        }
        return text + "] " + NameOf(tree.FindWholeDevice(path));
    }

private:
    static std::string NameOf(const SP<ZnDevice>& device)
    {
        return device.get() == nullptr ? "none" : device->getName();
    }

    static void AddLink(const fs::path& link, const fs::path& target)
    {
        fs::create_directories(link.parent_path());
        fs::create_symlink(target, link);
    }

    fs::path m_root = fs::canonical(testing::TempDir()) / ("machine-" + std::to_string(::getpid()));
};

} // namespace

TEST(DeviceTree, LeadsToTheDisks)
{
    std::ifstream lines(DATA "device-trees.txt");
    std::optional<Machine> machine(std::in_place);
    int answers = 0;
    for (std::string line; std::getline(lines, line);)
    {
        if (line.empty())
            machine.emplace();
        else if (line[0] == '#')
            continue;
        else if (const std::size_t arrow = line.find(" => "); arrow != std::string::npos)
        {
            EXPECT_EQ(line.substr(arrow + 4), machine->Describe(line.substr(0, arrow).c_str())) << line;
            ++answers;
        }
        else
            machine->Add(std::istringstream(line));
    }
    EXPECT_EQ(47, answers);
    EXPECT_EQ("none [] none", machine->Describe(nullptr));
}

TEST(DeviceTree, MissesADeviceThatLiesTooDeep)
{
    Machine machine;
    machine.Add(std::istringstream("disk sda"));
    machine.Add(std::istringstream("disk layer0 sda"));
    for (int layer = 1; layer <= 64; ++layer)
        machine.Add(std::istringstream("disk layer" + std::to_string(layer) + " layer" +
                                       std::to_string(layer - 1)));
    EXPECT_EQ("/dev/layer63 [/dev/sda] /dev/layer63", machine.Describe("/dev/layer63"));
    EXPECT_EQ("none [] none", machine.Describe("/dev/layer64"));
}

TEST(DeviceTree, SaysThatItCannotLook)
{
    Machine machine;
    machine.Add(std::istringstream("map dm-0 mpatha"));
    std::vector<std::string> lines;
    const znhost::LogTap tap([](int level, const char*, const char*) { return level < 0; },
                             [&](const znhost::LogEntry& entry) { lines.push_back(entry.text); });
    EXPECT_EQ("none [] none", machine.Describe("/dev/dm-1"));
    EXPECT_THAT(lines, testing::IsEmpty());
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit none{0, usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ("none [] none", machine.Describe("/dev/dm-0"));
    setrlimit(RLIMIT_NOFILE, &usual);
    EXPECT_THAT(lines, testing::Each(testing::AllOf(testing::StartsWith("cannot look up /dev/dm-0: "),
                                                    testing::EndsWith("Too many open files"))));
    EXPECT_EQ(lines.size(), 2U);
}

TEST(DeviceTree, KnowsThisMachine)
{
    CHxError error = CHxError::Success();
    EXPECT_EQ(nullptr, ZnDeviceTree::getDevice(nullptr, &error).get());
    EXPECT_EQ(nullptr, ZnDeviceTree::getParentDevice("/dev/null", nullptr).get());
    EXPECT_EQ(nullptr,
              znhost::SysfsTree("/nonexistent", "/dev").FindDevice("/dev/mapper/mpatha").get());
    std::error_code noSysfs;
    for (const fs::directory_entry& disk : fs::directory_iterator("/sys/block", noSysfs))
    {
        if (!fs::exists(disk.path() / "slaves"))
            continue; // a path of a multipath NVMe namespace, hidden by the kernel
        const std::string path = "/dev/" + disk.path().filename().string();
        EXPECT_NE(nullptr, ZnDeviceTree::getDevice(path.c_str(), &error).get()) << path;
        EXPECT_NE(nullptr, ZnDeviceTree::getParentDevice(path.c_str(), nullptr).get()) << path;
    }
}
