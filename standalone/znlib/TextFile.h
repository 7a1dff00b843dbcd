// Small files as text: settings, release files, attributes of sysfs.
//
// Thread-safety: the functions share nothing.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace znhost
{

// The text of `file`. Nothing when there is no such file, or its device has gone; that it cannot be
// read for any other reason says nothing about that.
//
// Throws std::runtime_error, "cannot read FILE: REASON", when it cannot be read or holds more than
// `maxBytes`.
std::optional<std::string> ReadTextFile(const std::string& file, std::size_t maxBytes = 1 << 20);

} // namespace znhost
