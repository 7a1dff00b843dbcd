// The one way in which an administration tool is tested for, run, logged and reported on.
#pragma once

#include "host/CallLog.h"

#include <string>
#include <string_view>

struct Tool
{
    const char* path;     // full; what is looked for before the first run
    const char* notFound; // the log line when it is not there
};

// The runs of one tool in one operation. One pair of strings serves them all: each run replaces what
// the one before it left.
class ToolRun
{
public:
    // `secret` is what no log line may show, even where the tool repeats it in its error output; empty
    // where there is none. All three outlive the object.
    ToolRun(const CallLog& log, const Tool& tool, std::string_view secret = {});
    ToolRun(const ToolRun&) = delete;
    ToolRun& operator=(const ToolRun&) = delete;
    ~ToolRun();

    // False, with a line that says so, when the tool is not installed.
    bool ToolExists() const;

    // Logs and runs `command`; true when it succeeded.
    bool Run(const std::string& command);

    // As Run; a failure is logged with the tool's own words.
    bool RunOrLogFailure(const std::string& command);

    // As RunOrLogFailure, with `fragment` and the secret behind the part that the log shows.
    bool RunWithSecretOrLogFailure(const std::string& shown, std::string_view fragment);

    // Logs that `command` failed, with the tool's error output and `sequel` behind it.
    void LogFailure(const std::string& command, std::string_view sequel = {}) const;

    // What the last run printed, as captured.
    const std::string& Output() const { return m_output; }
    const std::string& ErrorOutput() const { return m_errorOutput; }

    // The last run's error output as a log line may show it.
    std::string PrintableErrorOutput() const;

private:
    bool Start(const char* command);

    const CallLog& m_log;
    const Tool& m_tool;
    std::string_view m_secret;
    std::string m_output;
    std::string m_errorOutput;
};
