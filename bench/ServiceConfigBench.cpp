// The service configuration machines at scale: 20 services, each with 10 mount groups of 100
// mount configurations (20,000 in all; a third of the paths shared between the services),
// taken up into the registry by the hosting agent's machines, without switches.
//
// Each benchmark runs at N = 1 and N = 2 (twice the services, so twice the declarations) and
// reports ms_total, us_per_config and ratio_vs_direct: the machines' time over the time
// that building the same registry content directly through the registry model takes, in
// the same run, with the registry machine running in both.
//
//   TakeUp/N       every service places its declaration (written beforehand) into the
//                  configuration directory; the machines add every entry, mounter and prefix
//   LeaderFlip/N   the controller's leader generation changes, which withdraws every mounter
//                  and prefix, and changes back, which restores them (the entries stay)
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "bench/CpuTime.h"
#include "sim/Agent.h"
#include "sim/World.h"

namespace {

constexpr unsigned kServices = 20;
constexpr unsigned kGroups = 10;
constexpr unsigned kConfigs = 100;

using VeskBench::cpuSeconds;

// A third of each group's paths are the same for every service.
std::string pathOf(unsigned service, unsigned group, unsigned config) {
  std::string const tail = "/g" + std::to_string(group) + "/m" + std::to_string(config);
  return config % 3 == 0 ? "/shared" + tail : "/s" + std::to_string(service) + tail;
}

// The declarations of one service, written before they are placed in the directories.
struct Declaration {
  Vesk::Ptr<Controller::ServiceMountConfig> config;
  Vesk::Ptr<Controller::ServiceMountStatus> status;
};

Declaration declaration(unsigned service, Vesk::String const& leaderGenId) {
  std::string const name = "svc" + std::to_string(service);
  Declaration d{Controller::serviceMountConfigFactory(Vesk::Name(name + "Agent")),
                Controller::serviceMountStatusFactory(Vesk::Name(name + "Agent"))};
  d.config->serviceNameIs(Vesk::String(name));
  d.config->leaderGenIdIs(leaderGenId);
  for (unsigned g = 0; g < kGroups; ++g) {
    auto group = d.config->mountGroupConfigIs(Vesk::Name("g" + std::to_string(g)));
    for (unsigned m = 0; m < kConfigs; ++m) {
      std::string const path = pathOf(service, g, m);
      group->mountConfigIs(Vesk::Name(path), "Vesk::Dir", "", Vesk::String(path));
    }
  }
  return d;
}

// The same registry content, built through the registry model by hand: the entries, the
// first declaring group's mounter of each service and its prefix.
void buildDirectly(Sim::World& world, std::vector<Declaration> const& declarations) {
  for (Declaration const& d : declarations) {
    for (auto const& [groupName, group] : d.config->mountGroupConfigMembers()) {
      for (auto const& [path, mount] : group->mountConfigMembers()) {
        auto entry = world.registry()->mountEntryIs(path, mount->targetMountPath(),
                                                    mount->plovType(), mount->mountFlags());
        if (entry->mounter(d.config->serviceName())) continue;
        d.status->mountedPathPrefixIs(path, mount->targetMountPath());
        entry->mounterIs(Controller::MounterName(d.config->serviceName(), groupName), mount.ptr(),
                         group.ptr(), d.status);
      }
    }
  }
}

void withdrawDirectly(Sim::World& world, std::vector<Declaration> const& declarations) {
  for (Declaration const& d : declarations) {
    for (auto const& [groupName, group] : d.config->mountGroupConfigMembers()) {
      for (auto const& [path, mount] : group->mountConfigMembers()) {
        if (auto entry = world.registry()->mountEntry(path)) {
          entry->mounterDel(d.config->serviceName());
        }
        d.status->mountedPathPrefixDel(path);
      }
    }
  }
}

std::vector<Declaration> declarations(unsigned n, Vesk::String const& leaderGenId) {
  std::vector<Declaration> out;
  for (unsigned k = 0; k < kServices * n; ++k) out.push_back(declaration(k, leaderGenId));
  return out;
}

void place(Sim::World& world, std::vector<Declaration> const& declarations) {
  for (Declaration const& d : declarations) {
    world.mountStatusDir()->entityPtrIs(d.status);
    world.mountConfigDir()->entityPtrIs(d.config);
  }
}

size_t configs(unsigned n) { return size_t(kServices) * n * kGroups * kConfigs; }

void report(benchmark::State& state, double seconds, double direct, unsigned n, unsigned runs) {
  state.counters["ms_total"] = seconds / runs * 1e3;
  state.counters["us_per_config"] = seconds / runs / double(configs(n)) * 1e6;
  state.counters["ratio_vs_direct"] = seconds / direct;
}

// The time the direct build takes on a fresh world with the registry machine running.
double directTakeUp(unsigned n) {
  Sim::World world;
  auto registry = world.startRegistry();
  std::vector<Declaration> const d = declarations(n, world.controllerdbStatus()->leaderGenId());
  double const start = cpuSeconds();
  buildDirectly(world, d);
  double const seconds = cpuSeconds() - start;
  withdrawDirectly(world, d);
  registry->doCleanup();
  return seconds;
}

void TakeUp(benchmark::State& state) {
  unsigned const n = unsigned(state.range(0));
  double seconds = 0, direct = 0;
  unsigned runs = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto world = std::make_unique<Sim::World>();
    auto agent = std::make_unique<Sim::Agent>(*world);
    std::vector<Declaration> const d = declarations(n, world->controllerdbStatus()->leaderGenId());
    state.ResumeTiming();
    double const start = cpuSeconds();
    place(*world, d);
    seconds += cpuSeconds() - start;
    state.PauseTiming();
    agent.reset();
    world.reset();
    direct += directTakeUp(n);
    ++runs;
    state.ResumeTiming();
  }
  report(state, seconds, direct, n, runs);
}
BENCHMARK(TakeUp)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

void LeaderFlip(benchmark::State& state) {
  unsigned const n = unsigned(state.range(0));
  Sim::World world;
  Sim::Agent agent(world);
  std::vector<Declaration> const d = declarations(n, world.controllerdbStatus()->leaderGenId());
  place(world, d);
  Vesk::String const current = world.controllerdbStatus()->leaderGenId();
  double seconds = 0, direct = 0;
  unsigned runs = 0;
  for (auto _ : state) {
    double start = cpuSeconds();
    world.leaderGenIdIs("another");
    world.leaderGenIdIs(current);
    seconds += cpuSeconds() - start;
    state.PauseTiming();
    start = cpuSeconds();
    withdrawDirectly(world, d);  // the machines' mounters: the same content either way
    buildDirectly(world, d);
    direct += cpuSeconds() - start;
    ++runs;
    state.ResumeTiming();
  }
  report(state, seconds, direct, n, runs);
}
BENCHMARK(LeaderFlip)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

}  // namespace

BENCHMARK_MAIN();
