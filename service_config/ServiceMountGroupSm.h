// ServiceMountGroupSm: turns one mount group of a service into registry mount entries.
//
// Every MountConfig of the group becomes a registry entry named by the configuration's name
// alone, so all services and groups that declare one name share one entry, and the entry
// keeps the type, flags and target path of whoever made it first. On that entry the service
// holds one mounter, keyed by the service name: a second group of the same service that
// declares the same name is only traced, and a group that withdraws a name withdraws the
// service's mounter whichever of its groups added it. With the mounter, the target path is
// recorded in the service's mountedPathPrefix. Entries are never deleted here: an entry
// whose last mounter went stays in the registry for the registry machines to act on.
//
// The group mounts only while its service's declaration was written for the current leader
// (canMount()): the controller database's leader generation is set and equal to the one
// the declaration carries. A proxy service always mounts. When either generation changes
// the group adds everything it declares, or, stale, withdraws all its mounters and their
// prefixes (doCleanup()), keeping the entries.
#pragma once

#include <array>
#include <memory>
#include <tuple>
#include <vector>

#include "framework/core/Machine.h"
#include "registry/MountsRegistry.h"

namespace Controller {

class ServiceMountConfigSm;

class ServiceMountGroupSm : public Vesk::PtrInterface {
 public:
  static constexpr char const* typeName = "Controller::ServiceMountGroupSm";
  static constexpr std::array<char const*, 6> inputNames{"controllerdbStatus", "mountGroupConfig",
                                                         "serviceMountConfig", "serviceMountStatus",
                                                         "mountsRegistry",     "parent"};

  ServiceMountGroupSm(Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
                      Vesk::Ptr<ServiceMountGroupConfig const> const& mountGroupConfig,
                      Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
                      Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
                      Vesk::Ptr<MountsRegistry> const& mountsRegistry,
                      ServiceMountConfigSm* parent);
  ~ServiceMountGroupSm() override;
  auto inputs() const {
    return std::tie(controllerdbStatus_, mountGroupConfig_, serviceMountConfig_,
                    serviceMountStatus_, mountsRegistry_, parent_);
  }

  Vesk::Ptr<ServiceMountGroupConfig const> const& mountGroupConfig() const {
    return mountGroupConfig_;
  }
  Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus() const { return serviceMountStatus_; }
  ServiceMountConfigSm* parent() const { return parent_; }
  Vesk::Name const& groupName() const { return groupName_; }
  Vesk::String const& serviceName() const;
  bool initialized() const { return initialized_; }

  void handleInitialized();
  bool canMount() const;
  void handleLeaderGenId();
  void handleMountConfig(Vesk::Name const& name);
  void handleMountConfig();
  void addMountConfig(Vesk::Name const& name);
  void removeMountConfig(Vesk::Name const& name);
  // Withdraws the service's mounters and prefixes for every name the group declares. The
  // machine keeps watching its group, so a matching generation can mount again.
  void doCleanup();
  // Stops reacting: the parent is dropping the machine.
  void detach();

 private:
  class GroupReactor;
  class ControllerdbReactor;
  class ServiceReactor;

  // The target path of a new entry, with its chain of directories created.
  Vesk::String newTargetPath(Vesk::Name const& name, MountConfig const& mountConfig) const;
  void mountedPathPrefixIs(Vesk::Name const& name, Vesk::String const& targetPath);

  Vesk::Ptr<Controllerdb::Status const> const controllerdbStatus_;
  Vesk::Ptr<ServiceMountGroupConfig const> const mountGroupConfig_;
  Vesk::Ptr<ServiceMountConfig const> const serviceMountConfig_;
  Vesk::Ptr<ServiceMountStatus> const serviceMountStatus_;
  Vesk::Ptr<MountsRegistry> const mountsRegistry_;
  ServiceMountConfigSm* const parent_;
  Vesk::Name const groupName_;
  std::unique_ptr<GroupReactor> groupReactor_;
  std::unique_ptr<ControllerdbReactor> controllerdbReactor_;
  std::unique_ptr<ServiceReactor> serviceReactor_;
  bool initialized_ = false;
  [[no_unique_address]] Vesk::LiveCount<ServiceMountGroupSm> liveCount_;
};

Vesk::Ptr<ServiceMountGroupSm> serviceMountGroupSmFactory(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServiceMountGroupConfig const> const& mountGroupConfig,
    Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
    Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServiceMountConfigSm* parent);

}  // namespace Controller
