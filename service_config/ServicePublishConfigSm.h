// ServicePublishConfigSm: publishes what one service declares in its publish configuration.
//
// The machine waits for the service's name, then keeps one ServicePublishGroupSm per
// declared publish group, and writes the group's status (complete once it is taken up).
// A service may publish only while its configuration was written for the current leader:
// the controller database's leader generation must be set and equal to the one the
// configuration carries (canPublish()). While it may, the registry's servicePublishReady
// flag of the service follows the configuration's ready flag; when the generation goes
// stale the flag is removed from the registry and every group withdraws its entries, and
// a matching generation brings both back.
//
// The machine reacts to both generation ids and hands every change on to its groups, so
// that each group sees each change exactly once; the groups watch no generation id.
//
// The hosting agent creates it through servicePublishConfigSmFactory and calls doCleanup()
// before dropping it: nothing the machine wrote to the registry or the status outlives it.
#pragma once

#include <array>
#include <memory>
#include <tuple>

#include "framework/core/Machine.h"
#include "registry/MountsRegistry.h"

namespace Controller {

class ServiceConfigDirSm;
class ServicePublishGroupSm;

class ServicePublishConfigSm : public Vesk::PtrInterface {
 public:
  static constexpr char const* typeName = "Controller::ServicePublishConfigSm";
  static constexpr std::array<char const*, 6> inputNames{
      "controllerdbStatus",        "servicePublishConfig", "servicePublishStatus",
      "controllerdbPublishStatus", "mountsRegistry",       "parent"};

  ServicePublishConfigSm(Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
                         Vesk::Ptr<ServicePublishConfig const> const& servicePublishConfig,
                         Vesk::Ptr<ServicePublishStatus> const& servicePublishStatus,
                         Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                         Vesk::Ptr<MountsRegistry> const& mountsRegistry,
                         ServiceConfigDirSm* parent);
  ~ServicePublishConfigSm() override;
  auto inputs() const {
    return std::tie(controllerdbStatus_, servicePublishConfig_, servicePublishStatus_,
                    controllerdbPublishStatus_, mountsRegistry_, parent_);
  }

  Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus() const {
    return controllerdbStatus_;
  }
  Vesk::Ptr<ServicePublishConfig const> const& servicePublishConfig() const {
    return servicePublishConfig_;
  }
  Vesk::Ptr<ServicePublishStatus> const& servicePublishStatus() const {
    return servicePublishStatus_;
  }
  Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus() const {
    return controllerdbPublishStatus_;
  }
  Vesk::Ptr<MountsRegistry> const& mountsRegistry() const { return mountsRegistry_; }
  ServiceConfigDirSm* parent() const { return parent_; }
  Vesk::Name const& agentName() const { return agentName_; }
  // The service name taken when the machine initialized; every registry entry and flag it
  // writes carries this name, so that a later rename cannot orphan them.
  Vesk::String const& serviceName() const { return serviceName_; }
  bool initialized() const { return initialized_; }

  Vesk::Ptr<ServicePublishGroupSm> publishGroupSm(Vesk::Name const& group) const;
  size_t publishGroupSmSize() const { return publishGroupSm_.size(); }
  Vesk::Ptr<ServicePublishGroupSm> publishGroupSmIs(
      Vesk::Ptr<ServicePublishGroupConfig const> const& publishGroupConfig,
      Vesk::Ptr<ServicePublishGroupStatus> const& publishGroupStatus);

  bool canPublish() const;
  void handleServiceName();
  void handleInitialized();
  void handlePublishReady();
  void handleLeaderGenId();
  void handlePublishGroupConfig(Vesk::Name const& group);
  void handlePublishGroupConfig();
  void doCleanup();

 private:
  class ConfigReactor;
  class ControllerdbReactor;

  void publishReadyDel();

  Vesk::Ptr<Controllerdb::Status const> const controllerdbStatus_;
  Vesk::Ptr<ServicePublishConfig const> const servicePublishConfig_;
  Vesk::Ptr<ServicePublishStatus> const servicePublishStatus_;
  Vesk::Ptr<Controllerdb::PublishStatus> const controllerdbPublishStatus_;
  Vesk::Ptr<MountsRegistry> const mountsRegistry_;
  ServiceConfigDirSm* const parent_;
  Vesk::Name const agentName_;
  Vesk::String serviceName_;
  Vesk::MachineCollection<Vesk::Name, ServicePublishGroupSm> publishGroupSm_;
  std::unique_ptr<ConfigReactor> configReactor_;
  std::unique_ptr<ControllerdbReactor> controllerdbReactor_;
  bool initialized_ = false;
  bool publishReadySet_ = false;
  [[no_unique_address]] Vesk::LiveCount<ServicePublishConfigSm> liveCount_;
};

Vesk::Ptr<ServicePublishConfigSm> servicePublishConfigSmFactory(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServicePublishConfig const> const& servicePublishConfig,
    Vesk::Ptr<ServicePublishStatus> const& servicePublishStatus,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServiceConfigDirSm* parent);

}  // namespace Controller
