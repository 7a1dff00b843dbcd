// The block devices of the simulated machine: which there are, and the sysfs and /dev that show them.
#pragma once

#include "simulated/State.h"

#include <optional>

namespace simulated
{

struct Disk
{
    std::string name; // kernel name
    const Session* session;
    const Lun* lun;
};

// The disks that are there, in the order of their sessions.
std::vector<Disk> DisksOf(const Scene& scene, const State& state);

// Milliseconds since the epoch.
std::int64_t NowMs();

// Gives every disk that is due its kernel name, and brings multipath maps up and down with their paths.
// Result: the milliseconds until the next disk is due, or nothing when no disk waits for the clock.
std::optional<std::int64_t> Settle(const Scene& scene, State& state, std::int64_t nowMs);

// The map that has `kernelName` as a path and is up, or null.
const MultipathMap* FindMapOf(const Scene& scene, const State& state, const Disk& disk);

// Makes sys and dev below `folder` what the state asks for. What stays as it is isn't
// touched, so that a reader never misses a device that has been there all the time.
void WriteDevices(const Scene& scene, const State& state, const std::filesystem::path& folder);

} // namespace simulated
