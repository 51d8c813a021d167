#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "framework/core/LiveCount.h"
#include "framework/records/ControllerRecords.h"
#include "framework/records/EthAddr.h"
#include "framework/time/Activity.h"
#include "sim/AutoMountDriver.h"

namespace Sim {
namespace {

using Controller::MountSm;
using Controller::MountSmData;
using Controller::MountState;
using Controller::SystemId;
using Vesk::Ptr;

constexpr MountState kNotMounted = Controller::mountStateNotMounted;
constexpr uint32_t kNoTimeout = AutoMountDriver::kNoMountTimeout;

// Each machine's writes, by system index: "<time> <mountState>" and "<time> pending|settled".
using Logs = std::map<unsigned, std::string>;

SystemId systemOf(unsigned i) { return SystemId(Corvex::EthAddr(0x001c73000000ull + i)); }

// Owns mount machines the way the registry does: a machine whose state moves from non-zero
// to 0 is cleaned up and destroyed from inside the notification of that write.
class MachineOwner {
 public:
  explicit MachineOwner(Ptr<Vesk::Clock> clock) : clock_(std::move(clock)) {}

  MountSm& create(unsigned i, uint32_t retries = 3, uint32_t timeout = kNoTimeout) {
    return *slots_.try_emplace(i, this, i, retries, timeout).first->second.sm;
  }
  void drop(unsigned i) { slots_.erase(i); }

  Logs logs;
  // Runs after each pendingRequest write; it may drop the machine.
  std::function<void(unsigned, bool)> onPending;

 private:
  // One machine, logging each write of its mountState and pendingRequest.
  struct Slot : MountSm::NotifieeConst, MountSmData::NotifieeConst {
    Slot(MachineOwner* o, unsigned i, uint32_t retries, uint32_t timeout) : owner(o), index(i) {
      SystemId const system = systemOf(i);
      Ptr<MountSmData> data(new MountSmData(system, system.stringValue()));
      MountSmData::NotifieeConst::notifierIs(data);
      sm = new MountSm(system, Controller::connectionConfigFactory("connection"),
                       Controller::Heartbeat::configFactory("heartbeat"), "/remote", "/path",
                       "/target", "Vesk::Dir", "", retries, timeout, data);
      MountSm::NotifieeConst::notifierIs(sm);
    }
    void onMountState() override {
      static char const* const names[] = {"notMounted", "connecting", "mounting",
                                          "failed",     "mounted",    "unmounting"};
      MountState const before = std::exchange(last, sm->data()->mountState());
      owner->log(index, names[last]);
      if (before == kNotMounted || last != kNotMounted) return;
      sm->doCleanup();
      owner->slots_.erase(index);  // destroys the machine and this slot
    }
    void onPendingRequest() override {
      bool const pending = sm->pendingRequest();
      owner->log(index, pending ? "pending" : "settled");
      if (owner->onPending) owner->onPending(index, pending);
    }
    MachineOwner* const owner;
    unsigned const index;
    Ptr<MountSm> sm;
    MountState last = kNotMounted;
  };
  void log(unsigned i, char const* what) {
    std::ostringstream out;
    out << (logs[i].empty() ? "" : ", ") << clock_->currentTime() << " " << what;
    logs[i] += out.str();
  }
  Ptr<Vesk::Clock> clock_;
  std::map<unsigned, Slot> slots_;
};

// Every latency a power of two fraction, so the expected times are exact.
AutoMountOptions fixedLatency(Vesk::Seconds latency, double failure = 0.0) {
  AutoMountOptions o;
  o.latencyMin = o.latencyMax = latency;
  o.failureProbability = failure;
  return o;
}

class AutoMountDriverTest : public ::testing::Test {
 protected:
  AutoMountDriverTest() { Controller::mountDriverIs(driver); }
  // The machines keep their driver.
  ~AutoMountDriverTest() override { Controller::mountDriverIs(nullptr); }

  Vesk::ScopedManualActivity activity;
  Ptr<Vesk::ManualClock> clock = activity.clock();
  std::shared_ptr<AutoMountDriver> driver =
      std::make_shared<AutoMountDriver>(5, fixedLatency(0.25));
  MachineOwner owner{clock};
  Logs& logs = owner.logs;
};

// A mount goes connecting, mounting, mounted and settles just before that last write; a
// failed attempt goes back to connecting until the machine's retry count (at least one, at
// most the cap) has failed.
TEST_F(AutoMountDriverTest, AMountSettlesMountedOrFailedAfterTheMachinesRetryCount) {
  AutoMountOptions o = fixedLatency(0.25, 1.0);
  o.retryCap = 5;
  driver->optionsIs(o);
  driver->failureProbabilityIs(systemOf(4), 0.0);
  MountSm& three = owner.create(1, 3);
  MountSm& unlimited = owner.create(2, AutoMountDriver::kNoRetryLimit);
  MountSm& none = owner.create(3, 0);
  MountSm& fine = owner.create(4, 3);
  EXPECT_TRUE(fine.pendingRequest());
  EXPECT_TRUE(logs.empty());  // nothing is written while a machine is constructed
  clock->advanceBy(100.0);
  // The hook was registered after the request had set pendingRequest.
  EXPECT_EQ(logs[4], "0 connecting, 0.25 mounting, 0.5 settled, 0.5 mounted");
  EXPECT_FALSE(fine.pendingRequest());
  EXPECT_EQ(logs[1],
            "0 connecting, 0.25 mounting, 0.5 connecting, 0.75 mounting, 1 connecting, "
            "1.25 mounting, 1.5 settled, 1.5 failed");
  EXPECT_EQ(driver->failedAttempts(three), 3u);
  EXPECT_EQ(driver->failedAttempts(unlimited), 5u);  // stopped at the cap
  EXPECT_EQ(driver->failedAttempts(none), 1u);       // still attempted once
  EXPECT_EQ(logs[3], "0 connecting, 0.25 mounting, 0.5 settled, 0.5 failed");
  EXPECT_EQ(driver->machines(), 4u);
  EXPECT_EQ(driver->requests(Controller::MountDriver::Request::mount), 4u);
  EXPECT_EQ(clock->armedCount(), 0u);

  driver->failureProbabilityIs(systemOf(1), 0.0);
  three.doRemount();  // a fresh request
  clock->advanceBy(10.0);
  EXPECT_TRUE(logs[1].ends_with(
      ", 100 pending, 100 connecting, 100.25 mounting, 100.5 settled, 100.5 mounted"));
  EXPECT_EQ(driver->failedAttempts(three), 0u);
}

TEST_F(AutoMountDriverTest, TimeOutReplacesTheStepDueAfterTheDeadline) {
  driver->optionsIs(fixedLatency(0.375, 1.0));
  owner.create(1, AutoMountDriver::kNoRetryLimit, /*timeout=*/1);
  clock->advanceBy(100.0);
  // The second mounting would have been due at 1.125.
  EXPECT_EQ(logs[1], "0 connecting, 0.375 mounting, 0.75 connecting, 1 settled, 1 failed");
  EXPECT_EQ(clock->armedCount(), 0u);
}

TEST_F(AutoMountDriverTest, UnmountWritesUnmountingAtOnceThenNotMountedAndTheOwnerDropsIt) {
  MountSm* sm[5];
  for (unsigned i = 1; i <= 4; ++i) sm[i] = &owner.create(i);
  sm[4]->doUnmount();  // before any state
  EXPECT_EQ(logs[4], "0 unmounting");
  clock->advanceBy(0.25);
  sm[3]->doUnmount();  // cancels the attempt in progress
  clock->advanceTo(10.0);
  sm[1]->doUnmount();
  sm[2]->doStatePreservingUnmount();
  clock->advanceBy(10.0);
  std::string const mounted = "0 connecting, 0.25 mounting, 0.5 settled, 0.5 mounted, ";
  EXPECT_EQ(logs, (Logs{{1, mounted + "10 unmounting, 10.25 notMounted"},
                        {2, mounted + "10 unmounting, 10.25 notMounted"},
                        {3, "0 connecting, 0.25 mounting, 0.25 unmounting, 0.5 notMounted"},
                        {4, "0 unmounting, 0.25 notMounted"}}));
  // The owner cleaned every machine up and destroyed it from inside its last write.
  EXPECT_EQ(Vesk::liveObjects<MountSm>(), 0);
  EXPECT_EQ(driver->machines(), 0u);
  EXPECT_EQ(clock->armedCount(), 0u);
}

// What the registry's reactors may do from inside the driver's writes.
TEST_F(AutoMountDriverTest, AMachineCleanedUpDestroyedOrRemountedMidRequestGetsNoStaleWrite) {
  MountSm& cleaned = owner.create(1);
  owner.create(2);
  MountSm& remounted = owner.create(3);
  bool again = false;
  owner.onPending = [&](unsigned i, bool pending) {
    if (pending) return;
    if (i == 2) owner.drop(2);  // before the mounted write
    if (i == 3 && !std::exchange(again, true)) remounted.doRemount();
  };
  clock->advanceBy(0.25);
  cleaned.doCleanup();
  EXPECT_FALSE(driver->knows(cleaned));
  clock->advanceBy(10.0);
  EXPECT_EQ(logs, (Logs{{1, "0 connecting, 0.25 mounting"},
                        {2, "0 connecting, 0.25 mounting, 0.5 settled"},
                        // The first request's mounted is never written.
                        {3,
                         "0 connecting, 0.25 mounting, 0.5 settled, 0.5 pending, "
                         "0.5 connecting, 0.75 mounting, 1 settled, 1 mounted"}}));
  EXPECT_EQ(driver->machines(), 1u);
  EXPECT_EQ(clock->armedCount(), 0u);
}

Logs runScenario(uint64_t seed) {
  Vesk::ScopedManualActivity activity;
  AutoMountOptions options;
  options.failureProbability = 0.3;
  Controller::mountDriverIs(std::make_shared<AutoMountDriver>(seed, options));
  MachineOwner owner(activity.clock());
  MountSm* sm[5];
  for (unsigned i = 1; i <= 4; ++i) sm[i] = &owner.create(i, 4, 3);
  activity.clock()->advanceBy(2.0);
  sm[2]->doUnmount();
  sm[3]->doRemount();
  activity.clock()->advanceBy(30.0);
  Controller::mountDriverIs(nullptr);
  return owner.logs;
}

TEST(AutoMountDriverDeterminism, TheSameSeedGivesTheSameTimedStates) {
  Logs const first = runScenario(99);
  EXPECT_GT(first.at(1).size() + first.at(4).size(), 200u);  // several attempts each
  EXPECT_EQ(runScenario(99), first);
  EXPECT_NE(runScenario(100), first);
}

}  // namespace
}  // namespace Sim
