// TimedSink: where a watcher sends its events, each stamped with its clock's time.
#pragma once

#include <functional>

#include "framework/time/Clock.h"

namespace MountSim {

template <class Event>
struct TimedSink {
  Vesk::Ptr<Vesk::Clock> clock;
  std::function<void(Event const&)> sink;
  void report(Event e) const {
    e.time = clock->currentTime();
    sink(e);
  }
};

}  // namespace MountSim
