// Sim::expectedPublishes: the reference answer to "which published mounts must every
// connected switch's publish record hold", computed straight from the records of a World.
//
// It is written independently of the registry's publishing machines, from the rules alone,
// so that a test or the simulator can compare what the machines did with what they had to do:
//
//   An entry's name is the full name of the local entity it publishes ("/controller/local/x"),
//   resolved through directories from the root of the controller's tree (the top ancestor of
//   the registry's root directory, which the name's first component names).
//
//   Entry E is published on system S exactly when S is in the peer table with a connection
//   configuration, and
//   1. the local entity exists, and is a Vesk::Dir when E is a prefix entry;
//   2. E is ready to publish;
//   3. E admits S: the negotiated version v of E's service on S (negotiatedVersion of
//      ExpectedMounts.h) is non-zero, E's version filter (when set) has v among its
//      includedServiceVersion keys and E's system filter (when set) has S among its
//      includedSystem keys, whatever flag the member carries;
//   4. the controller database's publish status has a record for S;
//   5. for a prefix entry, E's directory has no entry named after S that is not a directory
//      (each admitted switch gets a sub-directory of that name there).
//
//   The published mount is keyed by its path: E's name for a single entry, E's name + "/" + S
//   for a prefix entry. Its description is {that path, E.remotePath, E.veskType,
//   E.serviceName}. Every other published mount in any system's record is stale.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "framework/records/ControllerRecords.h"
#include "registry/MountsRegistry.h"

namespace Sim {

class World;

// Keyed by (published path, system text form); holds only the mounts that must be published.
using ExpectedPublishes = std::map<std::pair<std::string, std::string>, Controller::MountDesc>;

ExpectedPublishes expectedPublishes(World const& world);

// The same answer, one published mount at a time, without collecting it.
using PublishVisitor =
    std::function<void(Controller::PublishRegistryEntry const& entry,
                       Controller::SystemId const& system, Controller::MountDesc const& mount)>;
void forEachPublish(World const& world, PublishVisitor const& visit);

// Rule 3 alone: whether the entry's service has a version on the system that its filters
// accept, and its system filter accepts the system.
bool publishAdmits(World const& world, Controller::PublishRegistryEntry const& entry,
                   Controller::SystemId const& system);

// Every difference between the answer and what the systems' publish records hold, one line
// each, ordered by path and system: missing, stale and differently described mounts.
std::vector<std::string> publishMismatches(World const& world);

}  // namespace Sim
