// Reads what a tool writes until it ends, or ends it when its time is up.
#pragma once

#include "standalone/znlib/ChildProcess.h"

#include <chrono>
#include <optional>
#include <string>

namespace znlib
{

// Appends both streams of `child` until it has ended. The end of the pipes is not awaited: a daemon
// that the tool left behind may keep them open.
//
// After `timeLimit` the child gets SIGTERM, two seconds later SIGKILL, and after two more seconds it is
// given up. Returns false if any of this was needed.
//
// Throws std::system_error if the streams cannot be read, std::bad_alloc if their text finds no room.
bool CaptureUntilEnd(ChildProcess& child, std::optional<std::chrono::milliseconds> timeLimit,
                     std::string& output, std::string& errorOutput);

} // namespace znlib
