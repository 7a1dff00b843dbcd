#include "cli/CommandTable.h"

#include "cli/commands/Commands.h"
#include "standalone/helpers/Text.h"

#include <algorithm>
#include <cstdlib>

namespace cli
{

namespace
{

// What the entries of the table set. `name` is that of the option or argument.

template <bool Request::*flag>
void SetFlag(Request& request, const char* /*name*/, const std::string& /*value*/)
{
    request.*flag = true;
}

// Sets a text unless `findFault` returns what is wrong with it.
template <auto member, auto findFault>
void SetText(Request& request, const char* name, const std::string& value)
{
    if (const std::string fault = findFault(value); !fault.empty())
        throw UsageError(std::string(name) + ": " + fault);
    request.*member = value;
}

template <auto member, auto lowest, auto highest>
void SetNumber(Request& request, const char* name, const std::string& value)
{
    const auto number = znlib::ParseNumber<decltype(highest)>(value);
    if (!number || *number < lowest || *number > highest)
        throw UsageError(std::string(name) + ": must be a whole number from " + std::to_string(lowest) +
                         " to " + std::to_string(highest));
    request.*member = *number;
}

constexpr auto SetPortal = SetText<&Request::portal, FindPortalFault>;
constexpr auto SetIqn = SetText<&Request::iqn, FindIqnFault>;
constexpr auto SetDevice = SetText<&Request::device, FindDeviceFault>;
constexpr unsigned kDay = 24 * 60 * 60; // in seconds

void SetIqnOrDevice(Request& request, const char* name, const std::string& value)
{
    if (!IsIqn(value) && value.find("/dev/") == std::string::npos)
        throw UsageError(std::string(name) + ": expected the name of a target or the path of a device");
    (IsIqn(value) ? SetIqn : SetDevice)(request, name, value);
}

// The log reads its settings at the first line, which is written later.
void SetLog(Request& /*request*/, const char* name, const std::string& value)
{
    if (value.empty())
        throw UsageError(std::string(name) + ": the file name is empty");
    setenv("ZN_LOG_FILE", value.c_str(), 1);
}

std::string FindNoFault(const std::string& /*value*/)
{
    return "";
}

constexpr const char* kPortalForms = "Target portal: ADDRESS, ADDRESS:PORT or\n[IPV6]:PORT";
constexpr const char* kIqnForms = "Name of the target: iqn..., eui... or naa...";

const Argument kPortal{"PORTAL", true, kPortalForms, SetPortal};
const Argument kIqn{"IQN", true, kIqnForms, SetIqn};
const Argument kDevice{"DEVICE", true, "Path of a disk, a partition or a multipath\ndevice", SetDevice};
const Argument kIqnOrDevice{"IQN|DEVICE", false, "Only this target, or this device", SetIqnOrDevice};

// Without it, a command means the whole target.
Argument OptionalPortal(const char* purpose)
{
    return {"PORTAL", false, purpose, SetPortal};
}

const Option kTimeout{"--timeout", "S", "End a tool that runs longer than S seconds",
                      SetNumber<&Request::timeoutSeconds, 1U, kDay>};
const Option kNoHeadings{"--no-headings", nullptr, "Leave out the line of headings",
                         SetFlag<&Request::noHeadings>};
const Option kWait{"--wait", "S", "Retry for up to S seconds",
                   SetNumber<&Request::waitSeconds, 0U, kDay>};

const std::vector<Option> kCommonOptions{
    {"--log", "FILE", "Write the log to FILE; \"-\" is standard error", SetLog},
    {"--job-id", "N", "The job identifier in the log lines", SetNumber<&Request::jobId, 0ULL, ~0ULL>}};

const std::vector<Command> kCommands{
    {"discover",
     "Find the targets at a portal and record them",
     {kPortal},
     {kTimeout},
     "192.0.2.10:3260",
     Discover,
     {},
     "A discovery rewrites the records that the array answers with, also those of its\n"
     "other portals: CHAP settings and the start at boot fall back to the defaults of\n"
     "/etc/iscsi/iscsid.conf.",
     true},
    {"logon",
     "Log on to a target, with CHAP if it requires it",
     {OptionalPortal("Target portal; without it, every recorded one"), kIqn},
     {{"--chap-user", "NAME", "Log on with CHAP as NAME", SetText<&Request::chapUser, FindChapFault>},
      {"--chap-secret-file", "FILE", "The secret is the first line of FILE",
       SetText<&Request::chapSecretFile, FindNoFault>},
      {"--chap-secret-stdin", nullptr,
       "The secret is the first line of standard\ninput; a terminal is asked",
       SetFlag<&Request::chapSecretStdin>},
      kTimeout},
     "192.0.2.10 iqn.2025-01.org.example:vol1 --chap-user backup",
     LogOn,
     {"login"},
     "",
     true},
    {"logoff",
     "End the session with a target; its record stays",
     {OptionalPortal("Target portal; without it, all sessions end"), kIqn},
     {{"--force", nullptr,
       "End it without a look at who uses its disks:\nunwritten data of a mounted disk is lost",
       SetFlag<&Request::force>},
      kTimeout},
     "192.0.2.10 iqn.2025-01.org.example:vol1",
     LogOff,
     {"logout"},
     "Refused while a disk is in use. The path of a map may end while another works.",
     true},
    {"forget",
     "Delete the record of a target that is logged off",
     {OptionalPortal("Target portal; without it, all records"), kIqn},
     {kTimeout},
     "192.0.2.10 iqn.2025-01.org.example:vol1",
     Forget,
     {},
     "",
     true},
    {"records", "List the node records", {}, {kNoHeadings, kTimeout}, "--json", ListRecords},
    {"disks",
     "List the disks of a target",
     {kIqn},
     {{"--wait", "S", "Retry for up to S seconds, until two looks a\nsecond apart agree",
       SetNumber<&Request::waitSeconds, 0U, kDay>},
      {"--count", "N", "Expect N disks; with --wait, retry until they\nare there",
       SetNumber<&Request::diskCount, 1U, 1'000'000U>},
      kTimeout},
     "iqn.2025-01.org.example:vol1 --wait 30",
     FindDisks},
    {"disk",
     "Show a target's multipath device, or its first disk",
     {kIqn},
     {kWait,
      {"--retry-pause", "S", "Ask the multipath tool again after S seconds,\nat most 20",
       SetNumber<&Request::retryPauseSeconds, 0U, kDay>},
      kTimeout},
     "iqn.2025-01.org.example:vol1 --retry-pause 2",
     FindDisk,
     {},
     "Where the array's own multipath tool (/usr/sbin/ehcmcli) is installed, it is\n"
     "asked first, and again every 20 seconds: 80 seconds for a target that it does\n"
     "not know (5 attempts: nRetryCounter in the registry)."},
    {"target",
     "Show the portal and IQN of a device",
     {kDevice},
     {kWait,
      {"--paths", nullptr, "List every path of the device: disk, state,\nportal, IQN",
       SetFlag<&Request::paths>},
      kNoHeadings,
      kTimeout},
     "/dev/mapper/mpatha",
     FindTarget},
    {"sessions",
     "List sessions, their disks and who uses them",
     {kIqnOrDevice},
     {kNoHeadings},
     "--json",
     ListSessions,
     {"list", "ls"}},
    {"doctor", "Show what this machine lacks, and what to do", {}, {kTimeout}, "", Examine}};

} // namespace

const std::vector<Option>& CommonOptions()
{
    return kCommonOptions;
}

const std::vector<Command>& Commands()
{
    return kCommands;
}

const Command* FindCommand(const std::string& name)
{
    const auto hasName = [&name](const Command& command) {
        return command.name == name ||
               std::count(command.aliases.begin(), command.aliases.end(), name) != 0;
    };
    const auto found = std::find_if(kCommands.begin(), kCommands.end(), hasName);
    return found == kCommands.end() ? nullptr : &*found;
}

} // namespace cli
