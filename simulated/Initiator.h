// What the simulated iscsiadm does. Each function is one operation, and prints the words of the real
// tool.
#pragma once

#include "simulated/Tool.h"

namespace simulated
{

// A node record, or its session.
struct Node
{
    std::string iqn;
    PortalAddress portal;
};

// The portal that `text`, given after -p, names. Only the scene's portals have host names.
PortalAddress Resolve(const Scene& scene, const std::string& text);

Outcome Discover(const Scene& scene, State& state, const PortalAddress& at);

// Node mode.
Outcome ListNodes(const State& state);
Outcome UpdateNode(State& state, const Node& node, const std::string& name, const std::string& value);
Outcome DeleteNode(State& state, const Node& node);
Outcome LogOn(const Scene& scene, State& state, const Node& node);
Outcome LogOff(State& state, const Node& node);

// Session mode, with -P3.
Outcome ReportSessions(const Scene& scene, State& state);

} // namespace simulated
