// Random histories of what services and sibling components do, in a simulated controller
// whose hosting agent runs the library's machines: services write and change their mount
// and publish declarations, switches come, negotiate and go, filters and the leader
// generation change, local entities come and go. At settled moments the registry, the
// mounts, the statuses and the published mounts are held to the reference evaluators.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "registry/MountGroupSummary.h"
#include "registry/MountsRegistryEntrySm.h"
#include "registry/MountsRegistrySm.h"
#include "registry/PublishRegistryEntrySm.h"
#include "sim/Agent.h"
#include "sim/ExpectedMounts.h"
#include "sim/ExpectedPublishes.h"
#include "sim/ExpectedRegistry.h"
#include "sim/World.h"

namespace Controller {
namespace {
// ---- against the reference ----------------------------------------------------------------

// The automatic driver. Without failures, every mount that must be made ends mounted; with
// them, some end failed once their retries run out.
Sim::WorldOptions settlingDriver(uint64_t seed = 1, double failureProbability = 0.0) {
  Sim::WorldOptions o;
  o.seed = seed;
  o.autoMount.failureProbability = failureProbability;
  return o;
}

// How much of a history a comparison with the reference may rely on.
struct Expectations {
  // Each entry has decided every system since the system came. Otherwise a system that
  // arrived may still wait for its first decision, which comes once a negotiated version of
  // one of the entry's services is reported on it, and until then no service sees a status
  // of the entry's mount on it.
  bool everySystemDecided = true;
  // Mounts may fail: a mount that must be made has settled, mounted or failed.
  bool mountsMayFail = false;
};

// Every mount status a service holds belongs to an entry that still has the service's
// mounter, of the status's group: a mounter that leaves, or an entry, takes its statuses.
void expectNoStrayStatus(Sim::World& world, std::string const& when) {
  for (Vesk::Dir const* dir : {world.mountStatusDir().ptr(), world.proxyMountStatusDir().ptr()}) {
    for (auto const& [agent, record] : dir->entityPtrMembers()) {
      auto const* status = dynamic_cast<ServiceMountStatus const*>(record.ptr().ptr());
      if (!status) continue;
      for (auto const& [system, sys] : status->systemStatusMembers()) {
        for (auto const& [group, grp] : sys->serviceMountGroupStatusMembers()) {
          for (auto const& [path, mount] : grp->mountStatusMembers()) {
            auto entry = world.registry()->mountEntry(path);
            auto mounter = entry ? entry->mounter(Vesk::Name(status->serviceName())) : nullptr;
            EXPECT_TRUE(mounter && mounter->mounterName().groupName() == group)
                << when << ": " << status->serviceName() << " sees " << path << " on " << system
                << " in group " << group << " without a mounter there";
          }
        }
      }
    }
  }
}

// Compares the registry's mount machines and the status each service sees with the
// reference's answer, once every mount has settled. A service never sees a mount where its
// group is not interested, sees every mount made where it is, in the mount's state, and
// (when every system has been decided) the mounts not made where it is interested.
// Runs the clock until every mount has settled, then once more through a presence check: a
// publish machine whose local entity is missing looks for it once a second for as long as
// it is missing, which would keep the clock busy to any limit.
void settle(Sim::World& world, MountsRegistrySm const& sm) {
  auto polls = [&] {
    size_t armed = 0;
    for (auto const& [name, publishSm] : sm.publishRegistryEntrySms().members()) {
      armed += publishSm->entityPresenceCheckTime() != Vesk::Clock::never;
    }
    return armed;
  };
  Vesk::Seconds const limit = world.now() + 600;
  Vesk::ManualClock& clock = *world.clock();
  while (clock.armedCount() > polls() && clock.nextWakeup() <= limit) clock.runNext();
  world.advance(PublishRegistryEntrySm::kPresenceCheckPeriod);
}

void expectMatches(Sim::World& world, MountsRegistrySm& sm, std::string const& when,
                   Expectations expect = {}) {
  settle(world, sm);
  for (auto const& [name, entrySm] : sm.mountsRegistryEntrySms().members()) {
    EXPECT_TRUE(world.registry()->mountEntry(name)) << when << ": a machine outlives " << name;
  }
  for (auto const& [key, decision] : Sim::expectedMounts(world)) {
    auto const& [entry, system] = key;
    SystemId id;
    ASSERT_TRUE(id.stringValueIs(Vesk::String(system)));
    auto entrySm = sm.mountsRegistryEntrySm(Vesk::Name(entry));
    auto d = entrySm ? entrySm->mountSmData(id) : nullptr;
    MountState const state = d ? d->mountState() : mountStateNotMounted;
    bool const made =
        state == mountStateMounted || (expect.mountsMayFail && state == mountStateFailed);
    EXPECT_EQ(made, decision.mounted) << when << ": " << entry << " from " << system;
    bool const present = bool(world.peerTable()->peer(id));
    for (auto const& [service, m] :
         world.registry()->mountEntry(Vesk::Name(entry))->mounterMembers()) {
      auto const& svc = *m.ptr();
      if (!present) {
        EXPECT_FALSE(svc.serviceMountStatus()->systemStatus(Vesk::Name(system)))
            << when << ": " << service << " still has a status of " << system << ", gone";
        continue;
      }
      auto group = Vesk::Name(svc.mounterName().groupName());
      auto sys = svc.serviceMountStatus()->systemStatus(Vesk::Name(system));
      auto grp = sys ? sys->serviceMountGroupStatus(group) : nullptr;
      auto status = grp ? grp->mountStatus(Vesk::Name(entry)) : nullptr;
      bool const interested = Sim::mounterIsInterested(world, svc, id);
      std::string const what =
          when + ": " + std::string(service.view()) + "'s status of " + entry + " on " + system;
      if (!interested || made || expect.everySystemDecided) {
        EXPECT_EQ(bool(status), interested) << what;
      }
      if (status) {
        // A mount not made has no machine, and its status reads not mounted.
        EXPECT_EQ(status->mountState(), state) << what;
        EXPECT_TRUE(grp->processed()) << what << ": its group is not processed";
      }
      if (status && state == mountStateMounted) {
        EXPECT_EQ(status->mountedPath(), entrySm->mountSm(id)->targetPath() + "/" + entry) << what;
      }
      if (grp) {
        EXPECT_EQ(grp->mountState(), MountGroupSummaries::walkedMembersSummary(*grp))
            << what << ": the summary of its group";
      }
    }
  }
  expectNoStrayStatus(world, when);
  for (auto const& [name, publishSm] : sm.publishRegistryEntrySms().members()) {
    EXPECT_TRUE(world.registry()->publishEntry(name)) << when << ": a machine outlives " << name;
  }
  for (std::string const& mismatch : Sim::publishMismatches(world)) {
    ADD_FAILURE() << when << ": " << mismatch;
  }
}

// ---- random steps against the reference ----------------------------------------------------

// One seeded run of random steps of what services and sibling components do, on a small
// world of five mounting services whose groups cover every kind of filter: one service with
// two groups that both declare one path, a proxy service, and one that declares before it
// has a name. Paths are shared between services. A publishing service publishes four local
// entities (one a directory published per switch) under its groups' filters. Declarations,
// switches, negotiations, filters, the leader generation and local entities change; some
// steps are checked against the references once the mounts settle, the others land while
// earlier mounts are still on their way.
class RandomRun {
 public:
  RandomRun(uint64_t seed, double failureProbability, unsigned switches)
      : switches_(switches),
        world_(settlingDriver(seed, failureProbability)),
        rng_(seed),
        expect_{false, failureProbability > 0} {
    agent_ = std::make_unique<Sim::Agent>(world_);
    for (unsigned k = 0; k < std::size(kServices); ++k) {
      declareWhole(k, kServices[k].name);
      inEffect_[k] = services_[k];
      inDirs_[k] = true;
    }
    declarePublishing();
    for (unsigned i = 1; i <= switches_; i += 2) world_.connectSwitch(i);
    world_.autoMountDriver()->requestObserverIs(
        [this](MountSm const& sm, Controller::MountDriver::Request request) {
          judge(sm, request);
        });
  }
  ~RandomRun() {
    world_.autoMountDriver()->requestObserverIs(nullptr);  // an agent that stops unmounts all
    agent_->stop();
  }

  void run(int steps) {
    for (int i = 0; i < steps && !::testing::Test::HasFailure(); ++i) {
      current_ = "step " + std::to_string(i);
      current_ += " (" + step() + ")";
      if (rng_.chance(0.4)) {
        check(current_);
      } else {
        world_.advance(rng_.uniform(0.0, 0.3));
      }
    }
    check("after the last step");
  }

 private:
  static constexpr char const* kRealServices[] = {"Foo", "Bar", "Baz", "Qux", "Late", "Pub"};
  struct Service {
    char const* agent;
    char const* name;  // the late service starts without one
    bool proxy;
  };
  static constexpr Service kServices[] = {{"fooAgent", "Foo", false},
                                          {"barAgent", "Bar", false},
                                          {"bazAgent", "Baz", false},
                                          {"quxProxy", "Qux-Proxy", true},
                                          {"lateAgent", "", false}};
  struct Mount {
    unsigned service;
    char const* group;
    char const* path;
  };
  // Foo's second group "some" declares /a too; paths are shared between services.
  static constexpr Mount kMounts[] = {{0, "all", "/a"},  {0, "all", "/b"},  {1, "v", "/b"},
                                      {1, "v", "/c"},    {2, "few", "/c"},  {2, "few", "/d"},
                                      {3, "both", "/a"}, {3, "both", "/d"}, {4, "late", "/b"},
                                      {4, "late", "/e"}, {0, "some", "/c"}, {0, "some", "/a"}};
  // One published local entity: its publish group (named after it) takes the filters of the
  // mount group named, and whether the entity starts present.
  struct Publish {
    char const* name;  // in the local tree, and the publish group's name
    unsigned filters;  // the mounting service whose group's filter members it copies
    char const* group;
    bool prefix;
    bool present;
  };
  static constexpr Publish kPublishes[] = {{"p0", 0, "all", false, true},
                                           {"p1", 1, "v", false, false},
                                           {"dir", 2, "few", true, true},
                                           {"p3", 3, "both", false, false}};

  void check(std::string const& when) {
    expectMatches(world_, *agent_->registry(), when, expect_);
    for (std::string const& mismatch : Sim::registryMismatches(world_, takenUp())) {
      ADD_FAILURE() << when << ": " << mismatch;
    }
  }
  std::vector<Sim::TakenUpService> takenUp() const {
    std::vector<Sim::TakenUpService> out;
    for (size_t k = 0; k < inEffect_.size(); ++k) {
      if (!inEffect_[k].config()) continue;
      out.push_back({inEffect_[k].config(), inEffect_[k].status(), kServices[k].proxy, {}});
      for (Mount const& a : mounts_) {
        for (Mount const& b : mounts_) {
          bool const shared = a.service == k && b.service == k &&
                              std::string_view(a.path) == b.path &&
                              std::string_view(a.group) != b.group;
          if (shared) out.back().sharedPaths.insert(a.path);
        }
      }
    }
    return out;
  }

  // Writes service k's whole declaration, one record at a time: its status and
  // configuration, then its groups with their mounts, then its groups' filters.
  void declareWhole(unsigned k, Vesk::String const& name) {
    services_[k] = world_.declareService(kServices[k].agent, name, kServices[k].proxy);
    for (Mount const& m : mounts_) {
      if (m.service != k) continue;
      services_[k].groupIs(m.group);
      mountIs(k, m.group, m.path);
    }
    auto const systems = [](std::initializer_list<unsigned> indexes) {
      std::vector<SystemId> out;
      for (unsigned i : indexes) out.push_back(Sim::World::systemOf(i));
      return out;
    };
    Sim::ServiceDeclaration const& svc = services_[k];
    if (k == 0) svc.systemFilterIs("some", systems({3, 5}));
    if (k == 1) svc.versionFilterIs("v", {2});
    if (k == 2) svc.systemFilterIs("few", systems({1, 3}));
    if (k == 3) svc.versionFilterIs("both", {1});
    if (k == 3) svc.systemFilterIs("both", systems({2, 4}));
  }

  // What a service's records go through: undeclared (its machine stays, with the
  // declaration it took up), declared again (taken up only if no machine holds the
  // service), or its configuration replaced by a record of another type (its machine goes,
  // and withdraws what it asked for), which a later step takes away again.
  std::string serviceRecordStep() {
    unsigned const k = unsigned(rng_.below(std::size(kServices)));
    Service const& declared = kServices[k];
    std::string const who = std::string(" ") + declared.agent;
    Vesk::Dir& configDir =
        declared.proxy ? *world_.proxyMountConfigDir() : *world_.mountConfigDir();
    if (blocked_[k]) {
      configDir.entityPtrDel(declared.agent);
      blocked_[k] = false;
      return "record of another type gone:" + who;
    }
    if (inDirs_[k] && rng_.chance(0.5)) {
      world_.undeclareService(declared.agent, declared.proxy);
      inDirs_[k] = false;
      return "undeclared:" + who;
    }
    if (inDirs_[k]) {
      configDir.entityPtrDel(declared.agent);
      configDir.entityPtrIs(Sim::localEntityFactory(declared.agent));
      blocked_[k] = true;
      inDirs_[k] = false;
      inEffect_[k] = Sim::ServiceDeclaration();
      return "declaration replaced by a record of another type:" + who;
    }
    world_.undeclareService(declared.agent, declared.proxy);  // whatever of it is left
    declareWhole(k, services_[k].config()->serviceName());
    inDirs_[k] = true;
    if (!inEffect_[k].config()) inEffect_[k] = services_[k];
    return "declared again:" + who;
  }

  // Bar and Late leave their target paths empty (the registry directory's default), the
  // others mount at the path itself: entries shared between them keep the first's.
  void mountIs(unsigned k, char const* group, char const* path) {
    bool const defaultTarget = k == 1 || k == 4;
    services_[k].config()->mountGroupConfigIs(group)->mountConfigIs(
        path, "Vesk::Dir", "", defaultTarget ? Vesk::String() : Vesk::String(path));
  }

  static Vesk::String localPath(Publish const& p) {
    return Vesk::String("/controller/local/") + p.name;
  }
  void localIs(Publish const& p) {
    if (p.prefix) {
      world_.localDirIs(localPath(p));
    } else {
      world_.localEntityIs(localPath(p));
    }
  }
  // Each publish group's filters copy the members of a mounting group's filters.
  void declarePublishing() {
    publisher_ = world_.declarePublishService("pubAgent", "Pub");
    for (Publish const& p : kPublishes) {
      if (p.present) localIs(p);
      auto const& mountGroup = services_[p.filters].config()->mountGroupConfig(p.group);
      if (auto systems = mountGroup->systemFilter()) {
        std::vector<SystemId> members;
        for (auto const& [system, included] : systems->includedSystemMembers()) {
          SystemId id;
          if (id.stringValueIs(system)) members.push_back(id);
        }
        publisher_.systemFilterIs(p.name, members);
      }
      if (auto versions = mountGroup->versionFilter()) {
        std::vector<uint32_t> members;
        for (auto const& [version, included] : versions->includedServiceVersionMembers()) {
          members.push_back(version);
        }
        publisher_.versionFilterIs(p.name, members);
      }
      publishIs(p);
    }
    publisher_.readyIs(true);
  }
  void publishIs(Publish const& p) {
    Vesk::String const remote = Vesk::String("/published/") + p.name;
    if (p.prefix) {
      publisher_.publishDirIs(p.name, localPath(p), remote);
    } else {
      publisher_.publishIs(p.name, localPath(p), remote);
    }
  }

  // Takes one random publishing step and says which: a declared entity goes or comes back,
  // its local entity goes or comes back (a directory may come back as a plain entity), its
  // group's filters are dropped or restored, a filter's members change, or the directory's
  // ready flag flips.
  std::string publishStep() {
    Publish const& p = kPublishes[rng_.below(std::size(kPublishes))];
    std::string const what = std::string(" ") + p.name;
    auto group = publisher_.groupIs(p.name);
    Vesk::Name const path(localPath(p));
    switch (rng_.below(5)) {
      case 0:
        if (group->publishConfig(path) || group->publishDir(path)) {
          group->publishConfigDel(path);
          group->publishDirDel(path);
          return "publish declaration gone:" + what;
        }
        publishIs(p);
        return "publish declaration back:" + what;
      case 1:
        if (world_.localDir()->entry(p.name)) {
          world_.localEntityDel(localPath(p));
          return "local entity gone:" + what;
        }
        if (p.prefix && rng_.chance(0.2)) {
          world_.localEntityIs(localPath(p));
          return "local entity back, not a directory:" + what;
        }
        localIs(p);
        return "local entity back:" + what;
      case 2: {
        auto const& config = publisher_.config();
        bool const systems = rng_.chance(0.5);
        if (systems) {
          group->systemFilterIs(group->systemFilter() ? nullptr : config->systemFilter(p.name));
        } else {
          group->versionFilterIs(group->versionFilter() ? nullptr : config->versionFilter(p.name));
        }
        return std::string("publish filter toggled:") + what + (systems ? " systems" : " versions");
      }
      case 3: {
        SystemId const s = anySystem();
        auto filter = publisher_.config()->systemFilterIs(p.name);
        if (rng_.chance(0.5)) {
          filter->includedSystemDel(s.stringValue());
          return "publish filter" + what + " drops " + std::string(s.stringValue().view());
        }
        filter->includedSystemIs(s.stringValue(), rng_.chance(0.7));
        return "publish filter" + what + " lists " + std::string(s.stringValue().view());
      }
      default: {
        auto dir = group->publishDir(path);
        if (!dir) return "nothing";
        auto writable = Vesk::const_ptr_cast<PublishDir>(dir);
        writable->readyToPublishIs(!dir->readyToPublish());
        return std::string(dir->readyToPublish() ? "ready:" : "not ready:") + what;
      }
    }
  }

  SystemId anySystem() { return Sim::World::systemOf(1 + unsigned(rng_.below(switches_))); }
  Vesk::Name anyService() {
    return Vesk::Name(kRealServices[rng_.below(std::size(kRealServices))]);
  }
  uint32_t anyVersion() { return uint32_t(1 + rng_.below(3)); }
  Sim::Negotiation anyOutcome() {
    Sim::Negotiation how;
    how.compatible = rng_.chance(0.85);
    how.enabled = rng_.chance(0.85);
    return how;
  }

  // Marks the switch inactive: each of its mounts is unmounted at once, state-preservingly
  // exactly where the reference says the entry's groups ask for it.
  void goInactive(SystemId const& s) {
    using Request = Controller::MountDriver::Request;
    Sim::AutoMountDriver const& driver = *world_.autoMountDriver();
    uint64_t const preservingBefore = driver.requests(Request::statePreservingUnmount);
    uint64_t const fullBefore = driver.requests(Request::unmount);
    std::vector<std::string> mounted;
    for (auto const& [name, entrySm] : agent_->registry()->mountsRegistryEntrySms().members()) {
      if (entrySm->mountSm(s)) mounted.push_back(std::string(name.view()));
    }
    world_.inactiveIs(s, true);
    Sim::ExpectedMounts const expected = Sim::expectedMounts(world_);
    uint64_t preserving = 0;
    for (std::string const& entry : mounted) {
      preserving += expected.at({entry, std::string(s.stringValue().view())}).preserveState;
    }
    EXPECT_EQ(driver.requests(Request::statePreservingUnmount) - preservingBefore, preserving);
    EXPECT_EQ(driver.requests(Request::unmount) - fullBefore, mounted.size() - preserving);
  }

  // Each request must follow from the records as they stand when it is made: a mount or a
  // remount where the reference mounts, an unmount where it does not.
  void judge(MountSm const& sm, Controller::MountDriver::Request request) {
    using Request = Controller::MountDriver::Request;
    if (request == Request::cleanup) return;
    if (!world_.registry()->mountEntry(Vesk::Name(sm.path()))) return;  // the entry is going
    Sim::ExpectedMounts const expected = Sim::expectedMounts(world_);
    auto const found = expected.find(
        {std::string(sm.path().view()), std::string(sm.system().stringValue().view())});
    bool const mounted = found != expected.end() && found->second.mounted;
    bool const mounting = request == Request::mount || request == Request::remount;
    EXPECT_EQ(mounting, mounted) << request << " of " << sm.path() << " from "
                                 << sm.system().stringValue() << " during " << current_;
  }

  // Points a filtered group at its filter, or at none (which may make the entry a wildcard
  // mount).
  std::string toggleFilter() {
    struct Filtered {
      unsigned service;
      char const* group;
      bool systems;
    };
    static constexpr Filtered kFiltered[] = {{1, "v", false},
                                             {2, "few", true},
                                             {3, "both", true},
                                             {3, "both", false},
                                             {0, "some", true}};
    Filtered const& f = kFiltered[rng_.below(std::size(kFiltered))];
    auto const& config = services_[f.service].config();
    auto group = config->mountGroupConfig(f.group);
    if (!group) return "nothing";
    bool const on = f.systems ? !group->systemFilter() : !group->versionFilter();
    if (f.systems) {
      group->systemFilterIs(on ? config->systemFilter(f.group) : nullptr);
    } else {
      group->versionFilterIs(on ? config->versionFilter(f.group) : nullptr);
    }
    return (on ? "filter back: " : "filter off: ") + std::string(f.group) +
           (f.systems ? " systems" : " versions");
  }

  // The controller's leader changes; each declaration is written for the new leader at once
  // or left behind for a later step.
  std::string leaderChange() {
    // Now and then no leader at all: an ordinary service then mounts nothing, a proxy all.
    static constexpr char const* kLeaders[] = {"1", "2", ""};
    std::string next = kLeaders[rng_.below(std::size(kLeaders))];
    if (next == world_.controllerdbStatus()->leaderGenId().view()) next = next == "1" ? "2" : "1";
    world_.leaderGenIdIs(Vesk::String(next));
    std::string followed;
    for (Sim::ServiceDeclaration const& svc : services_) {
      if (!rng_.chance(0.6)) continue;
      svc.config()->leaderGenIdIs(Vesk::String(next));
      followed += " " + std::string(svc.config()->name().view());
    }
    if (rng_.chance(0.6)) publisher_.config()->leaderGenIdIs(Vesk::String(next));
    return "leader " + next + (followed.empty() ? "" : ", followed by" + followed);
  }
  std::string followLeader() {
    Vesk::String const& current = world_.controllerdbStatus()->leaderGenId();
    if (rng_.chance(0.2)) {
      publisher_.config()->leaderGenIdIs(current);
      return "publisher follows the leader";
    }
    Sim::ServiceDeclaration const& svc = services_[rng_.below(services_.size())];
    svc.config()->leaderGenIdIs(current);
    return std::string(svc.config()->name().view()) + " follows the leader";
  }

  // A declared mount goes or comes back, a group goes (with its mounts) or comes back, a
  // group's preserve flag changes, or the late service gets its name.
  std::string declarationStep() {
    Mount const& m = mounts_[rng_.below(mounts_.size())];
    Sim::ServiceDeclaration const& svc = services_[m.service];
    auto const& config = svc.config();
    switch (rng_.below(4)) {
      case 0: {
        auto group = config->mountGroupConfig(m.group);
        if (group && group->mountConfig(m.path)) {
          group->mountConfigDel(m.path);
          return "mount declaration gone: " + std::string(config->name().view()) + " " + m.group +
                 " " + m.path;
        }
        mountIs(m.service, m.group, m.path);
        return "mount declaration back: " + std::string(config->name().view()) + " " + m.group +
               " " + m.path;
      }
      case 1: {
        if (config->mountGroupConfig(m.group)) {
          config->mountGroupConfigDel(m.group);
          return "group gone: " + std::string(config->name().view()) + " " + m.group;
        }
        auto group = svc.groupIs(m.group);
        group->systemFilterIs(config->systemFilter(m.group));
        group->versionFilterIs(config->versionFilter(m.group));
        for (Mount const& other : mounts_) {
          if (other.service == m.service && std::string_view(other.group) == m.group) {
            mountIs(other.service, other.group, other.path);
          }
        }
        return "group back: " + std::string(config->name().view()) + " " + m.group;
      }
      case 2: {
        bool const preserve = rng_.chance(0.5);
        if (!config->mountGroupConfig(m.group)) return "nothing";
        svc.groupIs(m.group, preserve);
        return std::string(preserve ? "preserve " : "do not preserve ") + m.group;
      }
      default:
        if (!services_[4].config()->serviceName().empty()) return "nothing";
        services_[4].config()->serviceNameIs("Late");
        return "the late service is named";
    }
  }

  // Takes one random step and says which.
  std::string step() {
    SystemId const s = anySystem();
    std::string const on = " on " + std::string(s.stringValue().view());
    bool const connected = world_.connected(s);
    switch (rng_.below(17)) {
      case 0:
        if (connected) {
          world_.removeSwitch(s);
          return "remove" + on;
        }
        world_.inactiveDel(s);  // a switch that comes back is no longer inactive
        world_.connectSwitch(s);
        return "connect" + on;
      case 1:
      case 2: {
        if (!connected) return "nothing";
        Vesk::Name const service = anyService();
        uint32_t const version = anyVersion();
        Sim::Negotiation how = anyOutcome();
        bool const fresh = rng_.chance(0.5);
        auto const negotiation = fresh ? &Sim::World::renegotiate : &Sim::World::negotiate;
        std::string what = std::string(fresh ? "renegotiate " : "negotiate ") +
                           std::string(service.view()) + " " + std::to_string(version);
        // A round under way is not reported until it completes, so it completes within the
        // step: the machines act on complete rounds only.
        if (rng_.chance(0.2)) {
          how.complete = false;
          (world_.*negotiation)(s, service, version, how);
          world_.advance(rng_.uniform(0.0, 0.3));
          how.complete = true;
          world_.negotiate(s, service, version, how);
          what += " (after a while under way)";
        } else {
          (world_.*negotiation)(s, service, version, how);
        }
        return what + (how.compatible ? "" : " incompatible") + (how.enabled ? "" : " disabled") +
               on;
      }
      case 3: {
        if (!connected) return "nothing";
        Vesk::Name const service = anyService();
        if (rng_.chance(0.5)) {
          world_.serviceDel(s, service);
          return std::string(service.view()) + " gone" + on;
        }
        bool const enabled = rng_.chance(0.5);
        world_.serviceEnabledIs(s, service, enabled);
        return std::string(service.view()) + (enabled ? " enabled" : " disabled") + on;
      }
      case 4:
        // An inactive switch is on its way out: it is removed a moment later.
        if (!connected) return "nothing";
        goInactive(s);
        world_.advance(rng_.uniform(0.0, 0.3));
        world_.removeSwitch(s);
        return "inactive, then removed" + on;
      case 5: {
        static constexpr std::pair<unsigned, char const*> kSystemFilters[] = {
            {2, "few"}, {3, "both"}, {0, "some"}};
        auto const& [k, name] = kSystemFilters[rng_.below(std::size(kSystemFilters))];
        auto filter = services_[k].config()->systemFilter(name);
        if (rng_.chance(0.3)) {
          filter->includedSystemDel(s.stringValue());
          return "filter " + std::string(name) + " drops" + on;
        }
        bool const included = rng_.chance(0.7);
        filter->includedSystemIs(s.stringValue(), included);
        return "filter " + std::string(name) + (included ? " includes" : " excludes") + on;
      }
      case 6: {
        bool const v = rng_.chance(0.5);
        auto filter = v ? services_[1].config()->versionFilter("v")
                        : services_[3].config()->versionFilter("both");
        std::string const name = v ? "v" : "both";
        uint32_t const version = anyVersion();
        if (rng_.chance(0.3)) {
          filter->includedServiceVersionDel(version);
          return "filter " + name + " drops version " + std::to_string(version);
        }
        bool const included = rng_.chance(0.7);
        filter->includedServiceVersionIs(version, included);
        return "filter " + name + (included ? " includes" : " excludes") + " version " +
               std::to_string(version);
      }
      case 7:
      case 8:
        return declarationStep();
      case 9:
        return rng_.chance(0.5) ? leaderChange() : followLeader();
      case 14:
        return serviceRecordStep();
      case 10: {
        bool const established = rng_.chance(0.5);
        world_.establishedIs(established);
        return established ? "established" : "not established";
      }
      case 11:
        return toggleFilter();
      case 12:
      case 13:
        return publishStep();
      default:
        world_.advance(rng_.uniform(0.0, 2.0));
        return "time passes";
    }
  }

  unsigned const switches_;
  Sim::World world_;
  Sim::Rng rng_;
  Expectations const expect_;
  std::string current_ = "the start";
  // The declarations last written, per service.
  std::array<Sim::ServiceDeclaration, std::size(kServices)> services_;
  // The declarations the machines hold: the one a service was taken up with, or none once a
  // record of another type made its machine go.
  std::array<Sim::ServiceDeclaration, std::size(kServices)> inEffect_;
  // Whether the last declaration is in the directories, and whether a record of another
  // type holds the configuration's place.
  std::array<bool, std::size(kServices)> inDirs_{};
  std::array<bool, std::size(kServices)> blocked_{};
  Sim::PublishDeclaration publisher_;
  std::vector<Mount> const mounts_{std::begin(kMounts), std::end(kMounts)};
  std::unique_ptr<Sim::Agent> agent_;
};

// A number from the environment, or `otherwise` when it is unset or not a number.
uint64_t environmentNumber(char const* name, uint64_t otherwise) {
  char const* text = std::getenv(name);
  char* end = nullptr;
  uint64_t const value = text ? std::strtoull(text, &end, 10) : 0;
  return text && *text && *end == '\0' ? value : otherwise;
}

// An optimised build runs many times the seeds of a sanitized debug build in the same time.
#ifdef NDEBUG
constexpr uint64_t kBuildSeedFactor = 50;
#else
constexpr uint64_t kBuildSeedFactor = 1;
#endif

// Runs `seeds` seeds (times kBuildSeedFactor), each a run of its own, and checks that they
// left nothing behind. The seeds start at 1; to search further, VESK_FIRST_SEED moves the
// start and VESK_SEED_FACTOR multiplies the count (a failure names its seed, which the
// first alone replays).
void runSeeds(uint64_t seeds, double failures, unsigned switches, int steps) {
  uint64_t const first = environmentNumber("VESK_FIRST_SEED", 1);
  uint64_t const factor = kBuildSeedFactor * environmentNumber("VESK_SEED_FACTOR", 1);
  uint64_t const last = first + seeds * factor;
  long const baseline = Vesk::liveObjectTotal();
  for (uint64_t seed = first; seed < last && !::testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", failures " + std::to_string(failures));
    RandomRun(seed, failures, switches).run(steps);
  }
  EXPECT_EQ(Vesk::liveObjectTotal(), baseline) << "a run left objects behind";
}

// With failures, mounts that must be made settle mounted or failed, and each service sees
// the state they settled in.
TEST(RegistryRandomSteps, EverySettledMomentOfManySeedsMatchesTheReference) {
  runSeeds(60, 0.0, 6, 150);
  runSeeds(60, 0.6, 6, 150);
}

// Fewer, longer runs over more switches: the entries' collections grow and shrink through
// many sizes while whole-table walks go over them.
TEST(RegistryRandomSteps, LongRunsOverMoreSwitchesMatchTheReference) { runSeeds(6, 0.0, 40, 600); }

}  // namespace
}  // namespace Controller
