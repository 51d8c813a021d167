// Sim::Agent: the hosting agent of a simulated controller.
//
// It creates the library's top-level machines through their factories, over the records
// and directories of a World, and keeps them for its lifetime: the service configuration
// directory machine over the six declaration and status directories, the controller
// database's records and the registry, and the mounts registry machine over the registry
// and the out-of-band status. From then on services act only by writing declarations and
// status entities into the directories, and the leader generation changes through the
// controller database's status.
//
// TYPICAL USAGE:
//   Sim::World world;
//   Sim::Agent agent(world);                    // the machines take up what is declared
//   auto foo = world.declareService("FooAgent", "Foo");
//   foo.mountIs("group", "/state/foo");         // the registry follows the declaration
//   world.runUntilQuiet(60);
//
// Stopping (or destroying) the agent tells each machine doCleanup() before dropping it,
// service configuration first, so that nothing the machines made outlives them. The agent
// must be stopped or destroyed before its world.
#pragma once

#include "registry/MountsRegistrySm.h"
#include "service_config/ServiceConfigDirSm.h"
#include "sim/World.h"

namespace Sim {

class Agent {
 public:
  explicit Agent(World& world);
  ~Agent();
  Agent(Agent const&) = delete;
  Agent& operator=(Agent const&) = delete;

  Vesk::Ptr<Controller::ServiceConfigDirSm> const& serviceConfig() const { return serviceConfig_; }
  Vesk::Ptr<Controller::MountsRegistrySm> const& registry() const { return registry_; }
  void stop();

 private:
  Vesk::Ptr<Controller::ServiceConfigDirSm> serviceConfig_;
  Vesk::Ptr<Controller::MountsRegistrySm> registry_;
};

}  // namespace Sim
