// StatusWatcher: reports every change of the mount status that services see.
//
// It follows a mount status directory down the status tree (service -> system -> mount
// group -> mount) with one reactor per record, and calls its sink for each change of a
// group's or a mount's state (and of a mount's mounted path), with the clock's time.
// Records that appear later are picked up as they appear; records that go are dropped.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "framework/core/Dir.h"
#include "framework/time/Clock.h"
#include "model/MountInterface.h"

namespace MountSim {

struct StatusEvent {
  Vesk::Seconds time;
  std::string service;
  std::string system;
  std::string group;
  std::string path;  // empty for a group's summary
  Controller::MountState state;
  std::string mountedPath;
};

class StatusWatcher {
 public:
  using Sink = std::function<void(StatusEvent const&)>;
  StatusWatcher(Vesk::Ptr<Vesk::Dir> const& statusDir, Vesk::Ptr<Vesk::Clock> const& clock,
                Sink sink);
  ~StatusWatcher();

 private:
  class DirWatch;
  std::unique_ptr<DirWatch> dir_;
};

}  // namespace MountSim
