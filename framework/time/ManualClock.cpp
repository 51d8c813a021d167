#include "framework/time/ManualClock.h"

#include <algorithm>
#include <cmath>

#include "framework/core/Exception.h"

namespace Vesk {

ManualClock::ManualClock(Seconds start) : now_(start) {
  if (!std::isfinite(start)) throwRangeException("a manual clock must start at a finite time");
}

size_t ManualClock::advanceTo(Seconds t) {
  if (!std::isfinite(t)) throwRangeException("a manual clock advances to a finite time only");
  if (t < now_) throwRangeException("a manual clock does not go back in time");
  Turn turn(this);
  size_t fired = 0;
  Seconds due;
  while (Notifiee* n = dueTimerTake(t, due)) {
    now_ = std::max(now_, due);
    ++fired;
    n->onTime();
  }
  now_ = t;
  return fired;
}

size_t ManualClock::advanceBy(Seconds dt) {
  if (!(dt >= 0)) throwRangeException("a manual clock advances by a non-negative time only");
  return advanceTo(now_ + dt);
}

bool ManualClock::runNext() {
  if (armedCount() == 0) return false;
  advanceTo(std::max(now_, nextWakeup()));
  return true;
}

}  // namespace Vesk
