#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/core/Exception.h"
#include "sim/ExpectedPublishes.h"
#include "sim/World.h"

namespace Sim {
namespace {

using Controller::MountDesc;
using Controller::SystemId;
using Vesk::Ptr;
using Keys = std::vector<std::pair<std::string, std::string>>;

TEST(LocalTree, CreatesAndDeletesEntriesAtFullNames) {
  World world;
  Ptr<LocalEntity> e = world.localEntityIs("/controller/local/a/b");
  EXPECT_EQ(e->fullName(), "/controller/local/a/b");
  EXPECT_EQ(world.localEntityIs("/controller/local/a/b"), e);
  EXPECT_TRUE(Vesk::ptr_cast<Vesk::Dir>(world.localDir()->entry("a")));
  EXPECT_EQ(world.localDirIs("/controller/local/d")->fullName(), "/controller/local/d");
  EXPECT_THROW(world.localDirIs("/controller/local/a/b"), Vesk::NameInUseException);

  world.localEntityDel("/controller/local/a/b");
  EXPECT_FALSE(world.rootDir()->entity("local/a/b"));
  world.localEntityDel("/controller/local/a/b");
  world.localEntityDel("/controller/local/missing/b");
  EXPECT_FALSE(world.localDir()->entry("missing"));
}

TEST(LocalTree, RejectsPathsOutsideTheTreeOrThroughNonDirectories) {
  World world;
  world.localEntityIs("/controller/local/e");
  for (char const* path :
       {"/other/x", "controller/local/x", "/controller", "/controller/", "/controllerx/y",
        "/controller/local//x", "/controller/local/x/", "/controller/local/e/x"}) {
    EXPECT_THROW(world.localEntityIs(path), Vesk::RangeException) << path;
  }
  EXPECT_THROW(world.localEntityDel("/controller/local/e/x"), Vesk::RangeException);
}

TEST(PublishDeclarationRecords, HelpersWriteWhatAServiceWrites) {
  World world;
  PublishDeclaration foo = world.declarePublishService("FooAgent", "Foo");
  EXPECT_EQ(world.publishStatusDir()->entry("FooAgent"), foo.status());
  ASSERT_EQ(world.publishConfigDir()->entry("FooAgent"), foo.config());
  EXPECT_EQ(foo.serviceName(), "Foo");
  EXPECT_EQ(foo.config()->leaderGenId(), world.controllerdbStatus()->leaderGenId());

  auto single = foo.publishIs("g", "/controller/local/x", "/remote/x");
  EXPECT_EQ(single->remotePath(), "/remote/x");
  EXPECT_EQ(single->plovType(), "Sim::LocalEntity");
  EXPECT_TRUE(single->readyToPublish());
  auto dir = foo.publishDirIs("g", "/controller/local/d", "/remote/d", "Vesk::Dir", false);
  EXPECT_EQ(dir->remoteTargetPath(), "/remote/d");
  EXPECT_FALSE(dir->readyToPublish());

  SystemId const sw = World::systemOf(1);
  auto group = foo.config()->publishGroupConfig("g");
  EXPECT_EQ(foo.systemFilterIs("g", {sw}), group->systemFilter());
  EXPECT_TRUE(group->systemFilter()->includedSystem(sw.stringValue()));
  EXPECT_EQ(foo.versionFilterIs("g", {2}), group->versionFilter());
  EXPECT_TRUE(group->versionFilter()->includedServiceVersion(2));
  foo.readyIs(true);
  EXPECT_TRUE(foo.config()->ready());

  world.undeclarePublishService("FooAgent");
  EXPECT_EQ(world.publishConfigDir()->entityPtrSize() + world.publishStatusDir()->entityPtrSize(),
            0u);
}

// Switch 1 negotiates Foo 2 and switch 2 Foo 3; both have a publish record.
class ExpectedPublishesTest : public ::testing::Test {
 protected:
  ExpectedPublishesTest() {
    for (SystemId const& sw : {sw1, sw2}) world.publishStatus()->systemIs(sw);
    world.negotiate(sw1, "Foo", 2);
    world.negotiate(sw2, "Foo", 3);
  }
  Ptr<Controller::PublishRegistryEntry> entry(std::string const& name, bool prefix = false) {
    auto e = world.registry()->publishEntryIs(name, "/remote" + name, "Foo", prefix,
                                              prefix ? "Vesk::Dir" : "Sim::LocalEntity", nullptr,
                                              nullptr);
    e->readyToPublishIs(true);
    return e;
  }
  Keys keys() const {
    Keys out;
    for (auto const& [key, mount] : expectedPublishes(world)) out.push_back(key);
    return out;
  }
  std::string text(SystemId const& sw) const { return sw.stringValue().stdString(); }

  World world;
  SystemId const sw1 = world.connectSwitch(1);
  SystemId const sw2 = world.connectSwitch(2);
  std::string const x = "/controller/local/x";
};

TEST_F(ExpectedPublishesTest, SingleEntryNeedsItsEntityReadinessVersionAndRecord) {
  auto e = entry(x);
  EXPECT_EQ(keys(), Keys{});
  world.localEntityIs(x);
  EXPECT_EQ(keys(), (Keys{{x, text(sw1)}, {x, text(sw2)}}));
  EXPECT_EQ(expectedPublishes(world).at({x, text(sw1)}),
            (MountDesc{x, "/remote" + x, "Sim::LocalEntity", "Foo"}));

  e->readyToPublishIs(false);
  EXPECT_EQ(keys(), Keys{});
  e->readyToPublishIs(true);
  world.serviceDel(sw2, "Foo");
  EXPECT_EQ(keys(), (Keys{{x, text(sw1)}}));
  world.publishStatus()->systemDel(sw1);
  EXPECT_EQ(keys(), Keys{});
}

TEST_F(ExpectedPublishesTest, FiltersNarrowTheSwitches) {
  auto e = entry(x);
  world.localEntityIs(x);
  auto versions = Controller::mountFilterServiceVersionFactory("v");
  versions->includedServiceVersionIs(3, true);
  auto systems = Controller::mountFilterSystemFactory("s");
  systems->includedSystemIs(sw1.stringValue(), true);

  e->versionFilterIs(versions);
  EXPECT_EQ(keys(), (Keys{{x, text(sw2)}}));
  e->systemFilterIs(systems);
  EXPECT_EQ(keys(), Keys{});
  e->versionFilterIs(nullptr);
  EXPECT_EQ(keys(), (Keys{{x, text(sw1)}}));
  EXPECT_TRUE(publishAdmits(world, *e, sw1));
  EXPECT_FALSE(publishAdmits(world, *e, sw2));
}

TEST_F(ExpectedPublishesTest, PrefixEntryPublishesASubdirectoryPerSwitch) {
  std::string const d = "/controller/local/d";
  entry(d, true);
  world.localEntityIs(d);
  EXPECT_EQ(keys(), Keys{}) << "a prefix entry publishes directories only";
  world.localEntityDel(d);
  world.localDirIs(d);
  world.localDirIs(d + "/" + text(sw1));
  EXPECT_EQ(keys(), (Keys{{d + "/" + text(sw1), text(sw1)}, {d + "/" + text(sw2), text(sw2)}}));
  world.localEntityIs(d + "/" + text(sw2));
  EXPECT_EQ(keys(), (Keys{{d + "/" + text(sw1), text(sw1)}}));
}

TEST_F(ExpectedPublishesTest, MismatchesNameMissingStaleAndDifferentMounts) {
  entry(x);
  world.localEntityIs(x);
  MountDesc const wanted{x, "/remote" + x, "Sim::LocalEntity", "Foo"};
  MountDesc const stale{"/controller/local/old", "/remote/old", "Sim::LocalEntity", "Foo"};
  MountDesc changed = wanted;
  changed.remotePath = "/elsewhere";
  world.publishStatus()->system(sw1)->publishedMountIs(changed);
  world.publishStatus()->system(sw1)->publishedMountIs(stale);
  std::vector<std::string> const lines = publishMismatches(world);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0],
            "stale /controller/local/old on " + text(sw1) + ": " + stale.stringValue().stdString());
  EXPECT_EQ(lines[1], "different " + x + " on " + text(sw1) + ": " +
                          changed.stringValue().stdString() + ", expected " +
                          wanted.stringValue().stdString());
  EXPECT_EQ(lines[2],
            "missing " + x + " on " + text(sw2) + ": " + wanted.stringValue().stdString());

  world.publishStatus()->system(sw1)->publishedMountIs(wanted);
  world.publishStatus()->system(sw1)->publishedMountDel(stale.localPath);
  world.publishStatus()->system(sw2)->publishedMountIs(wanted);
  EXPECT_EQ(publishMismatches(world), std::vector<std::string>{});
}

}  // namespace
}  // namespace Sim
