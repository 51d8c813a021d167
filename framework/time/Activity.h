// Activity: the context the machines of a process run in; today, the clock their timers use,
// held in the activity's configuration (ActivityConfig.h).
//
// There is one current activity per process. Machines reach their clock as
// currentActivity()->clock(). Without a prior currentActivityIs(), the first
// currentActivity() creates an activity on a RealClock. The current activity is read and
// set from the thread that runs the machines.
//
// TYPICAL USAGE (an agent or the simulator, before creating machines):
//   currentActivityIs(new Activity(new ManualClock));
//
// TYPICAL USAGE (a test):
//   ScopedManualActivity act;           // the current activity runs on a fresh ManualClock
//   ... create machines ...
//   act.clock()->advanceBy(30.0);
//   // the previous activity is current again once act is destroyed
//
// Timers hold their clock, so replacing the current activity does not stop the timers of
// machines created under the old one: they keep running on the old clock.
//
// DELIVERY. A change reaches its notifiees synchronously, inside the mutator that made it.
// Whatever runs the activity (an agent's loop, a tool) hands a notifiee its notifier's
// current state by calling notifiee.handleNotification(activity->config()) (Notifiee.h).
#pragma once

#include "framework/core/Ptr.h"
#include "framework/core/PtrInterface.h"
#include "framework/time/ActivityConfig.h"
#include "framework/time/Clock.h"
#include "framework/time/ManualClock.h"

namespace Vesk {

class Activity : public PtrInterface {
 public:
  // A null clock throws NullParameterException.
  explicit Activity(Ptr<Clock> const& clock);

  Ptr<Clock> clock() const { return config_.clock(); }
  ActivityConfig* config() { return &config_; }

 protected:
  ~Activity() override = default;

 private:
  ActivityConfig config_;
};

Ptr<Activity> currentActivity();
// Null makes the next currentActivity() create a fresh one on a RealClock.
void currentActivityIs(Ptr<Activity> const& activity);

// Makes an activity on a fresh ManualClock current for its lifetime, then restores the one
// that was current before (or none, if none had been set or created).
class ScopedManualActivity {
 public:
  explicit ScopedManualActivity(Seconds start = 0.0);
  ScopedManualActivity(ScopedManualActivity const&) = delete;
  ScopedManualActivity& operator=(ScopedManualActivity const&) = delete;
  ~ScopedManualActivity();

  Ptr<ManualClock> clock() const { return clock_; }
  Ptr<Activity> activity() const { return activity_; }

 private:
  Ptr<Activity> previous_;
  Ptr<ManualClock> clock_;
  Ptr<Activity> activity_;
};

}  // namespace Vesk
