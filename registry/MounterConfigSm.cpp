#include "registry/MounterConfigSm.h"

#include <vector>

#include "framework/core/Assert.h"
#include "framework/core/SmallObject.h"
#include "framework/trace/Trace.h"
#include "registry/MountsRegistryEntrySm.h"
#include "registry/MountsRegistrySm.h"

namespace Controller {

// One machine is made per mounter, so its reactors too come from the small-block store.

namespace {
Vesk::TraceHandle traceHandle("MounterConfigSm", true);
}  // namespace

void MounterConfigSm::GroupReactor::onSystemFilter() {
  owner_->systemFilterIs(notifierRaw()->systemFilter());
}
void MounterConfigSm::GroupReactor::onVersionFilter() {
  owner_->versionFilterIs(notifierRaw()->versionFilter());
}

class MounterConfigSm::SystemFilterReactor
    : public Vesk::OwnedReactor<MountFilterSystem::NotifieeConst, MounterConfigSm>,
      public Vesk::SmallObject {
 public:
  using OwnedReactor::OwnedReactor;
  void onIncludedSystem(Vesk::String const& system) override {
    VESK_TRACE(traceHandle, 5, "MounterConfigSm::SystemFilterReactor::onIncludedSystem",
               " system:", system);
    owner_->handleIncludedSystemChange(system);
  }
};

class MounterConfigSm::VersionFilterReactor
    : public Vesk::OwnedReactor<MountFilterServiceVersion::NotifieeConst, MounterConfigSm>,
      public Vesk::SmallObject {
 public:
  using OwnedReactor::OwnedReactor;
  void onIncludedServiceVersion(uint32_t const& version) override {
    VESK_TRACE(traceHandle, 5, "MounterConfigSm::VersionFilterReactor::onIncludedServiceVersion",
               ": version=", version);
    owner_->handleIncludedServiceVersion(version);
  }
};

MounterConfigSm::MounterConfigSm(Vesk::Ptr<Mounter> const& mounter,
                                 MountsRegistryEntrySm* mountsRegistryEntrySm)
    : mounter_(mounter), mountsRegistryEntrySm_(mountsRegistryEntrySm) {
  if (ServiceMountGroupConfig const* group = mounter_->mountGroupConfig().ptr()) {
    groupReactor_.emplace(this);
    groupReactor_->notifierIs(group);
    if (group->systemFilter()) {
      systemFilterReactor_ = std::make_unique<SystemFilterReactor>(this);
      systemFilterReactor_->notifierIs(group->systemFilter());
    }
    if (group->versionFilter()) {
      versionFilterReactor_ = std::make_unique<VersionFilterReactor>(this);
      versionFilterReactor_->notifierIs(group->versionFilter());
    }
  }
  handleInitialized();
}

MounterConfigSm::~MounterConfigSm() = default;

Vesk::Ptr<MounterConfigSm> mounterConfigSmFactory(Vesk::Ptr<Mounter> const& mounter,
                                                  MountsRegistryEntrySm* mountsRegistryEntrySm) {
  return Vesk::Ptr<MounterConfigSm>(new MounterConfigSm(mounter, mountsRegistryEntrySm));
}

Vesk::String const& MounterConfigSm::entryPath() const {
  return mountsRegistryEntrySm_->registryEntry()->name();
}

// ---- the entry machine's union filters ----------------------------------------------------

void MounterConfigSm::addSystemToConnectionFilter(Vesk::String const& system) {
  if (!systemsAdded_.insert(system).second) return;
  MountsRegistryEntrySm& entrySm = *mountsRegistryEntrySm_;
  if (uint32_t n = entrySm.connectionFilter(system)) {
    entrySm.connectionFilterIs(system, n + 1);
    VESK_TRACE(traceHandle, 5, "MounterConfigSm::addSystemToConnectionFilter", " refcount:", n + 1,
               " filter:", system, " path:", entryPath());
    return;
  }
  VESK_TRACE(traceHandle, 5, "MounterConfigSm::addSystemToConnectionFilter", " new filter:", system,
             " path:", entryPath());
  entrySm.connectionFilterIs(system, 1);
  entrySm.handleSwitchConnection();
}

void MounterConfigSm::removeSystemFromConnectionFilter(Vesk::String const& system) {
  if (systemsAdded_.erase(system) == 0) return;
  MountsRegistryEntrySm& entrySm = *mountsRegistryEntrySm_;
  uint32_t refCount = entrySm.connectionFilter(system);
  if (refCount == 1) {
    VESK_TRACE(traceHandle, 5, "MounterConfigSm::removeSystemFromConnectionFilter",
               " del filter:", system, " path:", entryPath());
    entrySm.connectionFilterDel(system);
    entrySm.handleSwitchConnection();
    return;
  }
  VESK_ASSERT(refCount > 1);
  entrySm.connectionFilterIs(system, refCount - 1);
  VESK_TRACE(traceHandle, 5, "MounterConfigSm::removeSystemFromConnectionFilter",
             " refcount:", refCount - 1, " filter:", system, " path:", entryPath());
}

void MounterConfigSm::addVersionToVersionFilter(uint32_t version) {
  if (!versionsAdded_.insert(version).second) return;
  VESK_TRACE(traceHandle, 5, "MounterConfigSm::addVersionToVersionFilter", " version:", version,
             " path:", entryPath());
  mountsRegistryEntrySm_->versionFilterIs(Vesk::Name(mounter_->serviceName()))
      ->versionIs(version, true);
  mountsRegistryEntrySm_->handleSwitchConnection();
}

void MounterConfigSm::removeVersionFromVersionFilter(uint32_t version) {
  if (versionsAdded_.erase(version) == 0) return;
  VESK_TRACE(traceHandle, 5, "MounterConfigSm::removeVersionFromVersionFilter",
             " version:", version, " path:", entryPath());
  Vesk::Name service(mounter_->serviceName());
  if (Vesk::Ptr<ServiceVersionFilter> filter = mountsRegistryEntrySm_->versionFilter(service)) {
    filter->versionDel(version);
    if (filter->versionSize() == 0) mountsRegistryEntrySm_->versionFilterDel(service);
  }
  mountsRegistryEntrySm_->handleSwitchConnection();
}

// ---- the watched filters ------------------------------------------------------------------

void MounterConfigSm::systemFilterIs(Vesk::Ptr<MountFilterSystem const> const& filter) {
  MountFilterSystem const* current =
      systemFilterReactor_ ? systemFilterReactor_->notifierRaw() : nullptr;
  if (current == filter.ptr()) return;
  MountsRegistryEntrySm::ReevaluationBatch batch(*mountsRegistryEntrySm_);
  VESK_TRACE(traceHandle, 5, "MounterConfigSm::systemFilterIs",
             " filter:", filter ? Vesk::String(filter->filterName()) : Vesk::String("None"));
  for (Vesk::String const& system :
       std::vector<Vesk::String>(systemsAdded_.begin(), systemsAdded_.end())) {
    removeSystemFromConnectionFilter(system);
  }
  systemFilterReactor_.reset();
  if (filter) {
    systemFilterReactor_ = std::make_unique<SystemFilterReactor>(this);
    systemFilterReactor_->notifierIs(filter);
  }
  handleIncludedSystem();
  filtersReplaced();
}

void MounterConfigSm::versionFilterIs(Vesk::Ptr<MountFilterServiceVersion const> const& filter) {
  MountFilterServiceVersion const* current =
      versionFilterReactor_ ? versionFilterReactor_->notifierRaw() : nullptr;
  if (current == filter.ptr()) return;
  MountsRegistryEntrySm::ReevaluationBatch batch(*mountsRegistryEntrySm_);
  VESK_TRACE(traceHandle, 5, "MounterConfigSm::versionFilterIs",
             " filter:", filter ? Vesk::String(filter->filterName()) : Vesk::String("None"));
  for (uint32_t version : std::vector<uint32_t>(versionsAdded_.begin(), versionsAdded_.end())) {
    removeVersionFromVersionFilter(version);
  }
  versionFilterReactor_.reset();
  if (filter) {
    versionFilterReactor_ = std::make_unique<VersionFilterReactor>(this);
    versionFilterReactor_->notifierIs(filter);
  }
  handleIncludedServiceVersion();
  filtersReplaced();
}

// A group that gains or loses a filter may change whether the entry is a wildcard mount,
// which the union filters alone do not show.
void MounterConfigSm::filtersReplaced() {
  mountsRegistryEntrySm_->evaluateMounters();
  mountsRegistryEntrySm_->handleSwitchConnection();
}

void MounterConfigSm::handleIncludedSystem(Vesk::String const& system) {
  if (!initialized_) return;
  MountFilterSystem const* filter =
      systemFilterReactor_ ? systemFilterReactor_->notifierRaw() : nullptr;
  VESK_TRACE(traceHandle, 5, "MounterConfigSm::handleIncludedSystem", " system:", system);
  if (filter && filter->includedSystem(system)) {
    addSystemToConnectionFilter(system);
  } else {
    removeSystemFromConnectionFilter(system);
  }
}

// A member of the watched filter changed. When the system stays in the entry's union filter
// either way, the entry decides nothing again, yet this mounter's interest in the system
// has changed, and with it what the mounter's service must see.
void MounterConfigSm::handleIncludedSystemChange(Vesk::String const& system) {
  bool const wasAdded = systemsAdded_.count(system) != 0;
  handleIncludedSystem(system);
  bool const added = systemsAdded_.count(system) != 0;
  uint32_t const othersIncluding = mountsRegistryEntrySm_->connectionFilter(system) - added;
  if (added != wasAdded && othersIncluding > 0) {
    mountsRegistryEntrySm_->handleMounterInterest(*mounter_, system);
  }
}

void MounterConfigSm::handleIncludedSystem() {
  MountFilterSystem const* filter =
      systemFilterReactor_ ? systemFilterReactor_->notifierRaw() : nullptr;
  if (!filter) return;
  MountsRegistryEntrySm::ReevaluationBatch batch(*mountsRegistryEntrySm_);
  for (auto const& [system, included] : filter->includedSystemMembers()) {
    handleIncludedSystem(system);
  }
}

void MounterConfigSm::handleIncludedServiceVersion(uint32_t version) {
  if (!initialized_) return;
  MountFilterServiceVersion const* filter =
      versionFilterReactor_ ? versionFilterReactor_->notifierRaw() : nullptr;
  VESK_TRACE(traceHandle, 5, "MounterConfigSm::handleIncludedServiceVersion",
             ": version=", version);
  if (filter && filter->includedServiceVersion(version)) {
    addVersionToVersionFilter(version);
  } else {
    removeVersionFromVersionFilter(version);
  }
}

void MounterConfigSm::handleIncludedServiceVersion() {
  MountFilterServiceVersion const* filter =
      versionFilterReactor_ ? versionFilterReactor_->notifierRaw() : nullptr;
  if (!filter) return;
  MountsRegistryEntrySm::ReevaluationBatch batch(*mountsRegistryEntrySm_);
  for (auto const& [version, included] : filter->includedServiceVersionMembers()) {
    handleIncludedServiceVersion(version);
  }
}

void MounterConfigSm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "MounterConfigSm::handleInitialized",
             " service:", mounter_->serviceName(), " path:", entryPath());
  if (initialized_) return;
  initialized_ = true;
  handleIncludedSystem();
  handleIncludedServiceVersion();
}

// ---- cleanup ------------------------------------------------------------------------------

void MounterConfigSm::doCleanup() {
  VESK_TRACE(traceHandle, 5, "MounterConfigSm::doCleanup", " service:", mounter_->serviceName(),
             " path:", entryPath());
  groupReactor_.reset();
  systemFilterReactor_.reset();
  versionFilterReactor_.reset();
  MountsRegistryEntrySm::ReevaluationBatch batch(*mountsRegistryEntrySm_);
  for (Vesk::String const& system :
       std::vector<Vesk::String>(systemsAdded_.begin(), systemsAdded_.end())) {
    removeSystemFromConnectionFilter(system);
  }
  for (uint32_t version : std::vector<uint32_t>(versionsAdded_.begin(), versionsAdded_.end())) {
    removeVersionFromVersionFilter(version);
  }
  removeStatusRecords();
}

// The status records are shared between entries: a group status and a system status live
// as long as any entry still has a mount status in them.
void MounterConfigSm::removeStatusRecords() {
  ServiceMountStatus* status = mounter_->serviceMountStatus().ptr();
  if (!status) return;
  Vesk::Name path(entryPath());
  status->mountedPathPrefixDel(path);
  Vesk::Name group(mounter_->mounterName().groupName());
  MountGroupSummaries& summaries =
      mountsRegistryEntrySm_->mountsRegistrySm()->mountGroupSummaries();
  std::vector<Vesk::Name> systems;
  for (auto const& [system, systemStatus] : status->systemStatusMembers())
    systems.push_back(system);
  for (Vesk::Name const& system : systems) {
    Vesk::Ptr<SystemStatus> systemStatus = status->systemStatus(system);
    if (!systemStatus) continue;
    Vesk::Ptr<ServiceMountGroupStatus> groupStatus = systemStatus->serviceMountGroupStatus(group);
    if (groupStatus && groupStatus->mountStatus(path)) {
      VESK_TRACE(traceHandle, 5, "MounterConfigSm::doCleanup", ": Deleting mount status for ",
                 path);
      summaries.mountStatusDel(*groupStatus, path);
    }
    if (groupStatus && groupStatus->mountStatusSize() == 0) {
      VESK_TRACE(traceHandle, 5, "MounterConfigSm::doCleanup", ": Deleting mount group status for ",
                 group);
      summaries.groupDel(*groupStatus);
      systemStatus->serviceMountGroupStatusDel(group);
    }
    if (systemStatus->serviceMountGroupStatusSize() == 0) {
      VESK_TRACE(traceHandle, 5, "MounterConfigSm::doCleanup", ": Deleting system status for ",
                 system);
      status->systemStatusDel(system);
    }
  }
}

}  // namespace Controller
