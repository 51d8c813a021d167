// PublishRegistryEntrySm: carries one publish entry of the registry out to the connected
// systems.
//
// For every system in the peer table it decides whether the entry may be published on the
// system's connection, and records the published mount in the system's publish record
// (Controllerdb::SystemPublishedMount) or withdraws it. A system is published to exactly
// when all of these hold:
//   - the peer has a connection configuration and a publish record;
//   - the service has a negotiated (non-zero) version on the connection, within the entry's
//     version filter when it has one;
//   - the connection is an included system of the entry's system filter, when it has one;
//   - the local entity exists (a directory, for a prefix-path entry), and the entry is
//     readyToPublish.
//
// What the machine settles where the registry leaves the choice open:
//   - Local entity. An entry's name is the full name of the local entity, as fullName()
//     prints it ("/controller/local/ports"): it is resolved from the root of the tree that
//     holds the registry's rootDir, whose own name is the path's first component.
//   - Connection. A system's connection is named by the system's text form (stringValue()),
//     which is also what a system filter's includedSystem keys name; the peer "has a
//     connection" when it carries its connection configuration.
//   - Published path. A single entity is published under the entry's name. A prefix-path
//     entry publishes, to each system, the system's own sub-directory of the entry's
//     directory: the entry's name + "/" + the system's text form. The machine makes that
//     sub-directory for every admitted system, ready or not, so that the service can fill it
//     before it declares the entry ready; it never removes one (the service owns what is in
//     it).
//   - MountDesc. localPath is the published path (and the key in publishedMount), remotePath
//     the entry's remotePath, veskType the entry's declared type, serviceName its service.
//     A change of the entry's remotePath rewrites every published description.
//   - " All published mounts gone for " is traced when a withdrawal leaves the system's
//     record without any published mount.
//   - Processed. The entry counts as processed once a full evaluation has decided every
//     connected system with the local entity in place and the entry ready; the machine then
//     tells its parent (MountsRegistrySm::handleServicePublishReady), which holds a service's
//     ready flag back until every entry of the service is processed. Processed stays set.
//   - Presence. While the local entity is missing the machine publishes nowhere, withdraws
//     what it had published, and looks again once a second on the activity's clock. While it
//     exists, the machine watches every directory on its path for the next name on it, so
//     that an entity that goes, is replaced, or loses a directory above it is withdrawn at
//     once rather than left published.
//   - Filters. A system filter admits the systems among its includedSystem keys, and a
//     version filter the versions among its includedServiceVersion keys: a member is a
//     member, whatever flag it carries.
#pragma once

#include <array>
#include <memory>
#include <tuple>
#include <vector>

#include "framework/core/Machine.h"
#include "framework/time/Clock.h"
#include "registry/MountsRegistry.h"

namespace Controller {

class MountsRegistrySm;

class PublishRegistryEntrySm : public Vesk::PtrInterface {
 public:
  static constexpr char const* typeName = "Controller::PublishRegistryEntrySm";
  static constexpr std::array<char const*, 4> inputNames{"publishEntry", "oobStatus",
                                                         "controllerdbPublishStatus", "parent"};
  static constexpr Vesk::Seconds kPresenceCheckPeriod = 1.0;

  PublishRegistryEntrySm(Vesk::Ptr<PublishRegistryEntry> const& publishEntry,
                         Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
                         Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                         MountsRegistrySm* parent);
  ~PublishRegistryEntrySm() override;
  auto inputs() const {
    return std::tie(publishEntry_, oobStatus_, controllerdbPublishStatus_, parent_);
  }

  Vesk::Ptr<PublishRegistryEntry> const& publishEntry() const { return publishEntry_; }
  bool initialized() const { return initialized_; }
  bool processed() const { return processed_; }
  // When the presence check looks for the local entity next; never while it is parked.
  Vesk::Seconds entityPresenceCheckTime() const;
  // How many per-system decisions the machine has made.
  uint64_t decisions() const { return decisions_; }
  // The key and localPath of the mount published to the system.
  Vesk::String publishedPath(SystemId const& systemId) const;

  void handleSwitchConnection();
  void handleSwitchConnection(SystemId const& systemId);
  void doConnectSwitch(SystemId const& systemId);
  void doDisconnectSwitch(SystemId const& systemId);
  bool addSwitchToPublishEntryDir(SystemId const& systemId);
  bool canPublishToConnection(Vesk::String const& connection);
  bool hasVersion(Vesk::String const& connection, uint32_t version);
  bool publishEntityExists();

  void handleReadyToPublish();
  void handleRemotePath();
  void handleSystemFilter();
  void handleVersionFilter();
  void handleIncludedSystem(Vesk::String const& system);
  void handleIncludedServiceVersion(uint32_t version);
  void handleEntityPresenceCheckClock();
  void handleLocalEntity();
  void handleInitialized();
  void doCleanup();

 private:
  class EntryReactor;
  class SystemFilterReactor;
  class VersionFilterReactor;
  class PresenceClock;
  class EntityDirReactor;

  Vesk::Ptr<PeerTable const> peerTable() const;
  // The local entity to publish, when it exists and is of the kind the entry publishes (a
  // directory, for a prefix-path entry); else null.
  Vesk::Entity* entityToPublish();
  // The per-system decision for a system whose peer (or null: not in the table) and
  // entityToPublish() (or null) the caller has found.
  void evaluateSystem(SystemId const& systemId, Peer const* peer, Vesk::Entity* entity);
  bool canPublishToSystem(SystemId const& systemId, Peer const* peer);
  // The system's sub-directory of a prefix-path entry's directory, made if missing; false
  // (traced) when the name is held by an entity that is not a directory.
  bool switchDirIs(Vesk::Dir& dir, SystemId const& systemId);
  void publish(SystemId const& systemId, Controllerdb::SystemPublishedMount& record,
               Vesk::Entity& entity);
  // The local entity named by the entry, or null; the one found last is kept while it stays
  // at that path.
  Vesk::Entity* localEntity();
  Vesk::Ptr<Vesk::Entity> lookUpLocal(Vesk::String const& path) const;
  void watchLocalPath();
  void withdrawEverywhere();
  void markProcessed();

  Vesk::Ptr<PublishRegistryEntry> const publishEntry_;
  Vesk::Ptr<ControllerOob::Status const> const oobStatus_;
  Vesk::Ptr<Controllerdb::PublishStatus> const controllerdbPublishStatus_;
  MountsRegistrySm* const parent_;
  std::unique_ptr<EntryReactor> entryReactor_;
  std::unique_ptr<SystemFilterReactor> systemFilterReactor_;
  std::unique_ptr<VersionFilterReactor> versionFilterReactor_;
  std::unique_ptr<PresenceClock> presenceClock_;
  // One per directory on the local entity's path, each watching the next name on it.
  std::vector<std::unique_ptr<EntityDirReactor>> entityWatch_;
  Vesk::Ptr<Vesk::Entity> entity_;
  bool initialized_ = false;
  bool processed_ = false;
  bool cleaningUp_ = false;
  // Set by every publish, cleared once everything is withdrawn: a machine that polls for a
  // missing entity does not walk every system's record each second to withdraw nothing.
  bool mayHavePublished_ = false;
  uint64_t decisions_ = 0;
  [[no_unique_address]] Vesk::LiveCount<PublishRegistryEntrySm> liveCount_;
};

Vesk::Ptr<PublishRegistryEntrySm> publishRegistryEntrySmFactory(
    Vesk::Ptr<PublishRegistryEntry> const& publishEntry,
    Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
    MountsRegistrySm* parent);

}  // namespace Controller
