// What the simulated iscsiadm does. Each function is one operation, and prints the words of the real
// tool.
#pragma once

#include "simulated/Tool.h"

namespace simulated
{

// The portal that `text`, given after -p, names. Only the scene's portals have host names.
PortalAddress Resolve(const Scene& scene, const std::string& text);

// Nothing is there: the tool's status for that.
Outcome NotFound(const std::string& words);

Outcome Discover(const Scene& scene, State& state, const PortalAddress& at);

// Node mode. DeleteNode and LogOn need the record.
Outcome ListNodes(const State& state);
Outcome DeleteNode(State& state, const Node& node);
Outcome LogOn(const Scene& scene, State& state, const Node& node);
Outcome LogOff(State& state, const Node& node);

// Session mode, with -P3.
Outcome ReportSessions(const Scene& scene, State& state);

} // namespace simulated
