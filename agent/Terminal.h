// What this program changes on the user's terminal, and takes back on every way out: a return, an
// exception, a signal, a stop.
#pragma once

#include <string>
#include <string_view>

// From now on a signal that ends the program first puts the terminal in order. A signal that was
// ignored stays so.
void RestoreTerminalOnSignals();

// While it lives, what is typed at standard input, a terminal, is not shown, and `prompt` is. A stop
// (Ctrl-Z) gives the echo back; when the program goes on in the foreground, echo is off and the prompt
// shown again. One at a time. Throws std::system_error when the echo cannot be turned off.
class HiddenPrompt
{
public:
    explicit HiddenPrompt(const std::string& prompt);
    HiddenPrompt(const HiddenPrompt&) = delete;
    HiddenPrompt& operator=(const HiddenPrompt&) = delete;
    ~HiddenPrompt();
};

// Shows on standard error what is being waited for, and from the next second on for how long: "TEXT
// (12 s)". Nothing when that is no terminal. The line is erased before anything else is written.
void ShowStatusLine(const std::string& text);
void EraseStatusLine();

// While it lives, shows a status line from the first second on: work that is done sooner shows none.
class SlowWork
{
public:
    explicit SlowWork(const std::string& text);
    SlowWork(const SlowWork&) = delete;
    SlowWork& operator=(const SlowWork&) = delete;
    ~SlowWork() { EraseStatusLine(); }
};

// Writes `text` to standard error, where the status line has been erased. What cannot be written is
// lost.
void WriteToStandardError(std::string_view text);
