// Reads small files: settings, release files, sysfs attributes.
//
// Thread-safety: the functions share nothing.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace znlib
{

// Returns the contents of `file`, or nothing if there is no such file or its device has vanished.
//
// Throws std::runtime_error, "cannot read FILE: REASON", for any other error, or if the file has more
// than `maxBytes`.
std::optional<std::string> ReadTextFile(const std::string& file, std::size_t maxBytes = 1 << 20);

// Returns the first line of an attribute in sysfs, or nothing if there is no such attribute or its
// device is being removed. Throws as above.
std::optional<std::string> ReadAttributeLine(const std::string& attribute);

} // namespace znlib
