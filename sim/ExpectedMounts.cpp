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

// Whether a filter includes anything at all: a member may be present with the value false.
template <class Members>
bool includesAny(Members const& members) {
  for (auto const& [key, included] : members) {
    if (included) return true;
  }
  return false;
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

  // The entry's filters are the unions of its mounters' filters: a version filter accepts
  // when some mounter's filter includes the version negotiated for that mounter's service,
  // and the connection filter includes a system when some mounter's filter does.
  bool someVersion = false;
  bool wildcard = false;
  bool versionFiltered = false;
  bool versionAccepted = false;
  bool systemFiltered = false;
  bool systemIncluded = false;
  for (auto const& [service, mounter] : entry.mounterMembers()) {
    Controller::ServiceMountGroupConfig const& group = *mounter->mountGroupConfig();
    uint32_t const version = negotiatedVersion(world, mounter->serviceName(), system);
    someVersion = someVersion || version != 0;
    if (!group.systemFilter() && !group.versionFilter()) wildcard = true;
    if (auto const& versions = group.versionFilter();
        versions && includesAny(versions->includedServiceVersionMembers())) {
      versionFiltered = true;
      versionAccepted = versionAccepted || versions->includedServiceVersion(version);
    }
    if (auto const& systems = group.systemFilter();
        systems && includesAny(systems->includedSystemMembers())) {
      systemFiltered = true;
      systemIncluded = systemIncluded || systems->includedSystem(system.stringValue());
    }
  }

  if (!someVersion) return Decision{false, false};
  if (wildcard) return Decision{true, false};
  if (versionFiltered && !versionAccepted) return Decision{false, false};
  return Decision{!systemFiltered || systemIncluded, false};
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

void forEachDecision(World const& world, DecisionVisitor const& visit) {
  std::set<SystemId> systems;
  if (Vesk::Ptr<Controller::PeerTable const> const& table = world.oobStatus()->peerTable()) {
    for (auto const& [system, peer] : table->peerMembers()) systems.insert(system);
  }
  for (auto const& [system, inactive] : world.oobStatus()->inactiveMembers()) {
    systems.insert(system);
  }
  for (auto const& [name, entry] : world.registry()->mountEntryMembers()) {
    for (SystemId const& system : systems) visit(name, system, decide(world, *entry.ptr(), system));
  }
}

ExpectedMounts expectedMounts(World const& world) {
  ExpectedMounts out;
  forEachDecision(world, [&](Vesk::Name const& entry, SystemId const& system, Decision d) {
    out[{entry.stdString(), system.stringValue().stdString()}] = d;
  });
  return out;
}

std::ostream& operator<<(std::ostream& os, Decision const& d) {
  if (d.mounted) return os << "mounted";
  return os << (d.preserveState ? "not mounted (preserve state)" : "not mounted");
}

}  // namespace Sim
