// The scenario's publishing service: one service that publishes local state to the switches
// through its publish declaration, which the hosting agent's machines take up.
//
// Its groups cover what a publish declaration can ask for: a version-filtered group, a
// system-filtered group, and an unfiltered group with a published directory (each admitted
// switch gets a sub-directory of it) and an entity that appears only some seconds after
// start, which the publish machine's presence poll picks up.
#pragma once

#include <functional>
#include <iosfwd>
#include <string>

#include "framework/records/SystemId.h"
#include "sim/World.h"

namespace MountSim {

class Publishing {
 public:
  using At = std::function<void(double, std::function<void()>)>;
  using Event = std::function<void(std::string const&)>;

  Publishing(Sim::World& world, unsigned switches, std::ostream& out, Event event);

  // Makes the local entities (all but the late one) and writes the service's declaration;
  // prints what it declares.
  void declare();
  // The service writes its declaration again for a new leader.
  void leaderGenIdIs(Vesk::String const& leaderGenId);
  // Adds the publishing service's own moments to the timeline.
  void schedule(At const& at);
  // What switch `index` negotiates for the publishing service as it connects.
  void negotiate(Controller::SystemId const& system, unsigned index);
  // Per switch, what is published and why.
  void printTree();
  // Compares every switch's published mounts with the reference; returns the differences.
  unsigned check();

 private:
  std::string why(Controller::PublishRegistryEntry const& entry,
                  Controller::SystemId const& system) const;

  Sim::World& world_;
  unsigned const switches_;
  std::ostream& out_;
  Event const event_;
  Sim::PublishDeclaration declaration_;
};

}  // namespace MountSim
