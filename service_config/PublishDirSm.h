// PublishDirSm: keeps the registry entry of one published directory in step with it.
//
// When it starts, the machine asks its group to publish the directory as a prefix entry,
// which starts not ready. From then on the directory's remote target path and its
// readyToPublish flag are copied into the entry whenever either changes. A directory
// becomes ready only through this machine: the PublishDir's own ready flag is what makes
// the entry ready, and clearing it makes the entry not ready again.
//
// Only an entry that is the group's own is written (ServicePublishGroupSm::ownEntry), so a
// directory another service published first is left as that service wrote it.
#pragma once

#include <array>
#include <memory>
#include <tuple>

#include "framework/core/Machine.h"
#include "registry/MountsRegistry.h"

namespace Controller {

class ServicePublishGroupSm;

class PublishDirSm : public Vesk::PtrInterface {
 public:
  static constexpr char const* typeName = "Controller::PublishDirSm";
  static constexpr std::array<char const*, 2> inputNames{"publishDir", "parent"};

  PublishDirSm(Vesk::Ptr<PublishDir const> const& publishDir, ServicePublishGroupSm* parent);
  ~PublishDirSm() override;
  auto inputs() const { return std::tie(publishDir_, parent_); }

  Vesk::Ptr<PublishDir const> const& publishDir() const { return publishDir_; }
  ServicePublishGroupSm* parent() const { return parent_; }
  Vesk::Name const& dirName() const { return dirName_; }
  bool initialized() const { return initialized_; }

  void handleInitialized();
  void handlePublishDir();
  void handleReadyToPublish();
  void doCleanup();

 private:
  class DirReactor;

  bool declaredByGroup() const;

  Vesk::Ptr<PublishDir const> const publishDir_;
  ServicePublishGroupSm* const parent_;
  Vesk::Name const dirName_;
  std::unique_ptr<DirReactor> dirReactor_;
  bool initialized_ = false;
  [[no_unique_address]] Vesk::LiveCount<PublishDirSm> liveCount_;
};

Vesk::Ptr<PublishDirSm> publishDirSmFactory(Vesk::Ptr<PublishDir const> const& publishDir,
                                            ServicePublishGroupSm* parent);

}  // namespace Controller
