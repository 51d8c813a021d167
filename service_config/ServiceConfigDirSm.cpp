#include "service_config/ServiceConfigDirSm.h"

#include "framework/trace/Trace.h"
#include "service_config/ServiceMountConfigSm.h"
#include "service_config/ServicePublishConfigSm.h"

namespace Controller {

namespace {
Vesk::TraceHandle traceHandle("ServiceConfigDirSm", true);

Vesk::Ptr<Vesk::Entity> entityIn(Vesk::Ptr<Vesk::Dir const> const& dir, Vesk::Name const& name) {
  return dir ? dir->entityPtr(name) : nullptr;
}
}  // namespace

// One directory's entries, handed to the handlers of its kind of service.
class ServiceConfigDirSm::DirReactor
    : public Vesk::OwnedReactor<Vesk::Dir::NotifieeConst, ServiceConfigDirSm> {
 public:
  DirReactor(ServiceConfigDirSm* owner, ServiceKind kind) : OwnedReactor(owner), kind_(kind) {}
  void onEntityPtr(Vesk::Name const& name) override { owner_->handleService(kind_, name); }
  void onEntityPtr() override { owner_->handleServices(kind_); }

 private:
  ServiceKind const kind_;
};

ServiceConfigDirSm::ServiceConfigDirSm(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<Vesk::Dir const> const& mountConfigDir, Vesk::Ptr<Vesk::Dir> const& mountStatusDir,
    Vesk::Ptr<Vesk::Dir const> const& publishConfigDir,
    Vesk::Ptr<Vesk::Dir> const& publishStatusDir,
    Vesk::Ptr<Vesk::Dir const> const& proxyMountConfigDir,
    Vesk::Ptr<Vesk::Dir> const& proxyMountStatusDir,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry)
    : controllerdbStatus_(controllerdbStatus),
      mountConfigDir_(mountConfigDir),
      mountStatusDir_(mountStatusDir),
      publishConfigDir_(publishConfigDir),
      publishStatusDir_(publishStatusDir),
      proxyMountConfigDir_(proxyMountConfigDir),
      proxyMountStatusDir_(proxyMountStatusDir),
      controllerdbPublishStatus_(controllerdbPublishStatus),
      mountsRegistry_(mountsRegistry),
      serviceMountConfigSm_(typeName, "serviceMountConfigSm"),
      servicePublishConfigSm_(typeName, "servicePublishConfigSm") {
  dirReactorIs(mountConfigDir_, ServiceKind::mount);
  dirReactorIs(mountStatusDir_, ServiceKind::mount);
  dirReactorIs(proxyMountConfigDir_, ServiceKind::proxyMount);
  dirReactorIs(proxyMountStatusDir_, ServiceKind::proxyMount);
  dirReactorIs(publishConfigDir_, ServiceKind::publish);
  dirReactorIs(publishStatusDir_, ServiceKind::publish);
  handleInitialized();
}

ServiceConfigDirSm::~ServiceConfigDirSm() = default;

Vesk::Ptr<ServiceConfigDirSm> serviceConfigDirSmFactory(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<Vesk::Dir const> const& mountConfigDir, Vesk::Ptr<Vesk::Dir> const& mountStatusDir,
    Vesk::Ptr<Vesk::Dir const> const& publishConfigDir,
    Vesk::Ptr<Vesk::Dir> const& publishStatusDir,
    Vesk::Ptr<Vesk::Dir const> const& proxyMountConfigDir,
    Vesk::Ptr<Vesk::Dir> const& proxyMountStatusDir,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry) {
  return Vesk::Ptr<ServiceConfigDirSm>(new ServiceConfigDirSm(
      controllerdbStatus, mountConfigDir, mountStatusDir, publishConfigDir, publishStatusDir,
      proxyMountConfigDir, proxyMountStatusDir, controllerdbPublishStatus, mountsRegistry));
}

void ServiceConfigDirSm::dirReactorIs(Vesk::Ptr<Vesk::Dir const> const& dir, ServiceKind kind) {
  if (!dir) return;
  auto& reactor = dirReactors_.emplace_back(std::make_unique<DirReactor>(this, kind));
  reactor->notifierIs(dir);
}

void ServiceConfigDirSm::handleService(ServiceKind kind, Vesk::Name const& name) {
  switch (kind) {
    case ServiceKind::mount:
      return handleServiceMount(name);
    case ServiceKind::proxyMount:
      return handleProxyServiceMount(name);
    case ServiceKind::publish:
      return handleServicePublish(name);
  }
}

void ServiceConfigDirSm::handleServices(ServiceKind kind) {
  switch (kind) {
    case ServiceKind::mount:
      return handleServiceMount();
    case ServiceKind::proxyMount:
      return handleProxyServiceMount();
    case ServiceKind::publish:
      return handleServicePublish();
  }
}

// ---- children ------------------------------------------------------------------------------

Vesk::Ptr<ServiceMountConfigSm> ServiceConfigDirSm::serviceMountConfigSm(
    Vesk::Name const& name) const {
  return serviceMountConfigSm_(name);
}

Vesk::Ptr<ServiceMountConfigSm> ServiceConfigDirSm::serviceMountConfigSmIs(
    bool isProxyService, Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
    Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry) {
  if (!serviceMountConfig) Vesk::throwNullParameter("serviceMountConfigSm", typeName);
  return serviceMountConfigSm_.is(serviceMountConfig->agentName(), isProxyService,
                                  controllerdbStatus, serviceMountConfig, serviceMountStatus,
                                  mountsRegistry, this);
}

void ServiceConfigDirSm::serviceMountConfigSmDel(Vesk::Name const& name) {
  serviceMountConfigSm_.cleanupAndDel(name);
}

void ServiceConfigDirSm::serviceMountConfigSmDelAll() { serviceMountConfigSm_.cleanupAndDelAll(); }

Vesk::Ptr<ServicePublishConfigSm> ServiceConfigDirSm::servicePublishConfigSm(
    Vesk::Name const& name) const {
  return servicePublishConfigSm_(name);
}

Vesk::Ptr<ServicePublishConfigSm> ServiceConfigDirSm::servicePublishConfigSmIs(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServicePublishConfig const> const& servicePublishConfig,
    Vesk::Ptr<ServicePublishStatus> const& servicePublishStatus,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry) {
  if (!servicePublishConfig) Vesk::throwNullParameter("servicePublishConfigSm", typeName);
  return servicePublishConfigSm_.is(servicePublishConfig->agentName(), controllerdbStatus,
                                    servicePublishConfig, servicePublishStatus,
                                    controllerdbPublishStatus, mountsRegistry, this);
}

void ServiceConfigDirSm::servicePublishConfigSmDel(Vesk::Name const& name) {
  servicePublishConfigSm_.cleanupAndDel(name);
}

void ServiceConfigDirSm::servicePublishConfigSmDelAll() {
  servicePublishConfigSm_.cleanupAndDelAll();
}

void ServiceConfigDirSm::hasNotificationActiveIs(bool active) {
  PtrInterface::hasNotificationActiveIs(active);
  for (auto const& [name, sm] : serviceMountConfigSm_.members())
    sm->hasNotificationActiveIs(active);
  for (auto const& [name, sm] : servicePublishConfigSm_.members()) {
    sm->hasNotificationActiveIs(active);
  }
}

// ---- handlers ------------------------------------------------------------------------------

void ServiceConfigDirSm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleInitialized");
  if (initialized_) return;
  initialized_ = true;
  handleServiceMount();
  handleProxyServiceMount();
  handleServicePublish();
}

void ServiceConfigDirSm::handleServiceMount() {
  if (!initialized_ || !mountConfigDir_) return;
  VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleServiceMount", "()");
  for (auto const& [name, entity] : mountConfigDir_->entityPtrMembers()) handleServiceMount(name);
}

void ServiceConfigDirSm::handleServiceMount(Vesk::Name const& name) {
  VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleServiceMount", ": ", name);
  handleServiceMountCommon(false, name, entityIn(mountConfigDir_, name),
                           entityIn(mountStatusDir_, name));
}

void ServiceConfigDirSm::handleProxyServiceMount() {
  if (!initialized_ || !proxyMountConfigDir_) return;
  VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleProxyServiceMount", "()");
  for (auto const& [name, entity] : proxyMountConfigDir_->entityPtrMembers()) {
    handleProxyServiceMount(name);
  }
}

void ServiceConfigDirSm::handleProxyServiceMount(Vesk::Name const& name) {
  VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleProxyServiceMount", ": ", name);
  handleServiceMountCommon(true, name, entityIn(proxyMountConfigDir_, name),
                           entityIn(proxyMountStatusDir_, name));
}

void ServiceConfigDirSm::handleServiceMountCommon(bool isProxyService, Vesk::Name const& name,
                                                  Vesk::Ptr<Vesk::Entity const> const& config,
                                                  Vesk::Ptr<Vesk::Entity> const& status) {
  if (!initialized_) return;
  VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleServiceMountCommon", ": ", name,
             " proxy:", isProxyService);
  if (!config || !status) return;
  auto mountConfig = Vesk::ptr_cast<ServiceMountConfig const>(config);
  auto mountStatus = Vesk::ptr_cast<ServiceMountStatus>(status);
  if (mountConfig && mountStatus) {
    if (serviceMountConfigSm_(name)) return;
    VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleServiceMountCommon",
               " creating serviceMountConfigSm for ", name);
    serviceMountConfigSmIs(isProxyService, controllerdbStatus_, mountConfig, mountStatus,
                           mountsRegistry_);
  } else if (serviceMountConfigSm_(name)) {
    VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleServiceMountCommon", " deleting ", name,
               " serviceMountConfigSm");
    serviceMountConfigSmDel(name);
  } else {
    VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleServiceMountCommon",
               " mounts not complete ", name);
  }
}

void ServiceConfigDirSm::handleServicePublish() {
  if (!initialized_ || !publishConfigDir_) return;
  VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleServicePublish", "()");
  for (auto const& [name, entity] : publishConfigDir_->entityPtrMembers()) {
    handleServicePublish(name);
  }
}

void ServiceConfigDirSm::handleServicePublish(Vesk::Name const& name) {
  if (!initialized_) return;
  VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleServicePublish", ": ", name);
  Vesk::Ptr<Vesk::Entity const> const config = entityIn(publishConfigDir_, name);
  Vesk::Ptr<Vesk::Entity> const status = entityIn(publishStatusDir_, name);
  if (!config || !status) return;
  auto publishConfig = Vesk::ptr_cast<ServicePublishConfig const>(config);
  auto publishStatus = Vesk::ptr_cast<ServicePublishStatus>(status);
  if (publishConfig && publishStatus) {
    if (servicePublishConfigSm_(name)) return;
    VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleServicePublish",
               " creating servicePublishConfigSm for ", name);
    servicePublishConfigSmIs(controllerdbStatus_, publishConfig, publishStatus,
                             controllerdbPublishStatus_, mountsRegistry_);
  } else if (servicePublishConfigSm_(name)) {
    VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleServicePublish", " deleting ", name,
               " servicePublishConfigSm");
    servicePublishConfigSmDel(name);
  } else {
    VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::handleServicePublish", " mounts not complete ",
               name);
  }
}

void ServiceConfigDirSm::doCleanup() {
  VESK_TRACE(traceHandle, 5, "ServiceConfigDirSm::doCleanup");
  dirReactors_.clear();
  serviceMountConfigSmDelAll();
  servicePublishConfigSmDelAll();
}

}  // namespace Controller
