// The registry: an INI file, read at every use.
//
// Thread-safety: any number of threads may read at once.
#pragma once

#include <optional>
#include <string>

namespace znhost
{

// Returns the path of the file: ZN_REGISTRY, or /etc/zniscsi/registry.ini if that is unset or empty.
std::string RegistryFile();

// Returns the value `key` of `section`, without enclosing double quotes. Nothing if file, section or
// key do not exist, or the value is empty.
//
// If the file exists but is not a readable INI file, returns nothing and sets `error` to a sentence;
// otherwise clears `error`. Does not log: the log reads its settings here.
std::optional<std::string> ReadRegistryValue(const std::string& section, const std::string& key,
                                             std::string& error);

} // namespace znhost
