#include "agent/Commands.h"
#include "agent/LogWatch.h"
#include "host/BeginsWith.h"
#include "host/EvDebug.h"
#include "host/ServedHost.h"
#include "host/ZnProcess.h"
#include "standalone/znlib/Log.h"
#include "standalone/znlib/Registry.h"
#include "standalone/znlib/Text.h"
#include "standalone/znlib/TextFile.h"

#include <algorithm>
#include <iomanip>
#include <sstream>
#include <stdexcept>

#include <sys/utsname.h>
#include <unistd.h>

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
    return access(path.c_str(), F_OK) == 0;
}

bool HasText(const std::string& file, const std::string& text)
{
    constexpr std::size_t kMaxBytes = 64 << 20;
    return znhost::ReadTextFile(file, kMaxBytes).value_or("").find(text) != std::string::npos;
}

Finding CheckHost()
{
    const bool isServed = IsServedHost();
    const std::string finding = g_iOsType == kRedHatFamily
                                    ? "Red Hat family Linux, release " + std::to_string(g_iOsVersion)
                                    : "no Red Hat family Linux";
    if (isServed)
        return {finding};
    return {finding, "Run the agent on a Red Hat family Linux of release 5 or later.",
            Cause::NotServed};
}

// Runs the tool: an executable file may still lack its interpreter or a library.
Finding CheckTool()
{
    const std::string path = "/sbin/iscsiadm";
    constexpr const char* kAdvice = "Install the package iscsi-initiator-utils.";
    if (!Exists(path))
        return {path + " is missing", kAdvice, Cause::ToolMissing};
    std::string output, errorOutput;
    const int result =
        ZnProcess::system((path + " --version").c_str(), &output, &errorOutput, 0, false);
    const std::string said = output + errorOutput; // some versions print theirs on standard error
    const std::string line = said.substr(0, said.find('\n'));
    if (result < 0 || result > 125)
        return {line, kAdvice, Cause::ToolFailed};
    return {path + (line.empty() ? "" : ", " + line)};
}

// Without a name the initiator cannot log on.
Finding CheckInitiatorName()
{
    const std::string file = "/etc/iscsi/initiatorname.iscsi";
    std::istringstream lines(znhost::ReadTextFile(file).value_or(""));
    const std::string key = "InitiatorName=";
    for (std::string line; std::getline(lines, line);)
        if (BeginsWith(line, key) && line.find_first_not_of(" \t", key.size()) != std::string::npos)
            return {line.substr(key.size())};
    return {file + " names none", "Write one: echo InitiatorName=$(/sbin/iscsi-iname) >" + file,
            Cause::ToolFailed};
}

// The module is loaded, built in, or can be loaded for the first session.
Finding CheckModule()
{
    utsname kernel{};
    uname(&kernel);
    const std::string folder = std::string("/lib/modules/") + kernel.release;
    if (Exists("/sys/class/iscsi_transport/tcp"))
        return {"iscsi_tcp is loaded"};
    if (HasText(folder + "/modules.dep", "/iscsi_tcp.ko") ||
        HasText(folder + "/modules.builtin", "/iscsi_tcp.ko"))
        return {"iscsi_tcp can be loaded"};
    return {"iscsi_tcp is not loaded, and " + folder + " has none",
            "Install the kernel's modules (kernel-modules-core), or boot the kernel that they are for.",
            Cause::ToolFailed};
}

// The tool connects to the daemon, or to systemd, at this abstract socket.
Finding CheckDaemon()
{
    constexpr const char* kAdvice = "Start it: systemctl enable --now iscsid.socket";
    if (HasText("/proc/net/unix", "@ISCSIADM_ABSTRACT_NAMESPACE"))
        return {"iscsid listens"};
    if (HasText("/etc/iscsi/iscsid.conf", "\niscsid.startup"))
        return {"iscsid does not listen; the tool starts it when it is needed", kAdvice};
    return {"iscsid does not listen", kAdvice, Cause::ToolFailed};
}

// Only needed for multipath maps.
Finding CheckMultipathDaemon()
{
    if (HasText("/proc/net/unix", "@/org/kernel/linux/storage/multipathd"))
        return {"multipathd listens"};
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
    return {errorOutput.substr(0, errorOutput.find('\n')), kAdvice};
}

Finding CheckUser()
{
    if (geteuid() == 0)
        return {"root"};
    return {"not root", "Run the agent as root: the initiator takes orders from nobody else.",
            Cause::ToolFailed};
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
    EvEvent().DebugLvl("zniscsi", std::min(0, settings.level), "Examining this host.");
    if (const std::string error = znhost::LastLogError(); !error.empty())
        return {error, "Name another file: --log FILE or ZN_LOG_FILE.", Cause::ToolFailed};
    const std::string file = settings.file;
    return {file == "-" ? "standard error" : file};
}

struct Check
{
    const char* name;
    Finding (*look)();
};

constexpr Check kChecks[] = {{"host", CheckHost},
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
Finding Look(const Check& check)
try
{
    return check.look();
}
catch (const std::runtime_error& error)
{
    return {error.what(), "See that it can be read.", Cause::ToolFailed};
}

} // namespace

Answer Examine(const Request& request)
{
    const LogWatch watch(request.verbosity);
    Answer answer;
    std::ostringstream text;
    for (const Check& check : kChecks)
    {
        const Finding finding = Look(check);
        text << std::left << std::setw(6) << StateOf(finding) << std::setw(21) << check.name
             << znhost::Printable(finding.text) << '\n';
        if (!finding.advice.empty())
            text << std::setw(27) << "" << znhost::Printable(finding.advice) << '\n';
        answer.fields["checks"].push_back({{"name", check.name},
                                           {"state", StateOf(finding)},
                                           {"finding", finding.text},
                                           {"advice", finding.advice}});
        if (finding.cause)
            answer.reasons.push_back(std::string(check.name) + ": " + finding.text);
        if (!answer.cause)
            answer.cause = finding.cause;
    }
    answer.text = text.str();
    return answer;
}
