// How an operation runs an administration tool, and logs what it ran and why it failed:
//
//     ToolRun iscsiadm(log, kIscsiadm);
//     if (!iscsiadm.ToolExists() || !iscsiadm.RunOrLogFailure("/sbin/iscsiadm -m session -P3"))
//         return false;
//     Parse(iscsiadm.Output());
//
// host/ZnProcess.h says what a run returns. Thread-safety: use a ToolRun on one thread only; any number
// of them may run tools at once.
#pragma once

#include "host/CallLog.h"

#include <string>
#include <string_view>

// The runs of one tool in one operation. Each run replaces the output of the run before. The destructor
// wipes it if there is a secret.
class ToolRun
{
public:
    // `tool` is the tool's full path. No log line shows `secret`, even if the tool repeats it in its
    // error output; it is empty if there is none. All three arguments must outlive the object.
    ToolRun(const CallLog& log, const char* tool, std::string_view secret = {});
    ToolRun(const ToolRun&) = delete;
    ToolRun& operator=(const ToolRun&) = delete;
    ~ToolRun();

    // Returns false and logs a line if the tool is not installed.
    bool ToolExists() const;

    // Logs and runs `command`. Returns true if it succeeded.
    bool Run(const std::string& command);

    // Like Run, but also logs a failure with the tool's error output.
    bool RunOrLogFailure(const std::string& command);

    // Like RunOrLogFailure for the command `shown` + `fragment` + secret, of which the log shows
    // `shown` only.
    bool RunWithSecretOrLogFailure(const std::string& shown, std::string_view fragment);

    // Logs that `command` failed, followed by the tool's error output and `sequel`.
    void LogFailure(const std::string& command, std::string_view sequel = {}) const;

    // The output of the last run, unchanged.
    const std::string& Output() const { return m_output; }
    const std::string& ErrorOutput() const { return m_errorOutput; }

    // The error output of the last run, without the secret.
    std::string PrintableErrorOutput() const;

private:
    bool Start(const char* command);
    void DiscardOutput();

    const CallLog& m_log;
    const char* m_tool;
    std::string_view m_secret;
    std::string m_output;
    std::string m_errorOutput;
};
