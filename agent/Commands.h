// The commands. Each takes a request whose values have been checked, and returns the answer to print.
// Throws Failure if the operation fails.
#pragma once

#include "agent/Arguments.h"
#include "agent/Output.h"

Answer Discover(const Request& request);
Answer LogOn(const Request& request);
Answer LogOff(const Request& request);
Answer Forget(const Request& request);
Answer ListRecords(const Request& request);
Answer FindDisks(const Request& request);
Answer FindDisk(const Request& request);
Answer FindTarget(const Request& request);
Answer ListSessions(const Request& request);

// Checks that this host has what the other commands need. The answer has the cause of the first failed
// check.
Answer Examine(const Request& request);
