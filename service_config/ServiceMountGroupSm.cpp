#include "service_config/ServiceMountGroupSm.h"

#include <vector>

#include "framework/core/Assert.h"
#include "framework/trace/Trace.h"
#include "service_config/DirPath.h"
#include "service_config/ServiceMountConfigSm.h"

namespace Controller {

namespace {
Vesk::TraceHandle traceHandle("ServiceMountGroupSm", true);
}  // namespace

class ServiceMountGroupSm::GroupReactor
    : public Vesk::OwnedReactor<ServiceMountGroupConfig::NotifieeConst, ServiceMountGroupSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onMountConfig(Vesk::Name const& name) override { owner_->handleMountConfig(name); }
  void onMountConfig() override { owner_->handleMountConfig(); }
};

class ServiceMountGroupSm::ControllerdbReactor
    : public Vesk::OwnedReactor<Controllerdb::Status::NotifieeConst, ServiceMountGroupSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onLeaderGenId() override { owner_->handleLeaderGenId(); }
};

class ServiceMountGroupSm::ServiceReactor
    : public Vesk::OwnedReactor<ServiceMountConfig::NotifieeConst, ServiceMountGroupSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onLeaderGenId() override { owner_->handleLeaderGenId(); }
};

ServiceMountGroupSm::ServiceMountGroupSm(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServiceMountGroupConfig const> const& mountGroupConfig,
    Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
    Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServiceMountConfigSm* parent)
    : controllerdbStatus_(controllerdbStatus),
      mountGroupConfig_(mountGroupConfig),
      serviceMountConfig_(serviceMountConfig),
      serviceMountStatus_(serviceMountStatus),
      mountsRegistry_(mountsRegistry),
      parent_(parent),
      groupName_(mountGroupConfig->serviceMountGroupName()) {
  groupReactor_ = std::make_unique<GroupReactor>(this);
  groupReactor_->notifierIs(mountGroupConfig_);
  controllerdbReactor_ = std::make_unique<ControllerdbReactor>(this);
  controllerdbReactor_->notifierIs(controllerdbStatus_);
  serviceReactor_ = std::make_unique<ServiceReactor>(this);
  serviceReactor_->notifierIs(serviceMountConfig_);
  handleInitialized();
}

ServiceMountGroupSm::~ServiceMountGroupSm() = default;

Vesk::Ptr<ServiceMountGroupSm> serviceMountGroupSmFactory(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServiceMountGroupConfig const> const& mountGroupConfig,
    Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
    Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServiceMountConfigSm* parent) {
  return Vesk::Ptr<ServiceMountGroupSm>(
      new ServiceMountGroupSm(controllerdbStatus, mountGroupConfig, serviceMountConfig,
                              serviceMountStatus, mountsRegistry, parent));
}

Vesk::String const& ServiceMountGroupSm::serviceName() const { return parent_->serviceName(); }

void ServiceMountGroupSm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::handleInitialized",
             " mountConfig genId:", serviceMountConfig_->leaderGenId(),
             " controller genId:", controllerdbStatus_->leaderGenId());
  if (initialized_) return;
  initialized_ = true;
  handleLeaderGenId();
}

bool ServiceMountGroupSm::canMount() const {
  Vesk::String const& controllerGenId = controllerdbStatus_->leaderGenId();
  Vesk::String const& configGenId = serviceMountConfig_->leaderGenId();
  VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::canMount", " mountConfig genId:", configGenId,
             " controller genId:", controllerGenId);
  if (!controllerGenId.empty() && controllerGenId == configGenId) return true;
  return parent_->isProxyService();
}

void ServiceMountGroupSm::handleLeaderGenId() {
  VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::handleLeaderGenId", " group:", groupName_);
  if (canMount()) {
    handleMountConfig();
  } else if (!parent_->isProxyService()) {
    doCleanup();
  }
}

void ServiceMountGroupSm::handleMountConfig() {
  if (!initialized_) return;
  VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::handleMountConfig", " group:", groupName_);
  for (auto const& [name, config] : mountGroupConfig_->mountConfigMembers())
    handleMountConfig(name);
}

void ServiceMountGroupSm::handleMountConfig(Vesk::Name const& name) {
  VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::handleMountConfig", ": ", name);
  if (!initialized_ || !canMount()) return;
  if (mountGroupConfig_->mountConfig(name)) {
    addMountConfig(name);
  } else {
    removeMountConfig(name);
  }
}

void ServiceMountGroupSm::doCleanup() {
  VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::doCleanup", " group:", groupName_);
  for (auto const& [name, config] : mountGroupConfig_->mountConfigMembers())
    removeMountConfig(name);
}

void ServiceMountGroupSm::addMountConfig(Vesk::Name const& name) {
  VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::addMountConfig", ": ", name);
  Vesk::String const& service = serviceName();
  Vesk::Ptr<MountConfig const> mountConfig = mountGroupConfig_->mountConfig(name);
  Vesk::Ptr<MountsRegistryEntry> mre = mountsRegistry_->mountEntry(name);
  if (!mre) {
    Vesk::String const tpath = newTargetPath(name, *mountConfig);
    VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::addMountConfig", " add registry entry",
               " service:", service, " group:", groupName_, " rpath:", name, " tpath:", tpath);
    mre = mountsRegistry_->mountEntryIs(name, tpath, mountConfig->plovType(),
                                        mountConfig->mountFlags());
  } else {
    VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::addMountConfig", " dup registry entry",
               " service:", service, " group:", groupName_, " rpath:", name);
    VESK_ASSERT_MSG(mre->veskType() == mountConfig->plovType(),
                    "mre->veskType() == mountConfig->plovType()");
    VESK_ASSERT_MSG(mre->mountFlags() == mountConfig->mountFlags(),
                    "mre->mountFlags() == mountConfig->mountFlags()");
  }
  VESK_ASSERT_MSG(mre, "mre");
  if (mre->mounter(service)) {
    VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::addMountConfig", " Service:", service,
               " has already requested a mount for ", name);
    return;
  }
  // The entry's target path, whoever made it: later requesters mount where the first did.
  Vesk::String const& tpath = mre->targetPath();
  VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::addMountConfig", " add mounter",
             " service:", service, " group:", groupName_, " rpath:", name, " path prefix:", tpath);
  mountedPathPrefixIs(name, tpath);
  mre->mounterIs(MounterName(service, groupName_), mountConfig, mountGroupConfig_,
                 serviceMountStatus_);
}

Vesk::String ServiceMountGroupSm::newTargetPath(Vesk::Name const& name,
                                                MountConfig const& mountConfig) const {
  if (mountConfig.targetMountPath().empty()) {
    doCreateDirPath(mountsRegistry_->registryDir(), name);
    return mountsRegistry_->registryDirPath() + "/" + name;
  }
  doCreateDirPath(mountsRegistry_->rootDir(), mountConfig.targetMountPath());
  return mountConfig.targetMountPath();
}

// A prefix left from an entry that has since been made again elsewhere gives way to the
// entry's current target path.
void ServiceMountGroupSm::mountedPathPrefixIs(Vesk::Name const& name,
                                              Vesk::String const& targetPath) {
  Vesk::Ptr<MountedPathPrefix> held = serviceMountStatus_->mountedPathPrefix(name);
  if (held && held->pathPrefix() != targetPath) serviceMountStatus_->mountedPathPrefixDel(name);
  serviceMountStatus_->mountedPathPrefixIs(name, targetPath);
}

void ServiceMountGroupSm::removeMountConfig(Vesk::Name const& name) {
  VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::removeMountConfig", ": ", name);
  Vesk::Ptr<MountsRegistryEntry> mre = mountsRegistry_->mountEntry(name);
  if (!mre) return;
  Vesk::String const& service = serviceName();
  VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::removeMountConfig",
             " del registry entry:", " service:", service, " group:", groupName_, " path:", name);
  // Keyed by the service alone: this also withdraws a mounter another group of the
  // service added for the same name.
  if (mre->mounter(service)) {
    serviceMountStatus_->mountedPathPrefixDel(name);
    mre->mounterDel(service);
  }
  if (mre->mounterSize() == 0) {
    VESK_TRACE(traceHandle, 5, "ServiceMountGroupSm::removeMountConfig",
               " all mounters gone path:", name);
  }
}

void ServiceMountGroupSm::detach() {
  groupReactor_.reset();
  controllerdbReactor_.reset();
  serviceReactor_.reset();
}

}  // namespace Controller
