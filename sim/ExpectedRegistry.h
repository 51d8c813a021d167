// Sim::registryMismatches: the reference answer to "which mounters must the registry hold",
// computed from the services' mount declarations and the leader generation alone.
//
// It is written independently of the service configuration machines, from the rules alone:
//
//   A service whose declaration is in effect (TakenUpService) mounts while its declaration
//   was written for the current leader (the controller's leaderGenId is not empty and
//   equals the declaration's), and always when it is a proxy service. A service without a
//   name mounts nothing.
//
//   While it mounts, every path its groups declare has an entry of that name in the
//   registry with the service's one mounter on it, named (service, group) for one of the
//   declaring groups, for that group's mount configuration and the service's status; the
//   status holds a mounted path prefix for the path equal to the entry's target path (the
//   first requester's), and no prefix of a path without the service's mounter. The
//   exception: withdrawing a path from one of two groups that declare it takes the
//   service's mounter away though the other still declares it, so a path one group
//   declares that the caller names as one two groups may have declared before need not
//   have a mounter.
//
//   While it does not mount, the service has no mounter on any entry and no prefix.
//
//   Every mounter on the registry belongs to a service in effect that mounts, and names a
//   group of it that declares the entry's path. Entries themselves stay once made, with or
//   without mounters.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "model/MountInterface.h"

namespace Sim {

class World;

// A service whose declaration the configuration machines have taken up: its declaration
// and status, and whether it came from the proxy directories.
struct TakenUpService {
  Vesk::Ptr<Controller::ServiceMountConfig const> config;
  Vesk::Ptr<Controller::ServiceMountStatus const> status;
  bool proxy = false;
  // Paths that more than one of its groups may have declared at once.
  std::set<std::string> sharedPaths;
};

// Whether the service's declaration may mount under the world's current leader generation.
bool declarationMounts(World const& world, TakenUpService const& service);

// Every difference between the rules above and the registry and statuses, one line each.
std::vector<std::string> registryMismatches(World const& world,
                                            std::vector<TakenUpService> const& services);

}  // namespace Sim
