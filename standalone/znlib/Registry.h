// The registry's store: an INI file, read anew at every use, so that a change holds from the next use
// on.
//
// Thread-safety: any number of threads may read at once.
#pragma once

#include <optional>
#include <string>

namespace znhost
{

// The path of the registry's file: the environment variable ZN_REGISTRY, or
// /etc/zniscsi/registry.ini where that is unset or empty.
std::string RegistryFile();

// The value `key` of `section`, never empty; one in double quotes comes without them, its blanks kept.
// Nothing when the file, the section or the key is not there, or the key is set to nothing.
//
// When the file is there and can't be read as an INI file, the result is nothing too and `error` gets
// the whole sentence; otherwise `error` is emptied. No log line is written: the log itself reads its
// settings here.
std::optional<std::string> ReadRegistryValue(const std::string& section, const std::string& key,
                                             std::string& error);

} // namespace znhost
