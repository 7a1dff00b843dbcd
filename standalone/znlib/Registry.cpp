#include "standalone/znlib/Registry.h"

#include "host/EvDebug.h"
#include "host/ZNPlatformInfo.h"
#include "standalone/helpers/Text.h"
#include "standalone/helpers/TextFile.h"

// Boost's parser: the small C libraries truncate long lines and section names, and cut a comment at "
// ;" also inside quotes.
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace
{

using boost::property_tree::ptree;

// [~iStoreNode]
// nRetryCounter = 3
// VolumeKey = "Volume: "
//
// Sections contain keys. Dots and slashes in names have no meaning. Throws ini_parser_error if `text`
// is malformed.
ptree ParseRegistry(const std::string& text)
{
    ptree registry;
    std::istringstream stream(text);
    boost::property_tree::read_ini(stream, registry);
    return registry;
}

// find() and not get(), which would split a name at its dots.
std::optional<std::string> FindValue(const ptree& registry, const std::string& section,
                                     const std::string& key)
{
    const auto values = registry.find(section);
    if (values == registry.not_found())
        return std::nullopt;
    const auto found = values->second.find(key);
    if (found == values->second.not_found())
        return std::nullopt;
    return found->second.data();
}

std::string WithoutQuotes(const std::string& value)
{
    const bool isQuoted = value.size() >= 2 && value.front() == '"' && value.back() == '"';
    return isQuoted ? value.substr(1, value.size() - 2) : value;
}

void LogError(const char* tag, const std::string& message)
{
    EvEvent log;
    log.DebugLvl(tag, -1, "%s", message.c_str());
}

void LogUnfit(const char* tag, const char* section, const char* key, const std::string& reason)
{
    LogError(tag, std::string("cannot use [") + section + "] " + key + " of " + znhost::RegistryFile() +
                      ": " + reason);
}

std::optional<std::string> ReadOrLog(const char* tag, const char* section, const char* key)
{
    std::string error;
    std::optional<std::string> value = znhost::ReadRegistryValue(section, key, error);
    if (!error.empty())
        LogError(tag, error);
    return value;
}

} // namespace

std::string znhost::RegistryFile()
{
    const char* const file = std::getenv("ZN_REGISTRY");
    return file != nullptr && *file != '\0' ? file : "/etc/zniscsi/registry.ini";
}

std::optional<std::string> znhost::ReadRegistryValue(const std::string& section, const std::string& key,
                                                     std::string& error)
{
    error.clear();
    const std::string file = RegistryFile();
    try
    {
        const std::string text = znlib::ReadTextFile(file).value_or("");
        if (text.find('\0') != std::string::npos)
            throw std::runtime_error("cannot read " + file + ": not a text file");
        const std::string value =
            WithoutQuotes(FindValue(ParseRegistry(text), section, key).value_or(""));
        return value.empty() ? std::nullopt : std::optional(value);
    }
    catch (const boost::property_tree::ini_parser_error& reason)
    {
        error =
            "cannot read " + file + ": line " + std::to_string(reason.line()) + ": " + reason.message();
    }
    catch (const std::runtime_error& reason)
    {
        error = reason.what();
    }
    return std::nullopt;
}

ZNPlatformInfo::ZNPlatformInfo() = default;
ZNPlatformInfo::~ZNPlatformInfo() = default;

std::string ZNPlatformInfo::getSectionName(const char* name, const char* subName)
{
    const std::string section = std::string("~") + name;
    return subName == nullptr ? section : section + "/" + subName;
}

int ZNPlatformInfo::getString(const char* section, const char* key, char* buffer, int bufferSize)
{
    constexpr char kTag[] = "ZNPlatformInfo::getString";
    const std::optional<std::string> value = ReadOrLog(kTag, section, key);
    if (!value)
        return 0;
    if (bufferSize < 0 || value->size() >= static_cast<std::size_t>(bufferSize))
    {
        LogUnfit(kTag, section, key,
                 std::to_string(value->size()) + " bytes do not fit into " +
                     std::to_string(bufferSize) + " with the terminating zero");
        return 0;
    }
    std::memcpy(buffer, value->c_str(), value->size() + 1);
    return 1;
}

bool ZNPlatformInfo::getRegInt(const char* section, const char* key, int* value)
{
    constexpr char kTag[] = "ZNPlatformInfo::getRegInt";
    const std::optional<std::string> text = ReadOrLog(kTag, section, key);
    if (!text)
        return false;
    const std::optional<int> number = znlib::ParseNumber<int>(*text);
    if (!number)
    {
        LogUnfit(kTag, section, key, "\"" + *text + "\" is not a decimal number of 32 bits");
        return false;
    }
    *value = *number;
    return true;
}
