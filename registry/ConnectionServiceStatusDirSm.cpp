#include "registry/ConnectionServiceStatusDirSm.h"

#include "framework/core/Assert.h"
#include "framework/trace/Trace.h"
#include "registry/MountsRegistrySm.h"

namespace Controller {

namespace {
Vesk::TraceHandle traceHandle("ConnectionServiceStatusDirSm", true);
}  // namespace

class ConnectionServiceStatusDirSm::DirReactor
    : public Vesk::OwnedReactor<ServiceStatusDir::NotifieeConst, ConnectionServiceStatusDirSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onService(Vesk::Name const& service) override { owner_->handleService(service); }
  void onService() override { owner_->handleService(); }
};

class ConnectionServiceStatusDirSm::ServiceStatusSm::StatusReactor
    : public Vesk::OwnedReactor<ServiceStatusV1::NotifieeConst, ServiceStatusSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onEnabled() override { owner_->handleEnabled(); }
  void onVersionStatus() override {
    owner_->versionStatusIs(notifierRaw()->versionStatus());
    owner_->handleVersionStatus();
  }
};

class ConnectionServiceStatusDirSm::ServiceStatusSm::VersionReactor
    : public Vesk::OwnedReactor<ServiceVersionStatusV1::NotifieeConst, ServiceStatusSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onVersionNegotiationComplete() override { owner_->handleVersionStatus(); }
  void onVersionCompatible() override { owner_->handleVersionStatus(); }
  // A renegotiation may change the version alone.
  void onNegotiatedVersion() override { owner_->handleVersionStatus(); }
};

// ---- the connection's machine -------------------------------------------------------------

ConnectionServiceStatusDirSm::ConnectionServiceStatusDirSm(
    Vesk::Name const& connectionName,
    Vesk::Ptr<ServiceStatusDir const> const& controllerServiceStatusDir,
    MountsRegistrySm* mountsRegistrySm)
    : connectionName_(connectionName),
      controllerServiceStatusDir_(controllerServiceStatusDir),
      mountsRegistrySm_(mountsRegistrySm),
      serviceStatus_(typeName, "serviceStatus") {
  handleInitialized();
  if (controllerServiceStatusDir_) {
    dirReactor_ = std::make_unique<DirReactor>(this);
    dirReactor_->notifierIs(controllerServiceStatusDir_);
  }
}

ConnectionServiceStatusDirSm::~ConnectionServiceStatusDirSm() = default;

Vesk::Ptr<ConnectionServiceStatusDirSm> connectionServiceStatusDirSmFactory(
    Vesk::Name const& connectionName,
    Vesk::Ptr<ServiceStatusDir const> const& controllerServiceStatusDir,
    MountsRegistrySm* mountsRegistrySm) {
  return Vesk::Ptr<ConnectionServiceStatusDirSm>(new ConnectionServiceStatusDirSm(
      connectionName, controllerServiceStatusDir, mountsRegistrySm));
}

Vesk::Ptr<ConnectionServiceStatusDirSm::ServiceStatusSm>
ConnectionServiceStatusDirSm::serviceStatusIs(Vesk::Ptr<ServiceStatusV1 const> const& status) {
  return serviceStatus_.is(status ? status->serviceName() : Vesk::Name(), status, this);
}

void ConnectionServiceStatusDirSm::serviceStatusDel(Vesk::Name const& service) {
  serviceStatus_.cleanupAndDel(service);
}

void ConnectionServiceStatusDirSm::serviceStatusDelAll() { serviceStatus_.cleanupAndDelAll(); }

void ConnectionServiceStatusDirSm::handleService(Vesk::Name const& service) {
  VESK_TRACE(traceHandle, 5, "ConnectionServiceStatusDirSm::handleService",
             " connection:", connectionName_, " service:", service);
  if (Vesk::Ptr<ServiceStatusV1> status = controllerServiceStatusDir_->service(service)) {
    serviceStatusIs(status);
  } else {
    serviceStatusDel(service);
  }
}

void ConnectionServiceStatusDirSm::handleService() {
  for (auto const& [service, status] : controllerServiceStatusDir_->serviceMembers()) {
    handleService(service);
  }
}

void ConnectionServiceStatusDirSm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "ConnectionServiceStatusDirSm::", "handleInitialized",
             " connection:", connectionName_);
  initialized_ = true;
}

// The connection is going: its services are dropped and the registry re-evaluates the
// system, which is gone from the peer table by now.
void ConnectionServiceStatusDirSm::doCleanup() {
  VESK_TRACE(traceHandle, 5, "ConnectionServiceStatusDirSm::", "doCleanup",
             " connection:", connectionName_);
  dirReactor_.reset();
  serviceStatus_.cleanupAndDelAll();
  SystemId systemId;
  if (systemId.stringValueIs(connectionName_)) mountsRegistrySm_->handleSwitchConnection(systemId);
}

// ---- one service of the connection --------------------------------------------------------

ConnectionServiceStatusDirSm::ServiceStatusSm::ServiceStatusSm(
    Vesk::Ptr<ServiceStatusV1 const> const& serviceStatus, ConnectionServiceStatusDirSm* owner)
    : serviceStatus_(serviceStatus), owner_(owner) {
  statusReactor_ = std::make_unique<StatusReactor>(this);
  statusReactor_->notifierIs(serviceStatus_);
  versionStatusIs(serviceStatus_->versionStatus());
  handleInitialized();
}

ConnectionServiceStatusDirSm::ServiceStatusSm::~ServiceStatusSm() = default;

void ConnectionServiceStatusDirSm::ServiceStatusSm::versionStatusIs(
    Vesk::Ptr<ServiceVersionStatusV1 const> const& versionStatus) {
  if (!versionStatus) {
    versionStatusDel();
    return;
  }
  if (!versionReactor_) versionReactor_ = std::make_unique<VersionReactor>(this);
  versionReactor_->notifierIs(versionStatus);
}

void ConnectionServiceStatusDirSm::ServiceStatusSm::versionStatusDel() { versionReactor_.reset(); }

void ConnectionServiceStatusDirSm::ServiceStatusSm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "ConnectionServiceStatusDirSm::", "handleInitialized",
             " service:", serviceStatus_->serviceName());
  initialized_ = true;
  handleVersionStatus();
}

void ConnectionServiceStatusDirSm::ServiceStatusSm::handleEnabled() {
  VESK_TRACE(traceHandle, 5, "ConnectionServiceStatusDirSm::", "handleEnabled",
             owner_->connectionName(), ": ", serviceStatus_->serviceName(),
             " enabled: ", serviceStatus_->enabled());
  handleVersionStatus();
}

void ConnectionServiceStatusDirSm::ServiceStatusSm::handleVersionStatus() {
  if (!initialized_) return;
  Vesk::Name const& connection = owner_->connectionName();
  Vesk::Name const& service = serviceStatus_->serviceName();
  VESK_TRACE(traceHandle, 5, "ConnectionServiceStatusDirSm::", "handleVersionStatus", " ",
             connection, " ", service);
  ServiceVersionStatusV1 const* version = serviceStatus_->versionStatus().ptr();
  if (!version || !version->versionNegotiationComplete()) return;
  MountsRegistrySm* mrSm = owner_->mountsRegistrySm();
  mrSm->handleServiceVersion(connection, service);
  SystemId systemId;
  if (!systemId.stringValueIs(connection)) return;
  VESK_ASSERT(mrSm->controllerdbPublishStatus());
  if (Vesk::Ptr<Controllerdb::SystemPublishedMount> system =
          mrSm->controllerdbPublishStatus()->system(systemId)) {
    system->registeredPublishedPathsProcessedIs(service, true);
  }
}

// The service left the directory: tell the registry once more, so that it sees the
// version gone.
void ConnectionServiceStatusDirSm::ServiceStatusSm::doCleanup() {
  statusReactor_.reset();
  versionReactor_.reset();
  handleVersionStatus();
}

}  // namespace Controller
