// Which hosts the library serves.
#pragma once

// Said by the factory and by every operation that meets another host.
constexpr char kUnsupportedHost[] = "Currently not supported for this OS.";

// Asks the host's detector anew: Red Hat family Linux from release 5 on.
bool IsServedHost();
