// ServiceConfigDirSm: the entry of the service configuration machines.
//
// The hosting agent creates one over the directories in which services place their mount,
// proxy mount and publish declarations and the directories that hold their status records.
// For every name under which both a declaration and a status of the expected types exist it
// keeps one child: a ServiceMountConfigSm per mounting service (ordinary and proxy services
// in one collection, told apart by the proxy naming rule) and a ServicePublishConfigSm per
// publishing service. It never writes the directories.
//
// A child is made once both records of its name exist and is kept when either of them
// goes; it is dropped only when a record of another type takes one's place. Records present
// before the machine are taken up when it is made: mount services first, then proxy mount
// services, then publish services.
//
// The hosting agent calls doCleanup() before dropping the machine: every child is cleaned
// up and dropped, so that nothing the machines wrote outlives them.
//
// TYPICAL USAGE:
//   Vesk::Ptr<ServiceConfigDirSm> sm = serviceConfigDirSmFactory(
//       controllerdbStatus, mountConfigDir, mountStatusDir, publishConfigDir, publishStatusDir,
//       proxyMountConfigDir, proxyMountStatusDir, controllerdbPublishStatus, mountsRegistry);
//   ...
//   sm->doCleanup();
#pragma once

#include <array>
#include <memory>
#include <tuple>
#include <vector>

#include "framework/core/Dir.h"
#include "framework/core/Machine.h"
#include "registry/MountsRegistry.h"

namespace Controller {

class ServiceMountConfigSm;
class ServicePublishConfigSm;

class ServiceConfigDirSm : public Vesk::PtrInterface {
 public:
  static constexpr char const* typeName = "Controller::ServiceConfigDirSm";
  static constexpr std::array<char const*, 9> inputNames{
      "controllerdbStatus",  "mountConfigDir",
      "mountStatusDir",      "publishConfigDir",
      "publishStatusDir",    "proxyMountConfigDir",
      "proxyMountStatusDir", "controllerdbPublishStatus",
      "mountsRegistry"};

  ServiceConfigDirSm(Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
                     Vesk::Ptr<Vesk::Dir const> const& mountConfigDir,
                     Vesk::Ptr<Vesk::Dir> const& mountStatusDir,
                     Vesk::Ptr<Vesk::Dir const> const& publishConfigDir,
                     Vesk::Ptr<Vesk::Dir> const& publishStatusDir,
                     Vesk::Ptr<Vesk::Dir const> const& proxyMountConfigDir,
                     Vesk::Ptr<Vesk::Dir> const& proxyMountStatusDir,
                     Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
                     Vesk::Ptr<MountsRegistry> const& mountsRegistry);
  ~ServiceConfigDirSm() override;
  auto inputs() const {
    return std::tie(controllerdbStatus_, mountConfigDir_, mountStatusDir_, publishConfigDir_,
                    publishStatusDir_, proxyMountConfigDir_, proxyMountStatusDir_,
                    controllerdbPublishStatus_, mountsRegistry_);
  }

  Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus() const {
    return controllerdbStatus_;
  }
  Vesk::Ptr<Vesk::Dir const> const& mountConfigDir() const { return mountConfigDir_; }
  Vesk::Ptr<Vesk::Dir> const& mountStatusDir() const { return mountStatusDir_; }
  Vesk::Ptr<Vesk::Dir const> const& publishConfigDir() const { return publishConfigDir_; }
  Vesk::Ptr<Vesk::Dir> const& publishStatusDir() const { return publishStatusDir_; }
  Vesk::Ptr<Vesk::Dir const> const& proxyMountConfigDir() const { return proxyMountConfigDir_; }
  Vesk::Ptr<Vesk::Dir> const& proxyMountStatusDir() const { return proxyMountStatusDir_; }
  Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus() const {
    return controllerdbPublishStatus_;
  }
  Vesk::Ptr<MountsRegistry> const& mountsRegistry() const { return mountsRegistry_; }
  bool initialized() const { return initialized_; }

  Vesk::Ptr<ServiceMountConfigSm> serviceMountConfigSm(Vesk::Name const& name) const;
  size_t serviceMountConfigSmSize() const { return serviceMountConfigSm_.size(); }
  Vesk::Ptr<ServiceMountConfigSm> serviceMountConfigSmIs(
      bool isProxyService, Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
      Vesk::Ptr<ServiceMountConfig const> const& serviceMountConfig,
      Vesk::Ptr<ServiceMountStatus> const& serviceMountStatus,
      Vesk::Ptr<MountsRegistry> const& mountsRegistry);
  // Each cleans the child up, then drops it.
  void serviceMountConfigSmDel(Vesk::Name const& name);
  void serviceMountConfigSmDelAll();

  Vesk::Ptr<ServicePublishConfigSm> servicePublishConfigSm(Vesk::Name const& name) const;
  size_t servicePublishConfigSmSize() const { return servicePublishConfigSm_.size(); }
  Vesk::Ptr<ServicePublishConfigSm> servicePublishConfigSmIs(
      Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
      Vesk::Ptr<ServicePublishConfig const> const& servicePublishConfig,
      Vesk::Ptr<ServicePublishStatus> const& servicePublishStatus,
      Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
      Vesk::Ptr<MountsRegistry> const& mountsRegistry);
  void servicePublishConfigSmDel(Vesk::Name const& name);
  void servicePublishConfigSmDelAll();

  void hasNotificationActiveIs(bool active) override;

  void handleInitialized();
  void handleServiceMount(Vesk::Name const& name);
  void handleServiceMount();
  void handleProxyServiceMount(Vesk::Name const& name);
  void handleProxyServiceMount();
  void handleServicePublish(Vesk::Name const& name);
  void handleServicePublish();
  void handleServiceMountCommon(bool isProxyService, Vesk::Name const& name,
                                Vesk::Ptr<Vesk::Entity const> const& config,
                                Vesk::Ptr<Vesk::Entity> const& status);
  // Stops following the directories and cleans up and drops every child.
  void doCleanup();

 private:
  class DirReactor;
  // Which handlers a directory's entries go to.
  enum class ServiceKind { mount, proxyMount, publish };

  void dirReactorIs(Vesk::Ptr<Vesk::Dir const> const& dir, ServiceKind kind);
  void handleService(ServiceKind kind, Vesk::Name const& name);
  void handleServices(ServiceKind kind);

  Vesk::Ptr<Controllerdb::Status const> const controllerdbStatus_;
  Vesk::Ptr<Vesk::Dir const> const mountConfigDir_;
  Vesk::Ptr<Vesk::Dir> const mountStatusDir_;
  Vesk::Ptr<Vesk::Dir const> const publishConfigDir_;
  Vesk::Ptr<Vesk::Dir> const publishStatusDir_;
  Vesk::Ptr<Vesk::Dir const> const proxyMountConfigDir_;
  Vesk::Ptr<Vesk::Dir> const proxyMountStatusDir_;
  Vesk::Ptr<Controllerdb::PublishStatus> const controllerdbPublishStatus_;
  Vesk::Ptr<MountsRegistry> const mountsRegistry_;
  Vesk::MachineCollection<Vesk::Name, ServiceMountConfigSm> serviceMountConfigSm_;
  Vesk::MachineCollection<Vesk::Name, ServicePublishConfigSm> servicePublishConfigSm_;
  std::vector<std::unique_ptr<DirReactor>> dirReactors_;
  bool initialized_ = false;
  [[no_unique_address]] Vesk::LiveCount<ServiceConfigDirSm> liveCount_;
};

Vesk::Ptr<ServiceConfigDirSm> serviceConfigDirSmFactory(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<Vesk::Dir const> const& mountConfigDir, Vesk::Ptr<Vesk::Dir> const& mountStatusDir,
    Vesk::Ptr<Vesk::Dir const> const& publishConfigDir,
    Vesk::Ptr<Vesk::Dir> const& publishStatusDir,
    Vesk::Ptr<Vesk::Dir const> const& proxyMountConfigDir,
    Vesk::Ptr<Vesk::Dir> const& proxyMountStatusDir,
    Vesk::Ptr<Controllerdb::PublishStatus> const& controllerdbPublishStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry);

}  // namespace Controller
