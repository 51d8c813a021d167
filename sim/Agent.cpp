#include "sim/Agent.h"

namespace Sim {

Agent::Agent(World& world)
    : serviceConfig_(Controller::serviceConfigDirSmFactory(
          world.controllerdbStatus(), world.mountConfigDir(), world.mountStatusDir(),
          world.publishConfigDir(), world.publishStatusDir(), world.proxyMountConfigDir(),
          world.proxyMountStatusDir(), world.publishStatus(), world.registry())),
      registry_(world.startRegistry()) {}

Agent::~Agent() { stop(); }

void Agent::stop() {
  if (serviceConfig_) serviceConfig_->doCleanup();
  serviceConfig_ = nullptr;
  if (registry_) registry_->doCleanup();
  registry_ = nullptr;
}

}  // namespace Sim
