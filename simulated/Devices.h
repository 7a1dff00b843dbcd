// The block devices of the simulated machine, and its sysfs and /dev, with nothing but what the agent,
// the device tree, the completion and the documents' hosts read.
#pragma once

#include "simulated/State.h"

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

struct Entry
{
    std::filesystem::file_type type;
    std::string text; // the line of a file, the target of a link
};

// The entries of a folder, by path below it. Parents come before children.
using Tree = std::map<std::filesystem::path, Entry>;

struct Devices
{
    Tree sys;
    Tree dev;
};

Devices DevicesOf(const Scene& scene, const State& state);

// Changes sys and dev below `folder` from `before` to `after`. What is in both is not touched: a reader
// always finds it, and what a person has written into it stays.
void WriteDevices(const Devices& before, const Devices& after, const std::filesystem::path& folder);

} // namespace simulated
