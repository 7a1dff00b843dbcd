// The stand-alone host's addition to its sleep.
#pragma once

#include <chrono>

namespace znhost
{

// Limits all later pauses of this process to `longest`. Thread-safe.
void LimitPauses(std::chrono::milliseconds longest);

} // namespace znhost
