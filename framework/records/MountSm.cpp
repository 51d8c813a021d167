#include <ostream>

#include "framework/records/ControllerRecords.h"
#include "framework/records/MountDriver.h"

namespace Controller {

namespace {
std::shared_ptr<MountDriver>& installedDriver() {
  static std::shared_ptr<MountDriver> driver = std::make_shared<RecordingMountDriver>();
  return driver;
}
}  // namespace

void mountDriverIs(std::shared_ptr<MountDriver> driver) {
  installedDriver() = driver ? std::move(driver) : std::make_shared<RecordingMountDriver>();
}

std::shared_ptr<MountDriver> const& mountDriver() { return installedDriver(); }

char const* requestName(MountDriver::Request r) {
  switch (r) {
    case MountDriver::Request::mount:
      return "mount";
    case MountDriver::Request::remount:
      return "remount";
    case MountDriver::Request::unmount:
      return "unmount";
    case MountDriver::Request::statePreservingUnmount:
      return "statePreservingUnmount";
    case MountDriver::Request::cleanup:
      return "cleanup";
  }
  return "?";
}

std::ostream& operator<<(std::ostream& os, MountDriver::Request r) { return os << requestName(r); }

void RecordingMountDriver::onRequest(MountSm& sm, Request request) {
  records_.push_back(Record{sm.system().stringValue(), sm.path(), request});
}

// The machine keeps the driver it was created under, so that replacing the installed
// driver never strands a machine half-way through a request.
void MountSm::veskConstructed() {
  driver_ = mountDriver();
  driver_->onRequest(*this, MountDriver::Request::mount);
}

void MountSm::veskDestroyed() { driver_->onDestroyed(*this); }

void MountSm::doRemount() { driver_->onRequest(*this, MountDriver::Request::remount); }
void MountSm::doUnmount() { driver_->onRequest(*this, MountDriver::Request::unmount); }
void MountSm::doStatePreservingUnmount() {
  driver_->onRequest(*this, MountDriver::Request::statePreservingUnmount);
}
void MountSm::doCleanup() { driver_->onRequest(*this, MountDriver::Request::cleanup); }

}  // namespace Controller

namespace Controllerdb {

void SystemPublishedMount::publishedMountIs(Controller::MountDesc const& desc) {
  publishedMountIs(desc.localPath, desc);
}

}  // namespace Controllerdb
