#include "Publishing.h"

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <vector>

#include "sim/ExpectedMounts.h"
#include "sim/ExpectedPublishes.h"

namespace MountSim {

namespace {

using Controller::SystemId;

char const kService[] = "Exporter";
char const kCounters[] = "/controller/local/exporter/counters";
char const kPolicy[] = "/controller/local/exporter/policy";
char const kPerSwitch[] = "/controller/local/exporter/per-switch";
char const kLate[] = "/controller/local/exporter/late";
constexpr double kLateAppears = 3.2;

}  // namespace

Publishing::Publishing(Sim::World& world, unsigned switches, std::ostream& out, Event event)
    : world_(world), switches_(switches), out_(out), event_(std::move(event)) {}

void Publishing::declare() {
  world_.localEntityIs(kCounters);
  world_.localEntityIs(kPolicy);
  world_.localDirIs(kPerSwitch);
  declaration_ = world_.declarePublishService("ExporterAgent", kService);
  declaration_.versionFilterIs("v2", {2});
  declaration_.publishIs("v2", kCounters, "/published/exporter/counters");
  std::vector<SystemId> even;
  for (unsigned i = 2; i <= switches_; i += 2) even.push_back(Sim::World::systemOf(i));
  declaration_.systemFilterIs("pod", even);
  declaration_.publishIs("pod", kPolicy, "/published/exporter/policy");
  declaration_.publishDirIs("all", kPerSwitch, "/published/exporter/per-switch");
  declaration_.publishIs("all", kLate, "/published/exporter/late");
  declaration_.readyIs(true);
  out_ << "  " << kService << ": publishes " << kCounters << " where " << kService
       << " version 2 is negotiated, " << kPolicy
       << " to the even-numbered switches, and to every switch its own directory of " << kPerSwitch
       << " and " << kLate << " (which appears at " << kLateAppears
       << " s); its ready flag waits until every entry is published\n";
}

void Publishing::schedule(At const& at) {
  at(kLateAppears, [this] {
    event_(std::string("local entity ") + kLate + " appears");
    world_.localEntityIs(kLate);
  });
}

// Odd-numbered switches negotiate version 2, the others 1.
void Publishing::leaderGenIdIs(Vesk::String const& leaderGenId) {
  declaration_.config()->leaderGenIdIs(leaderGenId);
}

void Publishing::negotiate(SystemId const& system, unsigned index) {
  uint32_t const version = index % 2 ? 2 : 1;
  event_("negotiate " + system.stringValue().stdString() + " " + kService + " v" +
         std::to_string(version));
  world_.negotiate(system, kService, version);
}

std::string Publishing::why(Controller::PublishRegistryEntry const& entry,
                            SystemId const& system) const {
  std::string text = entry.serviceName().stdString() + " v" +
                     std::to_string(Sim::negotiatedVersion(world_, entry.serviceName(), system));
  text += entry.versionFilter() ? ", version in the filter" : ", no version filter";
  text += entry.systemFilter() ? ", switch in the filter" : ", no system filter";
  if (entry.isPrefixPath()) text += ", its directory of " + entry.name().stdString();
  return text;
}

void Publishing::printTree() {
  char now[32];
  std::snprintf(now, sizeof now, "%.3f", world_.now());
  out_ << "\nPublished at " << now << " s (switch, published path -> remote path, why):\n";
  std::vector<SystemId> systems = world_.switches();
  std::sort(systems.begin(), systems.end());
  for (SystemId const& system : systems) {
    out_ << "  " << system.stringValue() << "\n";
    auto record = world_.publishStatus()->system(system);
    std::vector<std::string> paths;
    if (record) {
      for (auto const& [path, desc] : record->publishedMountMembers()) {
        paths.push_back(path.stdString());
      }
    }
    std::sort(paths.begin(), paths.end());
    if (paths.empty()) out_ << "    (nothing published)\n";
    for (std::string const& path : paths) {
      Controller::MountDesc const desc = record->publishedMount(Vesk::String(path));
      // A prefix entry publishes its switch's sub-directory; the entry is its parent.
      auto entry = world_.registry()->publishEntry(Vesk::Name(path));
      if (!entry) {
        entry = world_.registry()->publishEntry(Vesk::Name(path.substr(0, path.rfind('/'))));
      }
      out_ << "    " << path << " -> " << desc.remotePath;
      if (entry) out_ << "  (" << why(*entry, system) << ")";
      out_ << "\n";
    }
  }
  bool const ready = world_.publishStatus()->servicePublishReady(kService);
  out_ << "  " << kService << " publish ready: " << (ready ? "yes" : "no") << "\n";
}

unsigned Publishing::check() {
  size_t const pairs = world_.registry()->publishEntrySize() * world_.switches().size();
  size_t const published = Sim::expectedPublishes(world_).size();
  std::vector<std::string> const mismatches = Sim::publishMismatches(world_);
  for (std::string const& m : mismatches) out_ << "DISAGREE " << m << "\n";
  out_ << "Publish check: " << pairs << " (publish entry, switch) pairs, " << published
       << " published, "
       << (mismatches.empty() ? std::string("all agree")
                              : std::to_string(mismatches.size()) + " disagree")
       << " with the reference\n";
  return unsigned(mismatches.size());
}

}  // namespace MountSim
