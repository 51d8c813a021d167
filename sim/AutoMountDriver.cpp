#include "sim/AutoMountDriver.h"

#include <algorithm>

#include "framework/core/Assert.h"
#include "framework/core/SmallObject.h"
#include "framework/time/Activity.h"

namespace Sim {

using Controller::MountSm;
using Controller::MountState;
using Vesk::Clock;
using Vesk::Seconds;

// The driver's record of one machine: its timer and where its current request stands.
// Kept in the framework's small-block store, so that it lies beside the machine it serves,
// made just before it.
class AutoMountDriver::Mount : public Clock::Notifiee, public Vesk::SmallObject {
 public:
  Mount(AutoMountDriver* driver, MountSm* machine, Vesk::Ptr<Clock> const& clock)
      : Clock::Notifiee(clock), driver_(driver), sm(machine) {}
  void onTime() override { driver_->onStep(*this); }

  AutoMountDriver* const driver_;
  // Null once the machine is forgotten.
  MountSm* sm;
  // Counts requests, so that a turn can tell that a reactor replaced the request it serves.
  uint64_t epoch = 0;
  Seconds deadline = Clock::never;
  uint32_t failures = 0;
  Step step = Step::connect;
};

AutoMountDriver::AutoMountDriver(uint64_t seed, AutoMountOptions const& options)
    : options_(options), rng_(seed) {}

AutoMountDriver::~AutoMountDriver() = default;

void AutoMountDriver::failureProbabilityIs(Controller::SystemId const& system, double p) {
  systemFailureProbability_[system] = p;
}

void AutoMountDriver::failureProbabilityDel(Controller::SystemId const& system) {
  systemFailureProbability_.erase(system);
}

AutoMountDriver::Mount* AutoMountDriver::heldMount(MountSm const& sm) const {
  auto* m = static_cast<Mount*>(sm.driverState());
  return m && m->driver_ == this ? m : nullptr;
}

bool AutoMountDriver::knows(MountSm const& sm) const { return heldMount(sm) != nullptr; }

uint32_t AutoMountDriver::failedAttempts(MountSm const& sm) const {
  Mount const* m = heldMount(sm);
  return m ? m->failures : 0;
}

void AutoMountDriver::onRequest(MountSm& sm, Request request) {
  ++requests_[size_t(request)];
  if (requestObserver_) requestObserver_(sm, request);
  switch (request) {
    case Request::mount:
    case Request::remount: {
      Mount& m = mountOf(sm);
      ++m.epoch;
      m.failures = 0;
      Seconds const now = m.notifierRaw()->currentTime();
      uint32_t const timeout = sm.mountTimeout();
      m.deadline = (timeout == kNoMountTimeout || timeout == 0) ? Clock::never : now + timeout;
      schedule(m, Step::connect, now);
      sm.pendingRequestIs(true);
      return;
    }
    case Request::unmount:
    case Request::statePreservingUnmount: {
      Mount& m = mountOf(sm);
      ++m.epoch;
      m.deadline = Clock::never;
      schedule(m, Step::unmounted, m.notifierRaw()->currentTime() + latency());
      Vesk::Ptr<Controller::MountSmData> const data = sm.data();
      VESK_ASSERT(data);
      data->mountStateIs(Controller::mountStateUnmounting);
      return;
    }
    case Request::cleanup:
      retire(sm);
      return;
  }
}

void AutoMountDriver::onDestroyed(MountSm& sm) { retire(sm); }

AutoMountDriver::Mount& AutoMountDriver::mountOf(MountSm& sm) {
  if (Mount* held = heldMount(sm)) return *held;
  auto* m = new Mount(this, &sm, Vesk::currentActivity()->clock());
  sm.driverStateIs(m);
  ++machines_;
  return *m;
}

void AutoMountDriver::retire(MountSm& sm) {
  Mount* m = heldMount(sm);
  if (!m) return;
  m->timeMinIs(Clock::never);
  m->sm = nullptr;
  sm.driverStateIs(nullptr);
  retired_.emplace_back(m);
  --machines_;
}

void AutoMountDriver::schedule(Mount& m, Step step, Seconds at) {
  bool const attempting = step == Step::connect || step == Step::mounting || step == Step::finish;
  if (attempting && at > m.deadline) {
    step = Step::timeout;
    at = m.deadline;
  }
  m.step = step;
  m.timeMinIs(at);
}

Seconds AutoMountDriver::latency() {
  return rng_.uniform(options_.latencyMin, options_.latencyMax);
}

uint32_t AutoMountDriver::attemptLimit(MountSm const& sm) const {
  uint32_t const retries = sm.reconnectRetries();
  uint32_t const limit =
      retries == kNoRetryLimit ? options_.retryCap : std::min(retries, options_.retryCap);
  return std::max<uint32_t>(limit, 1);
}

double AutoMountDriver::failureProbability(MountSm const& sm) const {
  auto it = systemFailureProbability_.find(sm.system());
  return it == systemFailureProbability_.end() ? options_.failureProbability : it->second;
}

void AutoMountDriver::onStep(Mount& m) {
  MountSm* const sm = m.sm;
  VESK_ASSERT(sm);
  // Keeps the driver alive through the reactors below. The machine's own reference is
  // copied rather than this driver's weak one locked: a copy is a plain increment in a
  // single-threaded process, where locking is an atomic exchange that waits for every
  // store before it.
  std::shared_ptr<Controller::MountDriver> const keep = sm->driver();
  // Turns do not nest, so no forgotten record belongs to a running turn now.
  retired_.clear();

  Seconds const now = m.notifierRaw()->currentTime();
  MountState state = Controller::mountStateNotMounted;
  bool settles = false;
  switch (m.step) {
    case Step::connect:
      state = Controller::mountStateConnecting;
      schedule(m, Step::mounting, now + latency());
      break;
    case Step::mounting:
      state = Controller::mountStateMounting;
      schedule(m, Step::finish, now + latency());
      break;
    case Step::finish:
      if (!rng_.chance(failureProbability(*sm))) {
        state = Controller::mountStateMounted;
        settles = true;
      } else if (++m.failures >= attemptLimit(*sm)) {
        state = Controller::mountStateFailed;
        settles = true;
      } else {
        state = Controller::mountStateConnecting;
        schedule(m, Step::mounting, now + latency());
      }
      break;
    case Step::timeout:
      state = Controller::mountStateFailed;
      settles = true;
      break;
    case Step::unmounted:
      state = Controller::mountStateNotMounted;
      break;
  }

  Vesk::Ptr<Controller::MountSmData> const data = sm->data();
  VESK_ASSERT(data);
  if (settles) {
    uint64_t const epoch = m.epoch;
    sm->pendingRequestIs(false);
    // A reactor may have made a new request, or cleaned up or destroyed the machine; m is
    // still readable, since forgotten records are freed only at the next turn.
    if (m.sm != sm || m.epoch != epoch) return;
  }
  // The last act: the registry may clean up and destroy the machine, and with it this
  // record, from inside this write.
  data->mountStateIs(state);
}

}  // namespace Sim
