// ServiceMountConfigSm: mounts what one service declares in its mount configuration.
//
// The machine waits for the service's name, then keeps one ServiceMountGroupSm per declared
// mount group; the groups write the registry's entries and mounters and the service's
// mountedPathPrefix. It copies the declared service name into the service's status.
//
// A proxy service (one whose declaration came from the proxy directories) mounts whatever
// the leader generation; an ordinary one only under the generation its declaration was
// written for. The groups watch the generation ids themselves.
//
// The service name is taken once, when the machine initializes: every mounter the groups
// add is keyed by it, so that a later rename cannot strand them.
//
// The parent creates it through serviceMountConfigSmFactory and calls doCleanup() before
// dropping it: the groups withdraw their mounters and prefixes and go with it.
#pragma once

#include <array>
#include <memory>
#include <tuple>

#include "framework/core/Machine.h"
#include "registry/MountsRegistry.h"

namespace Controller {

class ServiceConfigDirSm;
class ServiceMountGroupSm;

class ServiceMountConfigSm : public Vesk::PtrInterface {
 public:
  static constexpr char const* typeName = "Controller::ServiceMountConfigSm";
  static constexpr std::array<char const*, 6> inputNames{"isProxyService",     "controllerdbStatus",
                                                         "serviceMountConfig", "serviceMountStatus",
                                                         "mountsRegistry",     "parent"};

  ServiceMountConfigSm(bool isProxyService,
                       Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
                       Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
                       Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
                       Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent);
  ~ServiceMountConfigSm() override;
  auto inputs() const {
    return std::tie(isProxyService_, controllerdbStatus_, serviceMountConfig_, serviceMountStatus_,
                    mountsRegistry_, parent_);
  }

  bool isProxyService() const { return isProxyService_; }
  Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus() const {
    return controllerdbStatus_;
  }
  Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig() const {
    return serviceMountConfig_;
  }
  Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus() const { return serviceMountStatus_; }
  Vesk::Ptr<MountsRegistry> const& mountsRegistry() const { return mountsRegistry_; }
  ServiceConfigDirSm* parent() const { return parent_; }
  Vesk::Name const& agentName() const { return agentName_; }
  Vesk::String const& serviceName() const { return serviceName_; }
  bool initialized() const { return initialized_; }

  Vesk::Ptr<ServiceMountGroupSm> mountGroupSm(Vesk::Name const& group) const;
  size_t mountGroupSmSize() const { return mountGroupSm_.size(); }
  Vesk::Ptr<ServiceMountGroupSm> mountGroupSmIs(
      Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
      Vesk::Ptr<ServiceMountGroupConfig const> const& mountGroupConfig,
      Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
      Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
      Vesk::Ptr<MountsRegistry> const& mountsRegistry);
  // Cleans the group machine up, then drops it.
  void mountGroupSmDel(Vesk::Name const& group);
  void mountGroupSmDelAll();

  void hasNotificationActiveIs(bool active) override;

  void handleServiceName();
  void handleInitialized();
  void handleMountGroupConfig(Vesk::Name const& group);
  void handleMountGroupConfig();
  // Stops following the declaration and cleans up and drops every group machine.
  void doCleanup();

 private:
  class ConfigReactor;

  bool const isProxyService_;
  Vesk::Ptr<Controllerdb::Status const> const controllerdbStatus_;
  Vesk::Ptr<ServiceMountConfig const> const serviceMountConfig_;
  Vesk::Ptr<ServiceMountStatus> const serviceMountStatus_;
  Vesk::Ptr<MountsRegistry> const mountsRegistry_;
  ServiceConfigDirSm* const parent_;
  Vesk::Name const agentName_;
  Vesk::String serviceName_;
  Vesk::MachineCollection<Vesk::Name, ServiceMountGroupSm> mountGroupSm_;
  std::unique_ptr<ConfigReactor> configReactor_;
  bool initialized_ = false;
  [[no_unique_address]] Vesk::LiveCount<ServiceMountConfigSm> liveCount_;
};

Vesk::Ptr<ServiceMountConfigSm> serviceMountConfigSmFactory(
    bool isProxyService, Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
    Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent);

}  // namespace Controller
