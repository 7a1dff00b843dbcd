// Session reports of any size, made from a recorded one.
#pragma once

#include <string>

namespace bench
{

// The tool's report on `sessions` sessions, each to a target of its own: "...:plain-0" and so on.
std::string SessionReport(int sessions);

} // namespace bench
