// The service configuration directory machine and the service mount configuration machines,
// driven through the declarations services place in the world's directories; the tests
// read back the registry's mount entries and mounters and the prefixes in each status.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "framework/trace/Trace.h"
#include "service_config/ServiceConfigDirSm.h"
#include "service_config/ServiceMountConfigSm.h"
#include "service_config/ServiceMountGroupSm.h"
#include "service_config/ServicePublishConfigSm.h"
#include "sim/World.h"
#include "tests/support/FailureText.h"

namespace Controller {
namespace {

class ServiceMountConfigMachines : public ::testing::Test {
 protected:
  explicit ServiceMountConfigMachines(Sim::WorldOptions const& options = {}) : world(options) {}
  void TearDown() override {
    if (sm) sm->doCleanup();
  }

  void start() {
    sm = serviceConfigDirSmFactory(
        world.controllerdbStatus(), world.mountConfigDir(), world.mountStatusDir(),
        world.publishConfigDir(), world.publishStatusDir(), world.proxyMountConfigDir(),
        world.proxyMountStatusDir(), world.publishStatus(), world.registry());
  }
  Vesk::Ptr<MountsRegistryEntry> entry(char const* name) const {
    return world.registry()->mountEntry(name);
  }
  size_t mounters(char const* name) const { return entry(name) ? entry(name)->mounterSize() : 0; }
  static Vesk::String prefix(Sim::ServiceDeclaration const& s, char const* name) {
    Vesk::Ptr<MountedPathPrefix> p = s.status()->mountedPathPrefix(name);
    return p ? p->pathPrefix() : "<none>";
  }

  Sim::World world;
  Vesk::Ptr<ServiceConfigDirSm> sm;
};

size_t lineIndex(Vesk::TraceCapture const& capture, std::string const& text) {
  auto const& lines = capture.lines();
  return std::find_if(lines.begin(), lines.end(),
                      [&](std::string const& l) { return l.find(text) != l.npos; }) -
         lines.begin();
}

// ---- ServiceConfigDirSm ---------------------------------------------------------------------

TEST_F(ServiceMountConfigMachines, AServiceIsTakenUpOnceBothRecordsExistAndKeptWhenOneGoes) {
  start();
  auto config = serviceMountConfigFactory("fooAgent");
  config->serviceNameIs("Foo");
  config->leaderGenIdIs("1");
  config->mountGroupConfigIs("g")->mountConfigIs("/a", "Vesk::Dir", "", "/a");
  world.mountConfigDir()->entityPtrIs(config);
  EXPECT_FALSE(sm->serviceMountConfigSm("fooAgent")) << "no status yet";

  Vesk::TraceCapture capture;
  world.mountStatusDir()->entityPtrIs(serviceMountStatusFactory("fooAgent"));
  ASSERT_TRUE(sm->serviceMountConfigSm("fooAgent"));
  EXPECT_TRUE(capture.contains(" creating serviceMountConfigSm for fooAgent"));
  EXPECT_EQ(mounters("/a"), 1u);

  world.mountConfigDir()->entityPtrDel("fooAgent");
  EXPECT_TRUE(sm->serviceMountConfigSm("fooAgent")) << "a missing record keeps the child";
  world.mountConfigDir()->entityPtrIs(servicePublishConfigFactory("fooAgent"));
  EXPECT_FALSE(sm->serviceMountConfigSm("fooAgent"));
  EXPECT_TRUE(capture.contains(" deleting fooAgent serviceMountConfigSm"));
  EXPECT_EQ(mounters("/a"), 0u) << "the dropped child withdrew its mounter";
  ASSERT_TRUE(entry("/a"));

  // The publish side: the same shape, with its own traces.
  world.declarePublishService("barAgent", "Bar");
  ASSERT_TRUE(sm->servicePublishConfigSm("barAgent"));
  EXPECT_TRUE(capture.contains(" creating servicePublishConfigSm for barAgent"));
  world.publishStatusDir()->entityPtrDel("barAgent");
  EXPECT_TRUE(sm->servicePublishConfigSm("barAgent"));
  world.publishStatusDir()->entityPtrIs(serviceMountStatusFactory("barAgent"));
  EXPECT_FALSE(sm->servicePublishConfigSm("barAgent"));
  EXPECT_TRUE(capture.contains(" deleting barAgent servicePublishConfigSm"));
  world.publishConfigDir()->entityPtrIs(serviceMountConfigFactory("bazAgent"));
  world.publishStatusDir()->entityPtrIs(servicePublishStatusFactory("bazAgent"));
  EXPECT_TRUE(capture.contains(" mounts not complete bazAgent"));
}

TEST_F(ServiceMountConfigMachines, RecordsPresentAtConstructionAreTakenUpMountsProxiesPublishes) {
  world.declarePublishService("pubAgent", "Pub");
  world.declareService("proxyAgent", "Foo-Proxy", true);
  world.declareService("fooAgent", "Foo");
  Vesk::TraceCapture capture;
  start();
  size_t const mount = lineIndex(capture, " creating serviceMountConfigSm for fooAgent");
  size_t const proxy = lineIndex(capture, " creating serviceMountConfigSm for proxyAgent");
  size_t const publish = lineIndex(capture, " creating servicePublishConfigSm for pubAgent");
  EXPECT_LT(mount, proxy);
  EXPECT_LT(proxy, publish);
  EXPECT_LT(publish, capture.lines().size());
  EXPECT_TRUE(sm->serviceMountConfigSm("proxyAgent")->isProxyService());
  EXPECT_FALSE(sm->serviceMountConfigSm("fooAgent")->isProxyService());
}

TEST_F(ServiceMountConfigMachines, ChildrenAreMadeOnceFollowTheNotificationSwitchAndCleanUp) {
  auto foo = world.declareService("fooAgent", "Foo");
  foo.mountIs("g", "/a");
  foo.mountIs("h", "/b");
  world.declarePublishService("pubAgent", "Pub").groupIs("p");
  start();
  auto fooSm = sm->serviceMountConfigSm("fooAgent");
  EXPECT_EQ(testsupport::failureText<Vesk::ReinstantiationException>([&] {
              sm->serviceMountConfigSmIs(true, world.controllerdbStatus(), foo.config(),
                                         foo.status(), world.registry());
            }),
            "Reinstantiating the pointer interface where constructor parameter attribute "
            "_isProxyService has a different value of");
  EXPECT_EQ(sm->serviceMountConfigSmIs(false, world.controllerdbStatus(), foo.config(),
                                       foo.status(), world.registry()),
            fooSm);

  sm->hasNotificationActiveIs(false);
  EXPECT_FALSE(fooSm->hasNotificationActive());
  EXPECT_FALSE(fooSm->mountGroupSm("g")->hasNotificationActive());
  EXPECT_FALSE(sm->servicePublishConfigSm("pubAgent")->hasNotificationActive());
  sm->hasNotificationActiveIs(true);
  EXPECT_TRUE(fooSm->mountGroupSm("h")->hasNotificationActive());

  fooSm = nullptr;
  EXPECT_EQ(Vesk::liveObjects<ServiceMountGroupSm>(), 2);
  sm->doCleanup();
  sm = nullptr;
  EXPECT_EQ(mounters("/a") + mounters("/b"), 0u);
  EXPECT_EQ(foo.status()->mountedPathPrefixSize(), 0u);
  EXPECT_EQ(world.registry()->mountEntrySize(), 2u) << "entries stay for the registry machines";
  EXPECT_EQ(Vesk::liveObjects<ServiceConfigDirSm>(), 0);
  EXPECT_EQ(Vesk::liveObjects<ServiceMountConfigSm>(), 0);
  EXPECT_EQ(Vesk::liveObjects<ServiceMountGroupSm>(), 0);
  EXPECT_EQ(Vesk::liveObjects<ServicePublishConfigSm>(), 0);
}

// ---- ServiceMountConfigSm and ServiceMountGroupSm -------------------------------------------

TEST_F(ServiceMountConfigMachines, AnUnnamedServiceMountsNothingUntilItIsNamed) {
  start();
  auto foo = world.declareService("fooAgent", "");
  foo.mountIs("g", "/a", "Vesk::Dir", "", "/t/a");
  ASSERT_TRUE(sm->serviceMountConfigSm("fooAgent"));
  EXPECT_EQ(sm->serviceMountConfigSm("fooAgent")->mountGroupSmSize(), 0u);
  EXPECT_FALSE(entry("/a"));

  foo.config()->serviceNameIs("Foo");
  EXPECT_EQ(foo.status()->serviceName(), "Foo");
  ASSERT_TRUE(entry("/a"));
  ASSERT_TRUE(entry("/a")->mounter("Foo"));
  EXPECT_EQ(entry("/a")->mounter("Foo")->mounterName(), MounterName("Foo", "g"));
  EXPECT_EQ(entry("/a")->targetPath(), "/t/a");
  EXPECT_EQ(prefix(foo, "/a"), "/t/a");
  EXPECT_TRUE(world.mountRootDir()->entity("t/a")) << "the target's chain under the root";

  foo.config()->mountGroupConfigDel("g");
  EXPECT_EQ(mounters("/a"), 0u);
  EXPECT_EQ(Vesk::liveObjects<ServiceMountGroupSm>(), 0);
}

class ServiceMountConfigMachinesWithoutLeader : public ServiceMountConfigMachines {
 protected:
  static Sim::WorldOptions noLeader() {
    Sim::WorldOptions o;
    o.leaderGenId = "";
    return o;
  }
  ServiceMountConfigMachinesWithoutLeader() : ServiceMountConfigMachines(noLeader()) {}
};

TEST_F(ServiceMountConfigMachinesWithoutLeader, OnlyAProxyServiceMounts) {
  world.declareService("fooAgent", "Foo").mountIs("g", "/a");
  world.declareService("proxyAgent", "Foo-Proxy", true).mountIs("g", "/b");
  start();
  EXPECT_FALSE(entry("/a")) << "an empty generation matches nothing, not even an empty one";
  EXPECT_EQ(mounters("/b"), 1u);
}

TEST_F(ServiceMountConfigMachines, ALeaderChangeWithdrawsEveryMounterAndChangingBackRestores) {
  auto foo = world.declareService("fooAgent", "Foo");
  foo.mountIs("g", "/a");
  foo.mountIs("h", "/b");
  auto proxy = world.declareService("proxyAgent", "Foo-Proxy", true);
  proxy.mountIs("g", "/c");
  start();

  world.leaderGenIdIs("2");
  EXPECT_EQ(mounters("/a") + mounters("/b"), 0u);
  EXPECT_EQ(foo.status()->mountedPathPrefixSize(), 0u);
  EXPECT_TRUE(entry("/a") && entry("/b"));
  EXPECT_EQ(mounters("/c"), 1u) << "a proxy service ignores the generation";
  EXPECT_EQ(prefix(proxy, "/c"), "/c");

  world.leaderGenIdIs("1");
  EXPECT_EQ(mounters("/a"), 1u);
  EXPECT_EQ(mounters("/b"), 1u);
  EXPECT_EQ(prefix(foo, "/b"), "/b");

  foo.config()->leaderGenIdIs("0");  // the service's own generation goes stale as well
  EXPECT_EQ(mounters("/a") + mounters("/b"), 0u);

  // A group machine held past its service's machine reacts no more.
  foo.config()->leaderGenIdIs("1");
  Vesk::Ptr<ServiceMountGroupSm> kept = sm->serviceMountConfigSm("fooAgent")->mountGroupSm("g");
  sm->doCleanup();
  sm = nullptr;
  world.leaderGenIdIs("3");
  world.leaderGenIdIs("1");
  EXPECT_EQ(mounters("/a"), 0u);
}

TEST_F(ServiceMountConfigMachines, TwoServicesShareAnEntryUnderTheFirstTargetPath) {
  start();
  auto foo = world.declareService("fooAgent", "Foo");
  foo.mountIs("g", "/a", "Vesk::Dir", "", "/t/foo");
  auto bar = world.declareService("barAgent", "Bar");
  bar.mountIs("k", "/a", "Vesk::Dir", "", "/t/bar");
  ASSERT_EQ(mounters("/a"), 2u);
  EXPECT_EQ(entry("/a")->targetPath(), "/t/foo");
  EXPECT_EQ(prefix(bar, "/a"), "/t/foo");
  EXPECT_EQ(entry("/a")->mounter("Bar")->mounterName(), MounterName("Bar", "k"));

  world.undeclareService("fooAgent");
  world.mountConfigDir()->entityPtrIs(servicePublishConfigFactory("fooAgent"));
  world.mountStatusDir()->entityPtrIs(servicePublishStatusFactory("fooAgent"));
  EXPECT_FALSE(entry("/a")->mounter("Foo"));
  EXPECT_TRUE(entry("/a")->mounter("Bar"));
  EXPECT_EQ(prefix(bar, "/a"), "/t/foo");
}

TEST_F(ServiceMountConfigMachines, OnePathInTwoGroupsOfAServiceHasOneMounterEitherCanWithdraw) {
  auto foo = world.declareService("fooAgent", "Foo");
  foo.mountIs("g", "/a");
  start();
  Vesk::TraceCapture capture;
  auto second = foo.mountIs("h", "/a");
  EXPECT_TRUE(capture.contains(" Service:Foo has already requested a mount for /a"));
  ASSERT_EQ(mounters("/a"), 1u);
  EXPECT_EQ(entry("/a")->mounter("Foo")->mounterName(), MounterName("Foo", "g"));

  foo.config()->mountGroupConfig("h")->mountConfigDel("/a");
  EXPECT_EQ(mounters("/a"), 0u) << "withdrawn although group g still declares it";
  EXPECT_EQ(prefix(foo, "/a"), "<none>");
}

TEST_F(ServiceMountConfigMachines, ADefaultTargetPathIsMadeUnderTheRegistryDirectory) {
  auto foo = world.declareService("fooAgent", "Foo");
  foo.groupIs("g")->mountConfigIs("a/b", "Vesk::Dir", "", "");
  start();
  ASSERT_TRUE(entry("a/b"));
  Vesk::String const expected = world.registryDir()->fullName() + "/a/b";
  EXPECT_EQ(entry("a/b")->targetPath(), expected);
  EXPECT_EQ(prefix(foo, "a/b"), expected);
  Vesk::Ptr<Vesk::Entity> made = world.registryDir()->entity("a/b");
  ASSERT_TRUE(made);
  EXPECT_EQ(made->veskTypeName(), std::string("Vesk::Dir"));
}

TEST(ServiceMountConfigInvariants, AnEntryOfAnotherTypeStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto scenario = [] {
    Sim::World world;
    world.declareService("fooAgent", "Foo").mountIs("g", "/a", "Vesk::Dir");
    world.declareService("barAgent", "Bar").mountIs("g", "/a", "Controller::LocalEntity");
    auto sm = serviceConfigDirSmFactory(
        world.controllerdbStatus(), world.mountConfigDir(), world.mountStatusDir(),
        world.publishConfigDir(), world.publishStatusDir(), world.proxyMountConfigDir(),
        world.proxyMountStatusDir(), world.publishStatus(), world.registry());
  };
  EXPECT_DEATH(scenario(), "Assertion failed: mre->veskType\\(\\) == mountConfig->plovType\\(\\)");
}

}  // namespace
}  // namespace Controller
