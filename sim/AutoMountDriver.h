// Sim::AutoMountDriver: a mount driver that carries requests out on the virtual clock.
//
// A mount or remount request sets the machine's pendingRequest and starts an attempt
// cycle on the current activity's clock: mountState goes to connecting on the next turn,
// to mounting after a latency, and after another latency either to mounted or, when the
// attempt fails, back to connecting for the next attempt. Latencies are drawn uniformly
// from [latencyMin, latencyMax] and each attempt fails with failureProbability, all from
// the driver's own seeded generator, so a seed replays the same run.
//
// The request is settled (pendingRequest false, then mountState written) with mounted, or
// with failed once the machine's reconnectRetries attempts have failed (at least one, at
// most retryCap; 0xFFFFFFFF means retryCap) or once mountTimeout seconds have passed since
// the request (0x7FFFFFFF or 0 means no time-out), whichever comes first.
//
// An unmount of either kind cancels any attempt, writes unmounting at once and notMounted
// after a latency. A cleanup request, or the machine's destruction, cancels everything and
// forgets the machine.
//
// Every other mountState write happens on a turn of the clock, never inside a request, so a
// mount request arriving while the machine is constructed writes nothing. Writing mountState
// runs the registry's reactors, which may clean up and destroy the machine; each turn makes
// that write its last act, and the driver frees its per-machine records only at a later turn
// or with itself.
//
// TYPICAL USAGE:
//   auto driver = std::make_shared<Sim::AutoMountDriver>(seed);
//   Controller::mountDriverIs(driver);    // machines created from now on use it
//   clock->advanceBy(5.0);               // mounts progress
//
// A turn keeps the driver alive through the reactors it runs with the machine's own
// reference to its driver.
//
// Contract: drive every machine from one clock.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "framework/records/ControllerRecords.h"
#include "framework/records/MountDriver.h"
#include "framework/time/Clock.h"
#include "sim/Rng.h"

namespace Sim {

struct AutoMountOptions {
  Vesk::Seconds latencyMin = 0.05;
  Vesk::Seconds latencyMax = 0.5;
  double failureProbability = 0.0;
  // The most attempts of one request, whatever the machine's reconnectRetries.
  uint32_t retryCap = 1000;
};

class AutoMountDriver : public Controller::MountDriver {
 public:
  static constexpr uint32_t kNoRetryLimit = 0xFFFFFFFFu;
  static constexpr uint32_t kNoMountTimeout = 0x7FFFFFFFu;

  explicit AutoMountDriver(uint64_t seed, AutoMountOptions const& options = {});
  ~AutoMountDriver() override;
  AutoMountDriver(AutoMountDriver const&) = delete;
  AutoMountDriver& operator=(AutoMountDriver const&) = delete;

  void onRequest(Controller::MountSm& sm, Request request) override;
  void onDestroyed(Controller::MountSm& sm) override;

  AutoMountOptions const& options() const { return options_; }
  // Takes effect from the next draw on.
  void optionsIs(AutoMountOptions const& options) { options_ = options; }
  // Overrides failureProbability for the machines of one system.
  void failureProbabilityIs(Controller::SystemId const& system, double p);
  void failureProbabilityDel(Controller::SystemId const& system);

  // The machines the driver currently knows (requested and neither cleaned up nor destroyed).
  size_t machines() const { return machines_; }
  bool knows(Controller::MountSm const& sm) const;
  // Failed attempts of the machine's current request; 0 for an unknown machine.
  uint32_t failedAttempts(Controller::MountSm const& sm) const;
  // Requests received, per kind, over the driver's lifetime.
  uint64_t requests(Request request) const { return requests_[size_t(request)]; }
  // Called with every request as it arrives, before the driver acts on it; a test may judge
  // each request at the moment it is made. Null for none.
  using RequestObserver = std::function<void(Controller::MountSm const&, Request)>;
  void requestObserverIs(RequestObserver observer) { requestObserver_ = std::move(observer); }

 private:
  enum class Step { connect, mounting, finish, timeout, unmounted };
  class Mount;

  Mount& mountOf(Controller::MountSm& sm);
  Mount* heldMount(Controller::MountSm const& sm) const;
  void retire(Controller::MountSm& sm);
  void schedule(Mount& m, Step step, Vesk::Seconds at);
  Vesk::Seconds latency();
  uint32_t attemptLimit(Controller::MountSm const& sm) const;
  double failureProbability(Controller::MountSm const& sm) const;
  void onStep(Mount& m);

  AutoMountOptions options_;
  Rng rng_;
  std::map<Controller::SystemId, double> systemFailureProbability_;
  // The record of a machine the driver knows hangs in the machine's driverState slot, owned
  // by the driver until the machine is forgotten.
  size_t machines_ = 0;
  // Records of forgotten machines; one may belong to the timer whose turn is running, so
  // they are freed at the next turn.
  std::vector<std::unique_ptr<Mount>> retired_;
  std::array<uint64_t, 5> requests_{};
  RequestObserver requestObserver_;
};

// A driver that only records requests; a test then writes mountState by hand.
using ManualMountDriver = Controller::RecordingMountDriver;

}  // namespace Sim
