// The frame of a simulated tool: scene and state found, the command run under the scene's faults,
// devices brought up to date, the outcome printed.
#pragma once

#include "simulated/State.h"

#include <functional>
#include <optional>

namespace simulated
{

struct Outcome
{
    int status = 0;
    std::string out;
    std::string err;
    int pauseMs = 0; // between the two: the progress is printed, then the tool waits for the network
    int leaveBehindMs = 0;
    std::optional<std::int64_t> nextDiskMs = std::nullopt; // until a disk of this log-on shows up
};

// Runs `command` as the tool `name` with the scene and the state folder that the environment variables
// SIMULATED_SCENE and SIMULATED_STATE name. `command` works on a locked state, which is saved after it.
//
// Returns the exit status: the command's, or 2 when scene or state are not usable; then a sentence on
// standard error says why, and nothing was changed.
int RunTool(const std::string& name, int argc, char** argv,
            const std::function<Outcome(const Scene&, State&)>& command);

} // namespace simulated
