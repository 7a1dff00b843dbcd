// The block devices of the simulated machine, and its sysfs and /dev, with nothing but what the agent,
// the device tree, the completion and the hosts of the documents read.
#pragma once

#include "simulated/State.h"
#include "simulated/Tree.h"

namespace simulated
{

struct Disk
{
    std::string name; // kernel name
    const Session* session;
    const Lun* lun;
};

// The disks that have appeared, in the order of their sessions and LUNs.
std::vector<Disk> DisksOf(const Scene& scene, const State& state);

// Gives a kernel name to every disk that appears now.
void AttachDisks(const Scene& scene, State& state);

// What is below sys and dev.
Tree DevicesOf(const Scene& scene, const State& state);

} // namespace simulated
