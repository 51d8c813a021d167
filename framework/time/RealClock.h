// RealClock: the steady wall time of a running agent.
//
// currentTime() is the number of seconds since the clock was created, read from a
// monotonic source. The agent's event loop calls waitAndFire(), which sleeps until the next
// wake-up (or at most maxWait) and then fires every due timer; fireDue() fires without
// waiting. Timers fire in clock order (see Clock.h).
//
// TYPICAL USAGE:
//   Ptr<RealClock> clock = new RealClock;
//   for (;;) clock->waitAndFire(0.1);   // interleaved with the agent's other input
//
// A turn fires the timers due when it starts, plus those (re-)armed during it for a time at
// or before that moment; a timer re-armed for "now" from its handler fires on the next turn,
// so the loop always gets control back.
#pragma once

#include <chrono>
#include <cstddef>

#include "framework/time/Clock.h"

namespace Vesk {

class RealClock : public Clock {
 public:
  RealClock();

  Seconds currentTime() const override;

  // Each returns the number of timers fired.
  size_t fireDue();
  // Sleeps until the next wake-up or for maxWait, whichever comes first, then fires what is
  // due. A maxWait of zero or less does not sleep.
  size_t waitAndFire(Seconds maxWait);

 protected:
  ~RealClock() override = default;

 private:
  std::chrono::steady_clock::time_point origin_;
};

}  // namespace Vesk
