#include "host/ToolRun.h"

#include "host/Wipe.h"
#include "host/ZnProcess.h"

#include <unistd.h>

ToolRun::ToolRun(const CallLog& log, const char* tool, std::string_view secret)
    : m_log(log), m_tool(tool), m_secret(secret)
{
}

ToolRun::~ToolRun()
{
    DiscardOutput();
}

bool ToolRun::ToolExists() const
{
    if (access(m_tool, F_OK) == 0)
        return true;
    m_log.Error("%s not found!!", m_tool);
    return false;
}

bool ToolRun::Run(const std::string& command)
{
    m_log.Info("Running [%s]", command.c_str());
    return Start(command.c_str());
}

bool ToolRun::RunOrLogFailure(const std::string& command)
{
    if (Run(command))
        return true;
    LogFailure(command);
    return false;
}

bool ToolRun::RunWithSecretOrLogFailure(const std::string& shown, std::string_view fragment)
{
    m_log.Info("Running [%s]", shown.c_str());
    const WipedString command({shown, fragment, m_secret});
    if (Start(command.c_str()))
        return true;
    LogFailure(shown);
    return false;
}

void ToolRun::LogFailure(const std::string& command, std::string_view sequel) const
{
    std::string failure = "Failed to run " + command + ": " + PrintableErrorOutput();
    failure += sequel;
    m_log.Error("%s", failure.c_str());
}

std::string ToolRun::PrintableErrorOutput() const
{
    if (m_secret.empty())
        return m_errorOutput;
    // Built from the text around each secret, so that no copy contains it.
    std::string text;
    std::size_t from = 0;
    for (std::size_t at; (at = m_errorOutput.find(m_secret, from)) != std::string::npos;)
    {
        text.append(m_errorOutput, from, at - from).append("********");
        from = at + m_secret.size();
    }
    return text.append(m_errorOutput, from);
}

bool ToolRun::Start(const char* command)
{
    DiscardOutput();
    return ZnProcess::system(command, &m_output, &m_errorOutput, 0, false) == 0;
}

void ToolRun::DiscardOutput()
{
    // Wiped only if the tool may have repeated a secret: a session report can be megabytes long.
    for (std::string* const text : {&m_output, &m_errorOutput})
    {
        if (m_secret.empty())
            text->clear();
        else
            Wipe(*text);
    }
}
