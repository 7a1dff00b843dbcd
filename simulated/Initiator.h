// What the simulated iscsiadm does: each operation on its own, in the words of the real tool.
#pragma once

#include "simulated/Tool.h"

namespace simulated
{

// Which records or sessions an operation is about.
struct Selection
{
    std::string iqn;    // empty: every target
    std::string portal; // as given after -p; empty: every portal
};

Outcome Discover(const Scene& scene, State& state, const std::string& portal);

// Node mode.
Outcome ListNodes(const Scene& scene, const State& state, const Selection& selection);
Outcome NewNode(const Scene& scene, State& state, const Selection& selection);
Outcome UpdateNodes(const Scene& scene, State& state, const Selection& selection,
                    const std::string& name, const std::string& value);
Outcome DeleteNodes(const Scene& scene, State& state, const Selection& selection);
Outcome LogOn(const Scene& scene, State& state, const Selection& selection);
Outcome LogOff(const Scene& scene, State& state, const Selection& selection);

} // namespace simulated
