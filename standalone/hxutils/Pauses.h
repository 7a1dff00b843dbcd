// What a program built on the stand-alone host may ask of its sleep.
#pragma once

#include <chrono>

namespace znhost
{

// From now on no pause of this process lasts longer than `longest`. Safe on any thread.
void LimitPauses(std::chrono::milliseconds longest);

} // namespace znhost
