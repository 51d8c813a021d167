// Sim::expectedMounts: the reference answer to "which entries must be mounted from which
// systems", computed straight from the records of a World.
//
// It is written independently of the registry machines, from the rules alone, so that a
// test or the simulator can compare what the machines did with what they had to do:
//
//   negotiated version of service s on a system: s mapped to its real service when it is a
//   proxy name; that service's status on the connection exists, is enabled, and has a version
//   status whose negotiation is complete and compatible: its negotiatedVersion; else 0.
//
//   A system absent from the peer table (or present without a connection configuration), or
//   marked inactive, is not mounted; its unmount preserves state exactly when it is inactive
//   and some mounter's group of the entry has preserveMountsOnDisconnect. Otherwise, in order:
//   1. some mounter's service must have a non-zero negotiated version, else not mounted;
//   2. a mounter whose group has neither a system nor a version filter mounts it;
//   3. the entry's version filter (per mounter service, the versions its group's filter
//      includes, over mounters whose group has one): when non-empty, some service in it must
//      have its negotiated version among its versions, else not mounted;
//   4. the entry's connection filter (the systems included by the system filters of the
//      mounters' groups): when non-empty the system must be in it; when empty it is mounted.
//
// The answer covers every entry of the registry times every system that is a peer or has an
// inactive mark.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <utility>

#include "framework/records/ControllerRecords.h"
#include "registry/MountsRegistry.h"

namespace Sim {

class World;

struct Decision {
  bool mounted = false;
  // Meaningful only when not mounted: whether the unmount must preserve state.
  bool preserveState = false;
  friend bool operator==(Decision const&, Decision const&) = default;
};

// Keyed by (entry name, system text form).
using ExpectedMounts = std::map<std::pair<std::string, std::string>, Decision>;

ExpectedMounts expectedMounts(World const& world);

// The same answer, one decision at a time, without collecting it.
using DecisionVisitor =
    std::function<void(Vesk::Name const& entry, Controller::SystemId const& system, Decision)>;
void forEachDecision(World const& world, DecisionVisitor const& visit);

// The version of `service` (proxy names count as their real service) negotiated on the
// system's connection, per the peer table; 0 for none.
uint32_t negotiatedVersion(World const& world, Vesk::String const& service,
                           Controller::SystemId const& system);

// Whether one mounter's group accepts the system: its system filter (when set) includes the
// system, and its version filter (when set) includes the negotiated version of the mounter's
// service. A group with neither filter accepts every connection.
bool mounterIsInterested(World const& world, Controller::Mounter const& mounter,
                         Controller::SystemId const& system);

std::ostream& operator<<(std::ostream& os, Decision const& d);

}  // namespace Sim
