// A controller hosting the mounts registry, on virtual time.
//
// The host owns the records the registry reads from its sibling components (heartbeat,
// out-of-band configuration and status with the peer table, the controller database's
// status), the directories services declare their mounts and publishes in, and the
// registry. It creates the library's top-level machines once and then only changes
// records: services declare mounts,
// switches connect and negotiate service versions, and the machines react. The mount
// machines carry their requests out through the installed mount driver, and every timer
// runs on the current activity's clock; here a manual clock, so the run is reproducible.
#include <cstdint>
#include <iostream>
#include <memory>
#include <vector>

#include "framework/core/Dir.h"
#include "framework/records/ControllerRecords.h"
#include "framework/records/EthAddr.h"
#include "framework/records/MountDriver.h"
#include "framework/time/Activity.h"
#include "framework/time/Clock.h"
#include "model/MountInterface.h"
#include "registry/MountsRegistry.h"
#include "registry/MountsRegistrySm.h"
#include "service_config/ServiceConfigDirSm.h"

namespace {

using Controller::MountSm;
using Controller::MountState;
using Vesk::Ptr;
using Vesk::Seconds;

// Carries each mount out after a fixed delay on the clock: a stand-in for the mount-machine
// component, whose driver a real controller installs. It keeps raw pointers to machines
// and forgets one as soon as it is cleaned up or destroyed (see framework/records/MountDriver.h).
class DelayMountDriver : public Controller::MountDriver, Vesk::Clock::Notifiee {
 public:
  DelayMountDriver(Ptr<Vesk::Clock> const& clock, Seconds delay)
      : Vesk::Clock::Notifiee(clock), delay_(delay) {}

  void onRequest(MountSm& sm, Request request) override {
    forget(sm);
    switch (request) {
      case Request::mount:
      case Request::remount:
        sm.pendingRequestIs(true);
        later(sm, Controller::mountStateMounted);
        return;
      case Request::unmount:
      case Request::statePreservingUnmount:
        later(sm, Controller::mountStateNotMounted);
        return;
      case Request::cleanup:
        return;
    }
  }
  void onDestroyed(MountSm& sm) override { forget(sm); }

 private:
  struct Step {
    Seconds at;
    MountSm* sm;
    MountState state;
  };

  // Mount state is written only on a turn of the clock, never inside a request.
  void later(MountSm& sm, MountState state) {
    // Every step waits the same delay, so appending keeps the queue in time order.
    steps_.push_back(Step{notifierRaw()->currentTime() + delay_, &sm, state});
    if (steps_.size() == 1) timeMinIs(steps_.front().at);
  }

  void forget(MountSm& sm) {
    std::erase_if(steps_, [&](Step const& s) { return s.sm == &sm; });
    if (settling_ == &sm) settling_ = nullptr;
  }

  void onTime() override {
    Seconds const now = notifierRaw()->currentTime();
    while (!steps_.empty() && steps_.front().at <= now) {
      Step const step = steps_.front();
      steps_.erase(steps_.begin());
      if (step.state == Controller::mountStateMounted) {
        settling_ = step.sm;
        step.sm->pendingRequestIs(false);
        // A reactor may have made a new request, or cleaned up or destroyed the machine.
        if (settling_ != step.sm) continue;
        settling_ = nullptr;
      }
      // The registry reacts inside this write and may destroy the machine.
      step.sm->data()->mountStateIs(step.state);
    }
    if (!steps_.empty()) timeMinIs(steps_.front().at);
  }

  Seconds const delay_;
  std::vector<Step> steps_;
  MountSm* settling_ = nullptr;
};

// What the controller's sibling components own, and the directories and registry the host
// owns; named as the registry's inputs.
struct ControllerRecords {
  Ptr<Controller::Heartbeat::Config> heartbeatConfig;
  Ptr<ControllerOob::Config> oobConfig;
  Ptr<ControllerOob::Status> oobStatus;
  Ptr<Controller::PeerTable> peerTable;
  Ptr<Controllerdb::Status> controllerdbStatus;
  Ptr<Controllerdb::PublishStatus> publishStatus;
  Ptr<Vesk::Dir> rootDir;
  Ptr<Vesk::Dir> mountConfigDir;       // services' ServiceMountConfig, by agent name
  Ptr<Vesk::Dir> mountStatusDir;       // services' ServiceMountStatus, by agent name
  Ptr<Vesk::Dir> publishConfigDir;     // services' ServicePublishConfig
  Ptr<Vesk::Dir> publishStatusDir;     // services' ServicePublishStatus
  Ptr<Vesk::Dir> proxyMountConfigDir;  // proxy services' ServiceMountConfig
  Ptr<Vesk::Dir> proxyMountStatusDir;  // proxy services' ServiceMountStatus
  Ptr<Vesk::Dir> registryDir;
  Ptr<Vesk::Dir> mountRootDir;  // where remote state is mounted
  Ptr<Controller::MountsRegistry> registry;
};

ControllerRecords makeRecords() {
  ControllerRecords r;
  r.heartbeatConfig = Controller::Heartbeat::configFactory("heartbeat");
  r.heartbeatConfig->intervalIs(1.0);
  r.oobConfig = ControllerOob::configFactory("oob");
  r.oobConfig->heartbeatConfigIs(r.heartbeatConfig);
  r.peerTable = Controller::peerTableFactory("peers");
  r.oobStatus = ControllerOob::statusFactory("oob");
  r.oobStatus->peerTableIs(r.peerTable);
  r.oobStatus->establishedIs(true);
  r.controllerdbStatus = Controllerdb::statusFactory("controllerdb");
  r.controllerdbStatus->leaderGenIdIs("1");
  r.publishStatus = Controllerdb::publishStatusFactory("controllerdb");

  r.rootDir = Vesk::dirFactory("controller");
  r.mountConfigDir = r.rootDir->subdirIs("mountConfig");
  r.mountStatusDir = r.rootDir->subdirIs("mountStatus");
  r.publishConfigDir = r.rootDir->subdirIs("publishConfig");
  r.publishStatusDir = r.rootDir->subdirIs("publishStatus");
  r.proxyMountConfigDir = r.rootDir->subdirIs("proxyMountConfig");
  r.proxyMountStatusDir = r.rootDir->subdirIs("proxyMountStatus");
  r.registryDir = r.rootDir->subdirIs("mountsRegistry");
  r.mountRootDir = r.rootDir->subdirIs("mounts");
  // Remote state under /remote on each switch; a failed mount is retried 3 times and a
  // mount times out after 30 seconds.
  r.registry =
      new Controller::MountsRegistry("mountsRegistry", r.registryDir, r.registryDir->fullName(),
                                     r.mountRootDir, "/remote", 3, 30.0);
  return r;
}

// A switch connects: the connection component creates its configuration and service
// status directory, then the out-of-band component publishes its peer carrying both.
Ptr<Controller::ServiceStatusDir> connectSwitch(ControllerRecords const& r,
                                                Controller::SystemId const& system) {
  Vesk::String const name = system.stringValue();
  Ptr<Controller::ConnectionConfig> config = Controller::connectionConfigFactory(name);
  config->remoteRootIs("/remote");
  config->targetPathIs("/mounts/" + name);
  config->reconnectRetriesIs(3);
  config->mountTimeoutIs(30);
  Ptr<Controller::ServiceStatusDir> services = Controller::serviceStatusDirFactory(name);

  r.peerTable->hasNotificationActiveIs(false);
  Ptr<Controller::Peer> peer = r.peerTable->peerIs(system);
  r.peerTable->hasNotificationActiveIs(true);
  peer->connectionConfigIs(config);
  peer->serviceStatusDirIs(services);
  r.peerTable->peerNotify(system);
  return services;
}

// The connection negotiated `version` of `service` with the switch.
void negotiate(Controller::ServiceStatusDir& services, Vesk::Name const& service,
               uint32_t version) {
  Ptr<Controller::ServiceVersionStatusV1> versionStatus =
      Controller::serviceVersionStatusV1Factory(service);
  versionStatus->versionNegotiationCompleteIs(true);
  versionStatus->versionCompatibleIs(true);
  versionStatus->negotiatedVersionIs(version);
  Ptr<Controller::ServiceStatusV1> status = services.serviceIs(service);
  status->enabledIs(true);
  status->versionStatusIs(versionStatus);
}

// The machines the host creates once, over its records, and keeps while it runs: the
// service configuration directory machine, which turns declarations into registry entries,
// and the registry machine, which mounts them. Each is told to clean up before it is
// dropped, the declarations' machine first.
class Machines {
 public:
  explicit Machines(ControllerRecords const& r)
      : serviceConfig_(Controller::serviceConfigDirSmFactory(
            r.controllerdbStatus, r.mountConfigDir, r.mountStatusDir, r.publishConfigDir,
            r.publishStatusDir, r.proxyMountConfigDir, r.proxyMountStatusDir, r.publishStatus,
            r.registry)),
        registry_(Controller::mountsRegistrySmFactory(r.registry, r.oobStatus, r.heartbeatConfig,
                                                      r.mountStatusDir, r.publishStatus)) {}
  ~Machines() {
    serviceConfig_->doCleanup();
    registry_->doCleanup();
  }
  Machines(Machines const&) = delete;
  Machines& operator=(Machines const&) = delete;

 private:
  Ptr<Controller::ServiceConfigDirSm> serviceConfig_;
  Ptr<Controller::MountsRegistrySm> registry_;
};

// Prints the service's status per switch, group and path; returns the paths mounted.
int printStatus(Controller::ServiceMountStatus const& status) {
  int mounted = 0;
  std::cout << status.serviceName() << " (agent " << status.agentName() << ")\n";
  for (auto const& [system, systemStatus] : status.systemStatusMembers()) {
    std::cout << "  " << system << "\n";
    for (auto const& [group, groupStatus] : systemStatus->serviceMountGroupStatusMembers()) {
      std::cout << "    " << group << ": " << valueToStrep(groupStatus->mountState()) << "\n";
      for (auto const& [path, mount] : groupStatus->mountStatusMembers()) {
        std::cout << "      " << path << "  " << valueToStrep(mount->mountState()) << "  at "
                  << mount->mountedPath() << "\n";
        mounted += mount->mountState() == Controller::mountStateMounted;
      }
    }
  }
  return mounted;
}

}  // namespace

int run();

int main() {
  registerControllerRecordsTypes();
  registerMountInterfaceTypes();
  registerMountsRegistryTypes();

  // Every machine created from here on runs its timers on this clock.
  Vesk::ScopedManualActivity activity;
  Controller::mountDriverIs(std::make_shared<DelayMountDriver>(activity.clock(), 0.2));
  int const mounted = run();
  // The driver holds the clock: it goes before the activity does.
  Controller::mountDriverIs(nullptr);
  return mounted == 2 ? 0 : 1;
}

// The host's life: its records and machines, one service's declaration, two switches.
// Returns how many of the service's paths ended mounted.
int run() {
  ControllerRecords const r = makeRecords();
  Machines const machines(r);

  // A service declares that its group "lldp" mounts /lldp/neighbors from every switch: a
  // status record, then its configuration, under the service's agent name.
  Ptr<Controller::ServiceMountStatus> status = Controller::serviceMountStatusFactory("LldpAgent");
  status->serviceNameIs("Lldp");
  r.mountStatusDir->entityPtrIs(status);
  Ptr<Controller::ServiceMountConfig> config = Controller::serviceMountConfigFactory("LldpAgent");
  config->serviceNameIs("Lldp");
  config->leaderGenIdIs(r.controllerdbStatus->leaderGenId());
  config->mountGroupConfigIs("lldp")->mountConfigIs("/lldp/neighbors", "Vesk::Dir", "",
                                                    "/lldp/neighbors");
  r.mountConfigDir->entityPtrIs(config);  // the machines add the registry entry and mounter

  // Two switches connect and negotiate version 1 of the service.
  for (uint64_t index : {1, 2}) {
    Controller::SystemId const system(Corvex::EthAddr(0x001c73000000ull | index));
    negotiate(*connectSwitch(r, system), "Lldp", 1);
  }

  // Run the clock until no timer is left armed, or a minute of virtual time has passed.
  auto const clock = Vesk::static_ptr_cast<Vesk::ManualClock>(Vesk::currentActivity()->clock());
  while (clock->armedCount() != 0 && clock->currentTime() < 60.0) clock->runNext();
  std::cout << "at " << clock->currentTime() << " s:\n";
  return printStatus(*status);
}
