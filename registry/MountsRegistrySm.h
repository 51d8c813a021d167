// MountsRegistrySm: the top machine of the registry.
//
// It watches the registry, the out-of-band status and its peer table, and turns their
// changes into work for its children: one MountsRegistryEntrySm per mount entry, one
// PublishRegistryEntrySm per publish entry and one ConnectionServiceStatusDirSm per connected
// system. It answers the question every child asks: which version of a service was
// negotiated on a given connection (0 for none). It copies each service's publish-ready flag
// from the registry into the controller database's publish status once every publish entry
// of the service has been processed by its machine.
//
// The hosting agent creates it once, through mountsRegistrySmFactory, and keeps it. The
// factory hands out one machine per registry: asked again for the same registry, it returns
// that machine when every other input is the same, and refuses with the reinstantiation text
// otherwise.
#pragma once

#include <array>
#include <tuple>

#include "framework/core/Machine.h"
#include "registry/MachinesByService.h"
#include "registry/MountGroupSummary.h"
#include "registry/MountsRegistry.h"
#include "registry/VersionMemo.h"

namespace Controller {

class MountsRegistryEntrySm;
class PublishRegistryEntrySm;
class ConnectionServiceStatusDirSm;

class MountsRegistrySm : public Vesk::PtrInterface {
 public:
  static constexpr char const* typeName = "Controller::MountsRegistrySm";
  static constexpr std::array<char const*, 5> inputNames{"mountsRegistry", "oobStatus",
                                                         "heartbeatConfig", "serviceMountStatusDir",
                                                         "controllerdbPublishStatus"};

  MountsRegistrySm(Vesk::Ptr<MountsRegistry> const& mountsRegistry,
                   Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
                   Vesk::Ptr<Heartbeat::Config const> const& heartbeatConfig,
                   Vesk::Ptr<Vesk::Dir> const& serviceMountStatusDir,
                   Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus);
  ~MountsRegistrySm() override;
  auto inputs() const {
    return std::tie(mountsRegistry_, oobStatus_, heartbeatConfig_, serviceMountStatusDir_,
                    controllerdbPublishStatus_);
  }

  Vesk::Ptr<MountsRegistry> const& mountsRegistry() const { return mountsRegistry_; }
  Vesk::Ptr<ControllerOob::Status const> const& oobStatus() const { return oobStatus_; }
  Vesk::Ptr<Heartbeat::Config const> const& heartbeatConfig() const { return heartbeatConfig_; }
  Vesk::Ptr<Vesk::Dir> const& serviceMountStatusDir() const { return serviceMountStatusDir_; }
  Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus() const {
    return controllerdbPublishStatus_;
  }
  Vesk::Ptr<PeerTable const> const& peerTable() const { return peerTable_; }
  bool initialized() const { return initialized_; }

  Vesk::Ptr<MountsRegistryEntrySm> mountsRegistryEntrySm(Vesk::Name const& name) const;
  Vesk::MachineCollection<Vesk::Name, MountsRegistryEntrySm> const& mountsRegistryEntrySms() const {
    return mountsRegistryEntrySm_;
  }
  Vesk::Ptr<PublishRegistryEntrySm> publishRegistryEntrySm(Vesk::Name const& name) const;
  Vesk::MachineCollection<Vesk::Name, PublishRegistryEntrySm> const& publishRegistryEntrySms()
      const {
    return publishRegistryEntrySm_;
  }
  Vesk::Ptr<ConnectionServiceStatusDirSm> connectionServiceStatusDirSm(
      Vesk::Name const& connection) const;
  size_t connectionServiceStatusDirSmSize() const { return connectionServiceStatusDirSm_.size(); }

  void handleMountEntry(Vesk::Name const& name);
  void handleMountEntry();
  void handlePublishEntry(Vesk::Name const& name);
  void handlePublishEntry();
  void handleServicePublishReady(Vesk::String const& service);
  void handleServicePublishReady();
  void handlePeer(SystemId const& systemId);
  void handlePeer();
  void handleInactivePeer(SystemId const& systemId);
  void handleSwitchConnection(SystemId const& systemId);
  void handleSwitchConnection();
  void handleServiceVersion(Vesk::Name const& connection, Vesk::Name const& service);
  void handleServiceSwitchConnection(SystemId const& systemId, Vesk::String const& service);
  uint32_t negotiatedServiceVersionForConnection(Vesk::String const& service,
                                                 Vesk::String const& connection) const;
  // The same for a system whose identity the caller holds: no connection name to parse. With
  // a memo, a reading the memo holds from an unchanged count is used instead of the records,
  // and a fresh one is kept in it; with the peer, the records are read from it without a
  // search of the peer table. The traces are the same either way.
  uint32_t negotiatedServiceVersionForSystem(Vesk::String const& service, SystemId const& systemId,
                                             VersionHints hints = {}) const;
  // The entries that have a mounter counting for a (real) service, kept by the entry
  // machines as their mounters come and go, so that a version report on one connection
  // visits only the entries it concerns.
  void mounterServiceIs(Vesk::String const& mounterService, MountsRegistryEntrySm* entrySm);
  void mounterServiceDel(Vesk::String const& mounterService, MountsRegistryEntrySm* entrySm);
  size_t entriesOfService(Vesk::String const& service) const;
  // The real service a mounter's service counts for: itself, or the service it proxies.
  Vesk::Name realServiceOf(Vesk::String const& service) const;
  VersionReading versionInRecords(Vesk::Name const& realService, SystemId const& systemId) const;
  static VersionReading versionInRecords(Vesk::Name const& realService, Peer const& peer);
  // The summary state of every mount group status the entry machines write.
  MountGroupSummaries& mountGroupSummaries() { return mountGroupSummaries_; }
  void handleInitialized();
  // Cleans up and drops every child, so that nothing the machine made outlives it.
  void doCleanup();

 private:
  class RegistryReactor;
  class OobStatusReactor;
  class PeerTableReactor;

  void publishRegistryEntrySmDel(Vesk::Name const& name);
  // handleSwitchConnection(systemId) of the mount entries' machines alone.
  void entriesSwitchConnection(SystemId const& systemId);
  // Whether every publish entry of the service has been processed by its machine; traces the
  // first that has not.
  bool publishEntriesProcessed(Vesk::String const& service) const;

  Vesk::Ptr<MountsRegistry> const mountsRegistry_;
  Vesk::Ptr<ControllerOob::Status const> const oobStatus_;
  Vesk::Ptr<Heartbeat::Config const> const heartbeatConfig_;
  Vesk::Ptr<Vesk::Dir> const serviceMountStatusDir_;
  Vesk::Ptr<Controllerdb::PublishStatus> const controllerdbPublishStatus_;
  Vesk::Ptr<PeerTable const> peerTable_;
  Vesk::MachineCollection<Vesk::Name, MountsRegistryEntrySm> mountsRegistryEntrySm_;
  Vesk::MachineCollection<Vesk::Name, PublishRegistryEntrySm> publishRegistryEntrySm_;
  Vesk::MachineCollection<Vesk::Name, ConnectionServiceStatusDirSm> connectionServiceStatusDirSm_;
  std::unique_ptr<RegistryReactor> registryReactor_;
  std::unique_ptr<OobStatusReactor> oobStatusReactor_;
  std::unique_ptr<PeerTableReactor> peerTableReactor_;
  MachinesByService<MountsRegistryEntrySm> entriesByService_;
  // The publish machines by the real service their entry counts for.
  MachinesByService<PublishRegistryEntrySm> publishSmsByService_;
  MountGroupSummaries mountGroupSummaries_;
  // Real service names of the proxy names seen so far, so that a lookup does not build one.
  mutable Vesk::HashMap<Vesk::Name, Vesk::Name> realServiceOfProxy_;
  bool initialized_ = false;
  [[no_unique_address]] Vesk::LiveCount<MountsRegistrySm> liveCount_;
};

Vesk::Ptr<MountsRegistrySm> mountsRegistrySmFactory(
    Vesk::Ptr<MountsRegistry> const& mountsRegistry,
    Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
    Vesk::Ptr<Heartbeat::Config const> const& heartbeatConfig,
    Vesk::Ptr<Vesk::Dir> const& serviceMountStatusDir,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus);

}  // namespace Controller
