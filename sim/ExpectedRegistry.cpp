#include "sim/ExpectedRegistry.h"

#include <map>

#include "sim/World.h"

namespace Sim {

namespace {

std::string text(Vesk::String const& s) { return std::string(s.view()); }

// The groups of a declaration that declare each path.
std::map<std::string, std::vector<Controller::ServiceMountGroupConfig const*>> declaringGroups(
    Controller::ServiceMountConfig const& config) {
  std::map<std::string, std::vector<Controller::ServiceMountGroupConfig const*>> out;
  for (auto const& [group, groupConfig] : config.mountGroupConfigMembers()) {
    for (auto const& [path, mount] : groupConfig->mountConfigMembers()) {
      out[text(path)].push_back(groupConfig.ptr().ptr());
    }
  }
  return out;
}

// The mounter a declaration of the path asks for: of one of the declaring groups, for that
// group's mount configuration, writing into the service's status.
bool mounterOfDeclaration(Controller::Mounter const& mounter, TakenUpService const& service,
                          std::vector<Controller::ServiceMountGroupConfig const*> const& groups,
                          Vesk::Name const& path) {
  for (Controller::ServiceMountGroupConfig const* group : groups) {
    bool const same =
        mounter.mounterName() ==
            Controller::MounterName(service.config->serviceName(), group->name()) &&
        mounter.mountGroupConfig().ptr() == group &&
        mounter.mountConfig() == group->mountConfig(path) &&
        mounter.serviceMountStatus() == service.status;
    if (same) return true;
  }
  return false;
}

// Every declared path has the service's mounter (but a path one group declares that two
// groups may have declared before: either one's withdrawal takes the mounter away), of a
// declaring group, with a prefix that names where the entry mounts; every prefix is of a
// path the service holds a mounter on.
void expectMounted(World const& world, TakenUpService const& service,
                   std::vector<std::string>& out) {
  std::string const name = text(service.config->serviceName());
  auto const declared = declaringGroups(*service.config);
  for (auto const& [path, groups] : declared) {
    if (groups.size() == 1 && service.sharedPaths.count(path)) continue;
    Vesk::Name const key(Vesk::String{path});
    auto entry = world.registry()->mountEntry(key);
    auto mounter = entry ? entry->mounter(service.config->serviceName()) : nullptr;
    std::string const what = name + "'s mount of " + path;
    if (!mounter) {
      out.push_back("missing: " + what);
      continue;
    }
    if (!mounterOfDeclaration(*mounter, service, groups, key)) {
      out.push_back("different: " + what + " has the mounter of another declaration");
    }
    auto prefix = service.status->mountedPathPrefix(key);
    if (!prefix || prefix->pathPrefix() != entry->targetPath()) {
      out.push_back("missing or other prefix: " + what + " (the entry mounts at " +
                    text(entry->targetPath()) + ")");
    }
  }
  for (auto const& [path, prefix] : service.status->mountedPathPrefixMembers()) {
    auto entry = world.registry()->mountEntry(path);
    if (!entry || !entry->mounter(service.config->serviceName())) {
      out.push_back("stale prefix: " + name + " has a prefix for " + text(path) +
                    " without a mounter there");
    }
  }
}

void expectWithdrawn(World const& world, TakenUpService const& service,
                     std::vector<std::string>& out) {
  std::string const name = text(service.config->serviceName());
  for (auto const& [path, entry] : world.registry()->mountEntryMembers()) {
    if (entry->mounter(service.config->serviceName())) {
      out.push_back("stale: " + name + " still mounts " + text(path) + ", withdrawn");
    }
  }
  for (auto const& [path, prefix] : service.status->mountedPathPrefixMembers()) {
    out.push_back("stale prefix: " + name + " still has a prefix for " + text(path));
  }
}

// Every mounter on the registry is asked for by a mounting service's group.
void expectSound(World const& world, std::vector<TakenUpService> const& services,
                 std::vector<std::string>& out) {
  for (auto const& [path, entry] : world.registry()->mountEntryMembers()) {
    for (auto const& [key, mounter] : entry->mounterMembers()) {
      bool asked = false;
      for (TakenUpService const& service : services) {
        if (service.config->serviceName() != key || !declarationMounts(world, service)) continue;
        auto group = service.config->mountGroupConfig(mounter->mounterName().groupName());
        asked = asked || (group && group->mountConfig(path));
      }
      if (!asked) {
        out.push_back("unasked: " + text(key) + "'s mounter on " + text(path) + " (group " +
                      text(mounter->mounterName().groupName()) + ")");
      }
    }
  }
}

}  // namespace

bool declarationMounts(World const& world, TakenUpService const& service) {
  if (service.config->serviceName().empty()) return false;
  if (service.proxy) return true;
  Vesk::String const& current = world.controllerdbStatus()->leaderGenId();
  return !current.empty() && current == service.config->leaderGenId();
}

std::vector<std::string> registryMismatches(World const& world,
                                            std::vector<TakenUpService> const& services) {
  std::vector<std::string> out;
  for (TakenUpService const& service : services) {
    if (service.config->serviceName().empty()) continue;
    if (declarationMounts(world, service)) {
      expectMounted(world, service, out);
    } else {
      expectWithdrawn(world, service, out);
    }
  }
  expectSound(world, services, out);
  return out;
}

}  // namespace Sim
