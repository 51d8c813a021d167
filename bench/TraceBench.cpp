// Trace costs, each against a baseline measured in the same run.
//
//   BM_TraceDisabled      a VESK_TRACE whose level is off, vs BM_EmptyLoop:
//                         ratio_vs_empty_loop = trace time / empty loop time,
//                         overhead_ns = trace time - empty loop time (target: under 2 ns)
//   BM_FlitlogThreeArgs   a ring-buffer message with a String, an unsigned and a 64-bit value,
//                         vs BM_Snprintf formatting the same text into a buffer:
//                         ratio_vs_snprintf = snprintf time / trace time (target: 5 or more;
//                         the trace itself under 50 ns)
// Times are CPU time per iteration. A baseline runs just before its subject; the reporter
// adds the ratio to the subject's row, in whichever output format is chosen.
// Run without a filter that drops the baselines.
#include <benchmark/benchmark.h>

#include <cinttypes>
#include <cstdio>
#include <map>
#include <string>

#include "bench/Reporting.h"
#include "framework/trace/Flitlog.h"
#include "framework/trace/Trace.h"

namespace {

Vesk::TraceHandle offHandle("TraceBenchOff", false);
Vesk::TraceHandle onHandle("TraceBenchOn", true);
Vesk::String const peer("switch-0042");

void BM_EmptyLoop(benchmark::State& state) {
  for (auto _ : state) benchmark::ClobberMemory();
}
BENCHMARK(BM_EmptyLoop);

void BM_TraceDisabled(benchmark::State& state) {
  uint32_t count = 0;
  for (auto _ : state) {
    VESK_TRACE(offHandle, 5, "MountsRegistrySm::handlePeer", " peer:", peer, " count:", count);
    // Makes the loop re-read the handle's level every time, as a real call site does.
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_TraceDisabled);

void BM_Snprintf(benchmark::State& state) {
  char buffer[256];
  uint32_t count = 0;
  int64_t at = 1700000000123456789;
  for (auto _ : state) {
    int n = std::snprintf(buffer, sizeof buffer,
                          "MountsRegistrySm::handlePeer peer:%s count:%u at:%" PRId64,
                          peer.charPtr(), count++, at++);
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(buffer);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_Snprintf);

void BM_FlitlogThreeArgs(benchmark::State& state) {
  // A fresh in-memory ring: the loop wraps it many times, so the steady state (advancing the
  // tail over old messages) is what gets measured.
  Vesk::Flitlog::fileIs(Vesk::String(), Vesk::Flitlog::defaultBytes);
  uint32_t count = 0;
  int64_t at = 1700000000123456789;
  for (auto _ : state) {
    VESK_TRACE(onHandle, 5, "MountsRegistrySm::handlePeer", " peer:", peer, " count:", count++,
               " at:", at++);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_FlitlogThreeArgs);

// Adds each subject's ratio against the baseline reported before it.
void addRatios(VeskBench::Runs& runs, std::map<std::string, double>& baselines) {
  for (auto& run : runs) {
    if (run.run_type != benchmark::BenchmarkReporter::Run::RT_Iteration || run.error_occurred) {
      continue;
    }
    std::string const name = run.run_name.function_name;
    double const ns = run.GetAdjustedCPUTime() * VeskBench::unitNs(run.time_unit);
    if (name == "BM_EmptyLoop" || name == "BM_Snprintf") baselines[name] = ns;
    if (name == "BM_TraceDisabled" && baselines.count("BM_EmptyLoop")) {
      double const base = baselines["BM_EmptyLoop"];
      run.counters["ratio_vs_empty_loop"] = benchmark::Counter(ns / base);
      run.counters["overhead_ns"] = benchmark::Counter(ns - base);
    }
    if (name == "BM_FlitlogThreeArgs" && baselines.count("BM_Snprintf")) {
      run.counters["ratio_vs_snprintf"] = benchmark::Counter(baselines["BM_Snprintf"] / ns);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  return VeskBench::runBenchmarks(
      argc, argv, [baselines = std::map<std::string, double>()](VeskBench::Runs& runs) mutable {
        addRatios(runs, baselines);
      });
}
