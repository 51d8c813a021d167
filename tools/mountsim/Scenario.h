// The simulator's scenario: a simulated controller running the registry machines with
// mounts that settle on the virtual clock.
//
// Services of four kinds take turns: a wildcard group that preserves mounts on disconnect,
// a group with a version filter, a group with a system filter, and a proxy service whose
// versions come from its real service. They share one entry and split the others. Switches
// connect one after another and negotiate their versions; then one switch goes inactive and
// leaves, another is removed, a version is renegotiated, and the inactive switch comes back.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "framework/core/String.h"

namespace MountSim {

struct ScenarioOptions {
  unsigned switches = 16;
  unsigned entries = 6;
  unsigned services = 4;
  uint64_t seed = 1;
  bool events = true;  // print each status change as it happens
};

// Runs the scenario, writing events and the final status tree to out. Returns the number
// of (entry, switch) pairs on which the machines and the reference evaluator disagree.
unsigned runScenario(ScenarioOptions const& options, std::ostream& out);

}  // namespace MountSim
