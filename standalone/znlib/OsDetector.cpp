#include "standalone/znlib/OsDetector.h"

#include "host/EvDebug.h"
#include "host/ServedMachine.h"
#include "standalone/helpers/TextFile.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <iomanip>
#include <iterator>
#include <map>
#include <sstream>
#include <string>

std::int32_t g_iOsType = 0;
std::int32_t g_iOsVersion = 0;

namespace
{

using znhost::OperatingSystem;

// "9.3" -> 9, "5 (Tikanga)" -> 5, "stream" -> 0
std::int32_t MajorRelease(const std::string& version)
{
    std::int32_t release = 0;
    std::from_chars(version.data(), version.data() + version.size(), release);
    return release;
}

// Some members of the family have no ID_LIKE in some releases.
bool IsRedHatFamily(const std::string& id, const std::string& idLike)
{
    constexpr std::string_view kMembers[] = {"almalinux", "centos", "fedora",    "ol",
                                             "rhel",      "rocky",  "scientific"};
    std::istringstream words(idLike);
    return std::find(std::begin(kMembers), std::end(kMembers), id) != std::end(kMembers) ||
           std::any_of(std::istream_iterator<std::string>(words), {},
                       [](const std::string& word) { return word == "rhel" || word == "fedora"; });
}

// NAME="Rocky Linux"
// ID="rocky"
// ID_LIKE="rhel centos fedora"
// VERSION_ID="9.3"
OperatingSystem ParseOsRelease(const std::string& text)
{
    std::map<std::string, std::string> values;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
    {
        // A comment with a "=" only sets a name that begins with '#'.
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos)
            continue;
        std::istringstream value(line.substr(equals + 1));
        value >> std::quoted(values[line.substr(0, equals)], value.peek() == '\'' ? '\'' : '"');
    }
    const std::string& version = values["VERSION_ID"];
    const std::string& name = values[values["NAME"].empty() ? "ID" : "NAME"];
    return {IsRedHatFamily(values["ID"], values["ID_LIKE"]) ? kRedHatFamily : 0, MajorRelease(version),
            name + (version.empty() ? "" : ' ' + version)};
}

// Red Hat Enterprise Linux Server release 5.11 (Tikanga)
OperatingSystem ParseRedHatRelease(const std::string& text)
{
    const std::string marker = " release ";
    const std::string line = text.substr(0, text.find('\n'));
    const std::size_t at = line.find(marker);
    if (at == std::string::npos)
        return {0, 0, line};
    return {kRedHatFamily, MajorRelease(line.substr(at + marker.size())), line};
}

// Other threads read the globals without a lock after their own call of the detector. So a value is
// written by one thread only, and each call synchronizes with that write.
void StoreIfChanged(std::int32_t& global, std::int32_t value)
{
    std::int32_t known = __atomic_load_n(&global, __ATOMIC_ACQUIRE);
    while (known != value && !__atomic_compare_exchange_n(&global, &known, value, false,
                                                          __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE))
    {
    }
}

} // namespace

OperatingSystem znhost::ReadOperatingSystem(const std::filesystem::path& root)
{
    for (const char* const name : {"etc/os-release", "usr/lib/os-release"})
    {
        if (const std::optional<std::string> text = znlib::ReadTextFile(root / name))
            return ParseOsRelease(*text);
    }
    return ParseRedHatRelease(znlib::ReadTextFile(root / "etc/redhat-release").value_or(""));
}

void detectOSType()
{
    try
    {
        const OperatingSystem system = znhost::ReadOperatingSystem("/");
        StoreIfChanged(g_iOsType, system.family);
        StoreIfChanged(g_iOsVersion, system.release);
    }
    catch (const std::exception& error)
    {
        EvEvent().DebugLvl("detectOSType", -1, "%s: the host counts as what it was seen to be before",
                           error.what());
    }
}
