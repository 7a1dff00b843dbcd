// Reads sysfs and /proc: attributes, directories and links. Unless said otherwise, what is not there,
// or vanishes while it is read, is an empty answer. The functions throw std::runtime_error, "cannot
// read FILE: REASON", if anything cannot be read for another reason.
//
// Thread-safety: the functions share nothing.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace cli
{

// Returns the first line of an attribute. Nothing if there is no such attribute, or it has no value:
// the kernel prints "(null)" then.
std::optional<std::string> ReadAttribute(const std::string& attribute);

// Returns the names in a directory, sorted, without hidden ones.
std::vector<std::string> ListDirectory(const std::string& directory);

// Returns the target of a symbolic link. Unlike the other functions it never throws: empty also if this
// user may not read the link.
std::string ReadLink(const std::string& link);

// Whether a local stream socket listens at the address `name`, with "@" for an abstract one. Whose it
// is the kernel does not tell: any user may have made it.
bool HasListener(const std::string& name);

// Returns the path of a device's node: "sdb" -> "/dev/sdb".
std::string DevicePath(std::string kernelName);

} // namespace cli
