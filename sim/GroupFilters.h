// The filter helpers that mount and publish declarations share: a group's filter is the
// service's filter named after the group, filled with the given members.
#pragma once

#include <cstdint>
#include <vector>

#include "framework/records/SystemId.h"
#include "model/MountInterface.h"

namespace Sim::detail {

// Fills the service's system filter named `name` with the systems, then points the group at it.
template <class Config, class Group>
Vesk::Ptr<Controller::MountFilterSystem> groupSystemFilterIs(
    Config& config, Group& group, Vesk::Name const& name,
    std::vector<Controller::SystemId> const& systems) {
  Vesk::Ptr<Controller::MountFilterSystem> filter = config.systemFilterIs(name);
  for (Controller::SystemId const& s : systems) filter->includedSystemIs(s.stringValue(), true);
  group.systemFilterIs(filter);
  return filter;
}

// The same for the service's version filter and the versions.
template <class Config, class Group>
Vesk::Ptr<Controller::MountFilterServiceVersion> groupVersionFilterIs(
    Config& config, Group& group, Vesk::Name const& name, std::vector<uint32_t> const& versions) {
  Vesk::Ptr<Controller::MountFilterServiceVersion> filter = config.versionFilterIs(name);
  for (uint32_t v : versions) filter->includedServiceVersionIs(v, true);
  group.versionFilterIs(filter);
  return filter;
}

}  // namespace Sim::detail
