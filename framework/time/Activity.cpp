#include "framework/time/Activity.h"

#include "framework/core/Exception.h"
#include "framework/time/RealClock.h"

namespace Vesk {

namespace {
Ptr<Activity>& currentSlot() {
  static Ptr<Activity> current;
  return current;
}
}  // namespace

ActivityConfig::ActivityConfig(Ptr<Clock> const& clock) : clock_(clock) {
  if (!clock_) throwNullParameter("clock", "Vesk::ActivityConfig");
}

Activity::Activity(Ptr<Clock> const& clock) : config_(clock) {}

Ptr<Activity> currentActivity() {
  Ptr<Activity>& slot = currentSlot();
  if (!slot) slot = new Activity(new RealClock);
  return slot;
}

void currentActivityIs(Ptr<Activity> const& activity) { currentSlot() = activity; }

ScopedManualActivity::ScopedManualActivity(Seconds start)
    : previous_(currentSlot()), clock_(new ManualClock(start)), activity_(new Activity(clock_)) {
  currentActivityIs(activity_);
}

ScopedManualActivity::~ScopedManualActivity() { currentActivityIs(previous_); }

}  // namespace Vesk
