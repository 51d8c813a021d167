#include "framework/time/RealClock.h"

#include <algorithm>
#include <thread>

namespace Vesk {

RealClock::RealClock() : origin_(std::chrono::steady_clock::now()) {}

Seconds RealClock::currentTime() const {
  return std::chrono::duration<Seconds>(std::chrono::steady_clock::now() - origin_).count();
}

size_t RealClock::fireDue() {
  Turn turn(this);
  Seconds const limit = currentTime();
  size_t fired = 0;
  Seconds due;
  while (Notifiee* n = dueTimerTake(limit, due)) {
    ++fired;
    n->onTime();
  }
  return fired;
}

size_t RealClock::waitAndFire(Seconds maxWait) {
  Seconds const deadline = currentTime() + std::min(maxWait, nextWakeup() - currentTime());
  // sleep_for may wake early, and a single call cannot express an unbounded wait.
  constexpr Seconds kLongestSleep = 3600.0;
  for (Seconds left = deadline - currentTime(); left > 0; left = deadline - currentTime()) {
    std::this_thread::sleep_for(std::chrono::duration<Seconds>(std::min(left, kLongestSleep)));
  }
  return fireDue();
}

}  // namespace Vesk
