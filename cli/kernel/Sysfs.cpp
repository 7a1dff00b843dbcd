#include "cli/kernel/Sysfs.h"

#include "standalone/helpers/TextFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <memory>
#include <stdexcept>
#include <system_error>

#include <dirent.h>
#include <unistd.h>

namespace cli
{

std::optional<std::string> ReadAttribute(const std::string& attribute)
{
    const std::optional<std::string> text = znlib::ReadTextFile(attribute);
    if (!text || *text == "(null)\n")
        return std::nullopt;
    return text->substr(0, text->find('\n'));
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

// The kernel calls cciss/c0d0 "cciss!c0d0": its device names are also names of directories.
std::string DevicePath(std::string kernelName)
{
    std::replace(kernelName.begin(), kernelName.end(), '!', '/');
    return "/dev/" + kernelName;
}

} // namespace cli
