#include "registry/PublishRegistryEntrySm.h"

#include <string_view>

#include "framework/core/Assert.h"
#include "framework/core/Dir.h"
#include "framework/core/Exception.h"
#include "framework/time/Activity.h"
#include "framework/trace/Trace.h"
#include "registry/MountsRegistrySm.h"

namespace Controller {

namespace {
Vesk::TraceHandle traceHandle("PublishRegistryEntrySm", true);

// The path's first component, with the separators before it, taken off `rest`.
std::string_view firstComponent(std::string_view& rest) {
  while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
  size_t const slash = rest.find('/');
  std::string_view const first = rest.substr(0, slash);
  rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
  return first;
}
}  // namespace

class PublishRegistryEntrySm::EntryReactor
    : public Vesk::OwnedReactor<PublishRegistryEntry::NotifieeConst, PublishRegistryEntrySm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onRemotePath() override { owner_->handleRemotePath(); }
  void onVersionFilter() override { owner_->handleVersionFilter(); }
  void onSystemFilter() override { owner_->handleSystemFilter(); }
  void onReadyToPublish() override { owner_->handleReadyToPublish(); }
};

class PublishRegistryEntrySm::SystemFilterReactor
    : public Vesk::OwnedReactor<MountFilterSystem::NotifieeConst, PublishRegistryEntrySm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onIncludedSystem(Vesk::String const& system) override {
    owner_->handleIncludedSystem(system);
  }
};

class PublishRegistryEntrySm::VersionFilterReactor
    : public Vesk::OwnedReactor<MountFilterServiceVersion::NotifieeConst, PublishRegistryEntrySm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onIncludedServiceVersion(uint32_t const& version) override {
    owner_->handleIncludedServiceVersion(version);
  }
};

class PublishRegistryEntrySm::PresenceClock : public Vesk::Clock::Notifiee {
 public:
  PresenceClock(Vesk::Ptr<Vesk::Clock> const& clock, PublishRegistryEntrySm* owner)
      : Notifiee(clock), owner_(owner) {}
  void onTime() override { owner_->handleEntityPresenceCheckClock(); }

 private:
  PublishRegistryEntrySm* const owner_;
};

// Watches one directory on the local entity's path, for the next name on the path.
class PublishRegistryEntrySm::EntityDirReactor
    : public Vesk::OwnedReactor<Vesk::Dir::NotifieeConst, PublishRegistryEntrySm> {
 public:
  EntityDirReactor(PublishRegistryEntrySm* owner, Vesk::Dir const* dir, Vesk::Name const& name)
      : OwnedReactor(owner), watchedName_(name) {
    notifierIs(dir);
  }
  // The reactor may be dropped inside the call: nothing of it is touched afterwards.
  void onEntityPtr(Vesk::Name const& name) override {
    if (name == watchedName_) owner_->handleLocalEntity();
  }

 private:
  Vesk::Name const watchedName_;
};

PublishRegistryEntrySm::PublishRegistryEntrySm(
    Vesk::Ptr<PublishRegistryEntry> const& publishEntry,
    Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
    MountsRegistrySm* parent)
    : publishEntry_(publishEntry),
      oobStatus_(oobStatus),
      controllerdbPublishStatus_(controllerdbPublishStatus),
      parent_(parent) {
  entryReactor_ = std::make_unique<EntryReactor>(this);
  entryReactor_->notifierIs(publishEntry_);
  systemFilterReactor_ = std::make_unique<SystemFilterReactor>(this);
  systemFilterReactor_->notifierIs(publishEntry_->systemFilter());
  versionFilterReactor_ = std::make_unique<VersionFilterReactor>(this);
  versionFilterReactor_->notifierIs(publishEntry_->versionFilter());
  presenceClock_ = std::make_unique<PresenceClock>(Vesk::currentActivity()->clock(), this);
  handleInitialized();
}

PublishRegistryEntrySm::~PublishRegistryEntrySm() = default;

Vesk::Ptr<PublishRegistryEntrySm> publishRegistryEntrySmFactory(
    Vesk::Ptr<PublishRegistryEntry> const& publishEntry,
    Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
    MountsRegistrySm* parent) {
  return Vesk::Ptr<PublishRegistryEntrySm>(
      new PublishRegistryEntrySm(publishEntry, oobStatus, controllerdbPublishStatus, parent));
}

Vesk::Seconds PublishRegistryEntrySm::entityPresenceCheckTime() const {
  return presenceClock_->timeMin();
}

Vesk::Ptr<PeerTable const> PublishRegistryEntrySm::peerTable() const {
  return parent_ ? parent_->peerTable() : nullptr;
}

Vesk::String PublishRegistryEntrySm::publishedPath(SystemId const& systemId) const {
  Vesk::Name const& path = publishEntry_->name();
  if (!publishEntry_->isPrefixPath()) return path;
  return path + "/" + systemId.stringValue();
}

// ---- the local entity -------------------------------------------------------------------

Vesk::Ptr<Vesk::Entity> PublishRegistryEntrySm::lookUpLocal(Vesk::String const& path) const {
  MountsRegistry const* registry = publishEntry_->registry();
  Vesk::Entity* root = registry ? registry->rootDir().ptr() : nullptr;
  if (!root) return nullptr;
  while (root->parentRaw()) root = root->parentRaw();
  std::string_view rest = path.view();
  if (firstComponent(rest) != root->name().view()) return nullptr;
  return root->entity(Vesk::String(rest));
}

Vesk::Entity* PublishRegistryEntrySm::localEntity() {
  Vesk::Name const& path = publishEntry_->name();
  if (entity_ && entity_->hasFullName(path.view())) return entity_.ptr();
  entity_ = lookUpLocal(path);
  watchLocalPath();
  return entity_.ptr();
}

void PublishRegistryEntrySm::watchLocalPath() {
  entityWatch_.clear();
  if (!entity_ || cleaningUp_) return;
  for (Vesk::Entity const* e = entity_.ptr(); e->parentRaw(); e = e->parentRaw()) {
    if (auto const* dir = dynamic_cast<Vesk::Dir const*>(e->parentRaw())) {
      entityWatch_.push_back(std::make_unique<EntityDirReactor>(this, dir, e->name()));
    }
  }
}

bool PublishRegistryEntrySm::publishEntityExists() { return entityToPublish() != nullptr; }

Vesk::Entity* PublishRegistryEntrySm::entityToPublish() {
  Vesk::Entity* entity = localEntity();
  if (entity && publishEntry_->isPrefixPath() && !dynamic_cast<Vesk::Dir*>(entity)) {
    VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::publishEntityExists",
               " not a directory:", publishEntry_->name());
    return nullptr;
  }
  return entity;
}

void PublishRegistryEntrySm::handleLocalEntity() {
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleLocalEntity",
             " path:", publishEntry_->name());
  handleSwitchConnection();
}

// ---- the decision -------------------------------------------------------------------------

void PublishRegistryEntrySm::handleSwitchConnection() {
  if (!initialized_ || cleaningUp_) return;
  Vesk::Name const& path = publishEntry_->name();
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleSwitchConnection", " path:", path);
  if (oobStatus_) {
    for (auto const& [systemId, inactive] : oobStatus_->inactiveMembers()) {
      handleSwitchConnection(systemId);
    }
  }
  Vesk::Entity* const entity = entityToPublish();
  if (!entity) {
    VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleSwitchConnection", "Entity at ", path,
               " doesn't exist.");
    withdrawEverywhere();
    Vesk::Clock const& clock = *presenceClock_->notifierRaw();
    presenceClock_->timeMinIs(clock.currentTime() + kPresenceCheckPeriod);
    return;
  }
  presenceClock_->timeMinIs(Vesk::Clock::never);
  if (Vesk::Ptr<PeerTable const> peers = peerTable()) {
    for (auto const& [systemId, peer] : peers->peerMembers()) {
      evaluateSystem(systemId, peer.ptr().ptr(), entity);
    }
  }
  if (publishEntry_->readyToPublish()) markProcessed();
}

void PublishRegistryEntrySm::handleSwitchConnection(SystemId const& systemId) {
  if (!initialized_ || cleaningUp_) return;
  Vesk::Ptr<PeerTable const> peers = peerTable();
  Peer const* peer = peers ? peers->peer(systemId).ptr() : nullptr;
  evaluateSystem(systemId, peer, peer ? entityToPublish() : nullptr);
}

void PublishRegistryEntrySm::evaluateSystem(SystemId const& systemId, Peer const* peer,
                                            Vesk::Entity* entity) {
  ++decisions_;
  Vesk::Name const& system = systemId.stringValue();
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleSwitchConnection",
             " path:", publishEntry_->name(), " system:", system);
  if (!peer) {
    doDisconnectSwitch(systemId);
    return;
  }
  // The admission is decided once; a prefix-path entry's sub-directory is made for every
  // admitted system, ready or not.
  bool admitted = entity && canPublishToSystem(systemId, peer);
  if (admitted && publishEntry_->isPrefixPath()) {
    admitted = switchDirIs(static_cast<Vesk::Dir&>(*entity), systemId);
  }
  Controllerdb::SystemPublishedMount* record =
      controllerdbPublishStatus_ ? controllerdbPublishStatus_->system(systemId).ptr() : nullptr;
  if (admitted && peer->connectionConfig() && publishEntry_->readyToPublish() && record) {
    publish(systemId, *record, *entity);
    return;
  }
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleSwitchConnection",
             " Cannot publish:", publishEntry_->name(), " to:", system);
  doDisconnectSwitch(systemId);
}

bool PublishRegistryEntrySm::canPublishToConnection(Vesk::String const& connection) {
  SystemId systemId;
  if (!systemId.stringValueIs(connection)) {
    VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::canPublishToConnection",
               " no version negotiated:", connection);
    return false;
  }
  return canPublishToSystem(systemId, nullptr);
}

bool PublishRegistryEntrySm::canPublishToSystem(SystemId const& systemId, Peer const* peer) {
  Vesk::Name const& path = publishEntry_->name();
  Vesk::Name const& connection = systemId.stringValue();
  uint32_t const version = parent_ ? parent_->negotiatedServiceVersionForSystem(
                                         publishEntry_->serviceName(), systemId, {nullptr, peer})
                                   : 0;
  if (!publishEntry_->versionFilter()) {
    VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::canPublishToConnection",
               "no versionFilter for ", path);
  }
  // No real version is 0: a filter that lists 0 does not admit a connection without one.
  if (version == 0) {
    VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::canPublishToConnection",
               " no version negotiated:", connection);
    return false;
  }
  if (publishEntry_->versionFilter() && !hasVersion(connection, version)) return false;
  MountFilterSystem const* systems = publishEntry_->systemFilter().ptr();
  if (!systems) {
    VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::canPublishToConnection",
               " no systemfilter for ", path);
    return true;
  }
  if (systems->includedSystemMembers().find(connection)) {
    VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::canPublishToConnection",
               " matched systemFilter connection:", connection);
    return true;
  }
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::canPublishToConnection",
             " no matched system for connection: ", connection);
  return false;
}

bool PublishRegistryEntrySm::hasVersion(Vesk::String const& connection, uint32_t version) {
  MountFilterServiceVersion const* versions = publishEntry_->versionFilter().ptr();
  Vesk::String const& service = publishEntry_->serviceName();
  if (versions && versions->includedServiceVersionMembers().find(version)) {
    VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::hasVersion", " matched version: ", version,
               " service:", service, " connection:", connection);
    return true;
  }
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::hasVersion",
             " version not in filter:", version, " service:", service, " connection:", connection);
  return false;
}

// ---- publishing and withdrawing -----------------------------------------------------------

bool PublishRegistryEntrySm::addSwitchToPublishEntryDir(SystemId const& systemId) {
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::addSwitchToPublishEntryDir",
             " path:", publishEntry_->name(), " system:", systemId.stringValue());
  VESK_ASSERT(publishEntry()->isPrefixPath());
  Vesk::Entity* publishEntryDir = localEntity();
  VESK_ASSERT_MSG(publishEntryDir && dynamic_cast<Vesk::Dir*>(publishEntryDir),
                  "Publish path doesn't exist or its type is not Vesk::Dir");
  if (!canPublishToSystem(systemId, nullptr)) {
    VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::addSwitchToPublishEntryDir",
               " Cannot publish to:", systemId.stringValue());
    return false;
  }
  return switchDirIs(static_cast<Vesk::Dir&>(*publishEntryDir), systemId);
}

bool PublishRegistryEntrySm::switchDirIs(Vesk::Dir& dir, SystemId const& systemId) {
  Vesk::Name const& name = systemId.stringValue();
  if (Vesk::Ptr<Vesk::Entity> held = dir.entry(name)) {
    if (dynamic_cast<Vesk::Dir*>(held.ptr())) return true;
  } else {
    try {
      dir.subdirIs(name);
      return true;
    } catch (Vesk::Exception const&) {
      // Falls through to the trace: a notifiee of the directory refused the entry.
    }
  }
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::addSwitchToPublishEntryDir",
             "could not create subdir ", name);
  return false;
}

void PublishRegistryEntrySm::doConnectSwitch(SystemId const& systemId) {
  Vesk::Ptr<Controllerdb::SystemPublishedMount> system =
      controllerdbPublishStatus_ ? controllerdbPublishStatus_->system(systemId) : nullptr;
  VESK_ASSERT(system);
  Vesk::Ptr<PeerTable const> peers = peerTable();
  Vesk::Ptr<Peer> peer = peers ? peers->peer(systemId) : nullptr;
  VESK_ASSERT(peer);
  if (!canPublishToSystem(systemId, peer.ptr())) {
    VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::doConnectSwitch",
               " Cannot publish to:", systemId.stringValue());
    return;
  }
  Vesk::Entity* entity = entityToPublish();
  VESK_ASSERT_MSG(entity, "Publish entity doesn't exist");
  publish(systemId, *system, *entity);
}

void PublishRegistryEntrySm::publish(SystemId const& systemId,
                                     Controllerdb::SystemPublishedMount& record,
                                     Vesk::Entity& entity) {
  Vesk::Name const& system = systemId.stringValue();
  Vesk::String const path = publishedPath(systemId);
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::doConnectSwitch", " publishing:", path,
             " on:", system);
  Vesk::Entity const* publishEntity =
      publishEntry_->isPrefixPath() ? static_cast<Vesk::Dir&>(entity).entry(system).ptr() : &entity;
  VESK_ASSERT_MSG(publishEntity, "Publish entity doesn't exist");
  MountDesc const mdesc{path, publishEntry_->remotePath(), publishEntry_->veskType(),
                        publishEntry_->serviceName()};
  VESK_ASSERT(!!mdesc);
  record.publishedMountIs(mdesc);
  mayHavePublished_ = true;
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::doConnectSwitch", " publishing ssm:", path,
             " to:", system, " type: ", mdesc.veskType, " service: ", mdesc.serviceName);
}

void PublishRegistryEntrySm::doDisconnectSwitch(SystemId const& systemId) {
  Vesk::Name const& system = systemId.stringValue();
  Vesk::String const path = publishedPath(systemId);
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::doDisconnectSwitch", " un-publishing:", path,
             " from:", system);
  Controllerdb::SystemPublishedMount* record =
      controllerdbPublishStatus_ ? controllerdbPublishStatus_->system(systemId).ptr() : nullptr;
  if (!record || !record->publishedMountMembers().find(path)) return;
  record->publishedMountDel(path);
  if (record->publishedMountSize() == 0) {
    VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::doDisconnectSwitch",
               " All published mounts gone for ", system);
  }
}

void PublishRegistryEntrySm::withdrawEverywhere() {
  if (!controllerdbPublishStatus_ || !mayHavePublished_) return;
  for (auto const& [systemId, record] : controllerdbPublishStatus_->systemMembers()) {
    doDisconnectSwitch(systemId);
  }
  mayHavePublished_ = false;
}

// Before the registry machine is initialized, the systems' publish records may not be made
// yet: its initialization evaluates every publish machine again, and that one counts.
void PublishRegistryEntrySm::markProcessed() {
  if (processed_ || (parent_ && !parent_->initialized())) return;
  processed_ = true;
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::markProcessed",
             " path:", publishEntry_->name());
  if (parent_) parent_->handleServicePublishReady(publishEntry_->serviceName());
}

// ---- reactions ----------------------------------------------------------------------------

void PublishRegistryEntrySm::handleReadyToPublish() {
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleReadyToPublish",
             " path:", publishEntry_->name(), " ready:", publishEntry_->readyToPublish());
  handleSwitchConnection();
}

void PublishRegistryEntrySm::handleRemotePath() {
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleRemotePath",
             " path:", publishEntry_->name(), " rpath:", publishEntry_->remotePath());
  handleSwitchConnection();
}

void PublishRegistryEntrySm::handleSystemFilter() {
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleSystemFilter",
             " path:", publishEntry_->name());
  if (systemFilterReactor_) systemFilterReactor_->notifierIs(publishEntry_->systemFilter());
  handleSwitchConnection();
}

void PublishRegistryEntrySm::handleVersionFilter() {
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleVersionFilter",
             " path:", publishEntry_->name());
  if (versionFilterReactor_) versionFilterReactor_->notifierIs(publishEntry_->versionFilter());
  handleSwitchConnection();
}

// A system filter's member decides its own system alone.
void PublishRegistryEntrySm::handleIncludedSystem(Vesk::String const& system) {
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleIncludedSystem",
             " path:", publishEntry_->name(), " system:", system);
  SystemId systemId;
  if (systemId.stringValueIs(system)) handleSwitchConnection(systemId);
}

void PublishRegistryEntrySm::handleIncludedServiceVersion(uint32_t version) {
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleIncludedServiceVersion",
             " path:", publishEntry_->name(), " version:", version);
  handleSwitchConnection();
}

void PublishRegistryEntrySm::handleEntityPresenceCheckClock() {
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::handleEntityPresenceCheckClock",
             " path:", publishEntry_->name());
  handleSwitchConnection();
}

void PublishRegistryEntrySm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::", "handleInitialized",
             " path:", publishEntry_->name());
  initialized_ = true;
  presenceClock_->timeMinIs(Vesk::Clock::never);
  handleSwitchConnection();
}

void PublishRegistryEntrySm::doCleanup() {
  VESK_TRACE(traceHandle, 5, "PublishRegistryEntrySm::", "doCleanup",
             " path:", publishEntry_->name());
  cleaningUp_ = true;
  presenceClock_->timeMinIs(Vesk::Clock::never);
  entryReactor_.reset();
  systemFilterReactor_.reset();
  versionFilterReactor_.reset();
  entityWatch_.clear();
  withdrawEverywhere();
}

}  // namespace Controller
