#include <gtest/gtest.h>

#include <string>

#include "sim/ExpectedMounts.h"
#include "sim/World.h"

namespace Sim {
namespace {

using Controller::SystemId;
using Vesk::Ptr;

constexpr Decision kMounted{true, false};
constexpr Decision kNotMounted{false, false};
constexpr Decision kPreserved{false, true};

class ExpectedMountsTest : public ::testing::Test {
 protected:
  static WorldOptions manual() {
    WorldOptions o;
    o.driver = DriverKind::manual;
    return o;
  }
  // A service with one mount of `path` in group "g", entered into the registry.
  ServiceDeclaration mounter(std::string const& service, std::string const& path = "/a",
                             bool proxy = false) {
    ServiceDeclaration d = world.declareService(service + "Agent", service, proxy);
    d.mountIs("g", path);
    return d;
  }
  Ptr<Controller::Mounter> enter(ServiceDeclaration const& d, std::string const& path = "/a") {
    return world.registryMounterIs(d, "g", path);
  }
  Decision decision(SystemId const& system, std::string const& entry = "/a") {
    ExpectedMounts const all = expectedMounts(world);
    auto it = all.find({entry, system.stringValue().stdString()});
    EXPECT_NE(it, all.end()) << entry << " " << system;
    return it == all.end() ? Decision{} : it->second;
  }

  World world{manual()};
  SystemId const sw1 = world.connectSwitch(1);
  SystemId const sw2 = world.connectSwitch(2);
};

// ---- negotiated versions ------------------------------------------------------------------

TEST_F(ExpectedMountsTest, EvenAWildcardGroupNeedsANegotiatedVersion) {
  enter(mounter("Foo"));
  EXPECT_EQ(decision(sw1), kNotMounted);
  world.negotiate(sw1, "Foo", 1);
  EXPECT_EQ(decision(sw1), kMounted);
  EXPECT_EQ(decision(sw2), kNotMounted);

  // Each way a negotiation can fall short leaves no version.
  world.negotiate(sw1, "Foo", 1, {.complete = false});
  EXPECT_EQ(decision(sw1), kNotMounted);
  world.negotiate(sw1, "Foo", 1, {.complete = true, .compatible = false});
  EXPECT_EQ(decision(sw1), kNotMounted);
  world.negotiate(sw1, "Foo", 1, {.complete = true, .compatible = true, .enabled = false});
  EXPECT_EQ(decision(sw1), kNotMounted);
  world.negotiate(sw1, "Foo", 0);
  EXPECT_EQ(decision(sw1), kNotMounted);
  world.negotiate(sw1, "Foo", 2);
  EXPECT_EQ(decision(sw1), kMounted);
  world.serviceDel(sw1, "Foo");
  EXPECT_EQ(decision(sw1), kNotMounted);
  EXPECT_EQ(negotiatedVersion(world, "Foo", sw1), 0u);
}

TEST_F(ExpectedMountsTest, AnyMountersVersionLetsAWildcardGroupMount) {
  enter(mounter("Foo"));  // wildcard, never negotiated
  ServiceDeclaration bar = mounter("Bar");
  bar.systemFilterIs("g", {sw2});
  enter(bar);
  world.negotiate(sw1, "Bar", 1);
  EXPECT_EQ(decision(sw1), kMounted);
}

TEST_F(ExpectedMountsTest, AProxyServiceUsesItsRealServicesNegotiation) {
  ServiceDeclaration proxy = mounter("Foo-Proxy", "/a", /*proxy=*/true);
  proxy.versionFilterIs("g", {3});
  enter(proxy);
  world.negotiate(sw1, "Foo-Proxy", 3);  // negotiated under the proxy name: does not count
  EXPECT_EQ(decision(sw1), kNotMounted);
  world.negotiate(sw1, "Foo", 3);
  EXPECT_EQ(negotiatedVersion(world, "Foo-Proxy", sw1), 3u);
  EXPECT_EQ(decision(sw1), kMounted);
  world.negotiate(sw1, "Foo", 4);
  EXPECT_EQ(decision(sw1), kNotMounted);
}

// ---- filters ------------------------------------------------------------------------------

TEST_F(ExpectedMountsTest, TheVersionFilterNarrowsBeforeTheSystemFilter) {
  ServiceDeclaration foo = mounter("Foo");
  foo.versionFilterIs("g", {2});
  foo.systemFilterIs("g", {sw1});
  enter(foo);
  world.negotiate(sw1, "Foo", 1);
  world.negotiate(sw2, "Foo", 2);
  EXPECT_EQ(decision(sw1), kNotMounted);  // in the system filter, wrong version
  EXPECT_EQ(decision(sw2), kNotMounted);  // right version, not in the system filter
  world.negotiate(sw1, "Foo", 2);
  EXPECT_EQ(decision(sw1), kMounted);
  // A member set to false is not included.
  foo.config()->systemFilter("g")->includedSystemIs(sw1.stringValue(), false);
  EXPECT_EQ(decision(sw1), kMounted);  // the connection filter is empty again
}

TEST_F(ExpectedMountsTest, TheVersionFilterIsAUnionOverServices) {
  ServiceDeclaration foo = mounter("Foo");
  foo.versionFilterIs("g", {1});
  enter(foo);
  ServiceDeclaration bar = mounter("Bar");
  bar.versionFilterIs("g", {5});
  enter(bar);
  world.negotiate(sw1, "Foo", 2);
  world.negotiate(sw1, "Bar", 5);
  EXPECT_EQ(decision(sw1), kMounted);  // through Bar
  world.negotiate(sw1, "Bar", 6);
  EXPECT_EQ(decision(sw1), kNotMounted);
  // Foo's 1 counts only for Foo: Bar at version 1 matches nothing.
  world.negotiate(sw1, "Bar", 1);
  EXPECT_EQ(decision(sw1), kNotMounted);
}

TEST_F(ExpectedMountsTest, TheConnectionFilterIsAUnionOverMounters) {
  ServiceDeclaration foo = mounter("Foo");
  foo.systemFilterIs("g", {sw1});
  enter(foo);
  ServiceDeclaration bar = mounter("Bar");
  bar.systemFilterIs("g", {sw2});
  enter(bar);
  SystemId const sw3 = world.connectSwitch(3);
  for (SystemId const& sw : {sw1, sw2, sw3}) world.negotiate(sw, "Foo", 1);
  EXPECT_EQ(decision(sw1), kMounted);
  EXPECT_EQ(decision(sw2), kMounted);
  EXPECT_EQ(decision(sw3), kNotMounted);
}

TEST_F(ExpectedMountsTest, AnEmptyFilterRestrictsNothing) {
  ServiceDeclaration foo = mounter("Foo");
  foo.versionFilterIs("g", {});
  foo.systemFilterIs("g", {});
  enter(foo);
  world.negotiate(sw1, "Foo", 9);
  EXPECT_EQ(decision(sw1), kMounted);
}

// ---- disconnected systems -----------------------------------------------------------------

TEST_F(ExpectedMountsTest, AnInactiveSystemIsUnmountedPreservingStateOnlyWhenAGroupAsks) {
  ServiceDeclaration foo = mounter("Foo");
  enter(foo);
  world.negotiate(sw1, "Foo", 1);
  world.inactiveIs(sw1, true);
  EXPECT_EQ(decision(sw1), kNotMounted);
  ServiceDeclaration bar = mounter("Bar");
  bar.groupIs("g", /*preserve=*/true);
  enter(bar);
  EXPECT_EQ(decision(sw1), kPreserved);
  world.inactiveIs(sw1, false);
  EXPECT_EQ(decision(sw1), kMounted);

  // Inactive and gone from the peer table: still listed, still preserving.
  world.inactiveIs(sw1, true);
  world.removeSwitch(sw1);
  EXPECT_EQ(decision(sw1), kPreserved);
}

TEST_F(ExpectedMountsTest, ARemovedSwitchIsUnmountedWithoutPreservingAndThenForgotten) {
  ServiceDeclaration foo = mounter("Foo");
  foo.groupIs("g", /*preserve=*/true);
  enter(foo);
  world.negotiate(sw1, "Foo", 1);
  EXPECT_EQ(decision(sw1), kMounted);
  // Gone from the table but still marked inactive=false: listed, not mounted, no preserve.
  world.inactiveIs(sw1, false);
  world.removeSwitch(sw1);
  EXPECT_EQ(decision(sw1), kNotMounted);
  world.inactiveDel(sw1);
  EXPECT_EQ(expectedMounts(world).count({"/a", sw1.stringValue().stdString()}), 0u);
}

TEST_F(ExpectedMountsTest, EveryEntryIsDecidedForEveryKnownSystem) {
  enter(mounter("Foo", "/a"), "/a");
  enter(mounter("Bar", "/b"), "/b");
  SystemId const gone = World::systemOf(9);
  world.inactiveIs(gone, true);
  ExpectedMounts const all = expectedMounts(world);
  EXPECT_EQ(all.size(), 6u);
  for (std::string entry : {"/a", "/b"}) {
    for (SystemId const& sw : {sw1, sw2, gone}) {
      EXPECT_EQ(all.count({entry, sw.stringValue().stdString()}), 1u) << entry << " " << sw;
    }
  }
}

// ---- one mounter's interest ---------------------------------------------------------------

TEST_F(ExpectedMountsTest, AMounterIsInterestedWhenEachOfItsGroupsFiltersAccepts) {
  ServiceDeclaration foo = mounter("Foo");
  Ptr<Controller::Mounter> m = enter(foo);
  EXPECT_TRUE(mounterIsInterested(world, *m, sw1));  // no filter: every connection

  foo.systemFilterIs("g", {sw1});
  EXPECT_TRUE(mounterIsInterested(world, *m, sw1));
  EXPECT_FALSE(mounterIsInterested(world, *m, sw2));

  foo.versionFilterIs("g", {2});
  EXPECT_FALSE(mounterIsInterested(world, *m, sw1));  // no version yet
  world.negotiate(sw1, "Foo", 2);
  EXPECT_TRUE(mounterIsInterested(world, *m, sw1));
  world.negotiate(sw2, "Foo", 2);
  EXPECT_FALSE(mounterIsInterested(world, *m, sw2));  // the system filter still says no

  ServiceDeclaration proxy = mounter("Foo-Proxy", "/p", /*proxy=*/true);
  proxy.versionFilterIs("g", {2});
  Ptr<Controller::Mounter> pm = world.registryMounterIs(proxy, "g", "/p");
  EXPECT_TRUE(mounterIsInterested(world, *pm, sw1));
}

}  // namespace
}  // namespace Sim
