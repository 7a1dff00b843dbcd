// The device tree of machines described in data/device-trees.txt, and of this machine.
#include "standalone/zndevicetree/SysfsTree.h"
#include "standalone/znlib/Log.h"
#include "tests/OwnRoot.h"

#include <gmock/gmock-matchers.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{

// A machine unpacked into a directory.
class Machine
{
public:
    Machine() { fs::create_directories(m_root / "dev"); }
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;
    ~Machine() { fs::remove_all(m_root); }

    // Adds what a line of device-trees.txt describes.
    void Add(std::istringstream line)
    {
        std::string kind, name, other;
        line >> kind >> name;
        const fs::path directory = m_root / "sys/devices" / name;
        if (kind == "link" && line >> other)
            return AddLink(m_root / "dev" / name, other);
        AddLink(m_root / "sys/class/block" / directory.filename(), "../../devices/" + name);
        fs::create_directories(directory / (kind == "partition" ? "partition" : "slaves"));
        if (kind == "map" && line >> other && fs::create_directory(directory / "dm"))
            std::ofstream(directory / "dm/name") << other << '\n';
        while (line >> other)
            AddLink(directory / "slaves" / other, "../../" + other);
    }

    // "DEVICE [CHILDREN] PARENT", with "none" for a device that is not found. Look-ups that fail add to
    // `errors`.
    std::string Describe(const char* path)
    {
        const SP<ZnDevice> device = Find(&znhost::SysfsTree::FindDevice, path);
        std::string text = NameOf(device) + " [";
        if (device.get() != nullptr)
        {
            for (const SP<ZnDevice>& child : device->getChildren())
                text += (text.back() == '[' ? "" : " ") + child->getName();
        }
        return text + "] " + NameOf(Find(&znhost::SysfsTree::FindWholeDevice, path));
    }

    std::vector<std::string> errors;

    const fs::path& Root() const { return m_root; }

private:
    SP<ZnDevice> Find(SP<ZnDevice> (znhost::SysfsTree::*find)(const char*) const, const char* path)
    try
    {
        return (znhost::SysfsTree(m_root / "sys", m_root / "dev").*find)(path);
    }
    catch (const std::runtime_error& error)
    {
        errors.emplace_back(error.what());
        return {};
    }

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

// A look-up that finds nothing is not an error, but two look-ups in a loop of devices are.
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
            machine->errors.clear();
            const std::string found = machine->Describe(line.substr(0, arrow).c_str());
            EXPECT_EQ(found + (machine->errors.size() == 2 ? ", loop" : ""), line.substr(arrow + 4))
                << line;
            EXPECT_THAT(machine->errors, testing::Each(testing::EndsWith(" lies beneath itself")));
            ++answers;
        }
        else
            machine->Add(std::istringstream(line));
    }
    EXPECT_EQ(answers, 36);
    EXPECT_EQ(machine->Describe(nullptr), "none [] none");
}

TEST(DeviceTree, FailsWhereItMayNotLook)
{
    Machine machine;
    machine.Add(std::istringstream("disk sda"));
    const fs::path block = machine.Root() / "sys/class/block";
    fs::permissions(block, fs::perms::none);
    ASSERT_EQ(seteuid(getuid() == 0 ? 65534 : getuid()), 0);
    EXPECT_EQ(machine.Describe("/dev/sda"), "none [] none");
    ASSERT_EQ(seteuid(getuid()), 0);
    fs::permissions(block, fs::perms::owner_all);
    const auto isRefused = testing::EndsWith(block.string() + "/sda: Permission denied");
    EXPECT_THAT(machine.errors, testing::ElementsAre(isRefused, isRefused));
}

TEST(DeviceTree, IsTheOneOfThisMachineAndLogsWhyItCannotLook)
{
    Machine machine;
    machine.Add(std::istringstream("disk sda"));
    machine.Add(std::istringstream("partition sda/sda1"));
    machine.Add(std::istringstream("map dm-0 mpatha"));
    CHxError error = CHxError::Success();
    EXPECT_EQ(ZnDeviceTree::getDevice(nullptr, &error).get(), nullptr);
    EXPECT_EQ(ZnDeviceTree::getParentDevice("/dev/null", nullptr).get(), nullptr);
    std::vector<std::string> logged;
    const znhost::LogTap tap([](int level, const char*, const char*) { return level < 0; },
                             [&](const znhost::LogEntry& entry) { logged.push_back(entry.text); });
    ExpectInRoot(machine.Root(), [&] {
        EXPECT_EQ(ZnDeviceTree::getDevice("/dev/sda1", &error)->getName(), "/dev/sda1");
        EXPECT_EQ(ZnDeviceTree::getParentDevice("/dev/sda1", nullptr)->getName(), "/dev/sda");
        const rlimit none{};
        setrlimit(RLIMIT_NOFILE, &none);
        EXPECT_EQ(ZnDeviceTree::getDevice("/dev/dm-0", nullptr).get(), nullptr);
        EXPECT_THAT(logged, testing::ElementsAre(testing::MatchesRegex(
                                "cannot look up /dev/dm-0: .*Too many open files")));
        return !testing::Test::HasFailure();
    });
    ExpectInRoot(testing::TempDir(), [&] {
        EXPECT_EQ(ZnDeviceTree::getParentDevice("/dev/sda", nullptr).get(), nullptr);
        EXPECT_THAT(logged, testing::ElementsAre(testing::HasSubstr("sysfs is not mounted")));
        return !testing::Test::HasFailure();
    });
}

} // namespace
