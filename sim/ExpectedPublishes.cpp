#include "sim/ExpectedPublishes.h"

#include <string_view>

#include "framework/core/Dir.h"
#include "sim/ExpectedMounts.h"
#include "sim/World.h"

namespace Sim {

using Controller::MountDesc;
using Controller::PublishRegistryEntry;
using Controller::SystemId;
using Vesk::String;

namespace {

// A system that may hold published mounts, with its text form made once per evaluation.
struct PublishTarget {
  SystemId system;
  String text;
};

// The peers with a connection configuration and a publish record.
std::vector<PublishTarget> publishTargets(World const& world) {
  std::vector<PublishTarget> out;
  Vesk::Ptr<Controller::PeerTable const> const& table = world.oobStatus()->peerTable();
  if (!table) return out;
  for (auto const& [system, peer] : table->peerMembers()) {
    if (peer->connectionConfig() && world.publishStatus()->system(system)) {
      out.push_back({system, system.stringValue()});
    }
  }
  return out;
}

Vesk::Entity const& treeRootOf(Vesk::Entity const& e) {
  Vesk::Entity const* root = &e;
  while (root->parentRaw()) root = root->parentRaw();
  return *root;
}

// The entity a full name names, walking directories down from the root; null when missing.
Vesk::Entity const* localEntityOf(Vesk::Entity const& root, std::string_view path) {
  if (!path.starts_with('/')) return nullptr;
  path.remove_prefix(1);
  size_t slash = path.find('/');
  if (path.substr(0, slash) != root.name().view()) return nullptr;
  Vesk::Entity const* entity = &root;
  while (slash != std::string_view::npos) {
    path.remove_prefix(slash + 1);
    slash = path.find('/');
    auto const* dir = dynamic_cast<Vesk::Dir const*>(entity);
    if (!dir) return nullptr;
    // The tree keeps the entry alive for the rest of the evaluation.
    entity = dir->entry(Vesk::Name(String(path.substr(0, slash)))).ptr();
    if (!entity) return nullptr;
  }
  return entity;
}

bool admits(World const& world, PublishRegistryEntry const& entry, SystemId const& system,
            String const& systemText) {
  uint32_t const version = negotiatedVersion(world, entry.serviceName(), system);
  if (version == 0) return false;
  if (entry.versionFilter() &&
      !entry.versionFilter()->includedServiceVersionMembers().find(version)) {
    return false;
  }
  return !entry.systemFilter() || entry.systemFilter()->includedSystemMembers().find(systemText);
}

bool holdsNonDirectory(Vesk::Dir const& dir, String const& name) {
  Vesk::Ptr<Vesk::Entity> const e = dir.entry(name);
  return e && !dynamic_cast<Vesk::Dir const*>(e.ptr());
}

MountDesc publishedMount(PublishRegistryEntry const& entry, String const& systemText) {
  String path = entry.isPrefixPath() ? entry.name() + "/" + systemText : String(entry.name());
  return MountDesc{std::move(path), entry.remotePath(), entry.veskType(), entry.serviceName()};
}

template <class Visit>
void visitPublishes(World const& world, Visit&& visit) {
  std::vector<PublishTarget> const targets = publishTargets(world);
  Vesk::Entity const& root = treeRootOf(*world.registry()->rootDir());
  for (auto const& [name, owned] : world.registry()->publishEntryMembers()) {
    PublishRegistryEntry const& entry = *owned.ptr();
    if (!entry.readyToPublish()) continue;
    Vesk::Entity const* local = localEntityOf(root, name.view());
    auto const* dir = dynamic_cast<Vesk::Dir const*>(local);
    if (!local || (entry.isPrefixPath() && !dir)) continue;
    for (PublishTarget const& target : targets) {
      if (!admits(world, entry, target.system, target.text)) continue;
      if (entry.isPrefixPath() && holdsNonDirectory(*dir, target.text)) continue;
      visit(entry, target, publishedMount(entry, target.text));
    }
  }
}

// What every system's publish record holds, in the answer's form.
ExpectedPublishes actualPublishes(World const& world) {
  ExpectedPublishes out;
  for (auto const& [system, record] : world.publishStatus()->systemMembers()) {
    std::string const text = system.stringValue().stdString();
    for (auto const& [path, mount] : record->publishedMountMembers()) {
      out[{path.stdString(), text}] = mount;
    }
  }
  return out;
}

std::string mismatch(char const* what, ExpectedPublishes::value_type const& published) {
  auto const& [path, system] = published.first;
  return std::string(what) + " " + path + " on " + system + ": " +
         published.second.stringValue().stdString();
}

}  // namespace

void forEachPublish(World const& world, PublishVisitor const& visit) {
  visitPublishes(world, [&](PublishRegistryEntry const& entry, PublishTarget const& target,
                            MountDesc const& mount) { visit(entry, target.system, mount); });
}

ExpectedPublishes expectedPublishes(World const& world) {
  ExpectedPublishes out;
  visitPublishes(
      world, [&](PublishRegistryEntry const&, PublishTarget const& target, MountDesc const& mount) {
        out.emplace(std::pair{mount.localPath.stdString(), target.text.stdString()}, mount);
      });
  return out;
}

bool publishAdmits(World const& world, PublishRegistryEntry const& entry, SystemId const& system) {
  return admits(world, entry, system, system.stringValue());
}

std::vector<std::string> publishMismatches(World const& world) {
  ExpectedPublishes const expected = expectedPublishes(world);
  ExpectedPublishes const actual = actualPublishes(world);
  std::vector<std::string> out;
  auto e = expected.begin();
  auto a = actual.begin();
  while (e != expected.end() || a != actual.end()) {
    if (a == actual.end() || (e != expected.end() && e->first < a->first)) {
      out.push_back(mismatch("missing", *e++));
    } else if (e == expected.end() || a->first < e->first) {
      out.push_back(mismatch("stale", *a++));
    } else {
      if (!(e->second == a->second)) {
        out.push_back(mismatch("different", *a) + ", expected " +
                      e->second.stringValue().stdString());
      }
      ++e;
      ++a;
    }
  }
  return out;
}

}  // namespace Sim
