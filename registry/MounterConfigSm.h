// MounterConfigSm: keeps one mounter's group filters merged into its entry machine.
//
// It feeds the systems that the group's system filter includes into the entry machine's
// connectionFilter (counting, since several mounters may include one system) and the
// versions that the group's version filter includes into the entry machine's versionFilter
// for the mounter's service. It remembers what it fed in, so that a filter replaced or a
// member flipped takes out exactly what it put in. Its cleanup also removes the status
// records its service had for the entry.
#pragma once

#include <array>
#include <optional>
#include <set>
#include <tuple>

#include "framework/core/Machine.h"
#include "registry/MountsRegistry.h"

namespace Controller {

class MountsRegistryEntrySm;

class MounterConfigSm : public Vesk::PtrInterface {
 public:
  static constexpr char const* typeName = "Controller::MounterConfigSm";
  static constexpr std::array<char const*, 2> inputNames{"mounter", "mountsRegistryEntrySm"};

  MounterConfigSm(Vesk::Ptr<Mounter> const& mounter, MountsRegistryEntrySm* mountsRegistryEntrySm);
  ~MounterConfigSm() override;
  auto inputs() const { return std::tie(mounter_, mountsRegistryEntrySm_); }

  Vesk::Ptr<Mounter> const& mounter() const { return mounter_; }
  bool initialized() const { return initialized_; }

  void addSystemToConnectionFilter(Vesk::String const& system);
  void removeSystemFromConnectionFilter(Vesk::String const& system);
  void addVersionToVersionFilter(uint32_t version);
  void removeVersionFromVersionFilter(uint32_t version);
  void systemFilterIs(Vesk::Ptr<MountFilterSystem const> const& filter);
  void versionFilterIs(Vesk::Ptr<MountFilterServiceVersion const> const& filter);
  void handleIncludedSystem(Vesk::String const& system);
  void handleIncludedSystem();
  void handleIncludedServiceVersion(uint32_t version);
  void handleIncludedServiceVersion();
  void handleInitialized();
  void doCleanup();

 private:
  // Follows the group's choice of filters. Every mounter with a group has one, so it is
  // held in the machine rather than made apart.
  class GroupReactor
      : public Vesk::OwnedReactor<ServiceMountGroupConfig::NotifieeConst, MounterConfigSm> {
   public:
    using OwnedReactor::OwnedReactor;
    void onSystemFilter() override;
    void onVersionFilter() override;
  };
  class SystemFilterReactor;
  class VersionFilterReactor;

  Vesk::String const& entryPath() const;
  void handleIncludedSystemChange(Vesk::String const& system);
  void filtersReplaced();
  void removeStatusRecords();

  Vesk::Ptr<Mounter> const mounter_;
  MountsRegistryEntrySm* const mountsRegistryEntrySm_;
  std::optional<GroupReactor> groupReactor_;
  std::unique_ptr<SystemFilterReactor> systemFilterReactor_;
  std::unique_ptr<VersionFilterReactor> versionFilterReactor_;
  // What this mounter has fed into the entry machine's filters.
  std::set<Vesk::String> systemsAdded_;
  std::set<uint32_t> versionsAdded_;
  bool initialized_ = false;
  [[no_unique_address]] Vesk::LiveCount<MounterConfigSm> liveCount_;
};

Vesk::Ptr<MounterConfigSm> mounterConfigSmFactory(Vesk::Ptr<Mounter> const& mounter,
                                                  MountsRegistryEntrySm* mountsRegistryEntrySm);

}  // namespace Controller
