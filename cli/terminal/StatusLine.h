// The status line on standard error: what is being waited for, and for how long already. There is none
// unless standard error is a terminal that knows escape sequences.
//
// Thread-safety: for one thread; the line itself is written by a thread of its own.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace cli
{

// Shows "TEXT", after a second "TEXT (1 s)" and so on, in place of the last status. With a `limit` it
// is "TEXT (1 of 30 s)".
void ShowStatus(const std::string& text, std::optional<unsigned> limitSeconds = std::nullopt);

// Removes it. Call this before anything else is written to standard error or standard output.
void EraseStatus();

// Writes `line`, with its end, to standard error. The status line moves below it.
void WriteAboveStatus(std::string_view line);

// A status for work that may be slow: it appears after a second, and is removed at the end.
class SlowWork
{
public:
    explicit SlowWork(const std::string& text);
    SlowWork(const SlowWork&) = delete;
    SlowWork& operator=(const SlowWork&) = delete;
    ~SlowWork() { EraseStatus(); }
};

// Writes `text` to standard error. Errors are ignored.
void WriteToStandardError(std::string_view text);

} // namespace cli
