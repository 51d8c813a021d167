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

void expectMounted(World const& world, TakenUpService const& service,
                   std::vector<std::string>& out) {
  std::string const name = text(service.config->serviceName());
  for (auto const& [path, groups] : declaringGroups(*service.config)) {
    if (groups.size() != 1 || service.sharedPaths.count(path)) continue;
    Controller::ServiceMountGroupConfig const& group = *groups.front();
    auto entry = world.registry()->mountEntry(Vesk::Name(Vesk::String(path)));
    auto mounter = entry ? entry->mounter(service.config->serviceName()) : nullptr;
    std::string const what = name + "'s mount of " + path + " in group " + text(group.name());
    if (!mounter) {
      out.push_back("missing: " + what);
      continue;
    }
    if (mounter->mounterName() != Controller::MounterName(name, text(group.name())) ||
        mounter->mountGroupConfig().ptr() != &group ||
        mounter->mountConfig() != group.mountConfig(Vesk::Name(Vesk::String(path)))) {
      out.push_back("different: " + what + " has the mounter of another declaration");
    }
    if (!service.status->mountedPathPrefix(Vesk::Name(Vesk::String(path)))) {
      out.push_back("missing prefix: " + what);
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
