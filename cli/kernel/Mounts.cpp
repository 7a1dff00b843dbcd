#include "cli/kernel/Mounts.h"

#include "cli/kernel/Sysfs.h"
#include "host/BeginsWith.h"
#include "standalone/helpers/Text.h"
#include "standalone/helpers/TextFile.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <set>
#include <stdexcept>

#include <unistd.h>

namespace cli
{

namespace
{

// Whoever owns another namespace chooses how long its table is.
constexpr std::size_t kMaxOwnTableBytes = 64 << 20;
constexpr std::size_t kMaxForeignTableBytes = 4 << 20;
constexpr std::size_t kMaxForeignBytes = 64 << 20; // of all tables together

// Takes the text before the next `separator` from the beginning of `text`.
std::string_view TakeUntil(std::string_view& text, char separator)
{
    const std::string_view taken = text.substr(0, text.find(separator));
    text.remove_prefix(std::min(taken.size() + 1, text.size()));
    return taken;
}

// The kernel escapes blanks, line ends and backslashes of a name: \040, \012, \134.
std::string Unescaped(std::string_view name)
{
    std::string text;
    for (; !name.empty(); name.remove_prefix(1))
    {
        unsigned char byte = 0;
        const char* const end = name.data() + std::min<std::size_t>(name.size(), 4);
        if (name.front() == '\\' &&
            std::from_chars(name.data() + 1, end, byte, 8).ptr == name.data() + 4)
        {
            text += static_cast<char>(byte);
            name.remove_prefix(3);
        }
        else
            text += name.front();
    }
    return text;
}

// 8:17
bool IsDeviceNumber(std::string_view text)
{
    const std::string_view major = TakeUntil(text, ':');
    return znlib::ParseNumber<unsigned>(major) && znlib::ParseNumber<unsigned>(text);
}

// 36 35 8:17 / /mnt/a\040b rw,relatime shared:7 - ext4 /dev/sdb1 rw
// 48 35 0:41 / /data rw,relatime - btrfs /dev/sdc rw
std::optional<Mount> ParseMount(std::string_view line)
{
    TakeUntil(line, ' ');
    TakeUntil(line, ' ');
    const std::string_view number = TakeUntil(line, ' ');
    TakeUntil(line, ' ');
    const std::string_view mountPoint = TakeUntil(line, ' ');
    // Optional words follow, then a dash.
    while (!line.empty() && TakeUntil(line, ' ') != "-")
    {
    }
    const std::string_view type = TakeUntil(line, ' ');
    const std::string_view source = TakeUntil(line, ' ');
    if (source.empty() || !IsDeviceNumber(number))
        return std::nullopt;
    if (type == "btrfs")
        return Mount{"", Unescaped(mountPoint), Unescaped(source)};
    if (BeginsWith(number, "0:"))
        return std::nullopt;
    return Mount{std::string(number), Unescaped(mountPoint), ""};
}

std::vector<Mount> ReadOwnMounts(const std::string& proc)
{
    const std::string file = proc + "self/mountinfo";
    const std::optional<std::string> table = znlib::ReadTextFile(file, kMaxOwnTableBytes);
    if (!table)
        throw std::runtime_error("cannot read " + file + ": it is not there");
    return ParseMountTable(*table);
}

// The mounts of a process in another namespace; nothing if they cannot be read. `budget` is how many
// bytes may still be read.
std::optional<std::vector<Mount>> ReadForeignMounts(const std::string& proc, const std::string& process,
                                                    std::size_t& budget)
{
    const std::size_t limit = std::min(budget, kMaxForeignTableBytes);
    try
    {
        const std::string file = proc + process + "/mountinfo";
        const std::string table = znlib::ReadTextFile(file, limit).value_or("");
        budget -= table.size();
        std::vector<Mount> mounts = ParseMountTable(table);
        for (Mount& mount : mounts)
            mount.process = process;
        return table.empty() ? std::nullopt : std::optional(mounts);
    }
    catch (const std::runtime_error&)
    {
        budget -= limit;
        return std::nullopt;
    }
}

} // namespace

std::vector<Mount> ParseMountTable(std::string_view text)
{
    std::vector<Mount> mounts;
    while (!text.empty())
        if (std::optional<Mount> mount = ParseMount(TakeUntil(text, '\n')))
            mounts.push_back(std::move(*mount));
    return mounts;
}

// Filename				Type		Size		Used		Priority
// /dev/sdb2                               partition	1048572		0		-2
std::vector<std::string> ParseSwapTable(std::string_view text)
{
    std::vector<std::string> devices;
    TakeUntil(text, '\n');
    while (!text.empty())
    {
        std::string_view line = TakeUntil(text, '\n');
        const std::string_view name = line.substr(0, line.find_first_of(" \t"));
        line.remove_prefix(name.size());
        line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
        if (!name.empty() && BeginsWith(line, "partition"))
            devices.push_back(Unescaped(name));
    }
    return devices;
}

MountTables ReadMounts(const std::string& root)
{
    const std::string proc = root + "/proc/";
    MountTables tables{ReadOwnMounts(proc)};
    std::size_t budget = kMaxForeignBytes;
    std::set<std::string> known{ReadLink(proc + "self/ns/mnt")};
    for (const std::string& process : ListDirectory(proc))
    {
        if (!znlib::ParseNumber<int>(process))
            continue;
        const std::string mountNamespace = ReadLink(proc + process + "/ns/mnt");
        if (mountNamespace.empty())
            // The process has ended, or it is not this user's to look into.
            tables.areComplete = tables.areComplete && geteuid() == 0;
        else if (known.count(mountNamespace) == 0)
        {
            // If the process has just ended, another one of its namespace is asked.
            const auto mounts = ReadForeignMounts(proc, process, budget);
            if (!mounts)
                continue;
            known.insert(mountNamespace);
            tables.mounts.insert(tables.mounts.end(), mounts->begin(), mounts->end());
        }
    }
    tables.areComplete = tables.areComplete && budget > 0;
    return tables;
}

std::vector<std::string> ReadSwaps(const std::string& root)
{
    return ParseSwapTable(znlib::ReadTextFile(root + "/proc/swaps").value_or(""));
}

} // namespace cli
