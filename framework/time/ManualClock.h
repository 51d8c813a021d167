// ManualClock: virtual time that moves only when told to, for tests and the simulator.
//
// Time starts at 0 (or the given start) and never goes backwards. advanceTo(t) fires every
// timer due at or before t in clock order (see Clock.h), moving the time to each timer's
// timeMin as it fires it, and ends at t. A timer (re-)armed during the advance for a time at
// or before t fires within the same advance, at its timeMin or at the current time if that
// has already passed. A handler that keeps re-arming itself at the current time therefore
// never lets an advance end.
//
// TYPICAL USAGE:
//   Ptr<ManualClock> clock = new ManualClock;
//   timer.notifierIs(clock);
//   timer.timeMinIs(10.0);
//   clock->advanceBy(9.5);   // nothing fires
//   clock->advanceBy(0.5);   // timer.onTime() runs with currentTime() == 10.0
//
//   while (clock->runNext()) {}   // an event loop: run until no timer is armed
//
// A target time that is NaN, infinite or before the current time throws RangeException.
#pragma once

#include <cstddef>

#include "framework/time/Clock.h"

namespace Vesk {

class ManualClock : public Clock {
 public:
  explicit ManualClock(Seconds start = 0.0);

  Seconds currentTime() const override { return now_; }

  // Each returns the number of timers fired.
  size_t advanceTo(Seconds t);
  size_t advanceBy(Seconds dt);
  // Advances to the next wake-up (or stays at the current time when that has passed) and
  // fires everything due then; false, with nothing done, when no timer is armed.
  bool runNext();

 protected:
  ~ManualClock() override = default;

 private:
  Seconds now_;
};

}  // namespace Vesk
