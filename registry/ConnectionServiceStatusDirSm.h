// ConnectionServiceStatusDirSm: watches one connection's service status directory and
// tells the registry machine whenever a service's negotiated version on the connection
// becomes usable, so that the registry re-evaluates that connection.
//
// One per-service reactor (ServiceStatusSm) per service of the directory follows the
// service's enabled flag and its version status.
#pragma once

#include <array>
#include <tuple>

#include "framework/core/Machine.h"
#include "registry/MountsRegistry.h"

namespace Controller {

class MountsRegistrySm;

class ConnectionServiceStatusDirSm : public Vesk::PtrInterface {
 public:
  static constexpr char const* typeName = "Controller::ConnectionServiceStatusDirSm";
  static constexpr std::array<char const*, 3> inputNames{
      "connectionName", "controllerServiceStatusDir", "mountsRegistrySm"};

  class ServiceStatusSm;

  ConnectionServiceStatusDirSm(Vesk::Name const& connectionName,
                               Vesk::Ptr<ServiceStatusDir const> const& controllerServiceStatusDir,
                               MountsRegistrySm* mountsRegistrySm);
  ~ConnectionServiceStatusDirSm() override;
  auto inputs() const {
    return std::tie(connectionName_, controllerServiceStatusDir_, mountsRegistrySm_);
  }

  Vesk::Name const& connectionName() const { return connectionName_; }
  MountsRegistrySm* mountsRegistrySm() const { return mountsRegistrySm_; }
  bool initialized() const { return initialized_; }

  Vesk::Ptr<ServiceStatusSm> serviceStatus(Vesk::Name const& service) const {
    return serviceStatus_(service);
  }
  size_t serviceStatusSize() const { return serviceStatus_.size(); }
  Vesk::Ptr<ServiceStatusSm> serviceStatusIs(Vesk::Ptr<ServiceStatusV1 const> const& status);
  void serviceStatusDel(Vesk::Name const& service);
  void serviceStatusDelAll();

  void handleService(Vesk::Name const& service);
  void handleService();
  void handleInitialized();
  void doCleanup();

 private:
  class DirReactor;

  Vesk::Name const connectionName_;
  Vesk::Ptr<ServiceStatusDir const> const controllerServiceStatusDir_;
  MountsRegistrySm* const mountsRegistrySm_;
  Vesk::MachineCollection<Vesk::Name, ServiceStatusSm> serviceStatus_;
  std::unique_ptr<DirReactor> dirReactor_;
  bool initialized_ = false;
  [[no_unique_address]] Vesk::LiveCount<ConnectionServiceStatusDirSm> liveCount_;
};

// The reactor on one service of the connection.
class ConnectionServiceStatusDirSm::ServiceStatusSm : public Vesk::PtrInterface {
 public:
  static constexpr std::array<char const*, 2> inputNames{"serviceStatus", "owner"};

  ServiceStatusSm(Vesk::Ptr<ServiceStatusV1 const> const& serviceStatus,
                  ConnectionServiceStatusDirSm* owner);
  ~ServiceStatusSm() override;
  auto inputs() const { return std::tie(serviceStatus_, owner_); }

  Vesk::Ptr<ServiceStatusV1 const> const& serviceStatus() const { return serviceStatus_; }
  void versionStatusIs(Vesk::Ptr<ServiceVersionStatusV1 const> const& versionStatus);
  void versionStatusDel();

  void handleInitialized();
  void handleEnabled();
  void handleVersionStatus();
  void doCleanup();

 private:
  class StatusReactor;
  class VersionReactor;

  Vesk::Ptr<ServiceStatusV1 const> const serviceStatus_;
  ConnectionServiceStatusDirSm* const owner_;
  std::unique_ptr<StatusReactor> statusReactor_;
  std::unique_ptr<VersionReactor> versionReactor_;
  bool initialized_ = false;
  [[no_unique_address]] Vesk::LiveCount<ServiceStatusSm> liveCount_;
};

Vesk::Ptr<ConnectionServiceStatusDirSm> connectionServiceStatusDirSmFactory(
    Vesk::Name const& connectionName,
    Vesk::Ptr<ServiceStatusDir const> const& controllerServiceStatusDir,
    MountsRegistrySm* mountsRegistrySm);

}  // namespace Controller
