// Benchmarks of the generated model's mutators: what a change costs per registered notifiee,
// what a set to the value already held costs, and a create-or-return on an existing key.
//
// Every benchmark runs its subject and its baselines on the same iteration, rotating which
// goes first, so all sides see the same machine state. The Time column is the subject's time
// for one round of kOps operations; the counters are per operation:
//   vesk_ns    nanoseconds per operation, subject
//   <side>_ns  nanoseconds per operation, each baseline (named in the label)
//   ratio*     vesk_ns / <side>_ns
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/Reporting.h"
#include "model/MountInterface.h"

namespace {

using Controller::MountState;
using Controller::MountStatus;
using Vesk::Ptr;
using Clock = std::chrono::steady_clock;

constexpr int kOps = 1000;

template <class F>
double elapsedNs(F&& f) {
  auto const start = Clock::now();
  f();
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// One side of a comparison: round() runs kOps operations and returns their nanoseconds.
struct Side {
  std::string counter;  // "<counter>_ns" per operation
  std::string ratio;    // "<ratio>" = subject / this side; unused for the subject
  std::function<double()> round;
};

// sides[0] is the subject, the others its baselines.
void compare(benchmark::State& state, double opsPerRound, std::string const& label,
             std::vector<Side> const& sides) {
  std::vector<double> total(sides.size(), 0.0);
  size_t first = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < sides.size(); ++i) {
      size_t const k = (first + i) % sides.size();
      double const ns = sides[k].round();
      total[k] += ns;
      if (k == 0) state.SetIterationTime(ns * 1e-9);
    }
    first = (first + 1) % sides.size();
  }
  double const ops = opsPerRound * double(state.iterations());
  for (size_t k = 0; k < sides.size(); ++k) {
    state.counters[sides[k].counter + "_ns"] = total[k] / ops;
    if (k > 0) state.counters[sides[k].ratio] = total[0] / total[k];
  }
  state.SetLabel(label);
}

struct CountingReactor : MountStatus::NotifieeConst {
  long calls = 0;
  void onMountState() override { ++calls; }
};

// kOps changes of mountState, alternating between two states so that every set notifies.
// Not inlined, so that subject and baseline run the very same machine code.
[[gnu::noinline]] double changeRound(MountStatus* status) {
  return elapsedNs([&] {
    for (int i = 0; i < kOps; ++i) {
      status->mountStateIs(i & 1 ? Controller::mountStateMounted : Controller::mountStateMounting);
    }
    benchmark::ClobberMemory();
  });
}

// MountStatus::mountStateIs with a change of value and N registered notifiees, against the
// same change on a MountStatus with none.
void MountStateChange(benchmark::State& state) {
  int const notifiees = int(state.range(0));
  Ptr<MountStatus> subject = new MountStatus("subject");
  Ptr<MountStatus> bare = new MountStatus("bare");
  std::vector<std::unique_ptr<CountingReactor>> reactors;
  for (int i = 0; i < notifiees; ++i) {
    reactors.push_back(std::make_unique<CountingReactor>());
    reactors.back()->notifierIs(subject);
  }
  compare(state, kOps, "vs the same change with 0 notifiees",
          {{"vesk", "", [&] { return changeRound(subject.ptr()); }},
           {"none", "ratio", [&] { return changeRound(bare.ptr()); }}});
  long calls = 0;
  for (auto& r : reactors) calls += r->calls;
  benchmark::DoNotOptimize(calls);
}
BENCHMARK(MountStateChange)->Arg(0)->Arg(1)->Arg(8)->UseManualTime();

// mountStateIs with the state already held (one notifiee registered, never called), against
// a plain store of an enum member and an empty loop with the same per-operation barrier.
void MountStateUnchanged(benchmark::State& state) {
  Ptr<MountStatus> status = new MountStatus("status");
  status->mountStateIs(Controller::mountStateMounted);
  CountingReactor reactor;
  reactor.notifierIs(status);
  struct Plain {
    MountState state;
  } plain{Controller::mountStateNotMounted};
  MountState const held = Controller::mountStateMounted;
  compare(state, kOps, "vs a plain member store / an empty loop",
          {{"vesk", "",
            [&] {
              return elapsedNs([&] {
                for (int i = 0; i < kOps; ++i) {
                  MountStatus* s = status.ptr();
                  benchmark::DoNotOptimize(s);  // reload the held state every time
                  s->mountStateIs(held);
                }
              });
            }},
           {"store", "ratio",
            [&] {
              return elapsedNs([&] {
                for (int i = 0; i < kOps; ++i) {
                  Plain* p = &plain;
                  benchmark::DoNotOptimize(p);
                  p->state = held;
                }
              });
            }},
           {"empty", "ratio_empty", [&] {
              return elapsedNs([&] {
                for (int i = 0; i < kOps; ++i) {
                  MountStatus* s = status.ptr();
                  benchmark::DoNotOptimize(s);
                }
              });
            }}});
  if (reactor.calls != 0) state.SkipWithError("an unchanged set notified");
  reactor.notifierIs(nullptr);
}
BENCHMARK(MountStateUnchanged)->UseManualTime();

// ServiceMountStatus::mountedPathPrefixIs on keys that exist with the prefix they hold,
// against the plain lookup mountedPathPrefix(key). The callers' keys and prefixes are built
// separately from the stored ones (equal text, different buffers), in a shuffled order.
void MountedPathPrefixExisting(benchmark::State& state) {
  constexpr int kKeys = 64;
  auto status = Controller::serviceMountStatusFactory("agent");
  std::vector<std::pair<Vesk::Name, Vesk::String>> calls;
  for (int i = 0; i < kKeys; ++i) {
    std::string const key = "/remote/volume-" + std::to_string(i);
    status->mountedPathPrefixIs(Vesk::Name(key), Vesk::String("/mnt/agent" + key));
    calls.emplace_back(Vesk::Name(key), Vesk::String("/mnt/agent" + key));
  }
  std::shuffle(calls.begin(), calls.end(), std::mt19937(7));
  int const rounds = kOps / kKeys;
  compare(state, rounds * kKeys, "vs mountedPathPrefix(key)",
          {{"vesk", "",
            [&] {
              return elapsedNs([&] {
                for (int r = 0; r < rounds; ++r) {
                  for (auto const& [key, prefix] : calls) {
                    auto p = status->mountedPathPrefixIs(key, prefix);
                    benchmark::DoNotOptimize(p.ptr());
                  }
                }
              });
            }},
           {"lookup", "ratio", [&] {
              return elapsedNs([&] {
                for (int r = 0; r < rounds; ++r) {
                  for (auto const& [key, prefix] : calls) {
                    auto p = status->mountedPathPrefix(key);
                    benchmark::DoNotOptimize(p.ptr());
                  }
                }
              });
            }}});
}
BENCHMARK(MountedPathPrefixExisting)->UseManualTime();

}  // namespace

// The library's main, except that CSV is written as one table: the benchmarks here have
// different counters.
int main(int argc, char** argv) { return VeskBench::runBenchmarks(argc, argv); }
