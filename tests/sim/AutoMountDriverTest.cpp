#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "framework/Activity.h"
#include "framework/ControllerRecords.h"
#include "framework/EthAddr.h"
#include "framework/LiveCount.h"
#include "sim/AutoMountDriver.h"

namespace Sim {
namespace {

using Controller::MountSm;
using Controller::MountSmData;
using Controller::MountState;
using Controller::SystemId;
using Vesk::Ptr;
using Vesk::Seconds;

constexpr MountState kNotMounted = Controller::mountStateNotMounted;
constexpr MountState kConnecting = Controller::mountStateConnecting;
constexpr MountState kMounting = Controller::mountStateMounting;
constexpr MountState kFailed = Controller::mountStateFailed;
constexpr MountState kMounted = Controller::mountStateMounted;
constexpr MountState kUnmounting = Controller::mountStateUnmounting;
constexpr uint32_t kNoLimit = AutoMountDriver::kNoRetryLimit;
constexpr uint32_t kNoTimeout = AutoMountDriver::kNoMountTimeout;

struct Event {
  Seconds at;
  std::string system;
  MountState state;
  bool operator==(Event const&) const = default;
};
std::ostream& operator<<(std::ostream& os, Event const& e) {
  return os << "(" << e.at << ", " << e.system << ", " << e.state << ")";
}
using Log = std::vector<Event>;

SystemId systemOf(unsigned i) { return SystemId(Corvex::EthAddr(0x001c73000000ull + i)); }

// Records every mountState written to one machine's data, with the clock's time, and runs
// an optional action with the previous and the new state (which may destroy the machine).
class StateRecorder : public MountSmData::NotifieeConst {
 public:
  StateRecorder(Ptr<MountSmData> const& data, Ptr<Vesk::Clock> clock, Log& log)
      : clock_(std::move(clock)), log_(log) {
    notifierIs(data);
  }
  std::function<void(MountState, MountState)> action;
  void onMountState() override {
    MountState const before = last_;
    MountState const s = last_ = notifierRaw()->mountState();
    log_.push_back({clock_->currentTime(), notifierRaw()->systemId().stringValue().stdString(), s});
    if (action) {
      auto const run = action;  // the action may destroy this recorder
      run(before, s);
    }
  }

 private:
  MountState last_ = Controller::mountStateNotMounted;
  Ptr<Vesk::Clock> clock_;
  Log& log_;
};

class PendingRecorder : public MountSm::NotifieeConst {
 public:
  explicit PendingRecorder(std::vector<std::string>& trail) : trail_(trail) {}
  std::function<void(bool)> action;
  void onPendingRequest() override {
    bool const pending = notifierRaw()->pendingRequest();
    trail_.push_back(pending ? "pending" : "settled");
    if (action) {
      auto const run = action;
      run(pending);
    }
  }

 private:
  std::vector<std::string>& trail_;
};

// Owns mount machines the way the registry does: a machine whose state moves from non-zero
// to 0 is cleaned up and dropped from inside the notification of that write.
class MachineOwner {
 public:
  MachineOwner(Ptr<Vesk::Clock> clock, Log& log) : clock_(std::move(clock)), log_(log) {
    connectionConfig_ = Controller::connectionConfigFactory("connection");
    heartbeatConfig_ = Controller::Heartbeat::configFactory("heartbeat");
  }

  struct Slot {
    Ptr<MountSm> sm;
    std::unique_ptr<StateRecorder> recorder;
    std::unique_ptr<PendingRecorder> pending;
  };

  MountSm& create(SystemId const& system, uint32_t retries = 3, uint32_t timeout = kNoTimeout) {
    Ptr<MountSmData> data(new MountSmData(system, system.stringValue()));
    Slot& slot = slots_[system];
    slot.recorder = std::make_unique<StateRecorder>(data, clock_, log_);
    slot.recorder->action = [this, system](MountState before, MountState s) {
      if (before == kNotMounted || s != kNotMounted) return;
      Ptr<MountSm> sm = slots_[system].sm;
      sm->doCleanup();
      sm = nullptr;
      slots_.erase(system);  // destroys the machine and this recorder
    };
    slot.sm = new MountSm(system, connectionConfig_, heartbeatConfig_, "/remote", "/path",
                          "/target", "Vesk::Dir", "", retries, timeout, data);
    slot.pending = std::make_unique<PendingRecorder>(trail);
    slot.pending->notifierIs(slot.sm);
    return *slot.sm;
  }
  MountSm* machine(SystemId const& system) {
    auto it = slots_.find(system);
    return it == slots_.end() ? nullptr : it->second.sm.ptr();
  }
  Slot* slot(SystemId const& system) {
    auto it = slots_.find(system);
    return it == slots_.end() ? nullptr : &it->second;
  }
  void drop(SystemId const& system) { slots_.erase(system); }
  size_t size() const { return slots_.size(); }

  std::vector<std::string> trail;

 private:
  Ptr<Vesk::Clock> clock_;
  Log& log_;
  Ptr<Controller::ConnectionConfig> connectionConfig_;
  Ptr<Controller::Heartbeat::Config> heartbeatConfig_;
  std::map<SystemId, Slot> slots_;
};

class AutoMountDriverTest : public ::testing::Test {
 protected:
  AutoMountDriverTest() { Controller::mountDriverIs(driver); }
  ~AutoMountDriverTest() override {
    owner.reset();
    Controller::mountDriverIs(nullptr);
  }
  // Every latency a power of two fraction, so the expected times are exact.
  static AutoMountOptions fixedLatency(Seconds latency, double failure = 0.0) {
    AutoMountOptions o;
    o.latencyMin = o.latencyMax = latency;
    o.failureProbability = failure;
    return o;
  }
  std::string name(SystemId const& s) { return s.stringValue().stdString(); }

  Vesk::ScopedManualActivity activity;
  Ptr<Vesk::ManualClock> clock = activity.clock();
  std::shared_ptr<AutoMountDriver> driver =
      std::make_shared<AutoMountDriver>(5, fixedLatency(0.25));
  Log log;
  std::unique_ptr<MachineOwner> owner = std::make_unique<MachineOwner>(clock, log);
  SystemId const a = systemOf(1);
  SystemId const b = systemOf(2);
};

// ---- attempt cycles -----------------------------------------------------------------------

TEST_F(AutoMountDriverTest, MountGoesConnectingMountingMountedAndSettlesBeforeTheLastWrite) {
  MountSm& sm = owner->create(a);
  MountState stateWhenSettled = kNotMounted;
  owner->slot(a)->pending->action = [&](bool pending) {
    if (!pending) stateWhenSettled = sm.data()->mountState();
  };
  EXPECT_TRUE(sm.pendingRequest());
  // Nothing is written while the machine is being constructed.
  EXPECT_EQ(sm.data()->mountState(), kNotMounted);
  EXPECT_TRUE(log.empty());

  clock->advanceBy(10.0);
  EXPECT_EQ(
      log,
      (Log{{0.0, name(a), kConnecting}, {0.25, name(a), kMounting}, {0.5, name(a), kMounted}}));
  EXPECT_FALSE(sm.pendingRequest());
  EXPECT_EQ(stateWhenSettled, kMounting);
  // The recorder was registered after the mount request had set pendingRequest.
  EXPECT_EQ(owner->trail, (std::vector<std::string>{"settled"}));
  EXPECT_EQ(driver->machines(), 1u);
  EXPECT_EQ(clock->armedCount(), 0u);
  EXPECT_EQ(driver->requests(Controller::MountDriver::Request::mount), 1u);
}

TEST_F(AutoMountDriverTest, FailedAttemptsRetryUntilTheMachinesRetryCountThenFail) {
  driver->optionsIs(fixedLatency(0.25, 1.0));
  MountSm& sm = owner->create(a, /*retries=*/3);
  clock->advanceBy(100.0);
  std::string const n = name(a);
  EXPECT_EQ(log, (Log{{0.0, n, kConnecting},
                      {0.25, n, kMounting},
                      {0.5, n, kConnecting},
                      {0.75, n, kMounting},
                      {1.0, n, kConnecting},
                      {1.25, n, kMounting},
                      {1.5, n, kFailed}}));
  EXPECT_EQ(driver->failedAttempts(sm), 3u);
  EXPECT_FALSE(sm.pendingRequest());
  EXPECT_EQ(clock->armedCount(), 0u);
}

TEST_F(AutoMountDriverTest, UnlimitedRetriesStopAtTheCapAndZeroRetriesStillAttemptOnce) {
  AutoMountOptions o = fixedLatency(0.25, 1.0);
  o.retryCap = 5;
  driver->optionsIs(o);
  MountSm& unlimited = owner->create(a, kNoLimit);
  MountSm& none = owner->create(b, 0);
  clock->advanceBy(100.0);
  EXPECT_EQ(unlimited.data()->mountState(), kFailed);
  EXPECT_EQ(driver->failedAttempts(unlimited), 5u);
  EXPECT_EQ(none.data()->mountState(), kFailed);
  EXPECT_EQ(driver->failedAttempts(none), 1u);
}

TEST_F(AutoMountDriverTest, TimeOutFailsTheRequestAtItsDeadline) {
  driver->optionsIs(fixedLatency(0.375, 1.0));
  MountSm& sm = owner->create(a, kNoLimit, /*timeout=*/1);
  clock->advanceBy(100.0);
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log.back(), (Event{1.0, name(a), kFailed}));
  EXPECT_EQ(
      std::count_if(log.begin(), log.end(), [](Event const& e) { return e.state == kFailed; }), 1);
  EXPECT_FALSE(sm.pendingRequest());
  EXPECT_EQ(clock->armedCount(), 0u);
}

TEST_F(AutoMountDriverTest, AStepDueAfterTheDeadlineIsReplacedByTheTimeOut) {
  // Connecting at 0, mounting at 0.75; mounted would be due at 1.5, after the deadline.
  driver->optionsIs(fixedLatency(0.75));
  owner->create(a, 3, /*timeout=*/1);
  clock->advanceBy(100.0);
  EXPECT_EQ(
      log, (Log{{0.0, name(a), kConnecting}, {0.75, name(a), kMounting}, {1.0, name(a), kFailed}}));
}

TEST_F(AutoMountDriverTest, RemountAfterFailureStartsAFreshRequest) {
  driver->optionsIs(fixedLatency(0.25, 1.0));
  MountSm& sm = owner->create(a, 1);
  clock->advanceBy(10.0);
  ASSERT_EQ(sm.data()->mountState(), kFailed);
  driver->optionsIs(fixedLatency(0.25, 0.0));
  log.clear();
  sm.doRemount();
  EXPECT_TRUE(sm.pendingRequest());
  clock->advanceBy(10.0);
  EXPECT_EQ(
      log,
      (Log{{10.0, name(a), kConnecting}, {10.25, name(a), kMounting}, {10.5, name(a), kMounted}}));
  EXPECT_EQ(driver->failedAttempts(sm), 0u);
}

TEST_F(AutoMountDriverTest, FailureProbabilityCanBeSetPerSystem) {
  driver->failureProbabilityIs(a, 1.0);
  MountSm& failing = owner->create(a, 2);
  MountSm& healthy = owner->create(b, 2);
  clock->advanceBy(10.0);
  EXPECT_EQ(failing.data()->mountState(), kFailed);
  EXPECT_EQ(healthy.data()->mountState(), kMounted);
}

// ---- unmounting and forgetting ------------------------------------------------------------

TEST_F(AutoMountDriverTest, UnmountWritesUnmountingAtOnceThenNotMountedAndTheOwnerDropsIt) {
  for (auto request : {&MountSm::doUnmount, &MountSm::doStatePreservingUnmount}) {
    log.clear();
    MountSm& sm = owner->create(a);
    clock->advanceBy(10.0);
    ASSERT_EQ(sm.data()->mountState(), kMounted);
    Seconds const t = clock->currentTime();
    log.clear();
    (sm.*request)();
    EXPECT_EQ(log, (Log{{t, name(a), kUnmounting}}));
    clock->advanceBy(10.0);
    EXPECT_EQ(log, (Log{{t, name(a), kUnmounting}, {t + 0.25, name(a), kNotMounted}}));
    // The owner cleaned the machine up and destroyed it from inside the last write.
    EXPECT_EQ(owner->machine(a), nullptr);
    EXPECT_EQ(driver->machines(), 0u);
    EXPECT_EQ(clock->armedCount(), 0u);
  }
  EXPECT_EQ(Vesk::liveObjects<MountSm>(), 0);
}

TEST_F(AutoMountDriverTest, UnmountCancelsAnAttemptInProgress) {
  MountSm& sm = owner->create(a);
  clock->advanceBy(0.25);
  ASSERT_EQ(sm.data()->mountState(), kMounting);
  sm.doUnmount();
  clock->advanceBy(10.0);
  EXPECT_EQ(log, (Log{{0.0, name(a), kConnecting},
                      {0.25, name(a), kMounting},
                      {0.25, name(a), kUnmounting},
                      {0.5, name(a), kNotMounted}}));
}

TEST_F(AutoMountDriverTest, UnmountBeforeAnyStateStillEndsWithAMoveToNotMounted) {
  MountSm& sm = owner->create(a);
  sm.doUnmount();
  clock->advanceBy(10.0);
  EXPECT_EQ(log, (Log{{0.0, name(a), kUnmounting}, {0.25, name(a), kNotMounted}}));
  EXPECT_EQ(owner->size(), 0u);
}

TEST_F(AutoMountDriverTest, CleanupAndDestructionCancelEverythingAndForgetTheMachine) {
  MountSm& sm = owner->create(a);
  owner->create(b);
  clock->advanceBy(0.25);
  sm.doCleanup();
  EXPECT_FALSE(driver->knows(sm));
  EXPECT_EQ(driver->machines(), 1u);
  owner->drop(b);
  EXPECT_EQ(driver->machines(), 0u);
  EXPECT_EQ(clock->armedCount(), 0u);
  size_t const before = log.size();
  clock->advanceBy(10.0);
  EXPECT_EQ(log.size(), before);
}

// ---- reactors that change the machine from inside the driver's writes ----------------------

TEST_F(AutoMountDriverTest, ARequestMadeWhileSettlingReplacesTheSettledState) {
  MountSm& sm = owner->create(a);
  bool remounted = false;
  owner->slot(a)->pending->action = [&](bool pending) {
    if (pending || remounted) return;
    remounted = true;
    sm.doRemount();
  };
  clock->advanceBy(10.0);
  // The first cycle's mounted is never written: the remount came first.
  EXPECT_EQ(log, (Log{{0.0, name(a), kConnecting},
                      {0.25, name(a), kMounting},
                      {0.5, name(a), kConnecting},
                      {0.75, name(a), kMounting},
                      {1.0, name(a), kMounted}}));
  EXPECT_EQ(owner->trail, (std::vector<std::string>{"settled", "pending", "settled"}));
}

TEST_F(AutoMountDriverTest, AMachineDestroyedWhileSettlingGetsNoFurtherWrite) {
  owner->create(a);
  owner->slot(a)->pending->action = [&](bool pending) {
    if (!pending) owner->drop(a);
  };
  clock->advanceBy(10.0);
  EXPECT_EQ(log.back().state, kMounting);
  EXPECT_EQ(driver->machines(), 0u);
  EXPECT_EQ(Vesk::liveObjects<MountSm>(), 0);
}

TEST_F(AutoMountDriverTest, AnUnmountRequestedFromInsideTheMountedWriteRunsToTheEnd) {
  MountSm& sm = owner->create(a);
  owner->slot(a)->recorder->action = [&, inner = owner->slot(a)->recorder->action](
                                         MountState before, MountState s) {
    if (s == kMounted) {
      sm.doUnmount();
      return;
    }
    inner(before, s);
  };
  clock->advanceBy(10.0);
  EXPECT_EQ(log, (Log{{0.0, name(a), kConnecting},
                      {0.25, name(a), kMounting},
                      {0.5, name(a), kMounted},
                      {0.5, name(a), kUnmounting},
                      {0.75, name(a), kNotMounted}}));
  EXPECT_EQ(owner->size(), 0u);
}

// ---- determinism --------------------------------------------------------------------------

Log runScenario(uint64_t seed) {
  Vesk::ScopedManualActivity activity;
  AutoMountOptions options;
  options.failureProbability = 0.3;
  auto driver = std::make_shared<AutoMountDriver>(seed, options);
  Controller::mountDriverIs(driver);
  Log log;
  {
    MachineOwner owner(activity.clock(), log);
    for (unsigned i = 1; i <= 4; ++i) owner.create(systemOf(i), 4, 3);
    activity.clock()->advanceBy(2.0);
    owner.machine(systemOf(2))->doUnmount();
    owner.machine(systemOf(3))->doRemount();
    activity.clock()->advanceBy(30.0);
  }
  Controller::mountDriverIs(nullptr);
  return log;
}

TEST(AutoMountDriverDeterminism, TheSameSeedGivesTheSameTimedStates) {
  Log const first = runScenario(99);
  EXPECT_GT(first.size(), 12u);
  EXPECT_EQ(runScenario(99), first);
  EXPECT_NE(runScenario(100), first);
}

}  // namespace
}  // namespace Sim
