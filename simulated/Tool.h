// What every simulated tool does: read scene and state, run the command under the scene's faults,
// update the devices, print the outcome.
#pragma once

#include "simulated/State.h"

#include <functional>

namespace simulated
{

struct Outcome
{
    int status = 0;
    std::string out{};
    std::string err{};
    int pauseMs = 0; // between the two
};

// Runs `command` as the tool `name`. The environment variables SIMULATED_SCENE and SIMULATED_STATE name
// scene and state directory. `command` gets a locked state, which is saved afterwards.
//
// Returns the exit status: the command's, or 2 if scene or state cannot be used; then a sentence on
// standard error says why, and nothing has changed.
int RunTool(const std::string& name, int argc, char** argv,
            const std::function<Outcome(const Scene&, State&)>& command);

} // namespace simulated
