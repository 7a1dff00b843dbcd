#include "cli/kernel/Sysfs.h"

#include "standalone/helpers/TextFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <dirent.h>
#include <unistd.h>

namespace cli
{

std::optional<std::string> ReadAttribute(const std::string& attribute)
{
    std::optional<std::string> line = znlib::ReadAttributeLine(attribute);
    return line == "(null)" ? std::nullopt : std::move(line);
}

// opendir: std::filesystem makes a path of each name, and /proc may have thousands.
std::vector<std::string> ListDirectory(const std::string& directory)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(directory.c_str()), closedir);
    std::vector<std::string> names;
    while (opened)
    {
        errno = 0;
        const dirent* const entry = readdir(opened.get());
        if (entry == nullptr)
            break;
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    }
    if (errno != 0 && errno != ENOENT && errno != ENOTDIR && errno != ENODEV)
        throw std::runtime_error("cannot read " + directory + ": " +
                                 std::generic_category().message(errno));
    std::sort(names.begin(), names.end());
    return names;
}

// readlink: std::filesystem takes two system calls, and there may be thousands of processes.
std::string ReadLink(const std::string& link)
{
    std::array<char, PATH_MAX> target{};
    const ssize_t length = readlink(link.c_str(), target.data(), target.size());
    return {target.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

// Num               RefCount Protocol Flags    Type St Inode Path
// 0000000000000000: 00000002 00000000 00010000 0001 01 18213 @ISCSIADM_ABSTRACT_NAMESPACE
bool HasListener(const std::string& name)
{
    const std::string file = "/proc/net/unix";
    constexpr std::size_t kMaxBytes = 64 << 20;
    const std::optional<std::string> table = znlib::ReadTextFile(file, kMaxBytes);
    if (!table)
        throw std::runtime_error("cannot read " + file + ": it is not there");
    std::istringstream lines(*table);
    for (std::string line; std::getline(lines, line);)
    {
        std::istringstream words(line);
        std::array<std::string, 7> columns;
        for (std::string& column : columns)
            words >> column;
        std::string address;
        std::getline(words.ignore(), address);
        if (columns[3] == "00010000" && columns[4] == "0001" && address == name)
            return true;
    }
    return false;
}

// The kernel calls cciss/c0d0 "cciss!c0d0": its device names are also names of directories.
std::string DevicePath(std::string kernelName)
{
    std::replace(kernelName.begin(), kernelName.end(), '!', '/');
    return "/dev/" + kernelName;
}

} // namespace cli
