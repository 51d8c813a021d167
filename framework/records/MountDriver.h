// MountDriver: what a mount machine does with the requests the registry gives it.
//
// The mount-machine component owns how a mount connects, mounts, retries and times out.
// This library only needs the contract of Controller::MountSm: requests go in, progress
// comes back through the data record's mountState, and an unmount of either kind ends by
// writing mountStateNotMounted. The hosting agent installs the driver that carries the
// requests out (mountDriverIs); without one, a RecordingMountDriver records every request
// so that a test can see what was asked and set mountState by hand.
//
// A driver may keep its own state for a machine in the machine's driverState slot, which
// nothing else touches, instead of looking the machine up.
//
// A driver learns of every machine when it is constructed (request mount) and when it is
// destroyed; it must keep no Ptr to a machine beyond its destruction, and it must not take
// and drop a reference to a machine from inside onRequest for a mount request (the machine
// is still being constructed then).
#pragma once

#include <iosfwd>
#include <memory>
#include <vector>

#include "framework/core/String.h"

namespace Controller {

class MountSm;

class MountDriver {
 public:
  enum class Request { mount, remount, unmount, statePreservingUnmount, cleanup };

  virtual ~MountDriver() = default;
  virtual void onRequest(MountSm& sm, Request request) = 0;
  virtual void onDestroyed(MountSm&) {}
};

char const* requestName(MountDriver::Request r);
std::ostream& operator<<(std::ostream& os, MountDriver::Request r);

class RecordingMountDriver : public MountDriver {
 public:
  struct Record {
    Vesk::String system;
    Vesk::String path;
    Request request;
    bool operator==(Record const&) const = default;
    friend std::ostream& operator<<(std::ostream& os, Record const& r) {
      return os << r.system << " " << r.path << " " << r.request;
    }
  };

  void onRequest(MountSm& sm, Request request) override;
  std::vector<Record> const& records() const { return records_; }
  void recordsDelAll() { records_.clear(); }

 private:
  std::vector<Record> records_;
};

// The driver every mount machine uses; the hosting agent installs its own. Machines that
// exist keep the driver they were created under.
void mountDriverIs(std::shared_ptr<MountDriver> driver);
std::shared_ptr<MountDriver> const& mountDriver();

}  // namespace Controller
