// Sim::World: one simulated controller around the mounts registry.
//
// The world owns every record the registry reads from its sibling components (out-of-band
// configuration and status with the peer table, heartbeat configuration, the controller
// database's status and publish status), the directories services write their declarations
// into, the registry itself, a ManualClock installed as the current activity's clock and
// the mount driver installed for mount machines. Its operations are what those siblings
// and services do: connect and remove switches, negotiate service versions, mark switches
// inactive, change leaders, declare mounts and publishes, and keep the local state tree
// whose entities services publish. It runs no state machine of its own.
//
// TYPICAL USAGE:
//   Sim::World world;                                  // virtual time 0, automatic mounts
//   Controller::SystemId sw = world.connectSwitch(1);
//   world.negotiate(sw, "Foo", 2);
//   Sim::ServiceDeclaration foo = world.declareService("FooAgent", "Foo");
//   foo.mountIs("group", "/state/foo");
//   world.runUntilQuiet(60);
//
// Contract: one world at a time per thread of machines (it replaces the current activity
// and the installed mount driver, restoring both when destroyed, so worlds must be
// destroyed in reverse order of creation). negotiate, renegotiate, serviceDel,
// serviceEnabledIs and removeSwitch on a system that is not connected throw
// Vesk::RangeException; inactive marks may name any system. The local tree's operations take
// full names ("/controller/local/a/b") and throw Vesk::RangeException for a path outside the
// controller's tree or one that runs through an entry that is not a directory.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "framework/core/Dir.h"
#include "framework/records/ControllerRecords.h"
#include "framework/records/MountDriver.h"
#include "framework/time/Activity.h"
#include "framework/time/ManualClock.h"
#include "model/MountInterface.h"
#include "registry/MountsRegistry.h"
#include "registry/MountsRegistrySm.h"
#include "sim/AutoMountDriver.h"
#include "sim/LocalState.h"
#include "sim/PublishDeclaration.h"
#include "sim/Rng.h"

namespace Sim {

enum class DriverKind { automatic, manual };

struct WorldOptions {
  uint64_t seed = 1;
  Vesk::Seconds startTime = 0.0;
  DriverKind driver = DriverKind::automatic;
  AutoMountOptions autoMount;
  Vesk::String remoteRootPath = "/remote";
  // The registry's and every connection's defaults.
  uint32_t reconnectRetries = 3;
  Vesk::Seconds mountTimeout = 30.0;
  Vesk::Seconds heartbeatInterval = 1.0;
  bool established = true;
  Vesk::String leaderGenId = "1";
};

// How a negotiation ends, as the connection's service status reports it.
struct Negotiation {
  bool complete = true;
  bool compatible = true;
  bool enabled = true;
};

// One service's mount declaration: its configuration and status records, under one agent
// name. The helpers write what a service writes, one record at a time.
class ServiceDeclaration {
 public:
  ServiceDeclaration() = default;
  ServiceDeclaration(Vesk::Ptr<Controller::ServiceMountConfig> config,
                     Vesk::Ptr<Controller::ServiceMountStatus> status)
      : config_(std::move(config)), status_(std::move(status)) {}

  Vesk::Ptr<Controller::ServiceMountConfig> const& config() const { return config_; }
  Vesk::Ptr<Controller::ServiceMountStatus> const& status() const { return status_; }
  Vesk::String const& serviceName() const { return config_->serviceName(); }

  // Creates the group unless it exists, then sets its preserve flag.
  Vesk::Ptr<Controller::ServiceMountGroupConfig> groupIs(
      Vesk::Name const& group, bool preserveMountsOnDisconnect = false) const;
  // A mount of the group (created if missing); targetMountPath defaults to remotePath.
  Vesk::Ptr<Controller::MountConfig> mountIs(Vesk::Name const& group, Vesk::Name const& remotePath,
                                             Vesk::String const& plovType = "Vesk::Dir",
                                             Vesk::String const& mountFlags = "",
                                             Vesk::String const& targetMountPath = "") const;
  // Fills the service's filter named after the group with the given members, then points
  // the group (created if missing) at it.
  Vesk::Ptr<Controller::MountFilterSystem> systemFilterIs(
      Vesk::Name const& group, std::vector<Controller::SystemId> const& systems) const;
  Vesk::Ptr<Controller::MountFilterServiceVersion> versionFilterIs(
      Vesk::Name const& group, std::vector<uint32_t> const& versions) const;

 private:
  Vesk::Ptr<Controller::ServiceMountConfig> config_;
  Vesk::Ptr<Controller::ServiceMountStatus> status_;
};

class World {
 public:
  explicit World(WorldOptions const& options = {});
  ~World();
  World(World const&) = delete;
  World& operator=(World const&) = delete;

  WorldOptions const& options() const { return options_; }
  Rng& rng() { return rng_; }

  // ---- time ------------------------------------------------------------------------------
  Vesk::Ptr<Vesk::ManualClock> const& clock() const { return clock_; }
  Vesk::Seconds now() const { return clock_->currentTime(); }
  // Each returns the number of timers fired.
  size_t advance(Vesk::Seconds dt) { return clock_->advanceBy(dt); }
  size_t advanceTo(Vesk::Seconds t) { return clock_->advanceTo(t); }
  // Runs timers in order until none is armed (true, the time left at the last one) or the
  // next one lies beyond maxSeconds from now (false, the time moved to that limit).
  bool runUntilQuiet(Vesk::Seconds maxSeconds);

  // ---- sibling records -------------------------------------------------------------------
  Vesk::Ptr<Controller::Heartbeat::Config> const& heartbeatConfig() const {
    return heartbeatConfig_;
  }
  Vesk::Ptr<ControllerOob::Config> const& oobConfig() const { return oobConfig_; }
  Vesk::Ptr<ControllerOob::Status> const& oobStatus() const { return oobStatus_; }
  Vesk::Ptr<Controller::PeerTable> const& peerTable() const { return peerTable_; }
  Vesk::Ptr<Controllerdb::Status> const& controllerdbStatus() const { return controllerdbStatus_; }
  Vesk::Ptr<Controllerdb::PublishStatus> const& publishStatus() const { return publishStatus_; }

  // ---- directories and the registry ------------------------------------------------------
  Vesk::Ptr<Vesk::Dir> const& rootDir() const { return rootDir_; }
  Vesk::Ptr<Vesk::Dir> const& mountConfigDir() const { return mountConfigDir_; }
  Vesk::Ptr<Vesk::Dir> const& mountStatusDir() const { return mountStatusDir_; }
  Vesk::Ptr<Vesk::Dir> const& publishConfigDir() const { return publishConfigDir_; }
  Vesk::Ptr<Vesk::Dir> const& publishStatusDir() const { return publishStatusDir_; }
  Vesk::Ptr<Vesk::Dir> const& proxyMountConfigDir() const { return proxyMountConfigDir_; }
  Vesk::Ptr<Vesk::Dir> const& proxyMountStatusDir() const { return proxyMountStatusDir_; }
  Vesk::Ptr<Vesk::Dir> const& registryDir() const { return registryDir_; }
  Vesk::Ptr<Vesk::Dir> const& mountRootDir() const { return mountRootDir_; }
  Vesk::Ptr<Controller::MountsRegistry> const& registry() const { return registry_; }

  // ---- the local state tree ----------------------------------------------------------------
  // "/controller/local", where the entities services publish usually live.
  Vesk::Ptr<Vesk::Dir> const& localDir() const { return localDir_; }
  // Each creates the entry at path unless one of its type exists, and the directories on the
  // way; an existing entry of another type is a name-in-use failure.
  Vesk::Ptr<LocalEntity> localEntityIs(Vesk::String const& path);
  Vesk::Ptr<Vesk::Dir> localDirIs(Vesk::String const& path);
  // Removes the entry at path, if any.
  void localEntityDel(Vesk::String const& path);

  // ---- the mount driver ------------------------------------------------------------------
  std::shared_ptr<Controller::MountDriver> const& driver() const { return driver_; }
  // Null unless the world runs that kind of driver.
  AutoMountDriver* autoMountDriver() const;
  ManualMountDriver* manualMountDriver() const;

  // ---- the registry machines ---------------------------------------------------------------
  // Creates the registry machine over the world's records, as the hosting agent does. The
  // caller keeps it and tells it doCleanup() before dropping it; the world itself starts no
  // machine.
  Vesk::Ptr<Controller::MountsRegistrySm> startRegistry() const;

  // ---- what the out-of-band and connection components do -----------------------------------
  // The system of switch `index`: 00:1c:73:00:hh:ll with the index's low 16 bits.
  static Controller::SystemId systemOf(unsigned index);
  // Creates the switch's connection configuration and service status directory, then adds
  // its peer with both already set. Connecting a connected switch does nothing.
  Controller::SystemId connectSwitch(unsigned index) { return connectSwitch(systemOf(index)); }
  Controller::SystemId connectSwitch(Controller::SystemId const& system);
  // The peer leaves the table and the switch's records go; its inactive mark stays.
  void removeSwitch(Controller::SystemId const& system);
  bool connected(Controller::SystemId const& system) const { return switches_.count(system) != 0; }
  std::vector<Controller::SystemId> switches() const;
  Vesk::Ptr<Controller::ConnectionConfig> connectionConfig(
      Controller::SystemId const& system) const;
  Vesk::Ptr<Controller::ServiceStatusDir> serviceStatusDir(
      Controller::SystemId const& system) const;

  // Completes a negotiation of `service`: sets the flags and version on the service's version
  // status (created if missing), then the enabled flag, then points the service (created if
  // missing) at the version status.
  void negotiate(Controller::SystemId const& system, Vesk::Name const& service, uint32_t version,
                 Negotiation const& how = {});
  // The same with a fresh version status record, as a new negotiation round produces.
  void renegotiate(Controller::SystemId const& system, Vesk::Name const& service, uint32_t version,
                   Negotiation const& how = {});
  void serviceDel(Controller::SystemId const& system, Vesk::Name const& service);
  // Creates the service (without a version status) when it is missing.
  void serviceEnabledIs(Controller::SystemId const& system, Vesk::Name const& service,
                        bool enabled);

  void inactiveIs(Controller::SystemId const& system, bool inactive);
  void inactiveDel(Controller::SystemId const& system);
  void establishedIs(bool established) { oobStatus_->establishedIs(established); }
  void heartbeatIntervalIs(Vesk::Seconds interval) { heartbeatConfig_->intervalIs(interval); }
  void leaderGenIdIs(Vesk::String const& id) { controllerdbStatus_->leaderGenIdIs(id); }

  // ---- what services do --------------------------------------------------------------------
  // Places a status and then a configuration record (serviceName and the current
  // leaderGenId set) under agentName, in the proxy directories when proxy is set.
  ServiceDeclaration declareService(Vesk::Name const& agentName, Vesk::String const& serviceName,
                                    bool proxy = false);
  void undeclareService(Vesk::Name const& agentName, bool proxy = false);

  // Places a publish status and then a publish configuration record (serviceName and the
  // current leaderGenId set) under agentName.
  PublishDeclaration declarePublishService(Vesk::Name const& agentName,
                                           Vesk::String const& serviceName);
  void undeclarePublishService(Vesk::Name const& agentName);

  // Adds one declared mount to the registry by hand, as the service configuration machines
  // would: the entry (named remotePath unless entryName is given) and the service's mounter.
  Vesk::Ptr<Controller::Mounter> registryMounterIs(ServiceDeclaration const& service,
                                                   Vesk::Name const& group,
                                                   Vesk::Name const& remotePath,
                                                   Vesk::Name const& entryName = Vesk::Name());

 private:
  struct SwitchRecords {
    Vesk::Ptr<Controller::ConnectionConfig> connectionConfig;
    Vesk::Ptr<Controller::ServiceStatusDir> serviceStatusDir;
  };
  SwitchRecords const& switchOf(Controller::SystemId const& system) const;
  void negotiation(Controller::SystemId const& system, Vesk::Name const& service, uint32_t version,
                   Negotiation const& how, bool freshRecord);
  // The directory that holds, or is to hold, the entry at path, and the entry's name. The
  // directories on the way are created when create is set; else a missing one gives null.
  std::pair<Vesk::Ptr<Vesk::Dir>, Vesk::Name> localParentOf(Vesk::String const& path, bool create);

  WorldOptions const options_;
  // First, so that it is restored last.
  Vesk::ScopedManualActivity activity_;
  Vesk::Ptr<Vesk::ManualClock> const clock_;
  Rng rng_;
  std::shared_ptr<Controller::MountDriver> previousDriver_;
  std::shared_ptr<Controller::MountDriver> driver_;

  Vesk::Ptr<Controller::Heartbeat::Config> heartbeatConfig_;
  Vesk::Ptr<ControllerOob::Config> oobConfig_;
  Vesk::Ptr<Controller::PeerTable> peerTable_;
  Vesk::Ptr<ControllerOob::Status> oobStatus_;
  Vesk::Ptr<Controllerdb::Status> controllerdbStatus_;
  Vesk::Ptr<Controllerdb::PublishStatus> publishStatus_;

  Vesk::Ptr<Vesk::Dir> rootDir_;
  Vesk::Ptr<Vesk::Dir> mountConfigDir_;
  Vesk::Ptr<Vesk::Dir> mountStatusDir_;
  Vesk::Ptr<Vesk::Dir> publishConfigDir_;
  Vesk::Ptr<Vesk::Dir> publishStatusDir_;
  Vesk::Ptr<Vesk::Dir> proxyMountConfigDir_;
  Vesk::Ptr<Vesk::Dir> proxyMountStatusDir_;
  Vesk::Ptr<Vesk::Dir> registryDir_;
  Vesk::Ptr<Vesk::Dir> mountRootDir_;
  Vesk::Ptr<Vesk::Dir> localDir_;
  Vesk::Ptr<Controller::MountsRegistry> registry_;

  std::map<Controller::SystemId, SwitchRecords> switches_;
};

}  // namespace Sim
