#include "service_config/ServiceMountConfigSm.h"

#include <vector>

#include "framework/trace/Trace.h"
#include "service_config/ServiceMountGroupSm.h"

namespace Controller {

namespace {
Vesk::TraceHandle traceHandle("ServiceMountConfigSm", true);
}  // namespace

class ServiceMountConfigSm::ConfigReactor
    : public Vesk::OwnedReactor<ServiceMountConfig::NotifieeConst, ServiceMountConfigSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onServiceName() override { owner_->handleServiceName(); }
  void onMountGroupConfig(Vesk::Name const& group) override {
    owner_->handleMountGroupConfig(group);
  }
  void onMountGroupConfig() override { owner_->handleMountGroupConfig(); }
};

ServiceMountConfigSm::ServiceMountConfigSm(
    bool isProxyService, Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
    Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent)
    : isProxyService_(isProxyService),
      controllerdbStatus_(controllerdbStatus),
      serviceMountConfig_(serviceMountConfig),
      serviceMountStatus_(serviceMountStatus),
      mountsRegistry_(mountsRegistry),
      parent_(parent),
      agentName_(serviceMountConfig->agentName()),
      mountGroupSm_(typeName, "mountGroupSm") {
  configReactor_ = std::make_unique<ConfigReactor>(this);
  configReactor_->notifierIs(serviceMountConfig_);
  handleInitialized();
}

ServiceMountConfigSm::~ServiceMountConfigSm() = default;

Vesk::Ptr<ServiceMountConfigSm> serviceMountConfigSmFactory(
    bool isProxyService, Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
    Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent) {
  return Vesk::Ptr<ServiceMountConfigSm>(
      new ServiceMountConfigSm(isProxyService, controllerdbStatus, serviceMountConfig,
                               serviceMountStatus, mountsRegistry, parent));
}

Vesk::Ptr<ServiceMountGroupSm> ServiceMountConfigSm::mountGroupSm(Vesk::Name const& group) const {
  return mountGroupSm_(group);
}

Vesk::Ptr<ServiceMountGroupSm> ServiceMountConfigSm::mountGroupSmIs(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServiceMountGroupConfig const> const& mountGroupConfig,
    Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
    Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry) {
  if (!mountGroupConfig) Vesk::throwNullParameter("mountGroupSm", typeName);
  return mountGroupSm_.is(mountGroupConfig->serviceMountGroupName(), controllerdbStatus,
                          mountGroupConfig, serviceMountConfig, serviceMountStatus, mountsRegistry,
                          this);
}

void ServiceMountConfigSm::mountGroupSmDel(Vesk::Name const& group) {
  mountGroupSm_.cleanupAndDel(group);
}

void ServiceMountConfigSm::mountGroupSmDelAll() { mountGroupSm_.cleanupAndDelAll(); }

void ServiceMountConfigSm::hasNotificationActiveIs(bool active) {
  PtrInterface::hasNotificationActiveIs(active);
  for (auto const& [group, groupSm] : mountGroupSm_.members()) {
    groupSm->hasNotificationActiveIs(active);
  }
}

void ServiceMountConfigSm::handleServiceName() {
  VESK_TRACE(traceHandle, 5, "ServiceMountConfigSm::handleServiceName",
             " serviceName:", serviceMountConfig_->serviceName());
  serviceMountStatus_->serviceNameIs(serviceMountConfig_->serviceName());
  handleInitialized();
}

void ServiceMountConfigSm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "ServiceMountConfigSm::handleInitialized", " agent:", agentName_,
             " service:", serviceMountConfig_->serviceName(), " proxy:", isProxyService_);
  if (initialized_ || serviceMountConfig_->serviceName().empty()) return;
  serviceName_ = serviceMountConfig_->serviceName();
  initialized_ = true;
  handleMountGroupConfig();
}

void ServiceMountConfigSm::handleMountGroupConfig() {
  if (!initialized_) return;
  VESK_TRACE(traceHandle, 5, "ServiceMountConfigSm::handleMountGroupConfig", "()");
  std::vector<Vesk::Name> groups;
  for (auto const& [group, config] : serviceMountConfig_->mountGroupConfigMembers()) {
    groups.push_back(group);
  }
  for (Vesk::Name const& group : groups) handleMountGroupConfig(group);
}

void ServiceMountConfigSm::handleMountGroupConfig(Vesk::Name const& group) {
  VESK_TRACE(traceHandle, 5, "ServiceMountConfigSm::handleMountGroupConfig", ": ", group);
  if (!initialized_) return;
  if (Vesk::Ptr<ServiceMountGroupConfig> config = serviceMountConfig_->mountGroupConfig(group)) {
    mountGroupSmIs(controllerdbStatus_, config, serviceMountConfig_, serviceMountStatus_,
                   mountsRegistry_);
  } else {
    mountGroupSmDel(group);
  }
}

void ServiceMountConfigSm::doCleanup() {
  VESK_TRACE(traceHandle, 5, "ServiceMountConfigSm::doCleanup", " service:", serviceName_);
  configReactor_.reset();
  mountGroupSmDelAll();
}

}  // namespace Controller
