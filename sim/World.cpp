#include "sim/World.h"

#include <string_view>

#include "framework/core/Exception.h"
#include "framework/records/EthAddr.h"
#include "initial_mount/ProcessedSwitch.h"
#include "sim/GroupFilters.h"

namespace Sim {

using Controller::SystemId;
using Vesk::Name;
using Vesk::Ptr;
using Vesk::String;

// ---- ServiceDeclaration ---------------------------------------------------------------------

Ptr<Controller::ServiceMountGroupConfig> ServiceDeclaration::groupIs(
    Name const& group, bool preserveMountsOnDisconnect) const {
  Ptr<Controller::ServiceMountGroupConfig> g = config_->mountGroupConfigIs(group);
  g->preserveMountsOnDisconnectIs(preserveMountsOnDisconnect);
  return g;
}

Ptr<Controller::MountConfig> ServiceDeclaration::mountIs(Name const& group, Name const& remotePath,
                                                         String const& plovType,
                                                         String const& mountFlags,
                                                         String const& targetMountPath) const {
  Ptr<Controller::ServiceMountGroupConfig> g = config_->mountGroupConfigIs(group);
  return g->mountConfigIs(remotePath, plovType, mountFlags,
                          targetMountPath.empty() ? String(remotePath) : targetMountPath);
}

Ptr<Controller::MountFilterSystem> ServiceDeclaration::systemFilterIs(
    Name const& group, std::vector<SystemId> const& systems) const {
  return detail::groupSystemFilterIs(*config_, *config_->mountGroupConfigIs(group), group, systems);
}

Ptr<Controller::MountFilterServiceVersion> ServiceDeclaration::versionFilterIs(
    Name const& group, std::vector<uint32_t> const& versions) const {
  return detail::groupVersionFilterIs(*config_, *config_->mountGroupConfigIs(group), group,
                                      versions);
}

// ---- World ----------------------------------------------------------------------------------

World::World(WorldOptions const& options)
    : options_(options),
      activity_(options.startTime),
      clock_(activity_.clock()),
      rng_(options.seed),
      previousDriver_(Controller::mountDriver()) {
  registerControllerRecordsTypes();
  registerMountInterfaceTypes();
  registerMountsRegistryTypes();
  registerProcessedSwitchTypes();
  registerLocalStateTypes();

  if (options_.driver == DriverKind::automatic) {
    // Its own stream, so that scenario draws from rng() do not shift mount latencies.
    driver_ = std::make_shared<AutoMountDriver>(options_.seed ^ 0xd1b54a32d192ed03ull,
                                                options_.autoMount);
  } else {
    driver_ = std::make_shared<ManualMountDriver>();
  }
  Controller::mountDriverIs(driver_);

  heartbeatConfig_ = Controller::Heartbeat::configFactory("heartbeat");
  heartbeatConfig_->intervalIs(options_.heartbeatInterval);
  oobConfig_ = ControllerOob::configFactory("oob");
  oobConfig_->heartbeatConfigIs(heartbeatConfig_);
  peerTable_ = Controller::peerTableFactory("peers");
  oobStatus_ = ControllerOob::statusFactory("oob");
  oobStatus_->peerTableIs(peerTable_);
  oobStatus_->establishedIs(options_.established);
  controllerdbStatus_ = Controllerdb::statusFactory("controllerdb");
  controllerdbStatus_->leaderGenIdIs(options_.leaderGenId);
  publishStatus_ = Controllerdb::publishStatusFactory("controllerdb");

  rootDir_ = Vesk::dirFactory("controller");
  mountConfigDir_ = rootDir_->subdirIs("mountConfig");
  mountStatusDir_ = rootDir_->subdirIs("mountStatus");
  publishConfigDir_ = rootDir_->subdirIs("publishConfig");
  publishStatusDir_ = rootDir_->subdirIs("publishStatus");
  proxyMountConfigDir_ = rootDir_->subdirIs("proxyMountConfig");
  proxyMountStatusDir_ = rootDir_->subdirIs("proxyMountStatus");
  registryDir_ = rootDir_->subdirIs("mountsRegistry");
  mountRootDir_ = rootDir_->subdirIs("mounts");
  localDir_ = rootDir_->subdirIs("local");
  registry_ = new Controller::MountsRegistry(
      "mountsRegistry", registryDir_, registryDir_->fullName(), mountRootDir_,
      options_.remoteRootPath, options_.reconnectRetries, options_.mountTimeout);
}

World::~World() { Controller::mountDriverIs(previousDriver_); }

bool World::runUntilQuiet(Vesk::Seconds maxSeconds) {
  Vesk::Seconds const limit = now() + maxSeconds;
  while (clock_->armedCount() != 0) {
    if (clock_->nextWakeup() > limit) {
      clock_->advanceTo(limit);
      return false;
    }
    clock_->runNext();
  }
  return true;
}

AutoMountDriver* World::autoMountDriver() const {
  return dynamic_cast<AutoMountDriver*>(driver_.get());
}

ManualMountDriver* World::manualMountDriver() const {
  return dynamic_cast<ManualMountDriver*>(driver_.get());
}

// ---- the local state tree -------------------------------------------------------------------

Ptr<LocalEntity> World::localEntityIs(String const& path) {
  auto const [dir, name] = localParentOf(path, true);
  return Vesk::static_ptr_cast<LocalEntity>(dir->entryIs(name, LocalEntity::typeName));
}

Ptr<Vesk::Dir> World::localDirIs(String const& path) {
  auto const [dir, name] = localParentOf(path, true);
  return dir->subdirIs(name);
}

void World::localEntityDel(String const& path) {
  auto const [dir, name] = localParentOf(path, false);
  if (dir) dir->entityPtrDel(name);
}

std::pair<Ptr<Vesk::Dir>, Name> World::localParentOf(String const& path, bool create) {
  std::string_view const root = rootDir_->name().view();
  std::string_view rest = path.view();
  bool const wellFormed = rest.size() > root.size() + 2 && rest[0] == '/' &&
                          rest.substr(1, root.size()) == root && rest[root.size() + 1] == '/' &&
                          rest.find("//") == std::string_view::npos && !rest.ends_with('/');
  if (!wellFormed) {
    Vesk::throwRangeException(
        ("local path '" + path + "' does not name an entry below /" + rootDir_->name()).charPtr());
  }
  rest.remove_prefix(root.size() + 2);
  Ptr<Vesk::Dir> dir = rootDir_;
  for (size_t slash = rest.find('/'); slash != std::string_view::npos; slash = rest.find('/')) {
    Name const component{String(rest.substr(0, slash))};
    rest.remove_prefix(slash + 1);
    Ptr<Vesk::Entity> const next = dir->entry(component);
    if (!next && !create) return {nullptr, Name()};
    dir = next ? Vesk::ptr_cast<Vesk::Dir>(next) : dir->subdirIs(component);
    if (!dir) {
      Vesk::throwRangeException(
          ("local path '" + path + "' runs through " + next->fullName() + ", not a directory")
              .charPtr());
    }
  }
  return {dir, Name(String(rest))};
}

// ---- switches -------------------------------------------------------------------------------

Vesk::Ptr<Controller::MountsRegistrySm> World::startRegistry() const {
  return Controller::mountsRegistrySmFactory(registry_, oobStatus_, heartbeatConfig_,
                                             mountStatusDir_, publishStatus_);
}

SystemId World::systemOf(unsigned index) {
  return SystemId(Corvex::EthAddr(0x001c73000000ull | (index & 0xffffu)));
}

SystemId World::connectSwitch(SystemId const& system) {
  if (connected(system)) return system;
  String const name = system.stringValue();
  SwitchRecords records;
  records.connectionConfig = Controller::connectionConfigFactory(name);
  records.connectionConfig->remoteRootIs(options_.remoteRootPath);
  records.connectionConfig->targetPathIs("/mounts/" + name);
  records.connectionConfig->reconnectRetriesIs(options_.reconnectRetries);
  records.connectionConfig->mountTimeoutIs(options_.mountTimeout);
  records.serviceStatusDir = Controller::serviceStatusDirFactory(name);
  switches_[system] = records;

  // The table announces a new peer as soon as it creates it; the announcement is held back
  // until the peer carries its records, as the out-of-band component publishes it.
  peerTable_->hasNotificationActiveIs(false);
  Ptr<Controller::Peer> peer = peerTable_->peerIs(system);
  peerTable_->hasNotificationActiveIs(true);
  peer->connectionConfigIs(records.connectionConfig);
  peer->serviceStatusDirIs(records.serviceStatusDir);
  peerTable_->peerNotify(system);
  return system;
}

void World::removeSwitch(SystemId const& system) {
  switchOf(system);
  peerTable_->peerDel(system);
  switches_.erase(system);
}

std::vector<SystemId> World::switches() const {
  std::vector<SystemId> out;
  for (auto const& [system, records] : switches_) out.push_back(system);
  return out;
}

World::SwitchRecords const& World::switchOf(SystemId const& system) const {
  auto it = switches_.find(system);
  if (it == switches_.end()) {
    Vesk::throwRangeException(("no connected switch " + system.stringValue()).charPtr());
  }
  return it->second;
}

Ptr<Controller::ConnectionConfig> World::connectionConfig(SystemId const& system) const {
  auto it = switches_.find(system);
  return it == switches_.end() ? nullptr : it->second.connectionConfig;
}

Ptr<Controller::ServiceStatusDir> World::serviceStatusDir(SystemId const& system) const {
  auto it = switches_.find(system);
  return it == switches_.end() ? nullptr : it->second.serviceStatusDir;
}

// ---- service negotiation --------------------------------------------------------------------

void World::negotiate(SystemId const& system, Name const& service, uint32_t version,
                      Negotiation const& how) {
  negotiation(system, service, version, how, false);
}

void World::renegotiate(SystemId const& system, Name const& service, uint32_t version,
                        Negotiation const& how) {
  negotiation(system, service, version, how, true);
}

void World::negotiation(SystemId const& system, Name const& service, uint32_t version,
                        Negotiation const& how, bool freshRecord) {
  Ptr<Controller::ServiceStatusDir> const& dir = switchOf(system).serviceStatusDir;
  Ptr<Controller::ServiceStatusV1> status = dir->service(service);
  // The world made every version status it points at, so it may write them.
  Ptr<Controller::ServiceVersionStatusV1> versionStatus =
      status ? Vesk::const_ptr_cast<Controller::ServiceVersionStatusV1>(status->versionStatus())
             : nullptr;
  if (!versionStatus || freshRecord) {
    versionStatus = Controller::serviceVersionStatusV1Factory(service);
  }
  versionStatus->versionNegotiationCompleteIs(how.complete);
  versionStatus->versionCompatibleIs(how.compatible);
  versionStatus->negotiatedVersionIs(version);
  if (!status) status = dir->serviceIs(service);
  status->enabledIs(how.enabled);
  status->versionStatusIs(versionStatus);
}

void World::serviceDel(SystemId const& system, Name const& service) {
  switchOf(system).serviceStatusDir->serviceDel(service);
}

void World::serviceEnabledIs(SystemId const& system, Name const& service, bool enabled) {
  switchOf(system).serviceStatusDir->serviceIs(service)->enabledIs(enabled);
}

void World::inactiveIs(SystemId const& system, bool inactive) {
  oobStatus_->inactiveIs(system, inactive);
}

void World::inactiveDel(SystemId const& system) { oobStatus_->inactiveDel(system); }

// ---- services -------------------------------------------------------------------------------

ServiceDeclaration World::declareService(Name const& agentName, String const& serviceName,
                                         bool proxy) {
  Ptr<Vesk::Dir> const& configDir = proxy ? proxyMountConfigDir_ : mountConfigDir_;
  Ptr<Vesk::Dir> const& statusDir = proxy ? proxyMountStatusDir_ : mountStatusDir_;
  Ptr<Controller::ServiceMountStatus> status = Controller::serviceMountStatusFactory(agentName);
  status->serviceNameIs(serviceName);
  statusDir->entityPtrIs(status);
  Ptr<Controller::ServiceMountConfig> config = Controller::serviceMountConfigFactory(agentName);
  config->serviceNameIs(serviceName);
  config->leaderGenIdIs(controllerdbStatus_->leaderGenId());
  configDir->entityPtrIs(config);
  return ServiceDeclaration(config, status);
}

void World::undeclareService(Name const& agentName, bool proxy) {
  (proxy ? proxyMountConfigDir_ : mountConfigDir_)->entityPtrDel(agentName);
  (proxy ? proxyMountStatusDir_ : mountStatusDir_)->entityPtrDel(agentName);
}

PublishDeclaration World::declarePublishService(Name const& agentName, String const& serviceName) {
  Ptr<Controller::ServicePublishStatus> status = Controller::servicePublishStatusFactory(agentName);
  publishStatusDir_->entityPtrIs(status);
  Ptr<Controller::ServicePublishConfig> config = Controller::servicePublishConfigFactory(agentName);
  config->serviceNameIs(serviceName);
  config->leaderGenIdIs(controllerdbStatus_->leaderGenId());
  publishConfigDir_->entityPtrIs(config);
  return PublishDeclaration(config, status);
}

void World::undeclarePublishService(Name const& agentName) {
  publishConfigDir_->entityPtrDel(agentName);
  publishStatusDir_->entityPtrDel(agentName);
}

Ptr<Controller::Mounter> World::registryMounterIs(ServiceDeclaration const& service,
                                                  Name const& group, Name const& remotePath,
                                                  Name const& entryName) {
  Ptr<Controller::ServiceMountGroupConfig> groupConfig = service.config()->mountGroupConfig(group);
  Ptr<Controller::MountConfig> mount = groupConfig ? groupConfig->mountConfig(remotePath) : nullptr;
  if (!mount) {
    Vesk::throwRangeException(
        ("no mount " + remotePath + " in group " + group + " of " + service.serviceName())
            .charPtr());
  }
  Ptr<Controller::MountsRegistryEntry> entry =
      registry_->mountEntryIs(entryName.empty() ? remotePath : entryName, mount->targetMountPath(),
                              mount->plovType(), mount->mountFlags());
  return entry->mounterIs(Controller::MounterName(service.serviceName(), group), mount, groupConfig,
                          service.status());
}

}  // namespace Sim
