#include "cli/commands/Commands.h"
#include "cli/initiator/LogWatch.h"
#include "cli/initiator/Reasons.h"
#include "cli/kernel/Sysfs.h"
#include "host/BeginsWith.h"
#include "host/EvDebug.h"
#include "host/ServedMachine.h"
#include "host/ZnProcess.h"
#include "standalone/helpers/Text.h"
#include "standalone/helpers/TextFile.h"
#include "standalone/znlib/Log.h"
#include "standalone/znlib/OsDetector.h"
#include "standalone/znlib/Registry.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <sys/utsname.h>
#include <unistd.h>

namespace cli
{

namespace
{

struct Finding
{
    std::string text;
    std::string advice{};         // empty if nothing is wrong
    std::optional<Cause> cause{}; // set if a log-on will fail
};

const char* StateOf(const Finding& finding)
{
    if (finding.cause)
        return "fail";
    return finding.advice.empty() ? "ok" : "note";
}

bool Exists(const std::string& path)
{
    if (access(path.c_str(), F_OK) == 0)
        return true;
    if (errno != ENOENT && errno != ENOTDIR)
        throw std::system_error(errno, std::generic_category(), "cannot look at " + path);
    return false;
}

// Returns the first line that is wanted; empty if there is none, or no such file.
std::string FindLine(const std::string& file, const std::function<bool(const std::string&)>& isWanted)
{
    constexpr std::size_t kMaxBytes = 64 << 20;
    std::istringstream text(znlib::ReadTextFile(file, kMaxBytes).value_or(""));
    for (std::string line; std::getline(text, line);)
        if (isWanted(line))
            return line;
    return "";
}

std::string FirstLine(const std::string& text)
{
    return text.substr(0, text.find('\n'));
}

Finding CheckMachine()
{
    if (IsServedMachine())
        return {"Red Hat family Linux, release " + std::to_string(g_iOsVersion)};
    const std::string name = znhost::ReadOperatingSystem("/").name;
    return {name.empty() ? "neither /etc/os-release nor /etc/redhat-release exists" : name,
            "Run zniscsi on a Red Hat family Linux of release 5 or later.", Cause::NotServed};
}

// Runs the tool: an executable file may still lack its interpreter or a library.
Finding CheckTool()
{
    const std::string path = "/sbin/iscsiadm";
    constexpr const char* kAdvice = "Install the package iscsi-initiator-utils.";
    if (!Exists(path))
        return {path + " is missing", kAdvice, Cause::ToolMissing};
    std::string output, errorOutput;
    if (ZnProcess::system((path + " --version").c_str(), &output, &errorOutput, 0, false) != 0)
        return {FirstLine(errorOutput), kAdvice, Cause::ToolFailed};
    const std::string version = FirstLine(output + errorOutput); // some print it as an error
    if (version.empty())
        return {path + " --version says nothing", kAdvice, Cause::ToolFailed};
    return {path + ", " + version};
}

// Without a name the initiator cannot log on.
Finding CheckInitiatorName()
{
    const std::string file = "/etc/iscsi/initiatorname.iscsi";
    const std::string key = "InitiatorName=";
    const std::string line = FindLine(file, [&key](const std::string& each) {
        return BeginsWith(each, key) && each.find_first_not_of(" \t", key.size()) != std::string::npos;
    });
    if (!line.empty())
        return {line.substr(key.size())};
    return {file + " names none", "Write one: echo InitiatorName=$(/sbin/iscsi-iname) >" + file,
            Cause::ToolFailed};
}

// The module is loaded, built in, or can be loaded for the first session.
Finding CheckModule()
{
    utsname kernel{};
    uname(&kernel);
    const std::string directory = std::string("/lib/modules/") + kernel.release;
    const auto isModule = [](const std::string& line) {
        return line.find("/iscsi_tcp.ko") != std::string::npos;
    };
    if (Exists("/sys/class/iscsi_transport/tcp"))
        return {"iscsi_tcp is loaded"};
    if (!FindLine(directory + "/modules.dep", isModule).empty() ||
        !FindLine(directory + "/modules.builtin", isModule).empty())
        return {"iscsi_tcp can be loaded"};
    return {"iscsi_tcp is not loaded, and " + directory + " has none",
            "Install the kernel's modules (kernel-modules-core), or boot the kernel that they are for.",
            Cause::ToolFailed};
}

// The tool connects to the daemon, or to systemd, at this abstract socket.
Finding CheckDaemon()
{
    constexpr const char* kAdvice = "Start it: systemctl enable --now iscsid.socket";
    if (HasListener("@ISCSIADM_ABSTRACT_NAMESPACE"))
        return {"a program listens at iscsid's socket"};
    const auto namesDaemon = [](const std::string& line) { return BeginsWith(line, "iscsid.startup"); };
    if (!FindLine("/etc/iscsi/iscsid.conf", namesDaemon).empty())
        return {"iscsid does not listen; the tool starts it when it is needed", kAdvice};
    return {"iscsid does not listen", kAdvice, Cause::ToolFailed};
}

Finding CheckMultipathDaemon()
{
    if (HasListener("@/org/kernel/linux/storage/multipathd"))
        return {"a program listens at multipathd's socket"};
    if (!Exists("/etc/multipath.conf"))
        return {"multipathd does not listen, and no /etc/multipath.conf asks for it"};
    return {"multipathd does not listen, but there is an /etc/multipath.conf",
            "Start it: systemctl enable --now multipathd"};
}

Finding CheckMultipathTool()
{
    const std::string path = "/usr/sbin/ehcmcli";
    constexpr const char* kAdvice = "Needed for an array's multipath volumes only.";
    if (!Exists(path))
        return {path + " is not there", kAdvice};
    std::string output, errorOutput;
    if (ZnProcess::system((path + " status").c_str(), &output, &errorOutput, 0, false) == 0)
        return {path};
    return {FirstLine(errorOutput), kAdvice};
}

Finding CheckUser()
{
    if (geteuid() == 0)
        return {"root"};
    return {"not root", "Run zniscsi as root: iscsiadm requires it.", Cause::ToolFailed};
}

std::string RegistryError()
{
    std::string error;
    znhost::ReadRegistryValue("Log", "File", error);
    return error;
}

Finding CheckRegistry()
{
    const std::string file = znhost::RegistryFile();
    if (const std::string error = RegistryError(); !error.empty())
        return {error, "Correct it, or name another file in ZN_REGISTRY.", Cause::ToolFailed};
    return {file + (Exists(file) ? "" : " (not there: the defaults are used)")};
}

// Writes a line to the log.
Finding CheckLog()
{
    const znhost::LogSettings& settings = znhost::CurrentLogSettings();
    if (const std::string fault = settings.fault; !fault.empty() && fault != RegistryError())
        return {fault, "Correct the setting, in the environment (ZN_LOG_...) or the registry.",
                Cause::ToolFailed};
    EvEvent().DebugLvl(words::kOwnTag, std::min(0, settings.level), "Examining this machine.");
    if (const std::string error = znhost::LastLogError(); !error.empty())
        return {error, "Name another file: --log FILE or ZN_LOG_FILE.", Cause::ToolFailed};
    return {settings.file == std::string("-") ? "standard error" : settings.file};
}

constexpr std::pair<const char*, Finding (*)()> kChecks[] = {{"machine", CheckMachine},
                                                             {"administration tool", CheckTool},
                                                             {"initiator name", CheckInitiatorName},
                                                             {"kernel module", CheckModule},
                                                             {"initiator daemon", CheckDaemon},
                                                             {"multipath daemon", CheckMultipathDaemon},
                                                             {"multipath tool", CheckMultipathTool},
                                                             {"user", CheckUser},
                                                             {"registry", CheckRegistry},
                                                             {"log", CheckLog}};

// A check that throws does not end the examination.
Finding Look(Finding (*check)())
try
{
    return check();
}
catch (const std::runtime_error& error)
{
    return {error.what(), "Make it readable.", Cause::ToolFailed};
}

} // namespace

Answer Examine(const Request& request)
{
    const LogWatch watch(request.verbosity);
    Answer answer;
    answer.textHasReasons = true;
    std::ostringstream text;
    for (const auto& [name, check] : kChecks)
    {
        const Finding finding = Look(check);
        text << std::left << std::setw(6) << StateOf(finding) << std::setw(21) << name
             << znlib::Printable(finding.text) << '\n';
        if (!finding.advice.empty())
            text << std::setw(27) << "" << znlib::Printable(finding.advice) << '\n';
        answer.fields["checks"].push_back({{"name", name},
                                           {"state", StateOf(finding)},
                                           {"finding", finding.text},
                                           {"advice", finding.advice}});
        if (finding.cause)
            answer.reasons.push_back(std::string(name) + ": " + finding.text);
        if (!answer.cause)
            answer.cause = finding.cause;
    }
    answer.text = text.str();
    return answer;
}

} // namespace cli
