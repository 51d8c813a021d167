// ServicePublishGroupSm: turns one publish group of a service into registry publish entries.
//
// Each PublishConfig of the group becomes an entry ready at once, and its publish status is
// written complete. Each PublishDir gets a PublishDirSm, which makes a prefix entry that is
// ready only once the directory says so. Entries carry the group's version and system
// filters, and follow the group when it points at other filters.
//
// A path is published by whoever declared it first: a group that finds the path already in
// the registry under another publisher leaves it alone, and never removes it later.
//
// An entry counts as this group's when the group itself added it: the group remembers the
// paths it put in the registry, and the entry still carries this service's name. That is
// narrower than "this service's entry under a path the group declares": a registry entry
// names no group, and two groups of one service may declare the same path, of which only
// the first publisher may later change or remove it.
//
// The group publishes only while its service may (ServicePublishConfigSm::canPublish());
// its service hands it every generation change through handleLeaderGenId(), and a stale
// generation withdraws everything it published until a matching one returns.
#pragma once

#include <array>
#include <memory>
#include <tuple>

#include "framework/core/Machine.h"
#include "registry/MountsRegistry.h"

namespace Controller {

class PublishDirSm;
class ServicePublishConfigSm;

class ServicePublishGroupSm : public Vesk::PtrInterface {
 public:
  static constexpr char const* typeName = "Controller::ServicePublishGroupSm";
  static constexpr std::array<char const*, 6> inputNames{
      "controllerdbStatus", "servicePublishConfig", "publishGroupConfig",
      "publishGroupStatus", "mountsRegistry",       "parent"};

  ServicePublishGroupSm(Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
                        Vesk::Ptr<ServicePublishConfig const> const& servicePublishConfig,
                        Vesk::Ptr<ServicePublishGroupConfig const> const& publishGroupConfig,
                        Vesk::Ptr<ServicePublishGroupStatus> const& publishGroupStatus,
                        Vesk::Ptr<MountsRegistry> const& mountsRegistry,
                        ServicePublishConfigSm* parent);
  ~ServicePublishGroupSm() override;
  auto inputs() const {
    return std::tie(controllerdbStatus_, servicePublishConfig_, publishGroupConfig_,
                    publishGroupStatus_, mountsRegistry_, parent_);
  }

  Vesk::Ptr<ServicePublishGroupConfig const> const& publishGroupConfig() const {
    return publishGroupConfig_;
  }
  Vesk::Ptr<ServicePublishGroupStatus> const& publishGroupStatus() const {
    return publishGroupStatus_;
  }
  Vesk::Ptr<MountsRegistry> const& mountsRegistry() const { return mountsRegistry_; }
  ServicePublishConfigSm* parent() const { return parent_; }
  Vesk::Name const& groupName() const { return groupName_; }
  Vesk::String const& serviceName() const;
  bool initialized() const { return initialized_; }

  Vesk::Ptr<PublishDirSm> publishDirSm(Vesk::Name const& path) const;
  size_t publishDirSmSize() const { return publishDirSm_.size(); }
  Vesk::Ptr<PublishDirSm> publishDirSmIs(Vesk::Ptr<PublishDir const> const& publishDir,
                                         ServicePublishGroupSm* owner);

  // The registry entry under path when it is this group's, else null; with a kind, only an
  // entry of that kind (a directory's, or a single entity's), since a group may declare one
  // path both ways and only the first gets the entry.
  Vesk::Ptr<PublishRegistryEntry> ownEntry(Vesk::Name const& path) const;
  Vesk::Ptr<PublishRegistryEntry> ownEntry(Vesk::Name const& path, bool isPrefixPath) const;

  void addPublishConfig(Vesk::Ptr<PublishConfig const> const& publishConfig,
                        Vesk::Ptr<ServicePublishGroupConfig const> const& groupConfig);
  void addPublishDir(Vesk::Ptr<PublishDir const> const& publishDir,
                     Vesk::Ptr<ServicePublishGroupConfig const> const& groupConfig);
  void removePublishConfig(Vesk::Name const& path);
  void removePublishDir(Vesk::Name const& path);

  void handleInitialized();
  void handlePublishConfig(Vesk::Name const& path);
  void handlePublishConfig();
  void handlePublishDir(Vesk::Name const& path);
  void handlePublishDir();
  void handleLeaderGenId();
  void handleSystemFilter();
  void handleVersionFilter();
  // A publish entry of the registry came or went.
  void handlePublishEntry(Vesk::Name const& path);
  // Withdraws everything the group published and the publish statuses it wrote. The
  // machine keeps watching its group, so a matching generation can publish again.
  void doCleanup();
  // Stops reacting: the parent is dropping the machine.
  void detach();

 private:
  template <class F>
  void forEachOwnEntry(F const& f) const;
  class GroupReactor;
  class RegistryReactor;

  bool publishing() const;
  void addPublishDirOrConfig(Vesk::Name const& path, Vesk::String const& remotePath,
                             Vesk::String const& type, bool isPrefixPath, bool readyToPublish,
                             Vesk::Ptr<ServicePublishGroupConfig const> const& groupConfig);
  void removePublishDirOrConfig(Vesk::Name const& path);

  Vesk::Ptr<Controllerdb::Status const> const controllerdbStatus_;
  Vesk::Ptr<ServicePublishConfig const> const servicePublishConfig_;
  Vesk::Ptr<ServicePublishGroupConfig const> const publishGroupConfig_;
  Vesk::Ptr<ServicePublishGroupStatus> const publishGroupStatus_;
  Vesk::Ptr<MountsRegistry> const mountsRegistry_;
  ServicePublishConfigSm* const parent_;
  Vesk::Name const groupName_;
  Vesk::MachineCollection<Vesk::Name, PublishDirSm> publishDirSm_;
  std::unique_ptr<GroupReactor> groupReactor_;
  std::unique_ptr<RegistryReactor> registryReactor_;
  // The registry entries this group added, each with whether it publishes a directory.
  Vesk::HashMap<Vesk::Name, bool> addedPaths_;
  bool initialized_ = false;
  // Set once the group has withdrawn its entries, until a current generation publishes again.
  bool withdrawn_ = false;
  [[no_unique_address]] Vesk::LiveCount<ServicePublishGroupSm> liveCount_;
};

Vesk::Ptr<ServicePublishGroupSm> servicePublishGroupSmFactory(
    Vesk::Ptr<Controllerdb::Status const> const& controllerdbStatus,
    Vesk::Ptr<ServicePublishConfig const> const& servicePublishConfig,
    Vesk::Ptr<ServicePublishGroupConfig const> const& publishGroupConfig,
    Vesk::Ptr<ServicePublishGroupStatus> const& publishGroupStatus,
    Vesk::Ptr<MountsRegistry> const& mountsRegistry, ServicePublishConfigSm* parent);

}  // namespace Controller
