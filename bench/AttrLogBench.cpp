// The attribute log, writer and reader joined in one process (tests/support/AttrLogLink.h).
//
//   BM_Memcpy         a memcpy of the bytes of one encoded change: the baseline
//   BM_EncodeApply    one change of a MountStatus's mountState: the writer's adapter encodes
//                     it into its output, the reader applies it to the copy, the output is
//                     drained. ratio_vs_memcpy = its time / BM_Memcpy's (target: under 20)
//   BM_FullSendLocal  a full send of a status tree of 100,000 MountStatus entities (100
//                     systems of 10 groups of 100 mounts) into a fresh copy. s_total: the
//                     CPU seconds of the send, the copy's making included (target: under
//                     0.3 s); making the original and tearing down are not timed
//
// Times are CPU time per iteration. The baseline runs just before its subject; the reporter
// adds the ratio to the subject's row, in whichever output format is chosen. Run without a
// filter that drops the baseline.
#include <benchmark/benchmark.h>

#include <cstring>
#include <map>
#include <string>

#include "bench/CpuTime.h"
#include "bench/Reporting.h"
#include "model/MountInterface.h"
#include "tests/support/AttrLogLink.h"

namespace {

using Controller::MountStatus;
using Controller::ServiceMountStatus;
using testsupport::AttrLogLink;
using Vesk::Name;
using Vesk::Ptr;

Ptr<ServiceMountStatus> freshStatus() {
  return Controller::serviceMountStatusFactory(Name("agent"));
}

// A status with one mount, its copy joined to it and up to date.
struct OneMount {
  OneMount() {
    mount = original->systemStatusIs(Name("sw1"))
                ->serviceMountGroupStatusIs(Name("g"))
                ->mountStatusIs(Name("/state/path"));
    link.settle();
  }
  // Flips the mount's state: every call is a change.
  void change() {
    flipped = !flipped;
    mount->mountStateIs(flipped ? Controller::mountStateMounted : Controller::mountStateMounting);
  }
  Ptr<ServiceMountStatus> original = freshStatus();
  Ptr<ServiceMountStatus> copy = freshStatus();
  AttrLogLink link{original, copy};
  Ptr<MountStatus> mount;
  bool flipped = false;
};

void BM_Memcpy(benchmark::State& state) {
  OneMount one;
  one.change();
  one.link.out->flowOut();
  auto const bytes = one.link.out->bytes();
  std::string const from(bytes.begin(), bytes.end());
  std::string to(from.size(), '\0');
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size());
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  state.counters["bytes"] = double(from.size());
}
BENCHMARK(BM_Memcpy);

void BM_EncodeApply(benchmark::State& state) {
  OneMount one;
  for (auto _ : state) {
    one.change();
    one.link.carry();
  }
  auto const copied = one.copy->systemStatus(Name("sw1"))
                          ->serviceMountGroupStatus(Name("g"))
                          ->mountStatus(Name("/state/path"));
  if (copied->mountState() != one.mount->mountState()) state.SkipWithError("the copy lags");
}
BENCHMARK(BM_EncodeApply);

constexpr int kSystems = 100;
constexpr int kGroups = 10;
constexpr int kMounts = 100;

Ptr<ServiceMountStatus> largeStatus() {
  auto status = freshStatus();
  for (int s = 0; s < kSystems; ++s) {
    auto system = status->systemStatusIs(Name("switch-" + std::to_string(s)));
    for (int g = 0; g < kGroups; ++g) {
      auto group = system->serviceMountGroupStatusIs(Name("group-" + std::to_string(g)));
      group->mountStateIs(Controller::mountStateMounted);
      for (int m = 0; m < kMounts; ++m) {
        std::string const path = "/state/path/" + std::to_string(m);
        auto mount = group->mountStatusIs(Name(path));
        mount->mountStateIs(Controller::mountStateMounted);
        mount->mountedPathIs(Vesk::String("/mounts/switch-" + std::to_string(s) + path));
      }
    }
  }
  return status;
}

void BM_FullSendLocal(benchmark::State& state) {
  auto const original = largeStatus();
  double total = 0;
  size_t bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto copy = freshStatus();
    state.ResumeTiming();
    double const start = VeskBench::cpuSeconds();
    auto link = std::make_unique<AttrLogLink>(original, copy);
    link->settle();
    total += VeskBench::cpuSeconds() - start;
    state.PauseTiming();
    bytes = link->carried;
    if (copy->systemStatusSize() != kSystems) state.SkipWithError("the copy is incomplete");
    link.reset();
    copy = nullptr;
    state.ResumeTiming();
  }
  state.counters["s_total"] = total / double(state.iterations());
  state.counters["MB_sent"] = double(bytes) / 1e6;
}
BENCHMARK(BM_FullSendLocal)->Iterations(3)->Unit(benchmark::kMillisecond);

// Adds the subject's ratio against the baseline reported before it: per run, and for the
// mean and the median of repetitions, against the baseline's.
void addRatio(VeskBench::Runs& runs, std::map<std::string, double>& baselines) {
  using Run = benchmark::BenchmarkReporter::Run;
  for (auto& run : runs) {
    bool const aggregate = run.run_type == Run::RT_Aggregate;
    if (run.error_occurred ||
        (aggregate && run.aggregate_name != "mean" && run.aggregate_name != "median")) {
      continue;
    }
    std::string const name = run.run_name.function_name;
    std::string const kind = aggregate ? run.aggregate_name : "";
    double const ns = run.GetAdjustedCPUTime() * VeskBench::unitNs(run.time_unit);
    if (name == "BM_Memcpy") baselines[kind] = ns;
    if (name == "BM_EncodeApply" && baselines.count(kind)) {
      run.counters["ratio_vs_memcpy"] = benchmark::Counter(ns / baselines[kind]);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  ::mountInterfaceAttrLogIs(true);
  return VeskBench::runBenchmarks(
      argc, argv, [baselines = std::map<std::string, double>()](VeskBench::Runs& runs) mutable {
        addRatio(runs, baselines);
      });
}
