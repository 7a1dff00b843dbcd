#include "standalone/znlib/LogSettings.h"

#include "standalone/helpers/Text.h"
#include "standalone/znlib/Log.h"
#include "standalone/znlib/Registry.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <sched.h>
#include <unistd.h>

// No locks and no static objects with destructors, as in the log itself.
namespace
{

using znhost::LogSettings;

std::array<char, PATH_MAX> g_file{"/var/log/zniscsi.log"};
std::array<char, 512> g_fault{};
constexpr unsigned long long kMebibyte = 1ULL << 20U;
LogSettings g_settings{g_file.data(), 0, 10 * kMebibyte, g_fault.data()};
constexpr pid_t kRead = -1;
std::atomic<pid_t> g_settingsReader{0}; // the process that is reading them, then kRead
// Copy of the level for a quick test. The maximum until the settings have been read.
std::atomic<int> g_shownLevel{INT_MAX};

void SetFault(std::string_view sentence)
{
    g_fault.at(sentence.copy(g_fault.data(), g_fault.size() - 1)) = '\0';
}

// The value from the environment, else from the registry, else empty.
std::string ReadSetting(const char* variable, const char* key)
{
    if (const char* const value = std::getenv(variable); value != nullptr && *value != '\0')
        return value;
    std::string error;
    const std::optional<std::string> stored = znhost::ReadRegistryValue("Log", key, error);
    if (!error.empty())
        SetFault(error);
    return stored.value_or("");
}

// Sets `setting` if `text` is a whole number from `lowest` to `highest`.
template <class Number>
void SetNumber(Number& setting, const std::string& text, const char* name, Number lowest,
               Number highest)
{
    if (text.empty())
        return;
    const std::optional<Number> number = znlib::ParseNumber<Number>(text);
    if (number && *number >= lowest && *number <= highest)
        setting = *number;
    else
        SetFault("the log's " + std::string(name) + " cannot be \"" + text +
                 "\": a whole number from " + std::to_string(lowest) + " to " +
                 std::to_string(highest) + " is needed");
}

void SetFile(const std::string& file)
{
    if (file.size() >= g_file.size())
        SetFault("the log's file cannot be \"" + file.substr(0, 32) + "...\": the name is too long");
    else if (!file.empty())
        std::memcpy(g_file.data(), file.c_str(), file.size() + 1);
}

// Invalid settings keep their defaults.
void ReadLogSettings() noexcept
try
{
    SetFile(ReadSetting("ZN_LOG_FILE", "File"));
    SetNumber(g_settings.level, ReadSetting("ZN_LOG_LEVEL", "Level"), "level", -1, 2);
    SetNumber(g_settings.maxSizeBytes, ReadSetting("ZN_LOG_MAX_SIZE", "MaxSize"), "size limit", 0ULL,
              kMebibyte << 20U);
}
catch (const std::exception&)
{
    SetFault("cannot read the log's settings: out of memory");
}

} // namespace

const LogSettings& znhost::CurrentLogSettings()
{
    for (pid_t reader = 0; (reader = g_settingsReader.load(std::memory_order_acquire)) != kRead;)
    {
        if (reader == getpid())
            sched_yield(); // another thread of this process is at it
        else if (g_settingsReader.compare_exchange_strong(reader, getpid()))
        {
            // Nobody is reading, or only a thread of the parent process was, at the fork.
            const int callersError = errno;
            ReadLogSettings();
            errno = callersError;
            g_shownLevel = g_settings.level;
            g_settingsReader.store(kRead, std::memory_order_release);
        }
    }
    return g_settings;
}

bool znlib::LogFileShows(int level)
{
    return level <= g_shownLevel.load(std::memory_order_relaxed) &&
           level <= znhost::CurrentLogSettings().level;
}
