// MountsRegistryEntrySm: decides, for every connected system, whether one registry entry's
// path is mounted from it.
//
// It owns one mount machine (with its data record and a reactor on the data's mountState)
// per system it mounts from, one MounterConfigSm per mounter, and the union of the
// mounters' filters: connectionFilter (system name -> number of mounters whose group
// includes it) and versionFilter (service -> accepted versions). It writes each interested
// service's view of the result into that service's mount status.
#pragma once

#include <array>
#include <tuple>

#include "framework/core/LiveCount.h"
#include "framework/core/Machine.h"
#include "registry/MountGroupSummary.h"
#include "registry/MountsRegistry.h"
#include "registry/VersionMemo.h"

namespace Controller {

class MountsRegistrySm;
class MounterConfigSm;

class MountsRegistryEntrySm : public Vesk::PtrInterface {
 public:
  static constexpr char const* typeName = "Controller::MountsRegistryEntrySm";
  static constexpr std::array<char const*, 4> inputNames{
      "registryEntry", "oobStatus", "serviceMountStatusDir", "mountsRegistrySm"};

  MountsRegistryEntrySm(Vesk::Ptr<MountsRegistryEntry> const& registryEntry,
                        Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
                        Vesk::Ptr<Vesk::Dir> const& serviceMountStatusDir,
                        MountsRegistrySm* mountsRegistrySm);
  ~MountsRegistryEntrySm() override;
  auto inputs() const {
    return std::tie(registryEntry_, oobStatus_, serviceMountStatusDir_, mountsRegistrySm_);
  }

  Vesk::Ptr<MountsRegistryEntry> const& registryEntry() const { return registryEntry_; }
  MountsRegistrySm* mountsRegistrySm() const { return mountsRegistrySm_; }
  bool initialized() const { return initialized_; }
  bool wildCardMount() const { return wildCardMount_; }
  // How many per-system decisions the machine has made.
  uint64_t decisions() const { return decisions_; }

  // The union filters, kept by the MounterConfigSm children.
  uint32_t connectionFilter(Vesk::String const& connection) const;
  void connectionFilterIs(Vesk::String const& connection, uint32_t count);
  void connectionFilterDel(Vesk::String const& connection);
  size_t connectionFilterSize() const { return connectionFilter_.size(); }
  Vesk::Ptr<ServiceVersionFilter> versionFilter(Vesk::Name const& service) const;
  Vesk::Ptr<ServiceVersionFilter> versionFilterIs(Vesk::Name const& service);
  void versionFilterDel(Vesk::Name const& service);
  size_t versionFilterSize() const { return versionFilter_.size(); }

  Vesk::Ptr<MountSm> mountSm(SystemId const& systemId) const;
  Vesk::Ptr<MountSmData> mountSmData(SystemId const& systemId) const;
  size_t mountSmSize() const;
  Vesk::Ptr<MounterConfigSm> mounterConfigSm(Vesk::String const& service) const;
  size_t mounterConfigSmSize() const { return mounterConfigSm_.size(); }

  void handleMounter(Vesk::String const& serviceKey);
  void handleMounter();
  void evaluateMounters();
  void handleSwitchConnection(SystemId const& systemId);
  void handleSwitchConnection();
  void handleNamedSwitchConnection(Vesk::String const& connectionName);
  bool canMountFromConnection(Vesk::String const& connection);
  bool connectionMatchesVersionFilter(Vesk::String const& connection);
  bool matchingServiceVersionFilter(Vesk::String const& service, Vesk::String const& connection);
  // The same decisions for a system whose identity the caller holds: a connection is named
  // by its system's text form, so these skip parsing the name back.
  bool canMountFromSystem(SystemId const& systemId);
  // `peer`, when given, is the system's peer, which the version reads then take as found.
  bool systemMatchesVersionFilter(SystemId const& systemId, Peer const* peer = nullptr);
  bool matchingServiceVersionFilter(Vesk::String const& service, SystemId const& systemId,
                                    Peer const* peer = nullptr);
  bool mounterIsInterestedInConnection(Mounter const& mounter, Vesk::String const& connection);
  // `hints.memo`, when given, keeps the mounter's negotiated version on the system between
  // calls; `hints.peer` is the system's peer, when the caller has found it.
  bool mounterIsInterestedInConnection(Mounter const& mounter, SystemId const& systemId,
                                       VersionHints hints = {});
  bool preserveMountsOnDisconnect(SystemId const& systemId);
  void doConnectSwitch(SystemId const& systemId);
  void doDisconnectSwitch(SystemId const& systemId);
  void updateMountersStatus(SystemId const& systemId, MountState state);
  void updateMounterStatus(Mounter const& mounter, SystemId const& systemId, MountState state);
  void handleMountState(Mounter const& mounter, SystemId const& systemId, MountState state);
  // `place` is where the group's summary was last found, kept by the caller (or null).
  void updateMountGroupMountState(ServiceMountGroupConfig const& groupConfig,
                                  ServiceMountGroupStatus& groupStatus, MountState state,
                                  MountGroupSummaries::Place* place = nullptr);
  void updateSystemStatus(SystemId const& systemId);
  // A mounter's own interest in a system has changed while the entry's decision has not (its
  // system filter took the system in or out while another mounter's filter keeps it in the
  // union): rewrites that mounter's status of the system without deciding it again.
  void handleMounterInterest(Mounter const& mounter, Vesk::String const& connection);
  void handleInitialized();
  void doCleanup();

  // While a batch is open, full re-evaluations (handleSwitchConnection()) are deferred, and
  // one runs when the last batch closes if any was asked for. A mounter that folds a whole
  // filter in or out thus costs one pass over the systems instead of one per member.
  class ReevaluationBatch {
   public:
    explicit ReevaluationBatch(MountsRegistryEntrySm& sm) : sm_(sm) { ++sm_.batchDepth_; }
    ReevaluationBatch(ReevaluationBatch const&) = delete;
    ReevaluationBatch& operator=(ReevaluationBatch const&) = delete;
    ~ReevaluationBatch();

   private:
    MountsRegistryEntrySm& sm_;
  };

 private:
  class EntryReactor;
  class MountStateReactor;
  friend class MountStateReactor;

  // One mounter's status records for one system: the group status in the service's system
  // status, and the entry's mount status in that. A mount's reactor keeps them between state
  // changes, so that a change of state does not look them up again.
  struct StatusRecords {
    Vesk::Ptr<Mounter const> mounter;
    Vesk::Ptr<ServiceMountGroupStatus> group;
    Vesk::Ptr<MountStatus> mount;
    // The mounter's negotiated version on the system, for its interest in the system.
    VersionMemo version;
    // Where the registry keeps the group's summary.
    MountGroupSummaries::Place summaryPlace = MountGroupSummaries::kNoPlace;
    // Whether the group status is still in a system status of the service. A system status
    // that is destroyed lets go of its groups (their parent becomes null), so a parent that
    // is set is alive.
    bool linkedTo(ServiceMountStatus const& service) const {
      Vesk::Entity const* system = group ? group->parentRaw() : nullptr;
      return system && system->parentRaw() == &service;
    }
    [[no_unique_address]] Vesk::LiveCount<StatusRecords> liveCount_;
  };

  Vesk::Ptr<PeerTable const> peerTable() const;
  // handleSwitchConnection(systemId) for a system whose peer (or null: not in the table) and
  // mount (or null) the caller has already found, as the walk over the whole peer table
  // has. The decision holds the mount: nothing in it deletes one before its end.
  void evaluateSystem(SystemId const& systemId, Peer const* peer,
                      Vesk::Ptr<MountStateReactor> const& mount);
  // canMountFromSystem for a system whose mount (or null) and peer the caller holds: the
  // mount's status records keep the mounters' negotiated versions between decisions, and the
  // peer spares the versions' reading a search of the peer table.
  bool canMountFromSystem(SystemId const& systemId, MountStateReactor* mount, Peer const* peer);
  // The connect and disconnect of a decision, with the mount (or null) and the peer it found.
  void doConnectSwitch(SystemId const& systemId, Peer const& peer, MountStateReactor* mount);
  void doDisconnectSwitch(SystemId const& systemId, MountStateReactor* mount, Peer const* peer);
  // updateSystemStatus for a system whose presence in the peer table and mount (or null)
  // the caller has found; only a present system's mount is read.
  void updateSystemStatus(SystemId const& systemId, MountStateReactor* mount, bool present);
  bool hasMounterCountingFor(Vesk::String const& service) const;
  void updateMountersStatus(SystemId const& systemId, MountState state, MountStateReactor* reactor,
                            Peer const* peer = nullptr);
  void updateMounterStatus(Mounter const& mounter, SystemId const& systemId, MountState state,
                           MountStateReactor* reactor, Peer const* peer = nullptr);
  Vesk::Ptr<ServiceMountGroupStatus> groupStatus(Mounter const& mounter, SystemId const& systemId,
                                                 StatusRecords* records) const;
  Vesk::Ptr<ServiceMountGroupStatus> remadeGroupStatus(Mounter const& mounter,
                                                       SystemId const& systemId,
                                                       StatusRecords* records, Peer const* peer);
  // handleMountState with the records the caller has already found.
  void handleMountState(Mounter const& mounter, SystemId const& systemId, MountState state,
                        ServiceMountGroupStatus& group, MountStatus& status,
                        MountStateReactor* reactor, StatusRecords* records);
  Vesk::Ptr<MountStateReactor> mountSmDataSmIs(Vesk::Ptr<MountSmData> const& data);
  // The mount machine, its data and its reactor go together.
  void mountSmDel(SystemId const& systemId);
  Vesk::Ptr<ServiceMountGroupStatus> groupStatus(Mounter const& mounter,
                                                 SystemId const& systemId) const;

  Vesk::Ptr<MountsRegistryEntry> const registryEntry_;
  Vesk::Ptr<ControllerOob::Status const> const oobStatus_;
  Vesk::Ptr<Vesk::Dir> const serviceMountStatusDir_;
  MountsRegistrySm* const mountsRegistrySm_;
  Vesk::MachineCollection<Vesk::String, MounterConfigSm> mounterConfigSm_;
  Vesk::HashMap<Vesk::String, uint32_t> connectionFilter_;
  Vesk::HashMap<Vesk::Name, Vesk::Ptr<ServiceVersionFilter>> versionFilter_;
  // One record per system mounted from: its mount machine, the machine's data and the
  // reactor on the data (the mountSm, mountSmData and mountSmDataSm collections).
  Vesk::MachineCollection<SystemId, MountStateReactor> mountSmDataSm_;
  std::unique_ptr<EntryReactor> entryReactor_;
  bool wildCardMount_ = false;
  bool initialized_ = false;
  bool cleaningUp_ = false;
  uint64_t decisions_ = 0;
  uint32_t batchDepth_ = 0;
  bool reevaluationPending_ = false;
  [[no_unique_address]] Vesk::LiveCount<MountsRegistryEntrySm> liveCount_;
};

Vesk::Ptr<MountsRegistryEntrySm> mountsRegistryEntrySmFactory(
    Vesk::Ptr<MountsRegistryEntry> const& registryEntry,
    Vesk::Ptr<ControllerOob::Status const> const& oobStatus,
    Vesk::Ptr<Vesk::Dir> const& serviceMountStatusDir, MountsRegistrySm* mountsRegistrySm);

}  // namespace Controller
