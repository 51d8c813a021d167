#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/Activity.h"
#include "framework/Exception.h"
#include "sim/World.h"

namespace Sim {
namespace {

using Controller::SystemId;
using Vesk::Name;
using Vesk::Ptr;
using Vesk::String;

// What a peer-table reader sees when the table announces a peer.
class PeerWatcher : public Controller::PeerTable::NotifieeConst {
 public:
  void onPeer(SystemId const& system) override {
    Ptr<Controller::Peer> peer = notifierRaw()->peer(system);
    std::string seen = system.stringValue().stdString();
    if (!peer) {
      seen += " gone";
    } else {
      seen += peer->connectionConfig() ? " config" : " no-config";
      seen += peer->serviceStatusDir() ? " services" : " no-services";
    }
    trail.push_back(seen);
  }
  std::vector<std::string> trail;
};

// What a service-status reader sees at each notification of one service.
class ServiceWatcher : public Controller::ServiceStatusV1::NotifieeConst {
 public:
  void onEnabled() override { trail.push_back(describe("enabled")); }
  void onVersionStatus() override { trail.push_back(describe("versionStatus")); }
  std::string describe(char const* what) const {
    Controller::ServiceStatusV1 const& s = *notifierRaw();
    std::string out = std::string(what) + (s.enabled() ? " on" : " off");
    if (auto const& v = s.versionStatus()) {
      out += " v" + std::to_string(v->negotiatedVersion());
      out += v->versionNegotiationComplete() ? " complete" : " incomplete";
      out += v->versionCompatible() ? " compatible" : " incompatible";
    }
    return out;
  }
  std::vector<std::string> trail;
};

class DirWatcher : public Vesk::Dir::NotifieeConst {
 public:
  DirWatcher(std::string tag, std::vector<std::string>& trail)
      : tag_(std::move(tag)), trail_(trail) {}
  void onEntityPtr(Name const& name) override {
    Ptr<Vesk::Entity> e = notifierRaw()->entry(name);
    std::string seen = tag_ + " " + name.stdString();
    if (auto config = Vesk::ptr_cast<Controller::ServiceMountConfig>(e)) {
      seen += " service=" + config->serviceName().stdString();
      seen += " leader=" + config->leaderGenId().stdString();
    }
    trail_.push_back(e ? seen : seen + " gone");
  }

 private:
  std::string tag_;
  std::vector<std::string>& trail_;
};

class WorldTest : public ::testing::Test {
 protected:
  static WorldOptions manual() {
    WorldOptions o;
    o.driver = DriverKind::manual;
    return o;
  }
  World world{manual()};
};

// ---- the world's frame --------------------------------------------------------------------

TEST(WorldFrame, InstallsItsClockAndDriverAndRestoresThePreviousOnes) {
  Vesk::ScopedManualActivity outer;
  auto outerDriver = std::make_shared<Controller::RecordingMountDriver>();
  Controller::mountDriverIs(outerDriver);
  {
    WorldOptions o;
    o.startTime = 7.0;
    World world(o);
    EXPECT_EQ(Vesk::currentActivity()->clock(), world.clock());
    EXPECT_EQ(world.now(), 7.0);
    EXPECT_EQ(Controller::mountDriver(), world.driver());
    EXPECT_NE(world.autoMountDriver(), nullptr);
    EXPECT_EQ(world.manualMountDriver(), nullptr);
  }
  EXPECT_EQ(Vesk::currentActivity(), outer.activity());
  EXPECT_EQ(Controller::mountDriver().get(), outerDriver.get());
  Controller::mountDriverIs(nullptr);
}

TEST_F(WorldTest, RecordsAreWiredAsTheSiblingsPublishThem) {
  EXPECT_EQ(world.oobConfig()->heartbeatConfig(), world.heartbeatConfig());
  EXPECT_EQ(world.oobStatus()->peerTable(), world.peerTable());

  Controller::MountsRegistry const& registry = *world.registry();
  EXPECT_EQ(registry.registryDir(), world.registryDir());
  EXPECT_EQ(registry.registryDirPath(), "/controller/mountsRegistry");
  EXPECT_EQ(registry.rootDir(), world.mountRootDir());
  EXPECT_EQ(registry.remoteRootPath(), "/remote");
  EXPECT_EQ(registry.reconnectRetries(), 3u);
  EXPECT_EQ(registry.mountTimeout(), 30.0);
  for (char const* dir : {"mountConfig", "mountStatus", "publishConfig", "publishStatus",
                          "proxyMountConfig", "proxyMountStatus", "mountsRegistry", "mounts"}) {
    EXPECT_NE(world.rootDir()->entry(dir), nullptr) << dir;
  }
  // The model's types can be created by name.
  EXPECT_NO_THROW(world.mountConfigDir()->entryIs("x", "Controller::ServiceMountConfig"));
}

TEST_F(WorldTest, RunUntilQuietStopsWhenNothingIsArmedOrAtTheLimit) {
  struct Timer : Vesk::Clock::Notifiee {
    using Notifiee::Notifiee;
    int fired = 0;
    void onTime() override { ++fired; }
  } early(world.clock()), late(world.clock());
  early.timeMinIs(5.0);
  late.timeMinIs(100.0);
  EXPECT_FALSE(world.runUntilQuiet(10.0));
  EXPECT_EQ(world.now(), 10.0);
  EXPECT_EQ(early.fired, 1);
  EXPECT_EQ(late.fired, 0);
  EXPECT_TRUE(world.runUntilQuiet(1000.0));
  EXPECT_EQ(world.now(), 100.0);
  EXPECT_EQ(late.fired, 1);
  EXPECT_EQ(world.advance(2.5), 0u);
  EXPECT_EQ(world.now(), 102.5);
}

// ---- switches -----------------------------------------------------------------------------

TEST_F(WorldTest, ASwitchJoinsThePeerTableWithItsRecordsAlreadySet) {
  PeerWatcher watcher;
  watcher.notifierIs(world.peerTable());
  SystemId const sw = world.connectSwitch(0x1234);
  EXPECT_EQ(sw.stringValue(), "00:1c:73:00:12:34");
  EXPECT_EQ(watcher.trail, (std::vector<std::string>{"00:1c:73:00:12:34 config services"}));

  Ptr<Controller::Peer> peer = world.peerTable()->peer(sw);
  ASSERT_TRUE(peer);
  Controller::ConnectionConfig const& config = *peer->connectionConfig();
  EXPECT_EQ(peer->connectionConfig(), world.connectionConfig(sw));
  EXPECT_EQ(peer->serviceStatusDir(), world.serviceStatusDir(sw));
  EXPECT_EQ(config.name(), "00:1c:73:00:12:34");
  EXPECT_EQ(config.remoteRoot(), "/remote");
  EXPECT_EQ(config.targetPath(), "/mounts/00:1c:73:00:12:34");
  EXPECT_EQ(config.reconnectRetries(), 3u);
  EXPECT_EQ(config.mountTimeout(), 30.0);

  world.connectSwitch(sw);  // already connected: nothing happens
  EXPECT_EQ(watcher.trail.size(), 1u);
  EXPECT_EQ(world.switches(), std::vector<SystemId>{sw});
}

TEST_F(WorldTest, RemovingASwitchTakesThePeerAndItsRecordsButNotItsInactiveMark) {
  PeerWatcher watcher;
  watcher.notifierIs(world.peerTable());
  SystemId const sw = world.connectSwitch(1);
  world.inactiveIs(sw, true);
  EXPECT_TRUE(world.oobStatus()->inactive(sw));
  world.removeSwitch(sw);
  EXPECT_EQ(watcher.trail.back(), "00:1c:73:00:00:01 gone");
  EXPECT_EQ(world.peerTable()->peerSize(), 0u);
  EXPECT_FALSE(world.connected(sw));
  EXPECT_EQ(world.connectionConfig(sw), nullptr);
  EXPECT_TRUE(world.oobStatus()->inactive(sw));
  world.inactiveDel(sw);
  EXPECT_EQ(world.oobStatus()->inactiveSize(), 0u);

  EXPECT_THROW(world.removeSwitch(sw), Vesk::RangeException);
  EXPECT_THROW(world.negotiate(sw, "Foo", 1), Vesk::RangeException);
}

// ---- service negotiation ------------------------------------------------------------------

TEST_F(WorldTest, ANegotiationPointsTheServiceAtAVersionStatusThatIsAlreadyComplete) {
  SystemId const sw = world.connectSwitch(1);
  world.serviceEnabledIs(sw, "Foo", false);
  Ptr<Controller::ServiceStatusV1> foo = world.serviceStatusDir(sw)->service("Foo");
  ASSERT_TRUE(foo);
  ServiceWatcher watcher;
  watcher.notifierIs(foo);

  world.negotiate(sw, "Foo", 2);
  EXPECT_EQ(watcher.trail,
            (std::vector<std::string>{"enabled on", "versionStatus on v2 complete compatible"}));
  Ptr<Controller::ServiceVersionStatusV1 const> first = foo->versionStatus();

  // A second negotiation updates the same version status; a renegotiation replaces it.
  world.negotiate(sw, "Foo", 3, {.complete = true, .compatible = false});
  EXPECT_EQ(foo->versionStatus(), first);
  EXPECT_EQ(first->negotiatedVersion(), 3u);
  EXPECT_FALSE(first->versionCompatible());
  world.renegotiate(sw, "Foo", 4);
  EXPECT_NE(foo->versionStatus(), first);
  EXPECT_EQ(watcher.trail.back(), "versionStatus on v4 complete compatible");

  world.serviceEnabledIs(sw, "Foo", false);
  EXPECT_FALSE(foo->enabled());
  world.serviceDel(sw, "Foo");
  EXPECT_EQ(world.serviceStatusDir(sw)->service("Foo"), nullptr);
}

// ---- service declarations -----------------------------------------------------------------

TEST_F(WorldTest, ADeclarationPlacesStatusThenConfigurationUnderTheAgentName) {
  std::vector<std::string> trail;
  DirWatcher config("config", trail), status("status", trail), proxyConfig("proxyConfig", trail),
      proxyStatus("proxyStatus", trail);
  config.notifierIs(world.mountConfigDir());
  status.notifierIs(world.mountStatusDir());
  proxyConfig.notifierIs(world.proxyMountConfigDir());
  proxyStatus.notifierIs(world.proxyMountStatusDir());

  world.leaderGenIdIs("9");
  ServiceDeclaration foo = world.declareService("FooAgent", "Foo");
  world.declareService("FooProxyAgent", "Foo-Proxy", /*proxy=*/true);
  EXPECT_EQ(trail,
            (std::vector<std::string>{"status FooAgent", "config FooAgent service=Foo leader=9",
                                      "proxyStatus FooProxyAgent",
                                      "proxyConfig FooProxyAgent service=Foo-Proxy leader=9"}));
  EXPECT_EQ(foo.status()->serviceName(), "Foo");
  EXPECT_EQ(foo.serviceName(), "Foo");

  trail.clear();
  world.undeclareService("FooAgent");
  EXPECT_EQ(trail, (std::vector<std::string>{"config FooAgent gone", "status FooAgent gone"}));
}

TEST_F(WorldTest, DeclarationHelpersFillFiltersBeforePointingTheGroupAtThem) {
  SystemId const sw1 = world.connectSwitch(1);
  SystemId const sw2 = world.connectSwitch(2);
  ServiceDeclaration foo = world.declareService("FooAgent", "Foo");
  Ptr<Controller::ServiceMountGroupConfig> group = foo.groupIs("g", /*preserve=*/true);
  EXPECT_TRUE(group->preserveMountsOnDisconnect());

  struct GroupWatcher : Controller::ServiceMountGroupConfig::NotifieeConst {
    std::vector<size_t> sizes;
    void onSystemFilter() override {
      sizes.push_back(notifierRaw()->systemFilter()->includedSystemSize());
    }
    void onVersionFilter() override {
      sizes.push_back(notifierRaw()->versionFilter()->includedServiceVersionSize());
    }
  } watcher;
  watcher.notifierIs(group);
  auto systems = foo.systemFilterIs("g", {sw1, sw2});
  auto versions = foo.versionFilterIs("g", {1, 2, 3});
  EXPECT_EQ(watcher.sizes, (std::vector<size_t>{2, 3}));
  EXPECT_TRUE(systems->includedSystem("00:1c:73:00:00:01"));
  EXPECT_TRUE(versions->includedServiceVersion(3));
  EXPECT_EQ(foo.config()->systemFilter("g"), systems);
  EXPECT_EQ(foo.config()->versionFilter("g"), versions);

  Ptr<Controller::MountConfig> plain = foo.mountIs("g", "/state/a");
  EXPECT_EQ(plain->targetMountPath(), "/state/a");
  EXPECT_EQ(plain->plovType(), "Vesk::Dir");
  Ptr<Controller::MountConfig> custom = foo.mountIs("h", "/state/b", "T", "ro", "/local/b");
  EXPECT_EQ(foo.config()->mountGroupConfig("h")->mountConfig("/state/b"), custom);
  EXPECT_EQ(custom->targetMountPath(), "/local/b");
}

TEST_F(WorldTest, RegistryMounterIsAddsTheEntryAndTheServicesMounter) {
  ServiceDeclaration foo = world.declareService("FooAgent", "Foo");
  foo.mountIs("g", "/state/a", "T", "ro", "/local/a");
  Ptr<Controller::Mounter> mounter = world.registryMounterIs(foo, "g", "/state/a");
  Ptr<Controller::MountsRegistryEntry> entry = world.registry()->mountEntry("/state/a");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->targetPath(), "/local/a");
  EXPECT_EQ(entry->veskType(), "T");
  EXPECT_EQ(entry->mountFlags(), "ro");
  EXPECT_EQ(entry->mounter("Foo"), mounter);
  // Two string literals would select the parsing constructor (begin, end).
  EXPECT_EQ(mounter->mounterName(), Controller::MounterName(String("Foo"), String("g")));
  EXPECT_EQ(mounter->mountGroupConfig(), foo.config()->mountGroupConfig("g"));
  EXPECT_EQ(mounter->serviceMountStatus(), foo.status());

  world.registryMounterIs(foo, "g", "/state/a", "other");
  EXPECT_NE(world.registry()->mountEntry("other"), nullptr);
  EXPECT_THROW(world.registryMounterIs(foo, "g", "/missing"), Vesk::RangeException);
}

// ---- the installed driver -----------------------------------------------------------------

TEST(WorldDriver, MachinesCreatedInTheWorldUseItsDriver) {
  for (DriverKind kind : {DriverKind::automatic, DriverKind::manual}) {
    WorldOptions o;
    o.driver = kind;
    World world(o);
    SystemId const sw = world.connectSwitch(1);
    Ptr<Controller::MountSmData> data(new Controller::MountSmData(sw, sw.stringValue()));
    Ptr<Controller::MountSm> sm(new Controller::MountSm(sw, world.connectionConfig(sw),
                                                        world.heartbeatConfig(), "/remote", "/p",
                                                        "/t", "T", "", 3, 30, data));
    EXPECT_EQ(sm->driver(), world.driver());
    world.runUntilQuiet(60.0);
    if (kind == DriverKind::automatic) {
      EXPECT_EQ(data->mountState(), Controller::mountStateMounted);
    } else {
      EXPECT_EQ(data->mountState(), Controller::mountStateNotMounted);
      ASSERT_EQ(world.manualMountDriver()->records().size(), 1u);
      EXPECT_EQ(world.manualMountDriver()->records()[0].request,
                Controller::MountDriver::Request::mount);
    }
  }
}

}  // namespace
}  // namespace Sim
