#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <iomanip>
#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "framework/core/Dir.h"
#include "framework/core/Exception.h"
#include "framework/core/Machine.h"
#include "framework/time/Activity.h"
#include "framework/time/Clock.h"
#include "framework/time/ManualClock.h"
#include "framework/time/RealClock.h"

namespace Vesk {
namespace {

// "<name>@<clock time>" per firing.
using Log = std::vector<std::string>;

// The log without the times, for a real clock.
Log names(Log const& log) {
  Log out;
  for (auto const& f : log) out.push_back(f.substr(0, f.find('@')));
  return out;
}

// Records each firing with the clock's time, then runs its action (which may destroy it).
class TestTimer : public Clock::Notifiee {
 public:
  TestTimer(Ptr<Clock> const& clock, std::string name, Log& log)
      : Clock::Notifiee(clock), name_(std::move(name)), log_(log) {}
  std::function<void()> action;

  void onTime() override {
    std::ostringstream at;
    at << name_ << "@" << std::setprecision(12) << notifier()->currentTime();
    log_.push_back(at.str());
    if (timeMin() != Clock::never) log_.push_back(name_ + " still armed");
    // A copy, so that the action may destroy this timer.
    if (!action) return;
    auto const run = action;
    run();
  }

 private:
  std::string name_;
  Log& log_;
};

class ManualClockTest : public ::testing::Test {
 protected:
  Ptr<ManualClock> clock = new ManualClock;
  Log log;
  std::unique_ptr<TestTimer> timer(std::string name, Seconds at = Clock::never) {
    auto t = std::make_unique<TestTimer>(clock, std::move(name), log);
    t->timeMinIs(at);
    return t;
  }
};

TEST_F(ManualClockTest, DueTimersFireByTimeThenArmingOrderWithTheClockAtEachTimeMin) {
  auto late = timer("late", 7.0);
  auto c = timer("c", 4.0);
  auto a = timer("a", 4.0);
  auto early = timer("early", 2.5);
  auto b = timer("b", 4.0);
  auto moved = timer("moved", 4.0);
  auto beyond = timer("beyond", 9.0);
  // Setting the same time again is a new arming: it goes behind its ties.
  c->timeMinIs(4.0);
  // Moving an armed timer earlier, then back among the ties.
  moved->timeMinIs(1.0);
  moved->timeMinIs(4.0);
  EXPECT_EQ(clock->nextWakeup(), 2.5);
  EXPECT_EQ(clock->armedCount(), 7u);
  EXPECT_EQ(clock->advanceTo(8.0), 6u);
  EXPECT_EQ(log, (Log{"early@2.5", "a@4", "b@4", "c@4", "moved@4", "late@7"}));
  EXPECT_EQ(clock->currentTime(), 8.0);
  EXPECT_EQ(clock->nextWakeup(), 9.0);

  // A time at or before now fires on the next turn, not inside timeMinIs(): oldest first,
  // and the clock never goes back to reach it.
  log.clear();
  auto atNow = timer("atNow", 8.0);
  auto past = timer("past", 3.0);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(clock->nextWakeup(), 3.0);
  EXPECT_EQ(clock->advanceBy(0), 2u);
  EXPECT_EQ(log, (Log{"past@8", "atNow@8"}));

  // Negative times keep their order, and -0 ties with +0 by arming order.
  log.clear();
  auto plusZero = timer("+0", 0.0);
  auto farPast = timer("-1e9", -1e9);
  auto minusZero = timer("-0", -0.0);
  auto tiny = timer("-1e-300", -1e-300);
  auto minusTwo = timer("-2", -2.0);
  EXPECT_EQ(clock->nextWakeup(), -1e9);
  EXPECT_EQ(clock->advanceBy(0), 5u);
  EXPECT_EQ(log, (Log{"-1e9@8", "-2@8", "-1e-300@8", "+0@8", "-0@8"}));
}

TEST_F(ManualClockTest, HandlersRearmDisarmArmAndDestroyTimersWithinTheSameAdvance) {
  auto periodic = timer("periodic", 1.0);
  periodic->action = [&] { periodic->timeMinIs(clock->currentTime() + 1.0); };
  auto killer = timer("killer", 2.0);
  auto victim = timer("victim", 2.0);  // ties with killer but armed after it
  auto destroyed = timer("destroyed", 2.0);
  std::unique_ptr<TestTimer> spawned;
  killer->action = [&] {
    victim->timeMinIs(Clock::never);
    destroyed.reset();
    spawned = timer("spawned", 2.5);
  };
  auto backdated = timer("backdated", 3.5);
  bool rearmed = false;
  backdated->action = [&] {
    if (rearmed) return;
    rearmed = true;
    backdated->timeMinIs(0.5);  // already passed: fires at the current time
  };
  std::unique_ptr<TestTimer> self = timer("self", 3.75);
  self->action = [&] { self.reset(); };

  EXPECT_EQ(clock->advanceTo(4.0), 9u);
  EXPECT_EQ(log, (Log{"periodic@1", "killer@2", "periodic@2", "spawned@2.5", "periodic@3",
                      "backdated@3.5", "backdated@3.5", "self@3.75", "periodic@4"}));
  EXPECT_EQ(periodic->timeMin(), 5.0);
  EXPECT_EQ(victim->timeMin(), Clock::never);
  EXPECT_EQ(self, nullptr);
  EXPECT_EQ(clock->armedCount(), 1u);

  // Destroying an armed timer outside a turn disarms it too.
  periodic.reset();
  EXPECT_EQ(clock->nextWakeup(), Clock::never);
}

TEST(ManualClockLifetime, HandlerMayDropEveryOtherHolderOfTheClock) {
  long const before = veskLiveAllocations();
  {
    Log log;
    Ptr<ManualClock> clock = new ManualClock;
    ManualClock* raw = clock.ptr();
    auto first = std::make_unique<TestTimer>(clock, "first", log);
    auto last = std::make_unique<TestTimer>(clock, "last", log);
    first->timeMinIs(1.0);
    last->timeMinIs(2.0);
    first->action = [&] { first.reset(); };
    last->action = [&] {
      clock = nullptr;
      last.reset();  // the clock's last reference outside the running turn
    };
    EXPECT_EQ(raw->advanceTo(5.0), 2u);
    EXPECT_EQ(log, (Log{"first@1", "last@2"}));
  }
  EXPECT_EQ(veskLiveAllocations(), before);
}

TEST_F(ManualClockTest, RebindingDisarmsAndOtherClocksAreIndependent) {
  Ptr<ManualClock> other = new ManualClock(100.0);
  auto t = timer("t", 1.0);
  t->notifierIs(other);
  EXPECT_EQ(t->timeMin(), Clock::never);
  EXPECT_EQ(clock->armedCount(), 0u);
  t->timeMinIs(101.0);
  clock->advanceTo(1000.0);
  EXPECT_TRUE(log.empty());
  other->advanceBy(1.0);
  EXPECT_EQ(log, (Log{"t@101"}));

  t->notifierIs(nullptr);
  EXPECT_EQ(t->notifier(), nullptr);
  t->timeMinIs(Clock::never);  // disarming an unbound timer is harmless
}

TEST_F(ManualClockTest, RunNextStepsFromWakeupToWakeup) {
  EXPECT_FALSE(clock->runNext());
  auto a = timer("a", 3.0);
  auto b = timer("b", 3.0);
  auto c = timer("c", 8.0);
  c->action = [&] {
    if (log.size() < 4) c->timeMinIs(clock->currentTime() + 2.0);
  };
  std::vector<Seconds> times;
  while (clock->runNext()) times.push_back(clock->currentTime());
  EXPECT_EQ(times, (std::vector<Seconds>{3.0, 8.0, 10.0}));
  EXPECT_EQ(log, (Log{"a@3", "b@3", "c@8", "c@10"}));
  // A timer armed for a time already past fires at the clock's time, which stays put.
  a->timeMinIs(1.0);
  EXPECT_TRUE(clock->runNext());
  EXPECT_EQ(log.back(), "a@10");
  EXPECT_EQ(clock->currentTime(), 10.0);
}

TEST_F(ManualClockTest, RejectsBadTimesAndReentryAndSurvivesAThrowingHandler) {
  clock->advanceTo(5.0);
  EXPECT_THROW(clock->advanceTo(4.0), RangeException);
  EXPECT_THROW(clock->advanceBy(-1.0), RangeException);
  EXPECT_THROW(clock->advanceTo(Clock::never), RangeException);
  EXPECT_THROW(Ptr<ManualClock>(new ManualClock(Clock::never)), RangeException);
  auto t = timer("t");
  EXPECT_THROW(t->timeMinIs(std::numeric_limits<double>::quiet_NaN()), RangeException);
  EXPECT_EQ(clock->currentTime(), 5.0);

  auto thrower = timer("thrower", 6.0);
  thrower->action = [] { throw std::runtime_error("boom"); };
  auto next = timer("next", 6.0);
  EXPECT_THROW(clock->advanceTo(9.0), std::runtime_error);
  EXPECT_EQ(clock->currentTime(), 6.0);  // stopped at the failing timer, nothing skipped
  EXPECT_EQ(log, (Log{"thrower@6"}));
  clock->advanceTo(9.0);  // not locked out by the interrupted turn
  EXPECT_EQ(log, (Log{"thrower@6", "next@6"}));

  auto t2 = timer("t2", 10.0);
  t2->action = [&] { clock->advanceBy(1.0); };
  EXPECT_DEATH(clock->advanceTo(11.0), "its own timers");
}

// Many timers with many ties, re-armed and disarmed at random: the firing order must be
// exactly (timeMin, last arming) over the timers left armed.
TEST_F(ManualClockTest, HundredsOfThousandsOfTimersFireInClockOrder) {
  constexpr uint32_t n = 200000;
  std::vector<std::unique_ptr<TestTimer>> timers;
  // The expected key per timer: (time, arming number); time never when disarmed.
  std::vector<std::tuple<Seconds, uint64_t, uint32_t>> expect(n);
  uint64_t armings = 0, rng = 12345;
  auto next = [&rng] {
    rng = rng * 6364136223846793005ull + 1442695040888963407ull;
    return uint32_t(rng >> 33);
  };
  auto arm = [&](uint32_t i, Seconds t) {
    timers[i]->timeMinIs(t);
    expect[i] = {t, t == Clock::never ? 0 : armings++, i};
  };
  for (uint32_t i = 0; i < n; ++i) {
    timers.push_back(timer(std::to_string(i)));
    arm(i, Seconds(next() % 1000));
  }
  for (uint32_t k = 0; k < n; ++k) {
    uint32_t const i = next() % n;
    uint32_t const what = next() % 3;
    if (what == 0) arm(i, Seconds(next() % 1000) + 0.5 * (next() % 2));
    if (what == 1) arm(i, Clock::never);
  }
  std::sort(expect.begin(), expect.end());
  Log order;
  for (auto const& [t, seq, id] : expect) {
    if (t != Clock::never) order.push_back(std::to_string(id));
  }
  EXPECT_EQ(clock->armedCount(), order.size());
  clock->advanceTo(1000.0);
  EXPECT_EQ(names(log), order);
  EXPECT_EQ(clock->armedCount(), 0u);
}

TEST(RealClock, FireDueRunsPastTimersInClockOrderAndWaitAndFireDoesNotWaitForThem) {
  Ptr<RealClock> clock = new RealClock;
  Log log;
  EXPECT_GE(clock->currentTime(), 0.0);
  TestTimer late(clock, "late", log), tieA(clock, "tieA", log), tieB(clock, "tieB", log),
      early(clock, "early", log), future(clock, "future", log);
  tieA.timeMinIs(-1.0);
  late.timeMinIs(-0.5);
  tieB.timeMinIs(-1.0);
  early.timeMinIs(-3.0);
  future.timeMinIs(3600.0);
  // A handler's re-arming for a time already passed still fires in this turn.
  bool again = true;
  early.action = [&] {
    if (again) early.timeMinIs(-0.75);
    again = false;
  };
  EXPECT_EQ(clock->nextWakeup(), -3.0);

  EXPECT_EQ(clock->fireDue(), 5u);
  EXPECT_EQ(names(log), (Log{"early", "tieA", "tieB", "early", "late"}));
  EXPECT_EQ(clock->armedCount(), 1u);
  EXPECT_EQ(clock->nextWakeup(), 3600.0);
  EXPECT_EQ(clock->fireDue(), 0u);

  late.timeMinIs(-1.0);  // overdue
  Seconds const start = clock->currentTime();
  EXPECT_EQ(clock->waitAndFire(5.0), 1u);
  EXPECT_LT(clock->currentTime() - start, 1.0);
  EXPECT_EQ(clock->waitAndFire(0.0), 0u);
  EXPECT_EQ(clock->waitAndFire(-1.0), 0u);
}

TEST(Activity, CurrentActivityDefaultsToARealClockAndScopesRestoreThePrevious) {
  Ptr<Activity> const saved = currentActivity();
  currentActivityIs(nullptr);
  Ptr<Activity> fresh = currentActivity();
  ASSERT_NE(fresh, nullptr);
  EXPECT_NE(ptr_cast<RealClock>(fresh->clock()), nullptr);
  EXPECT_EQ(currentActivity(), fresh);

  {
    ScopedManualActivity outer;
    EXPECT_EQ(currentActivity(), outer.activity());
    EXPECT_EQ(currentActivity()->clock(), outer.clock());
    EXPECT_EQ(outer.clock()->currentTime(), 0.0);
  }
  EXPECT_EQ(currentActivity(), fresh);

  EXPECT_THROW(Ptr<Activity>(new Activity(Ptr<Clock>())), NullParameterException);
  currentActivityIs(saved);
}

// A machine's reactor reaches the activity it runs in, and the activity's configuration its
// clock; an activity delivery hands a registered reactor its notifier's current state.
TEST(Activity, AReactorReachesItsActivityAndReceivesItsDeliveries) {
  struct Machine {
    int wholeDirectoryVisits = 0;
  } machine;
  struct DirReactor : OwnedReactor<Dir::NotifieeConst, Machine> {
    using OwnedReactor::OwnedReactor;
    void onEntityPtr() override { ++veskReactor()->wholeDirectoryVisits; }
  };
  ScopedManualActivity act;
  DirReactor reactor(&machine);
  EXPECT_EQ(reactor.veskFwkActivity(), act.activity());
  ActivityConfig* config = reactor.veskFwkActivity()->config();
  EXPECT_EQ(config->clock(), act.clock());

  reactor.handleNotification(config);  // not yet bound
  reactor.notifierIs(dirFactory("d"));
  reactor.handleNotification(config);
  EXPECT_EQ(machine.wholeDirectoryVisits, 2);  // registration, then the delivery
  reactor.isRegisteredNotifieeIs(false);
  reactor.handleNotification(config);
  EXPECT_EQ(machine.wholeDirectoryVisits, 2);
}

}  // namespace
}  // namespace Vesk
