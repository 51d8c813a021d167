#include "sim/ExpectedMounts.h"

#include <ostream>
#include <set>

#include "registry/MounterName.h"
#include "sim/World.h"

namespace Sim {

using Controller::SystemId;

namespace {

Vesk::Ptr<Controller::Peer> peerOf(World const& world, SystemId const& system) {
  Vesk::Ptr<Controller::PeerTable const> const& table = world.oobStatus()->peerTable();
  return table ? table->peer(system) : nullptr;
}

std::set<uint32_t> includedVersions(Controller::MountFilterServiceVersion const& filter) {
  std::set<uint32_t> out;
  for (auto const& [version, included] : filter.includedServiceVersionMembers()) {
    if (included) out.insert(version);
  }
  return out;
}

Decision decide(World const& world, Controller::MountsRegistryEntry const& entry,
                SystemId const& system) {
  Vesk::Ptr<Controller::Peer> const peer = peerOf(world, system);
  bool const inactive = world.oobStatus()->inactive(system);
  if (!peer || !peer->connectionConfig() || inactive) {
    bool preserve = false;
    for (auto const& [service, mounter] : entry.mounterMembers()) {
      preserve = preserve || mounter->mountGroupConfig()->preserveMountsOnDisconnect();
    }
    return Decision{false, inactive && preserve};
  }

  bool someVersion = false;
  bool wildcard = false;
  std::map<std::string, std::set<uint32_t>> versionFilter;
  std::set<std::string> connectionFilter;
  for (auto const& [service, mounter] : entry.mounterMembers()) {
    Controller::ServiceMountGroupConfig const& group = *mounter->mountGroupConfig();
    someVersion = someVersion || negotiatedVersion(world, mounter->serviceName(), system) != 0;
    if (!group.systemFilter() && !group.versionFilter()) wildcard = true;
    if (group.versionFilter()) {
      for (uint32_t v : includedVersions(*group.versionFilter())) {
        versionFilter[mounter->serviceName().stdString()].insert(v);
      }
    }
    if (group.systemFilter()) {
      for (auto const& [name, included] : group.systemFilter()->includedSystemMembers()) {
        if (included) connectionFilter.insert(name.stdString());
      }
    }
  }

  if (!someVersion) return Decision{false, false};
  if (wildcard) return Decision{true, false};
  if (!versionFilter.empty()) {
    bool accepted = false;
    for (auto const& [service, versions] : versionFilter) {
      accepted = accepted || versions.count(negotiatedVersion(world, service, system)) != 0;
    }
    if (!accepted) return Decision{false, false};
  }
  if (connectionFilter.empty()) return Decision{true, false};
  return Decision{connectionFilter.count(system.stringValue().stdString()) != 0, false};
}

}  // namespace

uint32_t negotiatedVersion(World const& world, Vesk::String const& service,
                           SystemId const& system) {
  Vesk::Ptr<Controller::Peer> const peer = peerOf(world, system);
  if (!peer || !peer->serviceStatusDir()) return 0;
  Vesk::String const real = Controller::isProxyServiceName(service)
                                ? Controller::realServiceNameOfProxy(service)
                                : service;
  Vesk::Ptr<Controller::ServiceStatusV1> const status = peer->serviceStatusDir()->service(real);
  if (!status || !status->enabled()) return 0;
  Vesk::Ptr<Controller::ServiceVersionStatusV1 const> const& v = status->versionStatus();
  if (!v || !v->versionNegotiationComplete() || !v->versionCompatible()) return 0;
  return v->negotiatedVersion();
}

bool mounterIsInterested(World const& world, Controller::Mounter const& mounter,
                         SystemId const& system) {
  Controller::ServiceMountGroupConfig const& group = *mounter.mountGroupConfig();
  if (group.systemFilter() && !group.systemFilter()->includedSystem(system.stringValue())) {
    return false;
  }
  if (group.versionFilter() && !group.versionFilter()->includedServiceVersion(
                                   negotiatedVersion(world, mounter.serviceName(), system))) {
    return false;
  }
  return true;
}

ExpectedMounts expectedMounts(World const& world) {
  std::set<SystemId> systems;
  if (Vesk::Ptr<Controller::PeerTable const> const& table = world.oobStatus()->peerTable()) {
    for (auto const& [system, peer] : table->peerMembers()) systems.insert(system);
  }
  for (auto const& [system, inactive] : world.oobStatus()->inactiveMembers()) {
    systems.insert(system);
  }
  ExpectedMounts out;
  for (auto const& [name, entry] : world.registry()->mountEntryMembers()) {
    for (SystemId const& system : systems) {
      out[{name.stdString(), system.stringValue().stdString()}] =
          decide(world, *entry.ptr(), system);
    }
  }
  return out;
}

std::ostream& operator<<(std::ostream& os, Decision const& d) {
  if (d.mounted) return os << "mounted";
  return os << (d.preserveState ? "not mounted (preserve state)" : "not mounted");
}

}  // namespace Sim
