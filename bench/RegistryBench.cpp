// The registry machines at scale: 1,000 switches, 200 entries and 20 services with mixed
// filters (wildcard groups, version filters, system filters, proxies), traces on at level
// 5 into the ring buffer, mounts settling on the virtual clock.
//
// Each benchmark reports CPU time per (entry, switch) decision the machines made, and
// ratio_vs_reference: that time over the time the reference evaluator, measured in the
// same run on the same world, takes per decision without any machine.
//
//   FullConnect      every switch connects and negotiates its 20 services until every mount
//                    has settled (reports connect_s, the CPU seconds of the whole connect;
//                    user_s and sys_s, the parts of them spent in the program and in the
//                    kernel; and faults, the page faults taken: first touches of the memory
//                    the connect builds)
//   SecondWave       the same, on a fleet whose every switch has connected, settled and left
//                    once before: the controller's whole fleet reconnecting
//   SwitchFlap       one connected switch leaves and comes back
//   FilterChange     one system filter gains a switch and loses it again
//   Renegotiation    one switch renegotiates one service's version back and forth
//
// The publish side has a fleet of its own: the same 1,000 switches, 200 publish entries (a
// quarter of them prefix paths, whose directories get one sub-directory per admitted switch)
// of 10 services, with version filters and system filters on some. Its benchmarks report
// ns_per_decision and ratio_vs_reference over the publish machines' decisions, the
// reference being the publish evaluator on the same world:
//
//   PublishFullConnect   every switch connects and negotiates until every admissible pair is
//                        published (publish_s: the CPU seconds of the whole step)
//   PublishSwitchFlap    one connected switch leaves and comes back
//
// As the registry's host, the benchmark chooses where the framework's small objects live:
// --chunks=populated (the default), heap, large or large_populated (see main).
#include <benchmark/benchmark.h>

#include <sys/resource.h>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string_view>

#include "bench/CpuTime.h"
#include "registry/MountsRegistryEntrySm.h"
#include "registry/MountsRegistrySm.h"
#include "registry/PublishRegistryEntrySm.h"
#include "sim/Agent.h"
#include "sim/ExpectedMounts.h"
#include "sim/ExpectedPublishes.h"
#include "sim/HostChunks.h"
#include "sim/World.h"

namespace {

using Controller::SystemId;

constexpr unsigned kSwitches = 1000;
constexpr unsigned kEntries = 200;
constexpr unsigned kServices = 20;
constexpr unsigned kEntriesPerService = 20;

// The process's kernel CPU seconds and minor page faults so far.
double sysSeconds() {
  rusage u;
  getrusage(RUSAGE_SELF, &u);
  return double(u.ru_stime.tv_sec) + double(u.ru_stime.tv_usec) * 1e-6;
}
long minorFaults() {
  rusage u;
  getrusage(RUSAGE_SELF, &u);
  return u.ru_minflt;
}

using VeskBench::cpuSeconds;

std::string serviceName(unsigned k) {
  std::string name = "svc" + std::to_string(k);
  return k % 4 == 3 ? name + "-Proxy" : name;
}
std::string realName(unsigned k) { return "svc" + std::to_string(k); }

class Fleet {
 public:
  Fleet() : world_(options()), agent_(world_) {
    for (unsigned k = 0; k < kServices; ++k) {
      auto svc = world_.declareService(Vesk::Name("agent" + std::to_string(k)),
                                       Vesk::String(serviceName(k)), k % 4 == 3);
      Vesk::Name group("g" + std::to_string(k));
      if (k % 4 == 1) svc.versionFilterIs(group, {2});
      if (k % 4 == 2) {
        std::vector<SystemId> quarter;
        for (unsigned i = k; i < kSwitches; i += 4) quarter.push_back(Sim::World::systemOf(i + 1));
        svc.systemFilterIs(group, quarter);
      }
      if (k % 4 == 0) svc.groupIs(group, k % 8 == 0);
      for (unsigned m = 0; m < kEntriesPerService; ++m) {
        svc.mountIs(group, Vesk::Name("/e" + std::to_string((k * 10 + m) % kEntries)));
      }
      services_.push_back(svc);
    }
  }

  void connect(unsigned i) {
    SystemId s = world_.connectSwitch(i);
    for (unsigned k = 0; k < kServices; ++k) {
      uint32_t version = k % 4 == 1 ? 1 + i % 2 : 1;
      world_.negotiate(s, Vesk::Name(realName(k)), version);
    }
  }
  void settle() { world_.runUntilQuiet(3600.0); }

  uint64_t decisions() const {
    uint64_t n = 0;
    for (auto const& [name, sm] : agent_.registry()->mountsRegistryEntrySms().members()) {
      n += sm->decisions();
    }
    return n;
  }

  // CPU seconds per decision of the reference evaluator over the whole world: the same
  // decisions straight from the records, without machines, status or mounts.
  double referencePerDecision() {
    uint64_t decisions = 0, mounted = 0;
    double start = cpuSeconds();
    Sim::forEachDecision(world_, [&](Vesk::Name const&, SystemId const&, Sim::Decision d) {
      ++decisions;
      mounted += d.mounted;
    });
    double const seconds = cpuSeconds() - start;
    benchmark::DoNotOptimize(mounted);
    return seconds / double(decisions ? decisions : 1);
  }

  Sim::World& world() { return world_; }
  Sim::ServiceDeclaration& service(unsigned k) { return services_[k]; }

 private:
  static Sim::WorldOptions options() {
    Sim::WorldOptions o;
    o.seed = 11;
    return o;
  }
  Sim::World world_;
  Sim::Agent agent_;
  std::vector<Sim::ServiceDeclaration> services_;
};

// The connected fleet the steady-state benchmarks share, built once.
Fleet& connectedFleet() {
  static std::unique_ptr<Fleet> fleet = [] {
    auto f = std::make_unique<Fleet>();
    for (unsigned i = 1; i <= kSwitches; ++i) f->connect(i);
    f->settle();
    return f;
  }();
  return *fleet;
}

void report(benchmark::State& state, Fleet& fleet, uint64_t decisions, double seconds) {
  double perDecision = seconds / double(decisions ? decisions : 1);
  state.counters["decisions"] = double(decisions);
  state.counters["ns_per_decision"] = perDecision * 1e9;
  state.counters["ratio_vs_reference"] = perDecision / fleet.referencePerDecision();
}

// Times every switch connecting and every mount settling on a fresh fleet. With
// `secondWave`, the fleet has already connected, settled and lost every switch once, so the
// connect reuses memory the process already holds, as a controller's does when its whole
// fleet reconnects.
void connectAll(benchmark::State& state, bool secondWave) {
  for (auto _ : state) {
    state.PauseTiming();
    auto fleet = std::make_unique<Fleet>();
    if (secondWave) {
      for (unsigned i = 1; i <= kSwitches; ++i) fleet->connect(i);
      fleet->settle();
      for (unsigned i = 1; i <= kSwitches; ++i) {
        fleet->world().removeSwitch(Sim::World::systemOf(i));
      }
      fleet->settle();
    }
    uint64_t const decisionsBefore = fleet->decisions();
    state.ResumeTiming();
    double start = cpuSeconds();
    double sys0 = sysSeconds();
    long faults0 = minorFaults();
    for (unsigned i = 1; i <= kSwitches; ++i) fleet->connect(i);
    double negotiated = cpuSeconds();
    fleet->settle();
    double seconds = cpuSeconds() - start;
    double const sys = sysSeconds() - sys0;
    long const faults = minorFaults() - faults0;
    state.PauseTiming();
    report(state, *fleet, fleet->decisions() - decisionsBefore, seconds);
    state.counters["connect_s"] = seconds;
    state.counters["negotiate_s"] = negotiated - start;
    state.counters["settle_s"] = seconds - (negotiated - start);
    state.counters["user_s"] = seconds - sys;
    state.counters["sys_s"] = sys;
    state.counters["faults"] = double(faults);
    fleet.reset();
    state.ResumeTiming();
  }
}

void FullConnect(benchmark::State& state) { connectAll(state, false); }
BENCHMARK(FullConnect)->Iterations(1)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

void SecondWave(benchmark::State& state) { connectAll(state, true); }
BENCHMARK(SecondWave)->Iterations(1)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

template <class Step>
void steadyState(benchmark::State& state, Step step) {
  Fleet& fleet = connectedFleet();
  uint64_t decisions = 0;
  double seconds = 0;
  for (auto _ : state) {
    uint64_t before = fleet.decisions();
    double start = cpuSeconds();
    step(fleet);
    fleet.settle();
    seconds += cpuSeconds() - start;
    decisions += fleet.decisions() - before;
  }
  report(state, fleet, decisions, seconds);
}

void SwitchFlap(benchmark::State& state) {
  steadyState(state, [](Fleet& fleet) {
    SystemId s = Sim::World::systemOf(7);
    fleet.world().removeSwitch(s);
    fleet.settle();
    fleet.connect(7);
  });
}
BENCHMARK(SwitchFlap)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

void FilterChange(benchmark::State& state) {
  steadyState(state, [](Fleet& fleet) {
    auto filter = fleet.service(2).config()->systemFilter("g2");
    Vesk::String added = Sim::World::systemOf(1).stringValue();
    filter->includedSystemIs(added, true);
    fleet.settle();
    filter->includedSystemDel(added);
  });
}
BENCHMARK(FilterChange)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

void Renegotiation(benchmark::State& state) {
  steadyState(state, [](Fleet& fleet) {
    SystemId s = Sim::World::systemOf(2);
    fleet.world().renegotiate(s, "svc1", 1);
    fleet.settle();
    fleet.world().renegotiate(s, "svc1", 2);
  });
}
BENCHMARK(Renegotiation)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

// ---- publishing -----------------------------------------------------------------------------

constexpr unsigned kPublishEntries = 200;
constexpr unsigned kPublishServices = 10;

class PublishFleet {
 public:
  PublishFleet() : world_(options()), agent_(world_) {
    for (unsigned k = 0; k < kPublishServices; ++k) {
      publishers_.push_back(world_.declarePublishService(
          Vesk::Name("publisher" + std::to_string(k)), Vesk::String(realName(k))));
    }
    std::vector<SystemId> half;
    for (unsigned i = 0; i < kSwitches; i += 2) half.push_back(Sim::World::systemOf(i + 1));
    for (unsigned e = 0; e < kPublishEntries; ++e) {
      unsigned const k = e % kPublishServices;
      Sim::PublishDeclaration const& publisher = publishers_[k];
      Vesk::Name const group("g");
      if (k % 3 == 1) publisher.versionFilterIs(group, {2});
      if (k % 3 == 2) publisher.systemFilterIs(group, half);
      std::string const name = "p" + std::to_string(e);
      Vesk::String const local("/controller/local/" + name);
      if (e % 4 == 0) {
        world_.localDirIs(local);
        publisher.publishDirIs(group, Vesk::Name(local), Vesk::String("/published/" + name));
      } else {
        world_.localEntityIs(local);
        publisher.publishIs(group, Vesk::Name(local), Vesk::String("/published/" + name));
      }
    }
    for (Sim::PublishDeclaration const& publisher : publishers_) publisher.readyIs(true);
  }

  void connect(unsigned i) {
    SystemId s = world_.connectSwitch(i);
    for (unsigned k = 0; k < kPublishServices; ++k) {
      world_.negotiate(s, Vesk::Name(realName(k)), 1 + i % 2);
    }
  }
  void connectAll() {
    for (unsigned i = 1; i <= kSwitches; ++i) connect(i);
  }

  uint64_t decisions() const {
    uint64_t n = 0;
    for (auto const& [name, sm] : agent_.registry()->publishRegistryEntrySms().members()) {
      n += sm->decisions();
    }
    return n;
  }
  size_t published() const {
    size_t n = 0;
    for (auto const& [s, record] : world_.publishStatus()->systemMembers()) {
      n += record->publishedMountSize();
    }
    return n;
  }

  // CPU seconds per (entry, switch) pair of the publish evaluator over the whole world.
  double referencePerDecision() {
    double const start = cpuSeconds();
    auto const expected = Sim::expectedPublishes(world_);
    double const seconds = cpuSeconds() - start;
    benchmark::DoNotOptimize(expected.size());
    size_t const pairs = world_.registry()->publishEntrySize() * world_.peerTable()->peerSize();
    return seconds / double(pairs ? pairs : 1);
  }

  Sim::World& world() { return world_; }

 private:
  static Sim::WorldOptions options() {
    Sim::WorldOptions o;
    o.seed = 13;
    return o;
  }
  Sim::World world_;
  Sim::Agent agent_;
  std::vector<Sim::PublishDeclaration> publishers_;
};

void reportPublish(benchmark::State& state, PublishFleet& fleet, uint64_t decisions,
                   double seconds) {
  double const perDecision = seconds / double(decisions ? decisions : 1);
  state.counters["decisions"] = double(decisions);
  state.counters["published"] = double(fleet.published());
  state.counters["ns_per_decision"] = perDecision * 1e9;
  state.counters["ratio_vs_reference"] = perDecision / fleet.referencePerDecision();
}

void PublishFullConnect(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    auto fleet = std::make_unique<PublishFleet>();
    uint64_t const before = fleet->decisions();
    state.ResumeTiming();
    double const start = cpuSeconds();
    fleet->connectAll();
    double const seconds = cpuSeconds() - start;
    state.PauseTiming();
    reportPublish(state, *fleet, fleet->decisions() - before, seconds);
    state.counters["publish_s"] = seconds;
    fleet.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(PublishFullConnect)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime();

void PublishSwitchFlap(benchmark::State& state) {
  static std::unique_ptr<PublishFleet> fleet = [] {
    auto f = std::make_unique<PublishFleet>();
    f->connectAll();
    return f;
  }();
  uint64_t decisions = 0;
  double seconds = 0;
  for (auto _ : state) {
    uint64_t const before = fleet->decisions();
    double const start = cpuSeconds();
    fleet->world().removeSwitch(Sim::World::systemOf(7));
    fleet->connect(7);
    seconds += cpuSeconds() - start;
    decisions += fleet->decisions() - before;
  }
  reportPublish(state, *fleet, decisions, seconds);
}
BENCHMARK(PublishSwitchFlap)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime();

}  // namespace

// Where the framework's small objects live: the benchmark is the registry's hosting process
// and makes that choice (sim/HostChunks.h). By default, chunks the system provides whole
// when the store takes them; --chunks=heap leaves them to the general heap (the library's
// default).
struct ChunkChoice {
  std::string_view name;
  Sim::HostChunks chunks;
};
constexpr std::string_view kChunksFlag = "--chunks=";
constexpr ChunkChoice kChunkChoices[] = {
    {"populated", {.largePages = false, .populated = true}},
    {"heap", {.largePages = false, .populated = false}},
    {"large", {.largePages = true, .populated = false}},
    {"large_populated", {.largePages = true, .populated = true}},
};

int main(int argc, char** argv) {
  ChunkChoice const* choice = &kChunkChoices[0];
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    std::string_view const arg(argv[i]);
    if (!arg.starts_with(kChunksFlag)) {
      argv[kept++] = argv[i];
      continue;
    }
    auto const named =
        std::ranges::find(kChunkChoices, arg.substr(kChunksFlag.size()), &ChunkChoice::name);
    if (named == std::end(kChunkChoices)) {
      std::fprintf(stderr,
                   "registry_bench: --chunks takes populated, heap, large or large_populated\n");
      return 2;
    }
    choice = named;
  }
  Sim::useHostChunks(choice->chunks);
  benchmark::AddCustomContext("chunks", std::string(choice->name));
  argc = kept;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
