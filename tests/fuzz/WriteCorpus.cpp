// Writes the seed corpus of the attribute log's fuzz target: real streams, each from its
// start as a reader receives it, of a mount status tree and of a mount declaration, sent in
// full and then changed in one way. Every stream is checked to leave its copy like the
// original. From the repository root, after a build:
//
//   build/tests/fuzz/write_attrlog_corpus tests/fuzz/corpus
//
// It writes status-*.attrlog and config-*.attrlog; the regression cases beside them are left
// alone.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>

#include "model/MountInterface.h"
#include "tests/support/AttrLogLink.h"

namespace {

using Controller::MountStatus;
using Controller::ServiceMountConfig;
using Controller::ServiceMountStatus;
using testsupport::AttrLogLink;
using testsupport::treeText;
using Vesk::Name;
using Vesk::Ptr;
using Vesk::String;

std::filesystem::path folder;

// The bytes `original` sends to `copy`: its full send (only the first `firstBytes` of it
// carried when `change` comes, if given), then `change`, all carried until the writer has
// nothing more to say.
void write(char const* name, Ptr<Vesk::Entity> const& original, Ptr<Vesk::Entity> const& copy,
           std::function<void(AttrLogLink&)> const& change = {}, size_t firstBytes = SIZE_MAX) {
  std::string bytes;
  AttrLogLink link(original, copy);
  link.record = &bytes;
  if (firstBytes == SIZE_MAX) {
    link.settle();
  } else {
    link.carry(firstBytes);
  }
  if (change) change(link);
  link.settle();
  if (treeText(*copy) != treeText(*original)) {
    throw std::runtime_error(std::string(name) + ": the copy differs from the original");
  }
  std::ofstream(folder / (std::string(name) + ".attrlog"), std::ios::binary) << bytes;
  std::cout << name << ": " << bytes.size() << " bytes\n";
}

// ---- mount status -------------------------------------------------------------------------

Ptr<ServiceMountStatus> statusTree() {
  auto status = Controller::serviceMountStatusFactory(Name("agent"));
  status->serviceNameIs("svc");
  for (int s = 0; s < 3; ++s) {
    auto system = status->systemStatusIs(Name("sw" + std::to_string(s)));
    for (int g = 0; g < 2; ++g) {
      auto group = system->serviceMountGroupStatusIs(Name("g" + std::to_string(g)));
      group->mountStateIs(Controller::mountStateMounted);
      group->processedIs(g == 0);
      for (int m = 0; m < 3; ++m) {
        auto mount = group->mountStatusIs(Name("/state/path" + std::to_string(m)));
        mount->mountStateIs(m == 2 ? Controller::mountStateMounting
                                   : Controller::mountStateMounted);
        mount->mountedPathIs(
            String("/mounts/sw" + std::to_string(s) + "/path" + std::to_string(m)));
      }
    }
  }
  for (int p = 0; p < 3; ++p) {
    status->mountedPathPrefixIs(Name("/state/path" + std::to_string(p)), "/mounts");
  }
  status->initialMountsCompleteIs("g0", true);
  status->initialMountsCompleteIs("g1", false);
  return status;
}

Ptr<MountStatus> mountOf(Ptr<ServiceMountStatus> const& status, char const* system,
                         char const* group, char const* path) {
  return status->systemStatus(Name(system))
      ->serviceMountGroupStatus(Name(group))
      ->mountStatus(Name(path));
}

void writeStatusStreams() {
  auto fresh = [] { return Controller::serviceMountStatusFactory(Name("agent")); };
  auto changed = [&](char const* name, std::function<void(Ptr<ServiceMountStatus> const&)> change,
                     size_t firstBytes = SIZE_MAX) {
    auto original = statusTree();
    write(
        name, original, fresh(), [&](AttrLogLink&) { change(original); }, firstBytes);
  };
  write("status-empty", fresh(), fresh());
  write("status-full", statusTree(), fresh());
  changed("status-mount-state", [](auto const& s) {
    mountOf(s, "sw1", "g0", "/state/path2")->mountStateIs(Controller::mountStateFailed);
  });
  changed("status-mounted-path", [](auto const& s) {
    mountOf(s, "sw2", "g1", "/state/path0")->mountedPathIs("/elsewhere");
  });
  changed("status-mount-deleted", [](auto const& s) {
    s->systemStatus(Name("sw0"))
        ->serviceMountGroupStatus(Name("g1"))
        ->mountStatusDel(Name("/state/path1"));
  });
  changed("status-group-changed", [](auto const& s) {
    auto group = s->systemStatus(Name("sw1"))->serviceMountGroupStatus(Name("g1"));
    group->mountStateIs(Controller::mountStateUnmounting);
    group->processedIs(true);
    group->mountStatusIs(Name("/state/new"))->mountStateIs(Controller::mountStateConnecting);
  });
  changed("status-system-added", [](auto const& s) {
    auto group = s->systemStatusIs(Name("sw9"))->serviceMountGroupStatusIs(Name("g0"));
    group->mountStatusIs(Name("/state/path0"))->mountedPathIs("/mounts/sw9/path0");
  });
  changed("status-system-deleted", [](auto const& s) { s->systemStatusDel(Name("sw1")); });
  changed("status-prefix-replaced", [](auto const& s) {
    s->mountedPathPrefixDel(Name("/state/path1"));
    s->mountedPathPrefixIs(Name("/state/path1"), "/other/mounts");
  });
  changed("status-initial-mounts", [](auto const& s) {
    s->initialMountsCompleteIs("g1", true);
    s->initialMountsCompleteDel("g0");
    s->initialMountsCompleteIs("g2", false);
  });
  changed("status-service-name", [](auto const& s) { s->serviceNameIs("renamed"); });
  // Changes behind the full send's position go out at once, those ahead are left to it.
  changed(
      "status-during-full-send",
      [](auto const& s) {
        s->serviceNameIs("early");
        s->systemStatusDel(Name("sw2"));
        mountOf(s, "sw0", "g0", "/state/path0")->mountStateIs(Controller::mountStateFailed);
        s->initialMountsCompleteIs("g0", false);
      },
      400);
  auto original = statusTree();
  write("status-sent-again", original, fresh(), [&](AttrLogLink& link) {
    original->systemStatusDel(Name("sw0"));
    original->systemStatusIs(Name("sw5"))->serviceMountGroupStatusIs(Name("g0"));
    link.settle();
    original->initialMountsCompleteDel("g1");
    link.out->rootIs(original);
  });
}

// ---- mount declaration --------------------------------------------------------------------

Ptr<ServiceMountConfig> declaration() {
  auto config = Controller::serviceMountConfigFactory(Name("agent"));
  config->leaderGenIdIs("7");
  config->serviceNameIs("svc");
  config->warmIs(true);
  auto systems = config->systemFilterIs(Name("some"));
  systems->includedSystemIs("sw1", true);
  systems->includedSystemIs("sw2", false);
  auto versions = config->versionFilterIs(Name("v2"));
  versions->includedServiceVersionIs(2, true);
  versions->includedServiceVersionIs(3, false);
  for (int g = 0; g < 2; ++g) {
    auto group = config->mountGroupConfigIs(Name("g" + std::to_string(g)));
    group->systemFilterIs(systems);
    if (g == 1) group->versionFilterIs(versions);
    group->preserveMountsOnDisconnectIs(g == 0);
    for (int m = 0; m < 3; ++m) {
      std::string const path = "/state/path" + std::to_string(m);
      group->mountConfigIs(Name(path), "Vesk::Dir", m == 1 ? "ro" : "", String("/mounts" + path));
    }
  }
  return config;
}

void writeConfigStreams() {
  auto fresh = [] { return Controller::serviceMountConfigFactory(Name("agent")); };
  auto changed = [&](char const* name, std::function<void(Ptr<ServiceMountConfig> const&)> change) {
    auto original = declaration();
    write(name, original, fresh(), [&](AttrLogLink&) { change(original); });
  };
  std::string const longText(Vesk::NboAttrLog::maxTextPieceBytes + 100, 'x');
  write("config-empty", fresh(), fresh());
  write("config-full", declaration(), fresh());
  changed("config-scalars", [](auto const& c) {
    c->leaderGenIdIs("8");
    c->serviceNameIs("renamed");
    c->warmIs(false);
    c->mountGroupConfig(Name("g1"))->preserveMountsOnDisconnectIs(true);
  });
  changed("config-references-changed", [](auto const& c) {
    auto group = c->mountGroupConfig(Name("g1"));
    group->versionFilterIs(nullptr);
    group->systemFilterIs(c->systemFilterIs(Name("other")));  // waits for its announcement
  });
  changed("config-filter-deleted", [](auto const& c) { c->systemFilterDel(Name("some")); });
  changed("config-filter-members", [](auto const& c) {
    c->systemFilter(Name("some"))->includedSystemDel("sw2");
    c->systemFilter(Name("some"))->includedSystemIs("sw3", true);
    c->versionFilter(Name("v2"))->includedServiceVersionIs(4, true);
    c->versionFilter(Name("v2"))->includedServiceVersionDel(3);
  });
  changed("config-group-replaced", [](auto const& c) {
    c->mountGroupConfigDel(Name("g0"));
    c->mountGroupConfigIs(Name("g0"))->mountConfigIs(Name("/again"), "Vesk::Dir", "", "/a");
  });
  changed("config-mounts-changed", [](auto const& c) {
    auto group = c->mountGroupConfig(Name("g0"));
    group->mountConfigDel(Name("/state/path0"));
    group->mountConfigIs(Name("/state/new"), "Vesk::Entity", "rw", "/mounts/new");
  });
  // Texts longer than one piece: a key, in the full send, and a parameter, in a change.
  auto withLongKey = declaration();
  withLongKey->mountGroupConfig(Name("g0"))->mountConfigIs(Name(longText), "Vesk::Dir", "", "/l");
  write("config-long-key", withLongKey, fresh());
  changed("config-long-parameter", [&](auto const& c) {
    c->mountGroupConfig(Name("g1"))
        ->mountConfigIs(Name("/long"), "Vesk::Dir", "", String(longText));
  });
  auto original = declaration();
  write("config-sent-again", original, fresh(), [&](AttrLogLink& link) {
    original->mountGroupConfigDel(Name("g1"));
    original->versionFilterDel(Name("v2"));
    link.settle();
    original->systemFilter(Name("some"))->includedSystemDel("sw1");
    link.out->rootIs(original);
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: write_attrlog_corpus <folder>\n";
    return 2;
  }
  folder = argv[1];
  ::mountInterfaceAttrLogIs(true);
  try {
    writeStatusStreams();
    writeConfigStreams();
  } catch (std::exception const& e) {
    std::cerr << "write_attrlog_corpus: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
