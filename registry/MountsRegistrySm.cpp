#include "registry/MountsRegistrySm.h"

#include <unordered_map>

#include "framework/core/Assert.h"
#include "framework/records/CountedRecords.h"
#include "framework/trace/Trace.h"
#include "registry/ConnectionServiceStatusDirSm.h"
#include "registry/MountsRegistryEntrySm.h"
#include "registry/PublishRegistryEntrySm.h"

namespace Controller {

namespace {
Vesk::TraceHandle traceHandle("MountsRegistrySm", true);

// The machine of each registry: the factory hands out one per registry. Machines run on
// their activity's thread, and so does the factory that makes them.
std::unordered_map<MountsRegistry const*, MountsRegistrySm*>& machineOfRegistry() {
  thread_local std::unordered_map<MountsRegistry const*, MountsRegistrySm*> machines;
  return machines;
}

// A connection is named by its system's text form; an unparsable name names no system.
bool systemOfConnection(Vesk::String const& connection, SystemId& out) {
  return out.stringValueIs(connection);
}
}  // namespace

class MountsRegistrySm::RegistryReactor
    : public Vesk::OwnedReactor<MountsRegistry::NotifieeConst, MountsRegistrySm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onMountEntry(Vesk::Name const& name) override { owner_->handleMountEntry(name); }
  void onMountEntry() override { owner_->handleMountEntry(); }
  void onPublishEntry(Vesk::Name const& name) override { owner_->handlePublishEntry(name); }
  void onPublishEntry() override { owner_->handlePublishEntry(); }
  void onServicePublishReady(Vesk::String const& service) override {
    owner_->handleServicePublishReady(service);
  }
  void onServicePublishReady() override { owner_->handleServicePublishReady(); }
};

class MountsRegistrySm::OobStatusReactor
    : public Vesk::OwnedReactor<ControllerOob::Status::NotifieeConst, MountsRegistrySm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onEstablished() override { owner_->handleSwitchConnection(); }
  void onInactive(SystemId const& systemId) override { owner_->handleInactivePeer(systemId); }
};

class MountsRegistrySm::PeerTableReactor
    : public Vesk::OwnedReactor<PeerTable::NotifieeConst, MountsRegistrySm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onPeer(SystemId const& systemId) override { owner_->handlePeer(systemId); }
  void onPeer() override { owner_->handlePeer(); }
};

MountsRegistrySm::MountsRegistrySm(
    Vesk::Ptr<MountsRegistry> const& mountsRegistry,
    Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
    Vesk::Ptr<Heartbeat::Config const> const& heartbeatConfig,
    Vesk::Ptr<Vesk::Dir> const& serviceMountStatusDir,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus)
    : mountsRegistry_(mountsRegistry),
      oobStatus_(oobStatus),
      heartbeatConfig_(heartbeatConfig),
      serviceMountStatusDir_(serviceMountStatusDir),
      controllerdbPublishStatus_(controllerdbPublishStatus),
      peerTable_(oobStatus ? oobStatus->peerTable() : nullptr),
      mountsRegistryEntrySm_(typeName, "mountsRegistryEntrySm"),
      publishRegistryEntrySm_(typeName, "publishRegistryEntrySm"),
      connectionServiceStatusDirSm_(typeName, "connectionServiceStatusDirSm") {
  if (mountsRegistry_) {
    registryReactor_ = std::make_unique<RegistryReactor>(this);
    registryReactor_->notifierIs(mountsRegistry_);
  }
  if (oobStatus_) {
    oobStatusReactor_ = std::make_unique<OobStatusReactor>(this);
    oobStatusReactor_->notifierIs(oobStatus_);
  }
  handleMountEntry();
  handlePublishEntry();
  if (peerTable_) {
    peerTableReactor_ = std::make_unique<PeerTableReactor>(this);
    peerTableReactor_->notifierIs(peerTable_);
  }
  handleInitialized();
}

MountsRegistrySm::~MountsRegistrySm() {
  auto held = machineOfRegistry().find(mountsRegistry_.ptr());
  if (held != machineOfRegistry().end() && held->second == this) machineOfRegistry().erase(held);
}

Vesk::Ptr<MountsRegistryEntrySm> MountsRegistrySm::mountsRegistryEntrySm(
    Vesk::Name const& name) const {
  return mountsRegistryEntrySm_(name);
}

Vesk::Ptr<PublishRegistryEntrySm> MountsRegistrySm::publishRegistryEntrySm(
    Vesk::Name const& name) const {
  return publishRegistryEntrySm_(name);
}

Vesk::Ptr<ConnectionServiceStatusDirSm> MountsRegistrySm::connectionServiceStatusDirSm(
    Vesk::Name const& connection) const {
  return connectionServiceStatusDirSm_(connection);
}

Vesk::Ptr<MountsRegistrySm> mountsRegistrySmFactory(
    Vesk::Ptr<MountsRegistry> const& mountsRegistry,
    Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
    Vesk::Ptr<Heartbeat::Config const> const& heartbeatConfig,
    Vesk::Ptr<Vesk::Dir> const& serviceMountStatusDir,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus) {
  auto held = machineOfRegistry().find(mountsRegistry.ptr());
  if (held != machineOfRegistry().end()) {
    Vesk::checkReinstantiation(*held->second, mountsRegistry, oobStatus, heartbeatConfig,
                               serviceMountStatusDir, controllerdbPublishStatus);
    return Vesk::Ptr<MountsRegistrySm>(held->second);
  }
  Vesk::Ptr<MountsRegistrySm> made(new MountsRegistrySm(mountsRegistry, oobStatus, heartbeatConfig,
                                                        serviceMountStatusDir,
                                                        controllerdbPublishStatus));
  if (mountsRegistry) machineOfRegistry()[mountsRegistry.ptr()] = made.ptr();
  return made;
}

void MountsRegistrySm::handleMountEntry(Vesk::Name const& name) {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleMountEntry", " name:", name);
  if (Vesk::Ptr<MountsRegistryEntry> entry = mountsRegistry_->mountEntry(name)) {
    VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleMountEntry", " Remote Path:", name);
    mountsRegistryEntrySm_.is(name, entry, oobStatus_, serviceMountStatusDir_, this);
  } else if (mountsRegistryEntrySm_(name)) {
    VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleMountEntry",
               " Deleting registry entry sm for :", name);
    mountsRegistryEntrySm_.cleanupAndDel(name);
  }
}

void MountsRegistrySm::handleMountEntry() {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleMountEntry", "()");
  if (!mountsRegistry_) return;
  for (auto const& [name, entry] : mountsRegistry_->mountEntryMembers()) handleMountEntry(name);
}

void MountsRegistrySm::handlePeer(SystemId const& systemId) {
  Vesk::String connection = systemId.stringValue();
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handlePeer", " peer:", connection);
  Vesk::Ptr<Peer> peer = peerTable_ ? peerTable_->peer(systemId) : nullptr;
  if (peer) {
    VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handlePeer", " peer:", connection, " added");
    if (controllerdbPublishStatus_) controllerdbPublishStatus_->systemIs(systemId);
    if (peer->serviceStatusDir()) {
      connectionServiceStatusDirSm_.is(Vesk::Name(connection), Vesk::Name(connection),
                                       peer->serviceStatusDir(), this);
    }
    return;
  }
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handlePeer", " peer:", connection, " removed");
  if (controllerdbPublishStatus_) controllerdbPublishStatus_->systemDel(systemId);
  connectionServiceStatusDirSm_.cleanupAndDel(Vesk::Name(connection));
}

// ---- publish entries ---------------------------------------------------------------------

void MountsRegistrySm::handlePublishEntry(Vesk::Name const& name) {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handlePublishEntry", " name:", name);
  Vesk::Ptr<PublishRegistryEntry> pe = mountsRegistry_->publishEntry(name);
  if (!pe) {
    Vesk::Ptr<PublishRegistryEntrySm> gone = publishRegistryEntrySm_(name);
    if (!gone) return;
    VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handlePublishEntry",
               " Deleting publish sm for: ", name);
    Vesk::String const service = gone->publishEntry()->serviceName();
    publishRegistryEntrySmDel(name);
    // The entry may have been the last of its service not yet processed.
    handleServicePublishReady(service);
    return;
  }
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handlePublishEntry", " Controller Path:", name);
  Vesk::Ptr<PublishRegistryEntrySm> preSm = publishRegistryEntrySm_(name);
  VESK_ASSERT_MSG(!preSm || pe->serviceName() == preSm->publishEntry()->serviceName(),
                  "!preSm || pe->serviceName() == preSm->publishEntry()->serviceName()");
  // An entry deleted and made again while notifications were held back gets a machine of its
  // own; the old one withdraws what it published first.
  if (preSm) {
    if (preSm->publishEntry() == pe) return;
    publishRegistryEntrySmDel(name);
  }
  Vesk::Ptr<PublishRegistryEntrySm> sm =
      publishRegistryEntrySm_.is(name, pe, oobStatus_, controllerdbPublishStatus_, this);
  publishSmsByService_.is(realServiceOf(pe->serviceName()), name, sm);
  // The machine processed its entry while it was being made, before it could be found here.
  if (sm->processed()) handleServicePublishReady(pe->serviceName());
}

void MountsRegistrySm::handlePublishEntry() {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handlePublishEntry", "()");
  if (!mountsRegistry_) return;
  for (auto const& [name, entry] : mountsRegistry_->publishEntryMembers()) handlePublishEntry(name);
}

void MountsRegistrySm::publishRegistryEntrySmDel(Vesk::Name const& name) {
  Vesk::Ptr<PublishRegistryEntrySm> sm = publishRegistryEntrySm_(name);
  if (!sm) return;
  publishSmsByService_.del(realServiceOf(sm->publishEntry()->serviceName()), name);
  publishRegistryEntrySm_.cleanupAndDel(name);
}

void MountsRegistrySm::handleServicePublishReady(Vesk::String const& service) {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleServicePublishReady", " service:", service);
  if (!controllerdbPublishStatus_ || !mountsRegistry_) return;
  bool const* wanted = mountsRegistry_->servicePublishReadyMembers().find(service);
  bool const* held = controllerdbPublishStatus_->servicePublishReadyMembers().find(service);
  if (!wanted) {
    if (held) controllerdbPublishStatus_->servicePublishReadyDel(service);
    return;
  }
  if (held && *held == *wanted) return;
  if (*wanted && !publishEntriesProcessed(service)) return;
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleServicePublishReady",
             "Setting publishReady for ", service);
  controllerdbPublishStatus_->servicePublishReadyIs(service, *wanted);
}

void MountsRegistrySm::handleServicePublishReady() {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleServicePublishReady", "()");
  if (!mountsRegistry_) return;
  for (auto const& [service, flag] : mountsRegistry_->servicePublishReadyMembers()) {
    handleServicePublishReady(service);
  }
}

bool MountsRegistrySm::publishEntriesProcessed(Vesk::String const& service) const {
  auto const* sms = publishSmsByService_.find(realServiceOf(service));
  if (!sms) return true;
  for (auto const& [name, sm] : *sms) {
    if (sm->publishEntry()->serviceName() != service || sm->processed()) continue;
    VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleServicePublishReady", "Publish entry ",
               name, " not yet processed");
    return false;
  }
  return true;
}

// ---- peers --------------------------------------------------------------------------------

void MountsRegistrySm::handlePeer() {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handlePeer", "()");
  if (!peerTable_) return;
  for (auto const& [systemId, peer] : peerTable_->peerMembers()) handlePeer(systemId);
}

void MountsRegistrySm::handleInactivePeer(SystemId const& systemId) {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleInactivePeer", "( ", systemId.stringValue(),
             " )");
  if (oobStatus_ && oobStatus_->inactive(systemId)) {
    for (auto const& [name, entrySm] : mountsRegistryEntrySm_.members()) {
      entrySm->doDisconnectSwitch(systemId);
      entrySm->updateSystemStatus(systemId);
    }
  } else if (!peerTable_ || !peerTable_->peer(systemId)) {
    for (auto const& [name, entrySm] : mountsRegistryEntrySm_.members()) {
      entrySm->handleSwitchConnection(systemId);
    }
  }
}

void MountsRegistrySm::handleSwitchConnection(SystemId const& systemId) {
  entriesSwitchConnection(systemId);
  for (auto const& [name, publishSm] : publishRegistryEntrySm_.members()) {
    publishSm->handleSwitchConnection(systemId);
  }
}

void MountsRegistrySm::entriesSwitchConnection(SystemId const& systemId) {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleSwitchConnection",
             " peer:", systemId.stringValue());
  for (auto const& [name, entrySm] : mountsRegistryEntrySm_.members()) {
    entrySm->handleSwitchConnection(systemId);
  }
}

// A publish machine's own full evaluation covers every peer, its inactive systems and its
// local entity's presence, and is what marks its entry processed.
void MountsRegistrySm::handleSwitchConnection() {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleSwitchConnection", "()");
  if (peerTable_) {
    for (auto const& [systemId, peer] : peerTable_->peerMembers()) {
      entriesSwitchConnection(systemId);
    }
  }
  for (auto const& [name, publishSm] : publishRegistryEntrySm_.members()) {
    publishSm->handleSwitchConnection();
  }
}

void MountsRegistrySm::handleServiceVersion(Vesk::Name const& connection,
                                            Vesk::Name const& service) {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleServiceVersion", " connection:", connection,
             " service:", service);
  SystemId systemId;
  if (!systemOfConnection(connection, systemId)) return;
  handleServiceSwitchConnection(systemId, service);
}

void MountsRegistrySm::handleServiceSwitchConnection(SystemId const& systemId,
                                                     Vesk::String const& service) {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleServiceSwitchConnection",
             " peer:", systemId.stringValue(), " service:", service);
  Vesk::Name const real = realServiceOf(service);
  if (auto const* entries = entriesByService_.find(real)) {
    for (auto const& [name, entrySm] : *entries) {
      VESK_ASSERT_MSG(entrySm->registryEntry(), "registryEntry");
      entrySm->handleSwitchConnection(systemId);
    }
  }
  if (auto const* sms = publishSmsByService_.find(real)) {
    for (auto const& [name, publishSm] : *sms) {
      VESK_ASSERT_MSG(publishSm->publishEntry(), "registryEntry");
      publishSm->handleSwitchConnection(systemId);
    }
  }
}

Vesk::Name MountsRegistrySm::realServiceOf(Vesk::String const& service) const {
  if (!isProxyServiceName(service)) return service;
  auto [real, isNew] = realServiceOfProxy_.emplace(Vesk::Name(service));
  if (isNew) *real = realServiceNameOfProxy(service);
  return *real;
}

void MountsRegistrySm::mounterServiceIs(Vesk::String const& mounterService,
                                        MountsRegistryEntrySm* entrySm) {
  entriesByService_.is(realServiceOf(mounterService), entrySm->registryEntry()->name(),
                       Vesk::Ptr<MountsRegistryEntrySm>(entrySm));
}

void MountsRegistrySm::mounterServiceDel(Vesk::String const& mounterService,
                                         MountsRegistryEntrySm* entrySm) {
  entriesByService_.del(realServiceOf(mounterService), entrySm->registryEntry()->name());
}

size_t MountsRegistrySm::entriesOfService(Vesk::String const& service) const {
  auto const* entries = entriesByService_.find(realServiceOf(service));
  return entries ? entries->size() : 0;
}

uint32_t MountsRegistrySm::negotiatedServiceVersionForConnection(
    Vesk::String const& service, Vesk::String const& connection) const {
  SystemId systemId;
  if (!systemOfConnection(connection, systemId)) return 0;  // names no peer
  return negotiatedServiceVersionForSystem(service, systemId);
}

uint32_t MountsRegistrySm::negotiatedServiceVersionForSystem(Vesk::String const& service,
                                                             SystemId const& systemId,
                                                             VersionHints hints) const {
  Vesk::String const& connection = systemId.stringValue();
  VESK_TRACE(traceHandle, 8, "MountsRegistrySm::negotiatedServiceVersionForConnection",
             " service:", service, " connection:", connection);
  Vesk::Name const realService = realServiceOf(service);
  VersionReading reading;
  uint64_t const changes = Vesk::countedRecordChanges();
  if (hints.memo && hints.memo->changes == changes) {
    reading = hints.memo->reading;
  } else {
    reading = hints.peer ? versionInRecords(realService, *hints.peer)
                         : versionInRecords(realService, systemId);
    if (hints.memo) *hints.memo = {changes, reading};
  }
  if (!reading.peerKnown) return 0;
  if (reading.version != 0) {
    VESK_TRACE(traceHandle, 5, "MountsRegistrySm::negotiatedServiceVersionForConnection",
               " negotiated service version for ", connection, " for service ", realService, " = ",
               reading.version);
    return reading.version;
  }
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::negotiatedServiceVersionForConnection",
             " no version negotiated for ", connection, " for service ", realService);
  return 0;
}

VersionReading MountsRegistrySm::versionInRecords(Vesk::Name const& realService,
                                                  SystemId const& systemId) const {
  // Read through the records without holding them: a reference taken here would write
  // into records that are otherwise only read, and rarely in cache.
  Vesk::Owned<Peer> const* peer = peerTable_ ? peerTable_->peerMembers().find(systemId) : nullptr;
  return peer ? versionInRecords(realService, *peer->ptr()) : VersionReading{};
}

VersionReading MountsRegistrySm::versionInRecords(Vesk::Name const& realService, Peer const& peer) {
  // A version counts only once its negotiation has completed and found it compatible.
  ServiceStatusDir const* dir = peer.serviceStatusDir().ptr();
  Vesk::Owned<ServiceStatusV1> const* status =
      dir ? dir->serviceMembers().find(realService) : nullptr;
  ServiceVersionStatusV1 const* version =
      status && (*status)->enabled() ? (*status)->versionStatus().ptr() : nullptr;
  bool const negotiated =
      version && version->versionNegotiationComplete() && version->versionCompatible();
  return {true, negotiated ? version->negotiatedVersion() : 0};
}

void MountsRegistrySm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::handleInitialized", "()");
  if (initialized_) return;
  initialized_ = true;
  handleSwitchConnection();
}

void MountsRegistrySm::doCleanup() {
  VESK_TRACE(traceHandle, 5, "MountsRegistrySm::doCleanup");
  registryReactor_.reset();
  oobStatusReactor_.reset();
  peerTableReactor_.reset();
  mountsRegistryEntrySm_.cleanupAndDelAll();
  for (Vesk::Name const& name : publishRegistryEntrySm_.keys()) publishRegistryEntrySmDel(name);
  connectionServiceStatusDirSm_.cleanupAndDelAll();
  mountGroupSummaries_.clear();
}

}  // namespace Controller
