// What is said of a command line that is not understood. No sentence repeats a value, which may be a
// secret. All functions are pure.
#pragma once

#include <string>

namespace cli
{

bool IsOption(const std::string& argument);

// For an option that its command does not take, or that does not exist. `argument` may contain its
// value.
std::string DescribeOption(const std::string& argument, bool isFirstWord);

// For what the parser says of an option with too many values, or too few.
std::string DescribeMismatch(const std::string& said);

// For the first word of a line if it is no command. Proposes the command that was meant, if that is
// harmless and similar.
std::string DescribeUnknownCommand(const std::string& firstWord);

} // namespace cli
