// What only a block device itself tells: the answers to opening it.
//
// Thread-safety: the functions share nothing.
#pragma once

#include <string>

namespace cli
{

// Who has a device to itself: also a file system that was unmounted lazily, and has no mount point any
// more.
enum class Use
{
    None,
    Exclusive, // the kernel, or a program that asked for it
    Unknown
};

struct UseAnswer
{
    Use use;
    std::string reason{}; // why it is unknown
};

// Asks by opening the device with the kernel name `name` exclusively, through the kernel's own node:
// the link in /dev/mapper is made later than its map. Unknown if that node is missing, or is that
// of another device. Blocks while the device does not work.
UseAnswer AskUse(const std::string& name);

struct LoopAnswer
{
    std::string deviceNumber{}; // "8:17"; empty if the loop device has a file, or nothing
    std::string reason{};       // why it is unknown
};

// Asks a loop device for the block device beneath it.
LoopAnswer AskLoop(const std::string& device);

} // namespace cli
