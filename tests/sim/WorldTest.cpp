#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/core/Exception.h"
#include "framework/time/Activity.h"
#include "sim/World.h"

namespace Sim {
namespace {

using Controller::SystemId;
using Vesk::Name;
using Vesk::Ptr;
using Trail = std::vector<std::string>;

// What the siblings' readers see at each notification, in one shared trail.
struct PeerWatcher : Controller::PeerTable::NotifieeConst {
  Trail* trail = nullptr;
  void onPeer(SystemId const& system) override {
    Ptr<Controller::Peer> peer = notifierRaw()->peer(system);
    trail->push_back("peer " + system.stringValue().stdString() +
                     (!peer                                                  ? " gone"
                      : peer->connectionConfig() && peer->serviceStatusDir() ? " with records"
                                                                             : " without"));
  }
};
struct ServiceWatcher : Controller::ServiceStatusV1::NotifieeConst {
  Trail* trail = nullptr;
  void onEnabled() override { trail->push_back(describe("enabled")); }
  void onVersionStatus() override { trail->push_back(describe("versionStatus")); }
  std::string describe(char const* what) const {
    Controller::ServiceStatusV1 const& s = *notifierRaw();
    auto const& v = s.versionStatus();
    return what + std::string(s.enabled() ? " on" : " off") +
           (!v ? "" : " v" + std::to_string(v->negotiatedVersion())) +
           (v && !(v->versionNegotiationComplete() && v->versionCompatible()) ? " unusable" : "");
  }
};
struct DirWatcher : Vesk::Dir::NotifieeConst {
  Trail* trail = nullptr;
  std::string tag;
  void onEntityPtr(Name const& name) override {
    Ptr<Vesk::Entity> e = notifierRaw()->entry(name);
    std::string seen = tag + " " + name.stdString();
    if (auto config = Vesk::ptr_cast<Controller::ServiceMountConfig>(e)) {
      seen += " service=" + config->serviceName().stdString();
      seen += " leader=" + config->leaderGenId().stdString();
    }
    trail->push_back(e ? seen : seen + " gone");
  }
};
struct GroupWatcher : Controller::ServiceMountGroupConfig::NotifieeConst {
  Trail* trail = nullptr;
  void onSystemFilter() override {
    trail->push_back("systemFilter of " +
                     std::to_string(notifierRaw()->systemFilter()->includedSystemSize()));
  }
  void onVersionFilter() override {
    trail->push_back("versionFilter of " +
                     std::to_string(notifierRaw()->versionFilter()->includedServiceVersionSize()));
  }
};

TEST(WorldFrame, InstallsItsClockAndDriverAndRestoresThePreviousOnes) {
  Vesk::ScopedManualActivity outer;
  auto outerDriver = std::make_shared<Controller::RecordingMountDriver>();
  Controller::mountDriverIs(outerDriver);
  {
    World world;
    EXPECT_EQ(Vesk::currentActivity()->clock(), world.clock());
    EXPECT_EQ(Controller::mountDriver(), world.driver());
  }
  EXPECT_EQ(Vesk::currentActivity(), outer.activity());
  EXPECT_EQ(Controller::mountDriver().get(), outerDriver.get());
  Controller::mountDriverIs(nullptr);
}

TEST(WorldRecords, OperationsShowUpInTheRecordsASiblingReads) {
  World world;
  Trail trail;
  PeerWatcher peers;
  peers.trail = &trail;
  peers.notifierIs(world.oobStatus()->peerTable());
  SystemId const sw = world.connectSwitch(0x1234);
  world.connectSwitch(sw);  // already connected: nothing happens
  Controller::ConnectionConfig const& config = *world.peerTable()->peer(sw)->connectionConfig();
  EXPECT_EQ(config.remoteRoot(), "/remote");
  EXPECT_EQ(config.targetPath(), "/mounts/00:1c:73:00:12:34");
  EXPECT_EQ(config.reconnectRetries(), 3u);

  world.serviceEnabledIs(sw, "Foo", false);
  Ptr<Controller::ServiceStatusV1> status = world.serviceStatusDir(sw)->service("Foo");
  ServiceWatcher service;
  service.trail = &trail;
  service.notifierIs(status);
  world.negotiate(sw, "Foo", 2);
  Ptr<Controller::ServiceVersionStatusV1 const> first = status->versionStatus();
  world.negotiate(sw, "Foo", 3, {.complete = true, .compatible = false});  // the same record
  EXPECT_EQ(status->versionStatus(), first);
  world.renegotiate(sw, "Foo", 4);  // a fresh record
  EXPECT_NE(status->versionStatus(), first);

  DirWatcher dirs[4];
  Ptr<Vesk::Dir> const watched[] = {world.mountStatusDir(), world.mountConfigDir(),
                                    world.proxyMountStatusDir(), world.proxyMountConfigDir()};
  for (int i = 0; i < 4; ++i) {
    dirs[i].trail = &trail;
    dirs[i].tag = std::string(i < 2 ? "" : "proxy ") + (i % 2 ? "config" : "status");
    dirs[i].notifierIs(watched[i]);
  }
  world.leaderGenIdIs("9");
  ServiceDeclaration foo = world.declareService("FooAgent", "Foo");
  world.declareService("FooProxyAgent", "Foo-Proxy", /*proxy=*/true);
  // The helpers fill a filter before they point the group at it.
  GroupWatcher group;
  group.trail = &trail;
  group.notifierIs(foo.groupIs("g"));
  foo.systemFilterIs("g", {sw, World::systemOf(2)});
  foo.versionFilterIs("g", {1, 2, 3});
  world.undeclareService("FooAgent");

  world.inactiveIs(sw, true);
  world.removeSwitch(sw);
  EXPECT_TRUE(world.oobStatus()->inactive(sw));  // the mark stays
  EXPECT_EQ(world.connectionConfig(sw), nullptr);
  EXPECT_EQ(trail, (Trail{"peer 00:1c:73:00:12:34 with records", "enabled on",
                          "versionStatus on v2", "versionStatus on v4", "status FooAgent",
                          "config FooAgent service=Foo leader=9", "proxy status FooProxyAgent",
                          "proxy config FooProxyAgent service=Foo-Proxy leader=9",
                          "systemFilter of 2", "versionFilter of 3", "config FooAgent gone",
                          "status FooAgent gone", "peer 00:1c:73:00:12:34 gone"}));
  EXPECT_THROW(world.negotiate(sw, "Foo", 1), Vesk::RangeException);
}

}  // namespace
}  // namespace Sim
