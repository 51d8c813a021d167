// The service publish configuration machines, driven through the records a service and
// the controller database write; the tests read back the registry's publish entries and
// ready flags and the status each service sees.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "framework/trace/Trace.h"
#include "service_config/DirPath.h"
#include "service_config/PublishDirSm.h"
#include "service_config/ServicePublishConfigSm.h"
#include "service_config/ServicePublishGroupSm.h"
#include "sim/World.h"

namespace Controller {
namespace {

struct Service {
  Vesk::Ptr<ServicePublishConfig> config;
  Vesk::Ptr<ServicePublishStatus> status;
  Vesk::Ptr<ServicePublishConfigSm> sm;

  Vesk::Ptr<ServicePublishGroupConfig> group(char const* name) const {
    return config->publishGroupConfigIs(name);
  }
  Vesk::Ptr<ServicePublishGroupStatus> groupStatus(char const* name) const {
    return status->servicePublishGroupStatus(name);
  }
};

class PublishConfigMachines : public ::testing::Test {
 protected:
  void TearDown() override {
    for (Service& s : services) {
      if (s.sm) s.sm->doCleanup();
      s.sm = nullptr;
    }
  }

  // A service's records, written for the current leader; the machine is not started.
  Service& declare(std::string const& service) {
    Service& s = services.emplace_back();
    s.config = servicePublishConfigFactory(Vesk::Name(service + "Agent"));
    s.config->serviceNameIs(Vesk::String(service));
    s.config->leaderGenIdIs(world.controllerdbStatus()->leaderGenId());
    s.status = servicePublishStatusFactory(Vesk::Name(service));
    return s;
  }
  void start(Service& s) {
    s.sm = servicePublishConfigSmFactory(world.controllerdbStatus(), s.config, s.status,
                                         world.publishStatus(), world.registry(), nullptr);
  }

  Vesk::Ptr<PublishRegistryEntry> entry(char const* path) const {
    return world.registry()->publishEntry(Vesk::Name(path));
  }
  bool hasReadyFlag(char const* service) const {
    return world.registry()->servicePublishReadyMembers().contains(Vesk::String(service));
  }

  Sim::World world;
  std::deque<Service> services;  // stable references
};

size_t linesContaining(Vesk::TraceCapture const& capture, std::string const& text) {
  return std::count_if(capture.lines().begin(), capture.lines().end(),
                       [&](std::string const& line) { return line.find(text) != line.npos; });
}

// ---- publish configurations and directories -------------------------------------------------

TEST_F(PublishConfigMachines, AConfigIsPublishedReadyWithTheGroupFiltersAndFollowsThem) {
  Service& foo = declare("Foo");
  auto systems = foo.config->systemFilterIs("sys");
  auto versions = foo.config->versionFilterIs("ver");
  foo.group("g")->systemFilterIs(systems);
  foo.group("g")->versionFilterIs(versions);
  foo.group("g")->publishConfigIs("/a", "/remote/a", "Vesk::Dir");
  start(foo);

  ASSERT_TRUE(entry("/a"));
  EXPECT_EQ(entry("/a")->remotePath(), "/remote/a");
  EXPECT_EQ(entry("/a")->serviceName(), "Foo");
  EXPECT_EQ(entry("/a")->veskType(), "Vesk::Dir");
  EXPECT_FALSE(entry("/a")->isPrefixPath());
  EXPECT_TRUE(entry("/a")->readyToPublish());
  EXPECT_EQ(entry("/a")->systemFilter(), systems);
  EXPECT_EQ(entry("/a")->versionFilter(), versions);
  EXPECT_EQ(foo.groupStatus("g")->publishState(), publishStateComplete);
  EXPECT_EQ(foo.groupStatus("g")->publishStatus("/a")->publishState(), publishStateComplete);

  // A configuration added later, then the group pointing at other filters.
  foo.group("g")->publishConfigIs("/b", "/remote/b", "Vesk::Dir");
  ASSERT_TRUE(entry("/b"));
  auto others = foo.config->systemFilterIs("others");
  foo.group("g")->systemFilterIs(others);
  foo.group("g")->versionFilterIs(nullptr);
  for (char const* path : {"/a", "/b"}) {
    EXPECT_EQ(entry(path)->systemFilter(), others) << path;
    EXPECT_EQ(entry(path)->versionFilter(), nullptr) << path;
  }

  foo.group("g")->publishConfigDel("/b");
  EXPECT_FALSE(entry("/b"));
  EXPECT_FALSE(foo.groupStatus("g")->publishStatus("/b"));
}

TEST_F(PublishConfigMachines, ADirectoryIsReadyOnlyWhenItsDirectoryIs) {
  Service& foo = declare("Foo");
  auto dir = foo.group("g")->publishDirIs("/d", "Vesk::Dir");
  dir->remoteTargetPathIs("/remote/d");
  start(foo);

  ASSERT_TRUE(entry("/d"));
  EXPECT_TRUE(entry("/d")->isPrefixPath());
  EXPECT_FALSE(entry("/d")->readyToPublish());
  EXPECT_EQ(entry("/d")->remotePath(), "/remote/d");

  dir->readyToPublishIs(true);
  EXPECT_TRUE(entry("/d")->readyToPublish());
  dir->remoteTargetPathIs("/remote/e");
  EXPECT_EQ(entry("/d")->remotePath(), "/remote/e");
  dir->readyToPublishIs(false);
  EXPECT_FALSE(entry("/d")->readyToPublish());

  foo.group("g")->publishDirDel("/d");
  EXPECT_FALSE(entry("/d"));
  EXPECT_EQ(Vesk::liveObjects<PublishDirSm>(), 0);
}

TEST_F(PublishConfigMachines, TheFirstPublisherKeepsAPath) {
  Service& foo = declare("Foo");
  foo.group("g")->publishConfigIs("/a", "/remote/a", "Vesk::Dir");
  foo.group("g")->publishDirIs("/d", "Vesk::Dir")->remoteTargetPathIs("/remote/d");
  foo.group("g2")->publishConfigIs("/a", "/elsewhere", "Vesk::Dir");  // same service
  start(foo);
  Service& bar = declare("Bar");
  bar.group("h")->publishConfigIs("/a", "/bar/a", "Vesk::Dir");
  auto barDir = bar.group("h")->publishDirIs("/d", "Vesk::Dir");
  barDir->remoteTargetPathIs("/bar/d");

  Vesk::TraceCapture capture;
  start(bar);
  EXPECT_TRUE(capture.contains(" already published. Ignoring publish from:Bar"));
  EXPECT_TRUE(capture.contains(" already published. Ignoring publishDir from: Bar"));
  barDir->readyToPublishIs(true);
  EXPECT_EQ(entry("/d")->remotePath(), "/remote/d") << "Bar's directory is not the entry's";
  EXPECT_FALSE(entry("/d")->readyToPublish());

  foo.config->publishGroupConfigDel("g2");
  bar.config->publishGroupConfigDel("h");
  ASSERT_TRUE(entry("/a"));
  ASSERT_TRUE(entry("/d"));
  EXPECT_EQ(entry("/a")->serviceName(), "Foo");
  EXPECT_EQ(entry("/a")->remotePath(), "/remote/a");
  EXPECT_EQ(entry("/d")->serviceName(), "Foo");

  // A declaration that waited its turn takes the path up once its first publisher lets go.
  Service& baz = declare("Baz");
  baz.group("k")->publishConfigIs("/a", "/baz/a", "Vesk::Dir");
  auto bazDir = baz.group("k")->publishDirIs("/d", "Vesk::Dir");
  bazDir->remoteTargetPathIs("/baz/d");
  bazDir->readyToPublishIs(true);
  start(baz);
  foo.config->publishGroupConfigDel("g");
  ASSERT_TRUE(entry("/a"));
  ASSERT_TRUE(entry("/d"));
  EXPECT_EQ(entry("/a")->serviceName(), "Baz");
  EXPECT_EQ(entry("/a")->remotePath(), "/baz/a");
  EXPECT_EQ(entry("/d")->serviceName(), "Baz");
  EXPECT_EQ(entry("/d")->remotePath(), "/baz/d");
  EXPECT_TRUE(entry("/d")->readyToPublish());
}

// ---- the service and the leader generation --------------------------------------------------

TEST_F(PublishConfigMachines, TheReadyFlagFollowsTheServiceAndTheGeneration) {
  Service& foo = declare("Foo");
  foo.config->serviceNameIs("");
  foo.config->readyIs(true);
  start(foo);
  EXPECT_FALSE(hasReadyFlag("Foo")) << "nothing before the service is named";
  foo.config->serviceNameIs("Foo");
  EXPECT_TRUE(world.registry()->servicePublishReady("Foo"));
  foo.config->readyIs(false);
  ASSERT_TRUE(hasReadyFlag("Foo"));
  EXPECT_FALSE(world.registry()->servicePublishReady("Foo"));

  foo.config->readyIs(true);
  Vesk::TraceCapture capture;
  world.leaderGenIdIs("2");
  EXPECT_FALSE(hasReadyFlag("Foo"));
  EXPECT_TRUE(capture.contains("Stale leaderGenId, cleanup publishReady flag for Foo"));
  foo.config->leaderGenIdIs("2");
  EXPECT_TRUE(world.registry()->servicePublishReady("Foo"));

  world.leaderGenIdIs("");
  foo.config->leaderGenIdIs("");
  EXPECT_FALSE(hasReadyFlag("Foo")) << "an empty generation never publishes";
  foo.config->readyIs(false);
  foo.config->readyIs(true);
  EXPECT_FALSE(hasReadyFlag("Foo"));
}

TEST_F(PublishConfigMachines, AStaleGenerationWithdrawsTheGroupsAndAMatchingOneRestoresThem) {
  Service& foo = declare("Foo");
  foo.group("g")->publishConfigIs("/a", "/remote/a", "Vesk::Dir");
  foo.group("h")->publishDirIs("/d", "Vesk::Dir")->readyToPublishIs(true);
  start(foo);
  ASSERT_TRUE(entry("/a"));
  ASSERT_TRUE(entry("/d"));

  Vesk::TraceCapture capture;
  world.leaderGenIdIs("2");
  EXPECT_EQ(world.registry()->publishEntrySize(), 0u);
  EXPECT_EQ(foo.groupStatus("g")->publishStatusSize(), 0u) << "no status for a withdrawn entry";
  EXPECT_EQ(Vesk::liveObjects<PublishDirSm>(), 0);
  for (char const* group : {" group:g", " group:h"}) {
    EXPECT_EQ(linesContaining(capture, std::string("handleLeaderGenId") + group), 1u) << group;
  }

  foo.group("g")->publishConfigIs("/b", "/remote/b", "Vesk::Dir");
  EXPECT_FALSE(entry("/b")) << "nothing is published while stale";
  // The ready flag is raised over the entries it speaks for, not before them.
  struct ReadySeen : MountsRegistry::NotifieeConst {
    size_t entriesAtReady = 0;
    void onServicePublishReady(Vesk::String const& service) override {
      if (notifierRaw()->servicePublishReady(service)) {
        entriesAtReady = notifierRaw()->publishEntrySize();
      }
    }
  } seen;
  seen.notifierIs(world.registry().ptr());
  foo.config->readyIs(true);
  foo.config->leaderGenIdIs("2");
  EXPECT_EQ(seen.entriesAtReady, 3u);
  ASSERT_TRUE(entry("/a"));
  ASSERT_TRUE(entry("/b"));
  ASSERT_TRUE(entry("/d"));
  EXPECT_TRUE(entry("/d")->readyToPublish());
  EXPECT_EQ(foo.groupStatus("g")->publishStatus("/a")->publishState(), publishStateComplete);
}

TEST_F(PublishConfigMachines, RemovingAGroupOrTheMachineLeavesNothingBehind) {
  Service& foo = declare("Foo");
  foo.config->readyIs(true);
  foo.group("g")->publishConfigIs("/a", "/remote/a", "Vesk::Dir");
  foo.group("h")->publishConfigIs("/b", "/remote/b", "Vesk::Dir");
  foo.group("h")->publishDirIs("/d", "Vesk::Dir");
  start(foo);
  EXPECT_EQ(Vesk::liveObjects<ServicePublishGroupSm>(), 2);

  foo.config->publishGroupConfigDel("g");
  EXPECT_FALSE(entry("/a"));
  EXPECT_FALSE(foo.groupStatus("g"));
  EXPECT_EQ(Vesk::liveObjects<ServicePublishGroupSm>(), 1);

  foo.sm->doCleanup();
  foo.sm = nullptr;
  EXPECT_EQ(world.registry()->publishEntrySize(), 0u);
  EXPECT_FALSE(hasReadyFlag("Foo"));
  EXPECT_EQ(foo.status->servicePublishGroupStatusSize(), 0u);
  EXPECT_EQ(Vesk::liveObjects<ServicePublishConfigSm>(), 0);
  EXPECT_EQ(Vesk::liveObjects<ServicePublishGroupSm>(), 0);
  EXPECT_EQ(Vesk::liveObjects<PublishDirSm>(), 0);
}

// ---- doCreateDirPath ------------------------------------------------------------------------

TEST(DirPath, CreatesWhatIsMissingKeepsWhatExistsAndStopsAtANonDirectory) {
  Vesk::Ptr<Vesk::Dir> root = Vesk::dirFactory("root");
  Vesk::Ptr<Vesk::Dir> kept = root->subdirIs("a");
  Vesk::Ptr<Vesk::Dir> made = doCreateDirPath(root, "/a//b/c/");
  ASSERT_TRUE(made);
  EXPECT_EQ(root->entry("a"), kept);
  EXPECT_EQ(root->entityPtrSize(), 1u) << "empty components name nothing";
  EXPECT_EQ(kept->entry("b")->veskTypeName(), std::string("Vesk::Dir"));
  EXPECT_EQ(Vesk::ptr_cast<Vesk::Dir>(kept->entry("b"))->entry("c"), made);
  EXPECT_EQ(doCreateDirPath(root, "a/b/c"), made);
  EXPECT_EQ(doCreateDirPath(root, ""), root);

  kept->entityPtrIs(servicePublishStatusFactory("file"));
  Vesk::TraceCapture capture;
  EXPECT_FALSE(doCreateDirPath(root, "a/file/x"));
  EXPECT_FALSE(doCreateDirPath(root, "a/file"));
  EXPECT_TRUE(capture.contains(" final:file"));
  EXPECT_TRUE(capture.contains(" not a directory:file"));
  EXPECT_FALSE(Vesk::ptr_cast<Vesk::Dir>(kept->entry("file")));
}

}  // namespace
}  // namespace Controller
