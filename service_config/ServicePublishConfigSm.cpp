#include "service_config/ServicePublishConfigSm.h"

#include "framework/trace/Trace.h"
#include "service_config/ServicePublishGroupSm.h"

namespace Controller {

namespace {
Vesk::TraceHandle traceHandle("ServicePublishConfigSm", true);
}  // namespace

class ServicePublishConfigSm::ConfigReactor
    : public Vesk::OwnedReactor<ServicePublishConfig::NotifieeConst, ServicePublishConfigSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onServiceName() override { owner_->handleServiceName(); }
  void onPublishGroupConfig(Vesk::Name const& group) override {
    owner_->handlePublishGroupConfig(group);
  }
  void onPublishGroupConfig() override { owner_->handlePublishGroupConfig(); }
  void onLeaderGenId() override { owner_->handleLeaderGenId(); }
  void onReady() override { owner_->handlePublishReady(); }
};

class ServicePublishConfigSm::ControllerdbReactor
    : public Vesk::OwnedReactor<Controllerdb::Status::NotifieeConst, ServicePublishConfigSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onLeaderGenId() override { owner_->handleLeaderGenId(); }
};

ServicePublishConfigSm::ServicePublishConfigSm(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServicePublishConfig const> const& servicePublishConfig,
    Vesk::Ptr<ServicePublishStatus> const& servicePublishStatus,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent)
    : controllerdbStatus_(controllerdbStatus),
      servicePublishConfig_(servicePublishConfig),
      servicePublishStatus_(servicePublishStatus),
      controllerdbPublishStatus_(controllerdbPublishStatus),
      mountsRegistry_(mountsRegistry),
      parent_(parent),
      agentName_(servicePublishConfig->agentName()),
      publishGroupSm_(typeName, "publishGroupSm") {
  configReactor_ = std::make_unique<ConfigReactor>(this);
  configReactor_->notifierIs(servicePublishConfig_);
  controllerdbReactor_ = std::make_unique<ControllerdbReactor>(this);
  controllerdbReactor_->notifierIs(controllerdbStatus_);
  handleInitialized();
}

ServicePublishConfigSm::~ServicePublishConfigSm() = default;

Vesk::Ptr<ServicePublishConfigSm> servicePublishConfigSmFactory(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServicePublishConfig const> const& servicePublishConfig,
    Vesk::Ptr<ServicePublishStatus> const& servicePublishStatus,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent) {
  return Vesk::Ptr<ServicePublishConfigSm>(
      new ServicePublishConfigSm(controllerdbStatus, servicePublishConfig, servicePublishStatus,
                                 controllerdbPublishStatus, mountsRegistry, parent));
}

Vesk::Ptr<ServicePublishGroupSm> ServicePublishConfigSm::publishGroupSm(
    Vesk::Name const& group) const {
  return publishGroupSm_(group);
}

Vesk::Ptr<ServicePublishGroupSm> ServicePublishConfigSm::publishGroupSmIs(
    Vesk::Ptr<ServicePublishGroupConfig const> const& publishGroupConfig,
    Vesk::Ptr<ServicePublishGroupStatus> const& publishGroupStatus) {
  if (!publishGroupConfig) Vesk::throwNullParameter("publishGroupSm", typeName);
  return publishGroupSm_.is(publishGroupConfig->groupName(), controllerdbStatus_,
                            servicePublishConfig_, publishGroupConfig, publishGroupStatus,
                            mountsRegistry_, this);
}

bool ServicePublishConfigSm::canPublish() const {
  Vesk::String const& controllerGenId = controllerdbStatus_->leaderGenId();
  Vesk::String const& configGenId = servicePublishConfig_->leaderGenId();
  bool const result = !controllerGenId.empty() && controllerGenId == configGenId;
  VESK_TRACE(traceHandle, 5, "ServicePublishConfigSm::canPublish", " can:", result,
             " publishConfig genId:", configGenId, " controller genId:", controllerGenId);
  return result;
}

void ServicePublishConfigSm::handleServiceName() {
  VESK_TRACE(traceHandle, 5, "ServicePublishConfigSm::handleServiceName",
             " serviceName:", servicePublishConfig_->serviceName());
  handleInitialized();
}

void ServicePublishConfigSm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "ServicePublishConfigSm::handleInitialized", " agent:", agentName_,
             " service:", servicePublishConfig_->serviceName());
  if (initialized_ || servicePublishConfig_->serviceName().empty()) return;
  serviceName_ = servicePublishConfig_->serviceName();
  initialized_ = true;
  handlePublishGroupConfig();
  handleLeaderGenId();
}

void ServicePublishConfigSm::handlePublishReady() {
  VESK_TRACE(traceHandle, 5, "ServicePublishConfigSm::handlePublishReady",
             " service:", serviceName_, " ready:", servicePublishConfig_->ready());
  if (!initialized_ || !canPublish()) return;
  mountsRegistry_->servicePublishReadyIs(serviceName_, servicePublishConfig_->ready());
  publishReadySet_ = true;
}

void ServicePublishConfigSm::handleLeaderGenId() {
  VESK_TRACE(traceHandle, 5, "ServicePublishConfigSm::handleLeaderGenId",
             " service:", serviceName_);
  if (!initialized_) return;
  // Under a current generation the groups publish first, so that the ready flag is raised
  // over the entries it speaks for; under a stale one the flag goes first.
  if (canPublish()) {
    for (auto const& [group, groupSm] : publishGroupSm_.members()) groupSm->handleLeaderGenId();
    handlePublishReady();
    return;
  }
  VESK_TRACE(traceHandle, 5, "ServicePublishConfigSm::handleLeaderGenId",
             "Stale leaderGenId, cleanup publishReady flag for ", serviceName_);
  publishReadyDel();
  for (auto const& [group, groupSm] : publishGroupSm_.members()) groupSm->handleLeaderGenId();
}

void ServicePublishConfigSm::publishReadyDel() {
  if (mountsRegistry_->servicePublishReadyMembers().contains(serviceName_)) {
    mountsRegistry_->servicePublishReadyDel(serviceName_);
  }
  publishReadySet_ = false;
}

void ServicePublishConfigSm::handlePublishGroupConfig(Vesk::Name const& group) {
  VESK_TRACE(traceHandle, 5, "ServicePublishConfigSm::handlePublishGroupConfig", ": ", group);
  if (!initialized_) return;
  if (Vesk::Ptr<ServicePublishGroupConfig> config =
          servicePublishConfig_->publishGroupConfig(group)) {
    Vesk::Ptr<ServicePublishGroupStatus> status =
        servicePublishStatus_->servicePublishGroupStatusIs(group);
    status->publishStateIs(publishStateComplete);
    publishGroupSmIs(config, status);
  } else if (publishGroupSm_(group)) {
    publishGroupSm_.cleanupAndDel(group);
    servicePublishStatus_->servicePublishGroupStatusDel(group);
  }
}

void ServicePublishConfigSm::handlePublishGroupConfig() {
  VESK_TRACE(traceHandle, 5, "ServicePublishConfigSm::handlePublishGroupConfig", "()");
  for (auto const& [group, config] : servicePublishConfig_->publishGroupConfigMembers()) {
    handlePublishGroupConfig(group);
  }
}

// The machine is going: its groups withdraw their entries and statuses, and the service's
// ready flag leaves the registry with them.
void ServicePublishConfigSm::doCleanup() {
  VESK_TRACE(traceHandle, 5, "ServicePublishConfigSm::doCleanup", " service:", serviceName_);
  configReactor_.reset();
  controllerdbReactor_.reset();
  for (Vesk::Name const& group : publishGroupSm_.keys()) {
    publishGroupSm_.cleanupAndDel(group);
    servicePublishStatus_->servicePublishGroupStatusDel(group);
  }
  if (publishReadySet_) publishReadyDel();
}

}  // namespace Controller
