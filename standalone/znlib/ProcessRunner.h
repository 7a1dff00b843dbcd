// What a program may ask of the stand-alone host's process runner (host/ZnProcess.h runs tools).
#pragma once

#include <chrono>
#include <optional>

namespace znhost
{

struct RunLimits
{
    // A tool is killed (SIGKILL) as soon as the thread that started it ends, so a killed program leaves
    // no tool behind. For programs that run tools on a thread that lasts; a resident host needs
    // nothing.
    bool endWithProgram = false;

    // After this time a tool gets SIGTERM, and SIGKILL two seconds later. Its run has failed then, with
    // the result -1, and the error output ends in the sentence "TOOL: did not end within 5 s". Where
    // even SIGKILL does not end a tool (the kernel waits for a disk), the run ends two more seconds
    // later and leaves it behind. Nothing: no limit.
    std::optional<std::chrono::milliseconds> timeLimit;
};

// Applies `limits` to all later runs of this process. Thread-safe.
void LimitRuns(const RunLimits& limits);

} // namespace znhost
