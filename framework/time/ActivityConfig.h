// ActivityConfig: the settings an activity runs with, handed to every notifiee that the
// activity delivers to (NotifieeBase::handleNotification).
//
// Today the one setting is the clock that the timers of the activity's machines use. An
// activity owns its configuration, so a pointer to it stays valid while the activity lives.
//
// TYPICAL USAGE (a notifiee overriding its entry for activity deliveries):
//   void handleNotification(ActivityConfig* config) override {
//     retryTimer_.notifierIs(config->clock());
//     NotifieeConst::handleNotification(config);
//   }
#pragma once

#include "framework/core/Ptr.h"
#include "framework/time/Clock.h"

namespace Vesk {

class ActivityConfig {
 public:
  // A null clock throws NullParameterException.
  explicit ActivityConfig(Ptr<Clock> const& clock);
  ActivityConfig(ActivityConfig const&) = delete;
  ActivityConfig& operator=(ActivityConfig const&) = delete;

  Ptr<Clock> const& clock() const { return clock_; }

 private:
  Ptr<Clock> const clock_;
};

}  // namespace Vesk
