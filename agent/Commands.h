// The commands. Each does its work, with values that have been found fit, and answers; a Failure says
// why it could not.
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

// Whether this host has what the others need, and what to do where it has not. Its cause is that of the
// first check that failed.
Answer Examine(const Request& request);
