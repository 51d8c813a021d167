#include "registry/MountsRegistryEntrySm.h"

#include <deque>

#include "framework/core/Assert.h"
#include "framework/core/Prefetch.h"
#include "framework/trace/Trace.h"
#include "registry/MountGroupSummary.h"
#include "registry/MounterConfigSm.h"
#include "registry/MountsRegistrySm.h"

namespace Controller {

namespace {
Vesk::TraceHandle traceHandle("MountsRegistryEntrySm", true);

constexpr uint32_t kNoRetryLimit = 0xFFFFFFFF;
constexpr uint32_t kNoMountTimeout = 0x7FFFFFFF;

Vesk::Name const& serviceOf(Mounter const& mounter) { return mounter.mounterName().serviceName(); }
Vesk::Name const& groupOf(Mounter const& mounter) { return mounter.mounterName().groupName(); }

// The mounter's group status of the system in its service's status, made with the system
// status if either is missing.
Vesk::Ptr<ServiceMountGroupStatus> groupStatusIs(ServiceMountStatus& status,
                                                 Vesk::Name const& system, Mounter const& mounter) {
  return status.systemStatusIs(system)->serviceMountGroupStatusIs(groupOf(mounter));
}

}  // namespace

class MountsRegistryEntrySm::EntryReactor
    : public Vesk::OwnedReactor<MountsRegistryEntry::NotifieeConst, MountsRegistryEntrySm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onMounter(Vesk::String const& key) override { owner_->handleMounter(key); }
  void onMounter() override { owner_->handleMounter(); }
};

// One system's mount: the mount machine, its data record, and the reactor on the record
// that remembers the state it last saw. A move from a non-zero state to 0 ends the mount:
// machine, data and reactor are deleted together.
class MountsRegistryEntrySm::MountStateReactor
    : public Vesk::Reactor<MountSmData::NotifieeConst, MountsRegistryEntrySm> {
 public:
  static constexpr std::array<char const*, 2> inputNames{"mountSmData", "mountsRegistryEntrySm"};
  MountStateReactor(Vesk::Ptr<MountSmData> const& data, MountsRegistryEntrySm* owner)
      : Reactor(owner), data_(data), oldState_(data->mountState()) {
    notifierIs(data);
  }
  auto inputs() const { return std::tie(data_, owner_); }
  MountsRegistryEntrySm* mountsRegistryEntrySm() const { return owner_; }
  Vesk::Ptr<MountSmData> const& data() const { return data_; }
  Vesk::Ptr<MountSm> const& mountSm() const { return mountSm_; }
  void mountSmIs(Vesk::Ptr<MountSm> const& sm) { mountSm_ = sm; }
  // Where the mount appears locally once mounted: the mount's target path, "/" and the
  // entry's path, as they are (an entry path that starts with "/" doubles the separator);
  // made when first asked for.
  Vesk::String const& mountedPath() {
    if (mountedPath_.empty() && mountSm_) {
      mountedPath_ = mountSm_->targetPath() + "/" + owner_->registryEntry()->name();
    }
    return mountedPath_;
  }
  // The status records of one mounter for this mount's system, kept between state changes.
  // An entry has one or two mounters as a rule, so two are held in the reactor itself.
  StatusRecords* heldStatusRecords(Mounter const& mounter) {
    for (uint32_t i = 0; i < heldRecords_; ++i) {
      if (records_[i].mounter.ptr() == &mounter) return &records_[i];
    }
    if (moreRecords_) {
      for (StatusRecords& records : *moreRecords_) {
        if (records.mounter.ptr() == &mounter) return &records;
      }
    }
    return nullptr;
  }
  // Starts loading the statuses the rewrite is about to read, all at once: they are rarely
  // in cache, and read one after the other each would wait for the last.
  void prefetchStatusRecords() const {
    for (uint32_t i = 0; i < heldRecords_; ++i) {
      Vesk::prefetch(records_[i].group.ptr());
      Vesk::prefetch(records_[i].mount.ptr());
    }
  }
  // The mounter's kept negotiated version on this mount's system, if it has records here.
  VersionMemo* versionMemo(Mounter const& mounter) {
    StatusRecords* held = heldStatusRecords(mounter);
    return held ? &held->version : nullptr;
  }
  StatusRecords& statusRecords(Mounter const& mounter) {
    if (StatusRecords* held = heldStatusRecords(mounter)) return *held;
    StatusRecords* added;
    if (heldRecords_ < records_.size()) {
      added = &records_[heldRecords_++];
    } else {
      if (!moreRecords_) moreRecords_ = std::make_unique<std::deque<StatusRecords>>();
      added = &moreRecords_->emplace_back();  // a deque keeps the others in place
    }
    added->mounter = Vesk::Ptr<Mounter const>(&mounter);
    return *added;
  }

  void onMountState() override {
    Vesk::Ptr<MountStateReactor> self(this);           // deleting the mount deletes this reactor
    SystemId const& connectionId = data_->systemId();  // data_ lives as long as this reactor
    MountState const oldState = oldState_;
    MountState const newState = data_->mountState();
    prefetchStatusRecords();
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::handleMountState",
               " connection:", connectionId.stringValue(), " oldMountState:", oldState,
               " newMountState:", newState);
    owner_->updateMountersStatus(connectionId, newState, this);
    if (oldState == mountStateNotMounted || newState != mountStateNotMounted) {
      oldState_ = newState;
      return;
    }
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::handleMountState", ": Deleting mountSm for ",
               connectionId.stringValue());
    VESK_ASSERT_MSG(mountsRegistryEntrySm()->mountSm(connectionId),
                    "mountsRegistryEntrySm()->mountSm( connectionId )");
    owner_->mountSmDel(connectionId);
  }

 private:
  Vesk::Ptr<MountSmData> const data_;
  Vesk::Ptr<MountSm> mountSm_;
  MountState oldState_;
  Vesk::String mountedPath_;
  uint32_t heldRecords_ = 0;
  std::array<StatusRecords, 2> records_;
  std::unique_ptr<std::deque<StatusRecords>> moreRecords_;
  [[no_unique_address]] Vesk::LiveCount<MountStateReactor> liveCount_;
};

MountsRegistryEntrySm::MountsRegistryEntrySm(
    Vesk::Ptr<MountsRegistryEntry> const& registryEntry,
    Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
    Vesk::Ptr<Vesk::Dir> const& serviceMountStatusDir, MountsRegistrySm* mountsRegistrySm)
    : registryEntry_(registryEntry),
      oobStatus_(oobStatus),
      serviceMountStatusDir_(serviceMountStatusDir),
      mountsRegistrySm_(mountsRegistrySm),
      mounterConfigSm_(typeName, "mounterConfigSm"),
      mountSmDataSm_(typeName, "mountSmDataSm") {
  entryReactor_ = std::make_unique<EntryReactor>(this);
  entryReactor_->notifierIs(registryEntry_);
  handleInitialized();
}

MountsRegistryEntrySm::~MountsRegistryEntrySm() = default;

Vesk::Ptr<MountsRegistryEntrySm> mountsRegistryEntrySmFactory(
    Vesk::Ptr<MountsRegistryEntry> const& registryEntry,
    Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
    Vesk::Ptr<Vesk::Dir> const& serviceMountStatusDir, MountsRegistrySm* mountsRegistrySm) {
  return Vesk::Ptr<MountsRegistryEntrySm>(
      new MountsRegistryEntrySm(registryEntry, oobStatus, serviceMountStatusDir, mountsRegistrySm));
}

// ---- the union filters ------------------------------------------------------------------

uint32_t MountsRegistryEntrySm::connectionFilter(Vesk::String const& connection) const {
  uint32_t const* count = connectionFilter_.find(connection);
  return count ? *count : 0;
}

void MountsRegistryEntrySm::connectionFilterIs(Vesk::String const& connection, uint32_t count) {
  auto [held, isNew] = connectionFilter_.emplace(connection, count);
  if (!isNew) *held = count;
}

void MountsRegistryEntrySm::connectionFilterDel(Vesk::String const& connection) {
  connectionFilter_.erase(connection);
}

Vesk::Ptr<ServiceVersionFilter> MountsRegistryEntrySm::versionFilter(
    Vesk::Name const& service) const {
  Vesk::Ptr<ServiceVersionFilter> const* filter = versionFilter_.find(service);
  return filter ? *filter : nullptr;
}

Vesk::Ptr<ServiceVersionFilter> MountsRegistryEntrySm::versionFilterIs(Vesk::Name const& service) {
  if (Vesk::Ptr<ServiceVersionFilter> filter = versionFilter(service)) return filter;
  Vesk::Ptr<ServiceVersionFilter> created(new ServiceVersionFilter(service));
  versionFilter_.emplace(service, created);
  return created;
}

void MountsRegistryEntrySm::versionFilterDel(Vesk::Name const& service) {
  versionFilter_.erase(service);
}

Vesk::Ptr<MountSm> MountsRegistryEntrySm::mountSm(SystemId const& systemId) const {
  Vesk::Ptr<MountStateReactor> mount = mountSmDataSm_(systemId);
  return mount ? mount->mountSm() : nullptr;
}

Vesk::Ptr<MountSmData> MountsRegistryEntrySm::mountSmData(SystemId const& systemId) const {
  Vesk::Ptr<MountStateReactor> mount = mountSmDataSm_(systemId);
  return mount ? mount->data() : nullptr;
}

size_t MountsRegistryEntrySm::mountSmSize() const { return mountSmDataSm_.size(); }

Vesk::Ptr<MounterConfigSm> MountsRegistryEntrySm::mounterConfigSm(
    Vesk::String const& service) const {
  return mounterConfigSm_(service);
}

Vesk::Ptr<PeerTable const> MountsRegistryEntrySm::peerTable() const {
  return mountsRegistrySm_->peerTable();
}

// ---- mounters ---------------------------------------------------------------------------

void MountsRegistryEntrySm::handleMounter(Vesk::String const& serviceKey) {
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::handleMounter", " service:", serviceKey);
  // The systems are decided once, after the mounter's filters have all been folded into the
  // entry's union filters (or taken out of them): decided halfway, a system that only one
  // of the filters turns away would be mounted and unmounted again at once.
  ReevaluationBatch batch(*this);
  evaluateMounters();
  if (Vesk::Ptr<Mounter> mounter = registryEntry_->mounter(serviceKey)) {
    if (!mounterConfigSm_(serviceKey)) {
      VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::handleMounter",
                 " new mounter:", serviceKey, " service:", serviceOf(*mounter),
                 " group:", groupOf(*mounter));
    }
    mounterConfigSm_.is(serviceKey, mounter, this);
    mountsRegistrySm_->mounterServiceIs(serviceKey, this);
  } else if (mounterConfigSm_(serviceKey)) {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::handleMounter",
               " mounter gone:", " service:", serviceKey);
    mounterConfigSm_.cleanupAndDel(serviceKey);
    if (!hasMounterCountingFor(serviceKey)) mountsRegistrySm_->mounterServiceDel(serviceKey, this);
  }
  handleSwitchConnection();
}

// Whether a mounter still on the entry counts for the same real service as `service`. The
// names that count for a real service are the service's own and its proxy's (its name with
// "-Proxy"), so two lookups answer it, however many mounters the entry has.
bool MountsRegistryEntrySm::hasMounterCountingFor(Vesk::String const& service) const {
  Vesk::Name const real = mountsRegistrySm_->realServiceOf(service);
  return registryEntry_->mounter(real) || registryEntry_->mounter(real + "-Proxy");
}

void MountsRegistryEntrySm::handleMounter() {
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::handleMounter", "()");
  ReevaluationBatch batch(*this);
  for (auto const& [key, mounter] : registryEntry_->mounterMembers()) handleMounter(key);
}

void MountsRegistryEntrySm::evaluateMounters() {
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::evaluateMounters",
             " path:", registryEntry_->name());
  wildCardMount_ = false;
  for (auto const& [key, m] : registryEntry_->mounterMembers()) {
    ServiceMountGroupConfig const* group = m->mountGroupConfig().ptr();
    if (group && !group->systemFilter() && !group->versionFilter()) {
      VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::evaluateMounters",
                 " wildcard mount:", " service:", serviceOf(*m.ptr()),
                 " group:", groupOf(*m.ptr()));
      wildCardMount_ = true;
      return;
    }
  }
}

// ---- the per-system decision --------------------------------------------------------------

void MountsRegistryEntrySm::handleSwitchConnection(SystemId const& systemId) {
  if (!initialized_) return;
  Vesk::Ptr<PeerTable const> peers = peerTable();
  evaluateSystem(systemId, peers ? peers->peer(systemId).ptr() : nullptr, mountSmDataSm_(systemId));
}

void MountsRegistryEntrySm::evaluateSystem(SystemId const& systemId, Peer const* peer,
                                           Vesk::Ptr<MountStateReactor> const& mount) {
  ++decisions_;
  Vesk::String const& connection = systemId.stringValue();
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::handleSwitchConnection", " Peer:", connection);
  if (peer) {
    updateSystemStatus(systemId, mount.ptr(), true);
    if (!peer->connectionConfig()) return;
    if (canMountFromSystem(systemId, mount.ptr(), peer)) {
      doConnectSwitch(systemId, *peer, mount.ptr());
    } else {
      VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::handleSwitchConnection",
                 " Cannot mount:", registryEntry_->name(), " from:", connection);
      doDisconnectSwitch(systemId, mount.ptr(), peer);
    }
    return;
  }
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::handleSwitchConnection",
             " connection:", connection, " registered:", mount ? "true" : "false");
  doDisconnectSwitch(systemId, mount.ptr(), nullptr);
  updateSystemStatus(systemId, nullptr, false);  // an absent system's statuses go, mount or not
}

MountsRegistryEntrySm::ReevaluationBatch::~ReevaluationBatch() {
  if (--sm_.batchDepth_ != 0 || !sm_.reevaluationPending_) return;
  sm_.reevaluationPending_ = false;
  sm_.handleSwitchConnection();
}

void MountsRegistryEntrySm::handleSwitchConnection() {
  if (!initialized_) return;
  if (batchDepth_ > 0) {
    reevaluationPending_ = true;
    return;
  }
  Vesk::Ptr<PeerTable const> peers = peerTable();
  if (!peers) return;
  // The walk holds each peer it hands out, and decisions do not change the peer table. The
  // mounts are found in the walk's order, each mount read once rather than searched for.
  Vesk::HashMap<SystemId, Vesk::Ptr<MountStateReactor>>::Cursor mounts(mountSmDataSm_.members());
  for (auto const& [systemId, peer] : peers->peerMembers()) {
    Vesk::Ptr<MountStateReactor> const* mount = mounts.seek(systemId);
    evaluateSystem(systemId, peer.ptr().ptr(), mount ? *mount : nullptr);
  }
}

void MountsRegistryEntrySm::handleNamedSwitchConnection(Vesk::String const& connectionName) {
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::handleNamedSwitchConnection",
             " connection:", connectionName);
  SystemId systemId;
  if (systemId.stringValueIs(connectionName)) handleSwitchConnection(systemId);
}

bool MountsRegistryEntrySm::canMountFromConnection(Vesk::String const& connection) {
  SystemId systemId;
  if (!systemId.stringValueIs(connection)) {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::canMountFromConnection",
               " no version negotiated:", connection);
    return false;
  }
  return canMountFromSystem(systemId);
}

bool MountsRegistryEntrySm::canMountFromSystem(SystemId const& systemId) {
  return canMountFromSystem(systemId, nullptr, nullptr);
}

bool MountsRegistryEntrySm::canMountFromSystem(SystemId const& systemId, MountStateReactor* mount,
                                               Peer const* peer) {
  Vesk::String const& connection = systemId.stringValue();
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::canMountFromConnection",
             " connection:", connection);
  bool negotiated = false;
  if (!cleaningUp_) {
    for (auto const& [key, m] : registryEntry_->mounterMembers()) {
      VersionMemo* memo = mount ? mount->versionMemo(*m.ptr()) : nullptr;
      if (mountsRegistrySm_->negotiatedServiceVersionForSystem(serviceOf(*m.ptr()), systemId,
                                                               {memo, peer}) != 0) {
        negotiated = true;
        break;
      }
    }
  }
  if (!negotiated) {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::canMountFromConnection",
               " no version negotiated:", connection);
    return false;
  }
  if (wildCardMount_) {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::canMountFromConnection",
               " wildcard mount:", connection);
    return true;
  }
  if (!versionFilter_.empty()) {
    if (!systemMatchesVersionFilter(systemId, peer)) {
      VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::canMountFromConnection",
                 " version filter not matched for ", connection);
      return false;
    }
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::canMountFromConnection",
               " matched versionFilter:", connection);
  } else {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::canMountFromConnection",
               " no versionfilter for ", connection);
  }
  if (connectionFilter_.empty()) {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::canMountFromConnection",
               " no connectionFilter for ", connection);
    return true;
  }
  if (connectionFilter(connection) != 0) {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::canMountFromConnection",
               " matched connectionFilter:", connection);
    return true;
  }
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::canMountFromConnection",
             " not in connectionFilter:", connection);
  return false;
}

bool MountsRegistryEntrySm::connectionMatchesVersionFilter(Vesk::String const& connection) {
  SystemId systemId;
  return systemId.stringValueIs(connection) && systemMatchesVersionFilter(systemId);
}

bool MountsRegistryEntrySm::systemMatchesVersionFilter(SystemId const& systemId, Peer const* peer) {
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::connectionMatchesVersionFilter",
             " connection:", systemId.stringValue());
  for (auto const& [service, filter] : versionFilter_) {
    if (matchingServiceVersionFilter(service, systemId, peer)) return true;
  }
  return false;
}

bool MountsRegistryEntrySm::matchingServiceVersionFilter(Vesk::String const& service,
                                                         Vesk::String const& connection) {
  SystemId systemId;
  if (!systemId.stringValueIs(connection)) {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::matchingServiceVersionFilter", " no version",
               " service:", service, " connection:", connection);
    return false;
  }
  return matchingServiceVersionFilter(service, systemId);
}

bool MountsRegistryEntrySm::matchingServiceVersionFilter(Vesk::String const& service,
                                                         SystemId const& systemId,
                                                         Peer const* peer) {
  Vesk::String const& connection = systemId.stringValue();
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::matchingServiceVersionFilter",
             " service:", service, " connection:", connection);
  Vesk::Ptr<ServiceVersionFilter> filter = versionFilter(Vesk::Name(service));
  if (!filter) {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::matchingServiceVersionFilter",
               " no version filter for service ", service);
    return false;
  }
  uint32_t version =
      mountsRegistrySm_->negotiatedServiceVersionForSystem(service, systemId, {nullptr, peer});
  if (version == 0) {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::matchingServiceVersionFilter", " no version",
               " service:", service, " connection:", connection);
    return false;
  }
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::matchingServiceVersionFilter",
             "Supported version for ", connection, " for ", service, " ", version);
  if (filter->version(version)) {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::matchingServiceVersionFilter",
               " matched version:", version, " service:", service, " connection:", connection);
    return true;
  }
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::matchingServiceVersionFilter",
             " version:", version, " not in filter", " service:", service,
             " connection:", connection);
  return false;
}

bool MountsRegistryEntrySm::mounterIsInterestedInConnection(Mounter const& mounter,
                                                            Vesk::String const& connection) {
  SystemId systemId;
  if (!systemId.stringValueIs(connection)) return false;
  return mounterIsInterestedInConnection(mounter, systemId);
}

bool MountsRegistryEntrySm::mounterIsInterestedInConnection(Mounter const& mounter,
                                                            SystemId const& systemId,
                                                            VersionHints hints) {
  Vesk::Name const& connection = systemId.stringValue();
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::mounterIsInterestedInConnection",
             " service:", serviceOf(mounter), " group:", groupOf(mounter),
             " connection:", connection);
  ServiceMountGroupConfig const* group = mounter.mountGroupConfig().ptr();
  if (!group) return false;
  if (MountFilterSystem const* systems = group->systemFilter().ptr()) {
    if (!systems->includedSystem(connection)) {
      VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::mounterIsInterestedInConnection",
                 " not in systemFilter:", connection, " group:", groupOf(mounter));
      return false;
    }
  }
  if (MountFilterServiceVersion const* versions = group->versionFilter().ptr()) {
    uint32_t version =
        mountsRegistrySm_->negotiatedServiceVersionForSystem(serviceOf(mounter), systemId, hints);
    if (version == 0 || !versions->includedServiceVersion(version)) {
      VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::mounterIsInterestedInConnection",
                 " version:", version, " not in versionFilter of group:", groupOf(mounter),
                 " connection:", connection);
      return false;
    }
  }
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::mounterIsInterestedInConnection",
             " interested:", serviceOf(mounter), " connection:", connection);
  return true;
}

bool MountsRegistryEntrySm::preserveMountsOnDisconnect(SystemId const& systemId) {
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::preserveMountsOnDisconnect",
             " connection:", systemId.stringValue());
  if (!oobStatus_ || !oobStatus_->inactive(systemId)) return false;
  for (auto const& [key, m] : registryEntry_->mounterMembers()) {
    ServiceMountGroupConfig const* group = m->mountGroupConfig().ptr();
    if (group && group->preserveMountsOnDisconnect()) {
      VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::preserveMountsOnDisconnect",
                 ": mounter for group ", groupOf(*m.ptr()), " and service ", serviceOf(*m.ptr()),
                 " has preserve=1");
      return true;
    }
  }
  return false;
}

// ---- starting and stopping a mount --------------------------------------------------------

void MountsRegistryEntrySm::doConnectSwitch(SystemId const& systemId) {
  if (!initialized_) return;
  Vesk::Ptr<PeerTable const> peers = peerTable();
  Vesk::Ptr<Peer> peer = peers ? peers->peer(systemId) : nullptr;
  VESK_ASSERT(peer);
  VESK_ASSERT(peer->connectionConfig());
  doConnectSwitch(systemId, *peer, mountSmDataSm_(systemId).ptr());
}

void MountsRegistryEntrySm::doConnectSwitch(SystemId const& systemId, Peer const& peer,
                                            MountStateReactor* mount) {
  Vesk::Name const& path = registryEntry_->name();
  Vesk::String const& system = systemId.stringValue();
  if (MountSm* sm = mount ? mount->mountSm().ptr() : nullptr) {
    if (sm->data()->mountState() == mountStateMounted && !sm->pendingRequest()) {
      VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::doConnectSwitch",
                 " updating status:", path, " from:", system);
      updateMountersStatus(systemId, mountStateMounted, mount, &peer);
      return;
    }
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::doConnectSwitch", " remounting:", path,
               " from:", system);
    sm->connectionConfigIs(peer.connectionConfig());
    sm->doRemount();
    return;
  }
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::doConnectSwitch", " mounting:", path,
             " from:", system);
  MountsRegistry const* registry = registryEntry_->registry();
  Vesk::Ptr<Vesk::Dir> prefixDir = registry ? registry->rootDir() : nullptr;
  VESK_ASSERT(prefixDir);
  Vesk::Name connTargetDirName = peer.connectionConfig()->name();
  Vesk::Ptr<Vesk::Dir> connectionTargetDir = prefixDir->subdirIs(connTargetDirName);
  VESK_ASSERT(connectionTargetDir);
  Vesk::String targetPath = connectionTargetDir->keptFullName();
  VESK_TRACE(traceHandle, 8, "MountsRegistryEntrySm::doConnectSwitch",
             "connTargetDirName=", connTargetDirName, "  targetPath=", targetPath);

  Vesk::Ptr<MountStateReactor> const made =
      mountSmDataSmIs(Vesk::Ptr<MountSmData>(new MountSmData(systemId, system)));
  uint32_t retries = registry->reconnectRetries();
  Vesk::Seconds timeout = registry->mountTimeout();
  Vesk::Ptr<MountSm> sm(
      new MountSm(systemId, peer.connectionConfig(), mountsRegistrySm_->heartbeatConfig(),
                  registry->remoteRootPath(), path, targetPath, registryEntry_->veskType(),
                  registryEntry_->mountFlags(), retries == 0 ? kNoRetryLimit : retries,
                  timeout == 0.0 ? kNoMountTimeout : uint32_t(timeout), made->data()));
  made->mountSmIs(sm);
}

Vesk::Ptr<MountsRegistryEntrySm::MountStateReactor> MountsRegistryEntrySm::mountSmDataSmIs(
    Vesk::Ptr<MountSmData> const& data) {
  return mountSmDataSm_.is(data ? data->systemId() : SystemId(), data, this);
}

void MountsRegistryEntrySm::doDisconnectSwitch(SystemId const& systemId) {
  doDisconnectSwitch(systemId, mountSmDataSm_(systemId).ptr(), nullptr);
}

void MountsRegistryEntrySm::doDisconnectSwitch(SystemId const& systemId, MountStateReactor* mount,
                                               Peer const* peer) {
  Vesk::Name const& path = registryEntry_->name();
  Vesk::String const& system = systemId.stringValue();
  // The machine is held through the unmount, which may report its end and drop the mount.
  if (Vesk::Ptr<MountSm> sm = mount ? mount->mountSm() : nullptr) {
    VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::doDisconnectSwitch", " unmounting:", path,
               " from:", system);
    if (preserveMountsOnDisconnect(systemId)) {
      VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::doDisconnectSwitch",
                 ": unmount is state-preserving");
      sm->doStatePreservingUnmount();
    } else {
      VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::doDisconnectSwitch",
                 ": unmount is not state-preserving");
      sm->doUnmount();
    }
    return;
  }
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::doDisconnectSwitch",
             " already unmounted:", path, " from:", system);
  updateMountersStatus(systemId, mountStateNotMounted, nullptr, peer);  // no mount, no records
}

void MountsRegistryEntrySm::mountSmDel(SystemId const& systemId) {
  if (Vesk::Ptr<MountSm> sm = mountSm(systemId)) sm->doCleanup();
  mountSmDataSm_.del(systemId);
}

// ---- writing results into the services' mount status --------------------------------------

void MountsRegistryEntrySm::updateMountersStatus(SystemId const& systemId, MountState state) {
  updateMountersStatus(systemId, state, mountSmDataSm_(systemId).ptr());
}

void MountsRegistryEntrySm::updateMountersStatus(SystemId const& systemId, MountState state,
                                                 MountStateReactor* reactor, Peer const* peer) {
  if (cleaningUp_) return;  // the mounters have taken their status records down
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::updateMountersStatus", " mount state:", state,
             " connection:", systemId.stringValue());
  for (auto const& [key, m] : registryEntry_->mounterMembers()) {
    updateMounterStatus(*m.ptr(), systemId, state, reactor, peer);
  }
}

Vesk::Ptr<ServiceMountGroupStatus> MountsRegistryEntrySm::groupStatus(
    Mounter const& mounter, SystemId const& systemId) const {
  Vesk::Ptr<SystemStatus> system =
      mounter.serviceMountStatus()->systemStatus(systemId.stringValue());
  return system ? system->serviceMountGroupStatus(groupOf(mounter)) : nullptr;
}

// The group status through the records the mount's reactor kept, while they are still
// linked into the service's status; otherwise looked up, and the records refreshed.
Vesk::Ptr<ServiceMountGroupStatus> MountsRegistryEntrySm::groupStatus(
    Mounter const& mounter, SystemId const& systemId, StatusRecords* records) const {
  if (!records) return groupStatus(mounter, systemId);
  if (records->linkedTo(*mounter.serviceMountStatus())) return records->group;
  records->group = groupStatus(mounter, systemId);
  records->mount = nullptr;
  return records->group;
}

// The mounter's system and group status, made again while the system is a peer. Records
// that held no mount status are taken by the cleanup of whichever entry's mounter of the
// same group leaves, though this entry still writes into them; once the peer has gone, so
// have its statuses, and null is returned.
Vesk::Ptr<ServiceMountGroupStatus> MountsRegistryEntrySm::remadeGroupStatus(
    Mounter const& mounter, SystemId const& systemId, StatusRecords* records, Peer const* peer) {
  if (!peer) {
    Vesk::Ptr<PeerTable const> peers = peerTable();
    if (!peers || !peers->peer(systemId)) return nullptr;
  }
  Vesk::Ptr<ServiceMountGroupStatus> group =
      groupStatusIs(*mounter.serviceMountStatus(), systemId.stringValue(), mounter);
  if (records) {
    records->group = group;
    records->mount = nullptr;
  }
  return group;
}

void MountsRegistryEntrySm::updateMounterStatus(Mounter const& mounter, SystemId const& systemId,
                                                MountState state) {
  updateMounterStatus(mounter, systemId, state, mountSmDataSm_(systemId).ptr());
}

void MountsRegistryEntrySm::updateMounterStatus(Mounter const& mounter, SystemId const& systemId,
                                                MountState state, MountStateReactor* reactor,
                                                Peer const* peer) {
  VESK_ASSERT_MSG(mounter.serviceMountStatus(), "serviceMountStatus");
  VESK_ASSERT_MSG(mounter.mountGroupConfig(), "mountGroupConfig");
  StatusRecords* records = reactor ? &reactor->statusRecords(mounter) : nullptr;
  Vesk::Ptr<ServiceMountGroupStatus> group = groupStatus(mounter, systemId, records);
  Vesk::Name const& mount = registryEntry_->name();
  VESK_TRACE(traceHandle, 8, "MountsRegistryEntrySm::updateMounterStatus",
             "group: ", groupOf(mounter), " mount: ", mount);
  VESK_TRACE(traceHandle, 8, "%s config: ",
             mounter.mountConfig() ? mounter.mountConfig()->remotePath() : Vesk::Name());
  if (!group) group = remadeGroupStatus(mounter, systemId, records, peer);
  if (!group) return;  // the system's statuses are gone with its peer
  MountGroupSummaries& summaries = mountsRegistrySm_->mountGroupSummaries();
  if (mounterIsInterestedInConnection(mounter, systemId,
                                      {records ? &records->version : nullptr, peer})) {
    Vesk::Ptr<MountStatus> status =
        records && records->mount && records->mount->parentRaw() == group.ptr() ? records->mount
                                                                                : nullptr;
    if (!status) {
      status = summaries.mountStatusIs(*group, mount);
      if (records) records->mount = status;
    }
    handleMountState(mounter, systemId, state, *group, *status, reactor, records);
  } else {
    summaries.mountStatusDel(*group, mount);
    if (records) records->mount = nullptr;
  }
  group->processedIs(true);
}

void MountsRegistryEntrySm::handleMountState(Mounter const& mounter, SystemId const& systemId,
                                             MountState state) {
  Vesk::Ptr<ServiceMountGroupStatus> group = groupStatus(mounter, systemId);
  Vesk::Ptr<MountStatus> status = group ? group->mountStatus(registryEntry_->name()) : nullptr;
  if (status) {
    handleMountState(mounter, systemId, state, *group, *status, mountSmDataSm_(systemId).ptr(),
                     nullptr);
  }
}

void MountsRegistryEntrySm::handleMountState(Mounter const& mounter, SystemId const& systemId,
                                             MountState state, ServiceMountGroupStatus& group,
                                             MountStatus& status, MountStateReactor* reactor,
                                             StatusRecords* records) {
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::handleMountState", "mount state:", state,
             " connection:", systemId.stringValue(), " service:", serviceOf(mounter),
             " mountGroup:", groupOf(mounter), " remote path:", registryEntry_->name());
  if (state == mountStateMounted && reactor) status.mountedPathIs(reactor->mountedPath());
  MountGroupSummaries::Place* place = records ? &records->summaryPlace : nullptr;
  mountsRegistrySm_->mountGroupSummaries().mountStateIs(group, status, state, place);
  updateMountGroupMountState(*mounter.mountGroupConfig(), group, state, place);
}

void MountsRegistryEntrySm::updateMountGroupMountState(ServiceMountGroupConfig const&,
                                                       ServiceMountGroupStatus& groupStatus,
                                                       MountState state,
                                                       MountGroupSummaries::Place* place) {
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::updateMountGroupMountState",
             " group:", groupStatus.name(), " state:", state);
  groupStatus.mountStateIs(
      mountsRegistrySm_->mountGroupSummaries().summary(groupStatus, state, place));
}

void MountsRegistryEntrySm::updateSystemStatus(SystemId const& systemId) {
  Vesk::Ptr<PeerTable const> peers = peerTable();
  bool const present = peers && peers->peer(systemId);
  updateSystemStatus(systemId, present ? mountSmDataSm_(systemId).ptr() : nullptr, present);
}

void MountsRegistryEntrySm::updateSystemStatus(SystemId const& systemId, MountStateReactor* mount,
                                               bool present) {
  if (cleaningUp_) return;
  Vesk::Name const& system = systemId.stringValue();
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::updateSystemStatus", " connection:", system);
  for (auto const& [key, m] : registryEntry_->mounterMembers()) {
    ServiceMountStatus* status = m->serviceMountStatus().ptr();
    if (!status) continue;
    if (present) {
      // A mount whose records are still linked into the service's status already has its
      // system and group status.
      StatusRecords const* records = mount ? mount->heldStatusRecords(*m.ptr()) : nullptr;
      if (records && records->linkedTo(*status)) continue;
      groupStatusIs(*status, system, *m.ptr());
    } else if (Vesk::Ptr<SystemStatus> gone = status->systemStatus(system)) {
      for (auto const& [group, groupStatus] : gone->serviceMountGroupStatusMembers()) {
        mountsRegistrySm_->mountGroupSummaries().groupDel(*groupStatus.ptr());
      }
      status->systemStatusDel(system);
    }
  }
}

void MountsRegistryEntrySm::handleMounterInterest(Mounter const& mounter,
                                                  Vesk::String const& connection) {
  if (!initialized_ || cleaningUp_ || reevaluationPending_) return;  // a decision will follow
  SystemId systemId;
  if (!systemId.stringValueIs(connection)) return;  // a filter member that names no system
  Vesk::Ptr<PeerTable const> peers = peerTable();
  Vesk::Ptr<Peer> const peer = peers ? peers->peer(systemId) : nullptr;
  if (!peer) return;  // an absent system has no statuses
  Vesk::Ptr<MountStateReactor> const mount = mountSmDataSm_(systemId);
  MountState const state = mount ? mount->data()->mountState() : mountStateNotMounted;
  // The mounter's system and group status are made, should they be missing, by the write.
  updateMounterStatus(mounter, systemId, state, mount.ptr(), peer.ptr());
}

// ---- life cycle ---------------------------------------------------------------------------

void MountsRegistryEntrySm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "MoutnsRegistryEntrySm::", "handleInitialized",
             " path:", registryEntry_->name());
  if (initialized_) return;
  initialized_ = true;
  handleSwitchConnection();
}

// An entry that goes away unmounts from every system. Mounters still on it are taken down
// first (with their filters and status records), so that no system passes the decision;
// mount machines that have not reported their unmount by the end are cleaned up and
// dropped with the entry.
void MountsRegistryEntrySm::doCleanup() {
  VESK_TRACE(traceHandle, 5, "MountsRegistryEntrySm::doCleanup", " path:", registryEntry_->name());
  cleaningUp_ = true;
  entryReactor_.reset();
  for (Vesk::String const& service : mounterConfigSm_.keys()) {
    mountsRegistrySm_->mounterServiceDel(service, this);
  }
  {
    ReevaluationBatch batch(*this);
    mounterConfigSm_.cleanupAndDelAll();
    handleSwitchConnection();
  }
  for (SystemId const& systemId : mountSmDataSm_.keys()) mountSmDel(systemId);
}

}  // namespace Controller
