#include "standalone/znlib/OsDetector.h"

#include "host/OSType.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <fstream>
#include <iomanip>
#include <istream>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>

std::int32_t g_iOsType = 0;
std::int32_t g_iOsVersion = 0;

namespace
{

using znhost::OperatingSystem;

constexpr std::int32_t kRedHatFamily = 1;

// "9.3" is release 9, "5 (Tikanga)" release 5; 0 when no number stands in front.
std::int32_t MajorRelease(const std::string& version)
{
    std::int32_t release = 0;
    std::from_chars(version.data(), version.data() + version.size(), release);
    return release;
}

// Others of the family say so in ID_LIKE; of these, some releases have none.
bool IsRedHatFamily(const std::string& id, const std::string& idLike)
{
    static const std::set<std::string> members = {"almalinux", "centos", "fedora",    "ol",
                                                  "rhel",      "rocky",  "scientific"};
    std::istringstream words(idLike);
    return members.count(id) != 0 ||
           std::any_of(std::istream_iterator<std::string>(words), {},
                       [](const std::string& word) { return word == "rhel" || word == "fedora"; });
}

// NAME="Rocky Linux"
// ID="rocky"
// ID_LIKE="rhel centos fedora"
// VERSION_ID="9.3"
OperatingSystem ParseOsRelease(std::istream& text)
{
    std::map<std::string, std::string> values;
    for (std::string line; std::getline(text, line);)
    {
        // A comment does no harm: at most, it sets a name that begins with '#'.
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos)
            continue;
        std::istringstream value(line.substr(equals + 1));
        value >> std::quoted(values[line.substr(0, equals)], value.peek() == '\'' ? '\'' : '"');
    }
    return {IsRedHatFamily(values["ID"], values["ID_LIKE"]) ? kRedHatFamily : 0,
            MajorRelease(values["VERSION_ID"])};
}

// Red Hat Enterprise Linux Server release 5.11 (Tikanga)
OperatingSystem ParseRedHatRelease(std::istream& text)
{
    const std::string marker = " release ";
    std::string line;
    std::getline(text, line);
    const std::size_t at = line.find(marker);
    if (at == std::string::npos)
        return {};
    return {kRedHatFamily, MajorRelease(line.substr(at + marker.size()))};
}

} // namespace

OperatingSystem znhost::ReadOperatingSystem(const std::filesystem::path& root)
{
    for (const char* const name : {"etc/os-release", "usr/lib/os-release"})
    {
        if (std::ifstream file(root / name); file)
            return ParseOsRelease(file);
    }
    std::ifstream file(root / "etc/redhat-release");
    return ParseRedHatRelease(file);
}

void detectOSType()
{
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    const OperatingSystem system = znhost::ReadOperatingSystem("/");
    // Written only when they change: others read them without the lock at the same time.
    if (g_iOsType != system.family)
        g_iOsType = system.family;
    if (g_iOsVersion != system.release)
        g_iOsVersion = system.release;
}
