// Session reports of any size, made of a recorded one.
#pragma once

#include <string>

namespace bench
{

// What the tool prints of `sessions` sessions, each to a target of its own: "...:plain-0" and so on.
std::string SessionReport(int sessions);

} // namespace bench
