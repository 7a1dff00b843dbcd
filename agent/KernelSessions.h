// The initiator's sessions as the kernel shows them, whatever a tool says.
#pragma once

#include "agent/Portal.h"

#include <filesystem>
#include <string>
#include <vector>

struct KernelSession
{
    std::string iqn;
    Portal portal; // as the node record has it, not where a redirection led
};

// Reads the sessions below `sysfs`. One that ends meanwhile is left out.
std::vector<KernelSession> ReadKernelSessions(const std::filesystem::path& sysfs = "/sys");
