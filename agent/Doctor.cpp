#include "agent/Commands.h"
#include "agent/LogWatch.h"
#include "host/EvDebug.h"
#include "host/OSType.h"
#include "standalone/znlib/Registry.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <sstream>

#include <unistd.h>

namespace
{

struct Check
{
    const char* name;
    std::string finding;
    std::string advice{};   // none when all is well
    Exit exit = Exit::Done; // other than Done when the agent cannot do without it
};

const char* StateOf(const Check& check)
{
    if (check.exit != Exit::Done)
        return "fail";
    return check.advice.empty() ? "ok" : "note";
}

Check CheckHost()
{
    constexpr const char* kAdvice = "Run the agent on a Red Hat family Linux of release 5 or later.";
    detectOSType();
    if (g_iOsType != 1)
        return {"host", "no Red Hat family Linux", kAdvice, Exit::HostNotServed};
    const std::string finding = "Red Hat family Linux, release " + std::to_string(g_iOsVersion);
    if (g_iOsVersion < 5)
        return {"host", finding, kAdvice, Exit::HostNotServed};
    return {"host", finding};
}

Check CheckTool()
{
    const std::string path = "/sbin/iscsiadm";
    constexpr const char* kAdvice = "Install the package iscsi-initiator-utils.";
    if (access(path.c_str(), F_OK) != 0)
        return {"administration tool", path + " is missing", kAdvice, Exit::ToolMissing};
    if (access(path.c_str(), X_OK) != 0)
        return {"administration tool", path + " cannot be run: " + std::strerror(errno), kAdvice,
                Exit::Failed};
    return {"administration tool", path};
}

// The tool meets the daemon, or what starts it on demand, at a socket of this name.
Check CheckDaemon()
{
    std::ifstream file("/proc/net/unix");
    const std::string sockets{std::istreambuf_iterator<char>(file), {}};
    if (sockets.find("@ISCSIADM_ABSTRACT_NAMESPACE") != std::string::npos)
        return {"initiator daemon", "iscsid listens"};
    return {"initiator daemon", "iscsid is not seen to listen",
            "If log-ons fail, start it: systemctl enable --now iscsid.socket"};
}

Check CheckMultipathTool()
{
    const std::string path = "/usr/sbin/ehcmcli";
    if (access(path.c_str(), X_OK) == 0)
        return {"multipath tool", path};
    return {"multipath tool", path + " is not there", "Needed for an array's multipath volumes only."};
}

Check CheckUser()
{
    if (geteuid() == 0)
        return {"user", "root"};
    return {"user", "not root", "Run the agent as root: the initiator takes orders from nobody else.",
            Exit::Failed};
}

std::string RegistryTrouble()
{
    std::string error;
    znhost::ReadRegistryValue("Log", "File", error);
    return error;
}

Check CheckRegistry()
{
    const std::string file = znhost::RegistryFile();
    if (const std::string error = RegistryTrouble(); !error.empty())
        return {"registry", error, "Correct it, or name another file in ZN_REGISTRY.", Exit::Failed};
    return {"registry", file + (access(file.c_str(), F_OK) == 0 ? "" : " (not there: defaults hold)")};
}

// A line that the log shows tells whether it takes any.
Check CheckLog()
{
    const znhost::LogSettings& settings = znhost::CurrentLogSettings();
    if (const std::string fault = settings.fault; !fault.empty() && fault != RegistryTrouble())
        return {"log", fault, "Correct the setting, in the environment (ZN_LOG_...) or the registry.",
                Exit::Failed};
    EvEvent().DebugLvl("zniscsi", std::min(0, settings.level), "Examining this host.");
    if (const std::string trouble = znhost::LogTrouble(); !trouble.empty())
        return {"log", trouble, "Name another file: --log FILE or ZN_LOG_FILE.", Exit::Failed};
    const std::string file = settings.file;
    return {"log", file == "-" ? "standard error" : file};
}

} // namespace

Answer Examine(const Request& request)
{
    const LogWatch watch(request.verbosity);
    Answer answer;
    std::ostringstream text;
    for (const Check& check : {CheckHost(), CheckTool(), CheckDaemon(), CheckMultipathTool(),
                               CheckUser(), CheckRegistry(), CheckLog()})
    {
        text << std::left << std::setw(6) << StateOf(check) << std::setw(21) << check.name
             << check.finding << '\n';
        if (!check.advice.empty())
            text << std::setw(27) << "" << check.advice << '\n';
        answer.fields["checks"].push_back({{"name", check.name},
                                           {"state", StateOf(check)},
                                           {"finding", check.finding},
                                           {"advice", check.advice}});
        if (check.exit != Exit::Done)
            answer.reasons.push_back(std::string(check.name) + ": " + check.finding);
        if (answer.exit == Exit::Done)
            answer.exit = check.exit;
    }
    answer.text = text.str();
    return answer;
}
