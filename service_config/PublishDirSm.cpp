#include "service_config/PublishDirSm.h"

#include "framework/trace/Trace.h"
#include "service_config/ServicePublishGroupSm.h"

namespace Controller {

namespace {
Vesk::TraceHandle traceHandle("PublishDirSm", true);
}  // namespace

class PublishDirSm::DirReactor
    : public Vesk::OwnedReactor<PublishDir::NotifieeConst, PublishDirSm> {
 public:
  using OwnedReactor::OwnedReactor;
  void onRemoteTargetPath() override { owner_->handleReadyToPublish(); }
  void onReadyToPublish() override { owner_->handleReadyToPublish(); }
};

PublishDirSm::PublishDirSm(Vesk::Ptr<PublishDir const> const& publishDir,
                           ServicePublishGroupSm* parent)
    : publishDir_(publishDir), parent_(parent), dirName_(publishDir->controllerdbPath()) {
  dirReactor_ = std::make_unique<DirReactor>(this);
  dirReactor_->notifierIs(publishDir_);
  handleInitialized();
}

PublishDirSm::~PublishDirSm() = default;

Vesk::Ptr<PublishDirSm> publishDirSmFactory(Vesk::Ptr<PublishDir const> const& publishDir,
                                            ServicePublishGroupSm* parent) {
  return Vesk::Ptr<PublishDirSm>(new PublishDirSm(publishDir, parent));
}

bool PublishDirSm::declaredByGroup() const {
  return parent_->publishGroupConfig()->publishDir(dirName_) == publishDir_;
}

void PublishDirSm::handleInitialized() {
  VESK_TRACE(traceHandle, 5, "PublishDirSm::handleInitialized", " dir:", dirName_);
  if (initialized_) return;
  initialized_ = true;
  handlePublishDir();
  handleReadyToPublish();
}

void PublishDirSm::handlePublishDir() {
  VESK_TRACE(traceHandle, 5, "PublishDirSm::handlePublishDir", " dir:", dirName_,
             " declared:", declaredByGroup());
  if (!initialized_) return;
  if (declaredByGroup()) {
    parent_->addPublishDir(publishDir_, parent_->publishGroupConfig());
  } else {
    parent_->removePublishDir(dirName_);
  }
}

void PublishDirSm::handleReadyToPublish() {
  VESK_TRACE(traceHandle, 5, "PublishDirSm::handleReadyToPublish", " dir:", dirName_,
             " rpath:", publishDir_->remoteTargetPath(), " ready:", publishDir_->readyToPublish());
  if (!initialized_ || !declaredByGroup()) return;
  Vesk::Ptr<PublishRegistryEntry> entry = parent_->ownEntry(dirName_, true);
  if (!entry) return;
  entry->remotePathIs(publishDir_->remoteTargetPath());
  entry->readyToPublishIs(publishDir_->readyToPublish());
}

void PublishDirSm::doCleanup() {
  VESK_TRACE(traceHandle, 5, "PublishDirSm::doCleanup", " dir:", dirName_);
  dirReactor_.reset();
  parent_->removePublishDir(dirName_);
}

}  // namespace Controller
