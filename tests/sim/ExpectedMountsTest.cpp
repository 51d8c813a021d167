#include <gtest/gtest.h>

#include <string>

#include "sim/ExpectedMounts.h"
#include "sim/World.h"

namespace Sim {
namespace {

using Controller::SystemId;

constexpr Decision kMounted{true, false};
constexpr Decision kNotMounted{false, false};
constexpr Decision kPreserved{false, true};

// One test per rule of the reference answer, over one world with switches 1 and 2.
class ExpectedMountsTest : public ::testing::Test {
 protected:
  // A service with one mount "/a" in group "g", entered into the registry.
  ServiceDeclaration mounter(std::string const& service, bool proxy = false) {
    ServiceDeclaration d = world.declareService(service + "Agent", service, proxy);
    d.mountIs("g", "/a");
    world.registryMounterIs(d, "g", "/a");
    return d;
  }
  // Throws when the answer leaves the system out.
  Decision decision(SystemId const& system) {
    return expectedMounts(world).at({"/a", system.stringValue().stdString()});
  }

  World world;
  SystemId const sw1 = world.connectSwitch(1);
  SystemId const sw2 = world.connectSwitch(2);
};

TEST_F(ExpectedMountsTest, EvenAWildcardGroupNeedsANegotiatedVersion) {
  mounter("Foo");
  EXPECT_EQ(decision(sw1), kNotMounted);
  struct {
    uint32_t version;
    Negotiation how;
    Decision expected;
  } const cases[] = {
      {1, {}, kMounted},
      {1, {.complete = false}, kNotMounted},
      {1, {.complete = true, .compatible = false}, kNotMounted},
      {1, {.complete = true, .compatible = true, .enabled = false}, kNotMounted},
      {0, {}, kNotMounted},
      {2, {}, kMounted},
  };
  for (auto const& c : cases) {
    world.negotiate(sw1, "Foo", c.version, c.how);
    EXPECT_EQ(decision(sw1), c.expected) << c.version;
  }
  EXPECT_EQ(decision(sw2), kNotMounted);
  world.serviceDel(sw1, "Foo");
  EXPECT_EQ(decision(sw1), kNotMounted);
  EXPECT_EQ(negotiatedVersion(world, "Foo", sw1), 0u);

  // Any mounter's version will do: Bar's filter leaves sw1 out, Foo's wildcard takes it.
  mounter("Bar").systemFilterIs("g", {sw2});
  world.negotiate(sw1, "Bar", 1);
  EXPECT_EQ(decision(sw1), kMounted);
}

TEST_F(ExpectedMountsTest, TheVersionFilterNarrowsBeforeTheSystemFilter) {
  ServiceDeclaration foo = mounter("Foo");
  foo.versionFilterIs("g", {2});
  foo.systemFilterIs("g", {sw1});
  world.negotiate(sw1, "Foo", 1);
  world.negotiate(sw2, "Foo", 2);
  EXPECT_EQ(decision(sw1), kNotMounted);  // in the system filter, wrong version
  EXPECT_EQ(decision(sw2), kNotMounted);  // right version, not in the system filter
  world.negotiate(sw1, "Foo", 2);
  EXPECT_EQ(decision(sw1), kMounted);
  // A member set to false is not included: the connection filter is empty again.
  foo.config()->systemFilter("g")->includedSystemIs(sw1.stringValue(), false);
  EXPECT_EQ(decision(sw2), kMounted);
}

TEST_F(ExpectedMountsTest, AProxyServiceUsesItsRealServicesNegotiation) {
  mounter("Foo-Proxy", /*proxy=*/true).versionFilterIs("g", {3});
  world.negotiate(sw1, "Foo-Proxy", 3);  // negotiated under the proxy name: does not count
  EXPECT_EQ(decision(sw1), kNotMounted);
  world.negotiate(sw1, "Foo", 3);
  EXPECT_EQ(negotiatedVersion(world, "Foo-Proxy", sw1), 3u);
  EXPECT_EQ(decision(sw1), kMounted);
  world.negotiate(sw1, "Foo", 4);
  EXPECT_EQ(decision(sw1), kNotMounted);
}

// An inactive system is unmounted, preserving its state only when a group asks; a removed one
// that is not marked inactive is unmounted without preserving, and forgotten once unmarked.
TEST_F(ExpectedMountsTest, InactiveAndRemovedSystemsAreUnmountedPreservingOnlyWhenInactive) {
  mounter("Foo");
  world.negotiate(sw1, "Foo", 1);
  world.negotiate(sw2, "Foo", 1);
  world.inactiveIs(sw1, true);
  EXPECT_EQ(decision(sw1), kNotMounted);
  mounter("Bar").groupIs("g", /*preserve=*/true);
  EXPECT_EQ(decision(sw1), kPreserved);
  world.inactiveIs(sw1, false);
  EXPECT_EQ(decision(sw1), kMounted);
  // Inactive and gone from the peer table: still listed, still preserving.
  world.inactiveIs(sw1, true);
  world.removeSwitch(sw1);
  EXPECT_EQ(decision(sw1), kPreserved);

  EXPECT_EQ(decision(sw2), kMounted);
  world.inactiveIs(sw2, false);
  world.removeSwitch(sw2);
  EXPECT_EQ(decision(sw2), kNotMounted);
  world.inactiveDel(sw2);
  EXPECT_EQ(expectedMounts(world).count({"/a", sw2.stringValue().stdString()}), 0u);
}

}  // namespace
}  // namespace Sim
