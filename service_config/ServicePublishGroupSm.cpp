#include "service_config/ServicePublishGroupSm.h"

#include <vector>

#include "framework/trace/Trace.h"
#include "service_config/PublishDirSm.h"
#include "service_config/ServicePublishConfigSm.h"

namespace Controller {

namespace {
Vesk::TraceHandle traceHandle("ServicePublishGroupSm", true);
}  // namespace

class ServicePublishGroupSm::GroupReactor
    : public Vesk::OwnedReactor<ServicePublishGroupConfig::NotifieeConst, ServicePublishGroupSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onPublishConfig(Vesk::Name const& path) override { owner_->handlePublishConfig(path); }
  void onPublishConfig() override { owner_->handlePublishConfig(); }
  void onPublishDir(Vesk::Name const& path) override { owner_->handlePublishDir(path); }
  void onPublishDir() override { owner_->handlePublishDir(); }
  void onSystemFilter() override { owner_->handleSystemFilter(); }
  void onVersionFilter() override { owner_->handleVersionFilter(); }
};

// Sees a path that another publisher had first leave the registry.
class ServicePublishGroupSm::RegistryReactor
    : public Vesk::OwnedReactor<MountsRegistry::NotifieeConst, ServicePublishGroupSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onPublishEntry(Vesk::Name const& path) override { owner_->handlePublishEntry(path); }
};

ServicePublishGroupSm::ServicePublishGroupSm(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServicePublishConfig const> const& servicePublishConfig,
    Vesk::Ptr<ServicePublishGroupConfig const> const& publishGroupConfig,
    Vesk::Ptr<ServicePublishGroupStatus> const& publishGroupStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServicePublishConfigSm* parent)
    : controllerdbStatus_(controllerdbStatus),
      servicePublishConfig_(servicePublishConfig),
      publishGroupConfig_(publishGroupConfig),
      publishGroupStatus_(publishGroupStatus),
      mountsRegistry_(mountsRegistry),
      parent_(parent),
      groupName_(publishGroupConfig->groupName()),
      publishDirSm_(typeName, "publishDirSm") {
  groupReactor_ = std::make_unique<GroupReactor>(this);
  groupReactor_->notifierIs(publishGroupConfig_);
  registryReactor_ = std::make_unique<RegistryReactor>(this);
  registryReactor_->notifierIs(mountsRegistry_);
  handleInitialized();
}

ServicePublishGroupSm::~ServicePublishGroupSm() = default;

Vesk::Ptr<ServicePublishGroupSm> servicePublishGroupSmFactory(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServicePublishConfig const> const& servicePublishConfig,
    Vesk::Ptr<ServicePublishGroupConfig const> const& publishGroupConfig,
    Vesk::Ptr<ServicePublishGroupStatus> const& publishGroupStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServicePublishConfigSm* parent) {
  return Vesk::Ptr<ServicePublishGroupSm>(
      new ServicePublishGroupSm(controllerdbStatus, servicePublishConfig, publishGroupConfig,
                                publishGroupStatus, mountsRegistry, parent));
}

Vesk::String const& ServicePublishGroupSm::serviceName() const { return parent_->serviceName(); }

Vesk::Ptr<PublishDirSm> ServicePublishGroupSm::publishDirSm(Vesk::Name const& path) const {
  return publishDirSm_(path);
}

Vesk::Ptr<PublishDirSm> ServicePublishGroupSm::publishDirSmIs(
    Vesk::Ptr<PublishDir const> const& publishDir, ServicePublishGroupSm* owner) {
  return publishDirSm_.is(publishDir->controllerdbPath(), publishDir, owner);
}

bool ServicePublishGroupSm::publishing() const { return initialized_ && parent_->canPublish(); }

Vesk::Ptr<PublishRegistryEntry> ServicePublishGroupSm::ownEntry(Vesk::Name const& path) const {
  Vesk::Ptr<PublishRegistryEntry> entry = mountsRegistry_->publishEntry(path);
  bool const own = entry && addedPaths_.contains(path) && entry->serviceName() == serviceName();
  return own ? entry : nullptr;
}

Vesk::Ptr<PublishRegistryEntry> ServicePublishGroupSm::ownEntry(Vesk::Name const& path,
                                                                bool isPrefixPath) const {
  Vesk::Ptr<PublishRegistryEntry> entry = ownEntry(path);
  return entry && entry->isPrefixPath() == isPrefixPath ? entry : nullptr;
}

void ServicePublishGroupSm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::handleInitialized", " group:", groupName_);
  if (initialized_) return;
  initialized_ = true;
  handleLeaderGenId();
}

void ServicePublishGroupSm::handlePublishConfig(Vesk::Name const& path) {
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::handlePublishConfig", " group:", groupName_,
             " path:", path);
  if (!publishing()) return;
  if (Vesk::Ptr<PublishConfig> config = publishGroupConfig_->publishConfig(path)) {
    publishGroupStatus_->publishStatusIs(path)->publishStateIs(publishStateComplete);
    addPublishConfig(config, publishGroupConfig_);
  } else {
    publishGroupStatus_->publishStatusDel(path);
    removePublishConfig(path);
  }
}

void ServicePublishGroupSm::handlePublishConfig() {
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::handlePublishConfig", " group:", groupName_);
  for (auto const& [path, config] : publishGroupConfig_->publishConfigMembers()) {
    handlePublishConfig(path);
  }
}

void ServicePublishGroupSm::handlePublishDir(Vesk::Name const& path) {
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::handlePublishDir", " group:", groupName_,
             " path:", path);
  if (!publishing()) return;
  Vesk::Ptr<PublishDir const> dir = publishGroupConfig_->publishDir(path);
  Vesk::Ptr<PublishDirSm> dirSm = publishDirSm_(path);
  // A directory declared anew under the same path gets a machine of its own.
  if (dirSm && dirSm->publishDir() != dir) {
    publishDirSm_.cleanupAndDel(path);
    dirSm = nullptr;
  }
  if (dir && !dirSm) publishDirSmIs(dir, this);
}

void ServicePublishGroupSm::handlePublishDir() {
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::handlePublishDir", " group:", groupName_);
  for (auto const& [path, dir] : publishGroupConfig_->publishDirMembers()) handlePublishDir(path);
}

// A path already in the registry keeps its entry as it stands: from an earlier turn of this
// group it is already right, and from another publisher it stays theirs.
void ServicePublishGroupSm::addPublishConfig(
    Vesk::Ptr<PublishConfig const> const& publishConfig,
    Vesk::Ptr<ServicePublishGroupConfig const> const& groupConfig) {
  Vesk::Name const& path = publishConfig->controllerdbPath();
  if (Vesk::Ptr<PublishRegistryEntry> entry = mountsRegistry_->publishEntry(path)) {
    if (!ownEntry(path)) {
      VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::addPublishConfig",
                 " already published. Ignoring publish from:", serviceName(), " group:", groupName_,
                 " cpath:", path, " publisher:", entry->serviceName());
    }
    return;
  }
  addPublishDirOrConfig(path, publishConfig->remotePath(), publishConfig->plovType(), false, true,
                        groupConfig);
}

void ServicePublishGroupSm::addPublishDir(
    Vesk::Ptr<PublishDir const> const& publishDir,
    Vesk::Ptr<ServicePublishGroupConfig const> const& groupConfig) {
  Vesk::Name const& path = publishDir->controllerdbPath();
  if (Vesk::Ptr<PublishRegistryEntry> entry = mountsRegistry_->publishEntry(path)) {
    if (!ownEntry(path)) {
      VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::addPublishDir",
                 " already published. Ignoring publishDir from: ", serviceName(),
                 " group:", groupName_, " cpath:", path, " publisher:", entry->serviceName());
    }
    return;
  }
  addPublishDirOrConfig(path, publishDir->remoteTargetPath(), publishDir->veskType(), true, false,
                        groupConfig);
}

void ServicePublishGroupSm::addPublishDirOrConfig(
    Vesk::Name const& path, Vesk::String const& remotePath, Vesk::String const& type,
    bool isPrefixPath, bool readyToPublish,
    Vesk::Ptr<ServicePublishGroupConfig const> const& groupConfig) {
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::addPublishDirOrConfig",
             " adding:", " service:", serviceName(), " cpath:", path, " rpath:", remotePath,
             " type:", type);
  Vesk::Ptr<PublishRegistryEntry> entry =
      mountsRegistry_->publishEntryIs(path, remotePath, serviceName(), isPrefixPath, type,
                                      groupConfig->versionFilter(), groupConfig->systemFilter());
  entry->readyToPublishIs(readyToPublish);
  addedPaths_.emplace(path, isPrefixPath);
}

// A path this group publishes the other way (a directory where a single entity is removed,
// or the reverse) keeps its entry.
void ServicePublishGroupSm::removePublishConfig(Vesk::Name const& path) {
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::removePublishConfig", " cpath:", path);
  if (ownEntry(path) && !ownEntry(path, false)) return;
  removePublishDirOrConfig(path);
}

void ServicePublishGroupSm::removePublishDir(Vesk::Name const& path) {
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::removePublishDir", " cpath:", path);
  if (ownEntry(path) && !ownEntry(path, true)) return;
  removePublishDirOrConfig(path);
}

// Only the group's own entry is removed: a path another publisher had first stays theirs,
// even when this group declared it too.
void ServicePublishGroupSm::removePublishDirOrConfig(Vesk::Name const& path) {
  Vesk::Ptr<PublishRegistryEntry> entry = ownEntry(path);
  addedPaths_.erase(path);
  if (!entry) {
    VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::removePublishDirOrConfig",
               " not removing cpath:", path, " not published by group:", groupName_,
               " service:", serviceName());
    return;
  }
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::removePublishDirOrConfig",
             " removing cpath:", path);
  mountsRegistry_->publishEntryDel(path);
}

// A path this group declares but another publisher had first is taken up once that
// publisher's entry goes: the declaration was only waiting its turn.
void ServicePublishGroupSm::handlePublishEntry(Vesk::Name const& path) {
  if (withdrawn_ || !publishing() || mountsRegistry_->publishEntry(path) ||
      addedPaths_.contains(path)) {
    return;
  }
  bool const entity = bool(publishGroupConfig_->publishConfig(path));
  Vesk::Ptr<PublishDirSm> dirSm = publishDirSm_(path);
  if (!entity && !dirSm) return;
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::handlePublishEntry", " taking up cpath:", path,
             " group:", groupName_, " service:", serviceName());
  if (entity) {
    handlePublishConfig(path);
  } else {
    dirSm->handlePublishDir();
    dirSm->handleReadyToPublish();
  }
}

void ServicePublishGroupSm::handleLeaderGenId() {
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::handleLeaderGenId", " group:", groupName_);
  if (parent_->canPublish()) {
    withdrawn_ = false;
    handlePublishConfig();
    handlePublishDir();
    handleSystemFilter();
    handleVersionFilter();
  } else {
    doCleanup();
  }
}

void ServicePublishGroupSm::handleSystemFilter() {
  Vesk::Ptr<MountFilterSystem> const& filter = publishGroupConfig_->systemFilter();
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::handleSystemFilter", " group:", groupName_,
             " filter:", filter ? Vesk::String(filter->filterName()) : Vesk::String("None"));
  forEachOwnEntry([&](PublishRegistryEntry& entry) { entry.systemFilterIs(filter); });
}

void ServicePublishGroupSm::handleVersionFilter() {
  Vesk::Ptr<MountFilterServiceVersion> const& filter = publishGroupConfig_->versionFilter();
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::handleVersionFilter", " group:", groupName_,
             " filter:", filter ? Vesk::String(filter->filterName()) : Vesk::String("None"));
  forEachOwnEntry([&](PublishRegistryEntry& entry) { entry.versionFilterIs(filter); });
}

// The group's own entries, of the entities and the directories it declares.
template <class F>
void ServicePublishGroupSm::forEachOwnEntry(F const& f) const {
  for (auto const& [path, config] : publishGroupConfig_->publishConfigMembers()) {
    if (Vesk::Ptr<PublishRegistryEntry> entry = ownEntry(path)) f(*entry);
  }
  for (auto const& [path, dir] : publishGroupConfig_->publishDirMembers()) {
    if (Vesk::Ptr<PublishRegistryEntry> entry = ownEntry(path)) f(*entry);
  }
}

void ServicePublishGroupSm::doCleanup() {
  VESK_TRACE(traceHandle, 5, "ServicePublishGroupSm::doCleanup", " group:", groupName_);
  withdrawn_ = true;  // what it removes here is not taken up again by its own reactor
  std::vector<Vesk::Name> paths;
  for (auto const& [path, config] : publishGroupConfig_->publishConfigMembers()) {
    paths.push_back(path);
  }
  for (Vesk::Name const& path : paths) removePublishConfig(path);
  publishDirSm_.cleanupAndDelAll();
  // Every publish status of the group is this machine's; none may stay complete for an
  // entry it withdrew.
  publishGroupStatus_->publishStatusDelAll();
}

void ServicePublishGroupSm::detach() {
  groupReactor_.reset();
  registryReactor_.reset();
}

}  // namespace Controller
