#include "Scenario.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "PublishWatcher.h"
#include "Publishing.h"
#include "StatusWatcher.h"
#include "registry/MountsRegistryEntrySm.h"
#include "registry/MountsRegistrySm.h"
#include "sim/Agent.h"
#include "sim/ExpectedMounts.h"
#include "sim/ExpectedRegistry.h"
#include "sim/World.h"

namespace MountSim {

namespace {

using Controller::MountState;
using Controller::SystemId;

enum class Kind { wildcard, versionFiltered, systemFiltered, proxy };

char const* const kBaseNames[] = {"Telemetry", "Routing", "Inventory", "Audit"};
char const* const kPaths[] = {"/sys/interfaces", "/sys/routes", "/sys/inventory",
                              "/sys/counters",   "/sys/lldp",   "/sys/bgp"};

struct Service {
  Kind kind;
  std::string name;      // as declared (a proxy name ends in -Proxy)
  std::string realName;  // whose versions it uses
  std::string group;
  Sim::ServiceDeclaration declaration;
};

std::string fixed(double t) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%8.3f", t);
  return buf;
}

std::string entryPath(unsigned j) {
  std::string p = kPaths[j % 6];
  if (j >= 6) p += std::to_string(j / 6);
  return p;
}

class Scenario {
 public:
  Scenario(ScenarioOptions const& o, std::ostream& out)
      : o_(o),
        out_(out),
        world_(worldOptions(o)),
        publishing_(world_, o.switches, out, [this](std::string const& text) { event(text); }) {}

  unsigned run() {
    agent_ = std::make_unique<Sim::Agent>(world_);
    registry_ = agent_->registry();
    declare();
    {
      // Only the scenario's changes are printed: stopping the registry at the end removes
      // every status, which is not news.
      StatusWatcher plain(world_.mountStatusDir(), world_.clock(), printer());
      StatusWatcher proxies(world_.proxyMountStatusDir(), world_.clock(), printer());
      PublishWatcher published(world_.publishStatus(), world_.clock(), publishPrinter());
      timeline();
      world_.runUntilQuiet(600.0);
    }
    printTree();
    publishing_.printTree();
    unsigned disagreements = checkRegistry();
    disagreements += check();
    disagreements += publishing_.check();
    registry_ = nullptr;
    agent_->stop();
    return disagreements;
  }

 private:
  static Sim::WorldOptions worldOptions(ScenarioOptions const& o) {
    Sim::WorldOptions w;
    w.seed = o.seed;
    w.autoMount.failureProbability = 0.3;  // with 3 retries, about one mount in 120 fails
    return w;
  }

  StatusWatcher::Sink printer() {
    return [this](StatusEvent const& e) {
      if (!o_.events) return;
      out_ << fixed(e.time) << "  status  " << e.service << " " << e.system << " " << e.group << " "
           << (e.path.empty() ? "(group)" : e.path) << " " << valueToStrep(e.state) << "\n";
    };
  }
  PublishWatcher::Sink publishPrinter() {
    return [this](PublishEvent const& e) {
      if (!o_.events) return;
      out_ << fixed(e.time) << "  publish ";
      switch (e.kind) {
        case PublishEvent::Kind::published:
          out_ << e.system << " " << e.path << " at " << e.remotePath << "\n";
          break;
        case PublishEvent::Kind::withdrawn:
          out_ << e.system << " " << e.path << " withdrawn\n";
          break;
        case PublishEvent::Kind::recordGone:
          out_ << e.system << " record gone with the switch, and every mount published to it\n";
          break;
        case PublishEvent::Kind::ready:
          out_ << e.service << " ready " << (e.ready ? "yes" : "no") << "\n";
          break;
        case PublishEvent::Kind::readyGone:
          out_ << e.service << " ready flag removed\n";
          break;
      }
    };
  }
  void event(std::string const& text) {
    if (o_.events) out_ << fixed(world_.now()) << "  " << text << "\n";
  }

  // ---- declarations ---------------------------------------------------------------------

  void declare() {
    out_ << "Services:\n";
    for (unsigned k = 0; k < o_.services; ++k) {
      Service s;
      s.kind = Kind(k % 4);
      std::string base = kBaseNames[k % 4];
      if (k >= 4) base += std::to_string(k / 4);
      s.realName = base;
      s.name = s.kind == Kind::proxy ? base + "-Proxy" : base;
      s.declaration = world_.declareService(Vesk::Name(s.name + "Agent"), Vesk::String(s.name),
                                            s.kind == Kind::proxy);
      switch (s.kind) {
        case Kind::wildcard:
          s.group = "all";
          s.declaration.groupIs("all", true);
          out_ << "  " << s.name << ": group all mounts from every switch, preserves mounts\n";
          break;
        case Kind::versionFiltered:
          s.group = "v2";
          s.declaration.versionFilterIs("v2", {2});
          out_ << "  " << s.name << ": group v2 mounts where " << s.realName << " version 2 is "
               << "negotiated\n";
          break;
        case Kind::systemFiltered: {
          s.group = "pod";
          std::vector<SystemId> pod;
          for (unsigned i = 0; i < o_.switches; i += 2) pod.push_back(Sim::World::systemOf(i + 1));
          s.declaration.systemFilterIs("pod", pod);
          out_ << "  " << s.name << ": group pod mounts from the odd-numbered switches\n";
          break;
        }
        case Kind::proxy:
          s.group = "mirror";
          s.declaration.groupIs("mirror");
          out_ << "  " << s.name << ": proxy of " << s.realName << ", group mirror mounts from "
               << "every switch\n";
          break;
      }
      services_.push_back(s);
    }
    // Every service mounts the first entry; the others go round the services.
    for (unsigned j = 0; j < o_.entries; ++j) {
      for (unsigned k = 0; k < services_.size(); ++k) {
        if (j != 0 && (j - 1) % services_.size() != k) continue;
        Service& s = services_[k];
        Vesk::Name path(entryPath(j));
        s.declaration.mountIs(Vesk::Name(s.group), path);
      }
    }
    publishing_.declare();
    out_ << "Entries:";
    for (unsigned j = 0; j < o_.entries; ++j) out_ << " " << entryPath(j);
    out_ << "\n\n";
  }

  // ---- what happens when ----------------------------------------------------------------

  void at(double t, std::function<void()> action) { actions_.push_back({t, std::move(action)}); }

  void timeline() {
    for (unsigned i = 1; i <= o_.switches; ++i) {
      at(0.05 * i, [this, i] { connect(i); });
    }
    unsigned const inactive = 3, removed = 5, renegotiated = 2;
    if (o_.switches >= inactive) {
      at(5.0, [this] {
        SystemId s = Sim::World::systemOf(inactive);
        event("inactive " + s.stringValue().stdString());
        world_.inactiveIs(s, true);
      });
      at(7.0, [this] {
        SystemId s = Sim::World::systemOf(inactive);
        event("remove " + s.stringValue().stdString());
        world_.removeSwitch(s);
        world_.inactiveDel(s);  // the mark goes with the peer
      });
      at(14.0, [this] { connect(inactive); });
    }
    if (o_.switches >= removed) {
      at(8.0, [this] {
        SystemId s = Sim::World::systemOf(removed);
        event("remove " + s.stringValue().stdString());
        world_.removeSwitch(s);
      });
    }
    if (o_.switches >= renegotiated) {
      at(10.0, [this] {
        SystemId s = Sim::World::systemOf(renegotiated);
        for (Service const& svc : services_) {
          if (svc.kind != Kind::versionFiltered) continue;
          event("renegotiate " + s.stringValue().stdString() + " " + svc.realName + " v2");
          world_.renegotiate(s, Vesk::Name(svc.realName), 2);
        }
      });
    }
    // A new leader: every ordinary service writes its declaration for it at once but one,
    // whose mounters are withdrawn until it follows a second later.
    at(11.0, [this] {
      event("leader change to generation 2");
      world_.leaderGenIdIs("2");
      for (Service const& svc : services_) {
        if (svc.kind != Kind::systemFiltered) svc.declaration.config()->leaderGenIdIs("2");
      }
      publishing_.leaderGenIdIs("2");
    });
    at(12.0, [this] {
      for (Service const& svc : services_) {
        if (svc.kind != Kind::systemFiltered) continue;
        event(svc.name + " writes its declaration for generation 2");
        svc.declaration.config()->leaderGenIdIs("2");
      }
    });
    publishing_.schedule([this](double t, std::function<void()> action) { at(t, action); });
    std::stable_sort(actions_.begin(), actions_.end(),
                     [](auto const& a, auto const& b) { return a.first < b.first; });
    for (auto const& [t, action] : actions_) {
      world_.advanceTo(std::max(t, world_.now()));
      action();
    }
  }

  // Odd-numbered switches negotiate version 2 of version-filtered services, the others 1;
  // the last switch negotiates only those, so it mounts for nobody else.
  void connect(unsigned i) {
    SystemId s = world_.connectSwitch(i);
    event("connect " + s.stringValue().stdString());
    for (Service const& svc : services_) {
      bool filtered = svc.kind == Kind::versionFiltered;
      if (i == o_.switches && !filtered && o_.switches > 1) continue;
      uint32_t version = filtered ? (i % 2 ? 2 : 1) : (svc.kind == Kind::proxy ? 3 : 1);
      event("negotiate " + s.stringValue().stdString() + " " + svc.realName + " v" +
            std::to_string(version));
      world_.negotiate(s, Vesk::Name(svc.realName), version);
    }
    publishing_.negotiate(s, i);
  }

  // ---- the result -----------------------------------------------------------------------

  // Why the entry is mounted from the switch (the first service with a version, and what
  // admits the switch), and why this service's group takes the result.
  std::string why(Service const& s, std::string const& path, SystemId const& system) {
    auto entry = world_.registry()->mountEntry(Vesk::Name(path));
    std::string negotiated, gate;
    for (auto const& [key, m] : entry->mounterMembers()) {
      uint32_t v = Sim::negotiatedVersion(world_, key, system);
      if (v && negotiated.empty()) negotiated = key.stdString() + " v" + std::to_string(v);
      auto const& group = *m->mountGroupConfig();
      if (!group.systemFilter() && !group.versionFilter() && gate.empty()) {
        gate = "wildcard group of " + key.stdString();
      }
    }
    if (gate.empty()) gate = "admitted by the filters";
    std::string declared;
    if (auto mounter = entry->mounter(Vesk::String(s.name))) {
      auto const& config = *mounter->mountConfig();
      declared = "declared by " + s.name + ", group " +
                 mounter->mounterName().groupName().stdString() + ", mount " +
                 config.remotePath().stdString() + " (" + config.plovType().stdString() +
                 ", target " + config.targetMountPath().stdString() + "); ";
    }
    std::string interest = "group takes every switch";
    if (s.kind == Kind::versionFiltered) {
      interest = "version " +
                 std::to_string(Sim::negotiatedVersion(world_, Vesk::String(s.name), system)) +
                 " in its filter";
    } else if (s.kind == Kind::systemFiltered) {
      interest = "switch in its filter";
    }
    return declared + negotiated + ", " + gate + "; " + s.name + ": " + interest;
  }

  void printTree() {
    out_ << "\nStatus at " << fixed(world_.now()) << " s (service, switch, group, path):\n";
    for (Service const& s : services_) {
      out_ << s.name << "\n";
      auto const& status = s.declaration.status();
      std::vector<std::string> systems;
      for (auto const& [name, st] : status->systemStatusMembers())
        systems.push_back(name.stdString());
      std::sort(systems.begin(), systems.end());
      if (systems.empty()) out_ << "  (no switch)\n";
      for (std::string const& system : systems) {
        SystemId id;
        id.stringValueIs(Vesk::String(system));
        auto st = status->systemStatus(Vesk::Name(system));
        out_ << "  " << system << "\n";
        for (auto const& [group, gs] : st->serviceMountGroupStatusMembers()) {
          out_ << "    " << group << ": " << valueToStrep(gs->mountState()) << "\n";
          std::vector<std::string> paths;
          for (auto const& [path, ms] : gs->mountStatusMembers()) paths.push_back(path.stdString());
          std::sort(paths.begin(), paths.end());
          if (paths.empty()) out_ << "      (not interested in this switch)\n";
          for (std::string const& path : paths) {
            auto ms = gs->mountStatus(Vesk::Name(path));
            out_ << "      " << path << "  " << valueToStrep(ms->mountState());
            if (ms->mountState() == Controller::mountStateMounted) {
              out_ << "  at " << ms->mountedPath() << "  (" << why(s, path, id) << ")";
            }
            out_ << "\n";
          }
        }
      }
    }
  }

  // The registry's mounters must be those the declarations ask for.
  unsigned checkRegistry() {
    std::vector<Sim::TakenUpService> declared;
    for (Service const& svc : services_) {
      declared.push_back(
          {svc.declaration.config(), svc.declaration.status(), svc.kind == Kind::proxy, {}});
    }
    std::vector<std::string> const mismatches = Sim::registryMismatches(world_, declared);
    for (std::string const& m : mismatches) out_ << "DISAGREE " << m << "\n";
    size_t mounters = 0;
    for (auto const& [path, entry] : world_.registry()->mountEntryMembers()) {
      mounters += entry->mounterSize();
    }
    out_ << "\nRegistry check: " << mounters << " mounters on "
         << world_.registry()->mountEntrySize() << " entries from " << declared.size()
         << " declarations, "
         << (mismatches.empty() ? std::string("all agree")
                                : std::to_string(mismatches.size()) + " disagree")
         << " with the reference";
    return unsigned(mismatches.size());
  }

  // A pair the reference says is mounted must have a settled machine (mounted, or failed
  // after its retries); any other pair must have none left.
  unsigned check() {
    unsigned pairs = 0, mounted = 0, failed = 0, disagreements = 0;
    for (auto const& [key, decision] : Sim::expectedMounts(world_)) {
      ++pairs;
      SystemId id;
      id.stringValueIs(Vesk::String(key.second));
      auto entrySm = registry_->mountsRegistryEntrySm(Vesk::Name(key.first));
      auto data = entrySm ? entrySm->mountSmData(id) : nullptr;
      MountState state = data ? data->mountState() : Controller::mountStateNotMounted;
      bool settled =
          state == Controller::mountStateMounted || state == Controller::mountStateFailed;
      mounted += state == Controller::mountStateMounted;
      failed += state == Controller::mountStateFailed;
      if (settled != decision.mounted || (!decision.mounted && data)) {
        ++disagreements;
        out_ << "DISAGREE " << key.first << " from " << key.second << ": reference says "
             << (decision.mounted ? "mounted" : "not mounted") << ", machine state "
             << valueToStrep(state) << "\n";
      }
    }
    out_ << "\nReference check: " << pairs << " (entry, switch) pairs, " << mounted << " mounted, "
         << failed << " failed after retries, "
         << (disagreements ? std::to_string(disagreements) + " disagree" : "all agree")
         << " with the reference\n";
    return disagreements;
  }

  ScenarioOptions const o_;
  std::ostream& out_;
  Sim::World world_;
  Publishing publishing_;
  std::unique_ptr<Sim::Agent> agent_;
  Vesk::Ptr<Controller::MountsRegistrySm> registry_;
  std::vector<Service> services_;
  std::vector<std::pair<double, std::function<void()>>> actions_;
};

}  // namespace

unsigned runScenario(ScenarioOptions const& options, std::ostream& out) {
  return Scenario(options, out).run();
}

}  // namespace MountSim
