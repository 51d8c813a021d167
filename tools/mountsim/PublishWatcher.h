// PublishWatcher: reports every change of what the switches are published.
//
// It follows the controller database's publish status: each switch's publish record, whose
// published mounts come and go, and each service's publish-ready flag. Its sink is called
// with the clock's time for each published mount made, changed or withdrawn, for each
// switch's record that goes (with its switch), and for each ready flag set, changed or
// removed. Records that appear later are picked up as they
// appear; records that go are dropped.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "framework/records/ControllerRecords.h"
#include "framework/time/Clock.h"

namespace MountSim {

struct PublishEvent {
  enum class Kind { published, withdrawn, recordGone, ready, readyGone };
  Vesk::Seconds time;
  Kind kind;
  std::string system;      // the switch, for a published mount
  std::string path;        // the published path, for a published mount
  std::string remotePath;  // where it is published, for a published mount
  std::string service;     // the publishing service
  bool ready = false;      // the flag, for a ready flag
};

class PublishWatcher {
 public:
  using Sink = std::function<void(PublishEvent const&)>;
  PublishWatcher(Vesk::Ptr<Controllerdb::PublishStatus> const& publishStatus,
                 Vesk::Ptr<Vesk::Clock> const& clock, Sink sink);
  ~PublishWatcher();

 private:
  class StatusWatch;
  std::unique_ptr<StatusWatch> status_;
};

}  // namespace MountSim
