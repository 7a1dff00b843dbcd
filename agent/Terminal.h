// Terminal output and settings. Settings are restored on return, exception, signal and stop. Signals
// that are ignored or handled stay as they are.
#pragma once

#include <string>
#include <string_view>

// Shows `prompt` and turns the echo of standard input, a terminal, off for its lifetime. A stop
// (Ctrl-Z) turns it on; when the program continues in the foreground, it is off again and the prompt is
// repeated. Only one at a time. The constructor throws std::system_error if the echo cannot be turned
// off.
class HiddenPrompt
{
public:
    explicit HiddenPrompt(const std::string& prompt);
    HiddenPrompt(const HiddenPrompt&) = delete;
    HiddenPrompt& operator=(const HiddenPrompt&) = delete;
    ~HiddenPrompt();
};

// Shows `text` in a status line on standard error, and after a second also the time: "TEXT (12 s)".
// Does nothing if that is not a terminal. Erase it before anything else is written.
void ShowStatusLine(const std::string& text);
void EraseStatusLine();

// Writes `line`, with its end, to standard error. A status line moves below it.
void WriteAboveStatusLine(std::string_view line);

// A status line for work that may be slow: it appears after a second, and is erased at the end.
class SlowWork
{
public:
    explicit SlowWork(const std::string& text);
    SlowWork(const SlowWork&) = delete;
    SlowWork& operator=(const SlowWork&) = delete;
    ~SlowWork() { EraseStatusLine(); }
};

// Writes `text` to standard error. Errors are ignored. Safe in a signal handler.
void WriteToStandardError(std::string_view text);
