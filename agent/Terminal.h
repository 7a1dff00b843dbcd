// What this program changes on the user's terminal, and takes back on every way out: a return, an
// exception, a signal.
#pragma once

#include <string>

#include <termios.h>

// From now on the signals that end the program first put the terminal in order. A signal that was
// ignored stays so.
void RestoreTerminalOnSignals();

// While it lives, what is typed at standard input, a terminal, is not shown. One at a time.
class EchoOff
{
public:
    EchoOff();
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;
    ~EchoOff();
};

// Shows on standard error what is being waited for; nothing when that is no terminal. The line is
// erased before anything else is written.
void ShowStatusLine(const std::string& text);
void EraseStatusLine();
