// The commands. Each takes a request whose values have been checked, and returns the answer to print.
// Throws Failure, or std::runtime_error with a sentence for the user, if the operation fails.
#pragma once

#include "cli/Request.h"
#include "cli/terminal/Output.h"

namespace cli
{

Answer Discover(const Request& request);
Answer LogOn(const Request& request);
Answer LogOff(const Request& request);
Answer Forget(const Request& request);
Answer ListRecords(const Request& request);
Answer FindDisks(const Request& request);
Answer FindDisk(const Request& request);
Answer FindTarget(const Request& request);
Answer ListSessions(const Request& request);

// Checks that this machine has what the other commands need. The answer has the cause of the first
// failed check.
Answer Examine(const Request& request);

} // namespace cli
