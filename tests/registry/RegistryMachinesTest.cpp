// The registry machines, driven as in a controller: sibling records and service
// declarations change, the clock advances, and the tests read back the mount machine
// requests, the status each service sees, the traces and the failure texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "framework/Trace.h"
#include "registry/ConnectionServiceStatusDirSm.h"
#include "registry/MountGroupSummary.h"
#include "registry/MounterConfigSm.h"
#include "registry/MountsRegistryEntrySm.h"
#include "registry/MountsRegistrySm.h"
#include "registry/PublishRegistryEntrySm.h"
#include "sim/ExpectedMounts.h"
#include "sim/ExpectedPublishes.h"
#include "sim/World.h"
#include "tests/support/FailureText.h"

namespace Controller {
namespace {

using Request = MountDriver::Request;
using Record = RecordingMountDriver::Record;

Sim::WorldOptions manualDriver() {
  Sim::WorldOptions o;
  o.driver = Sim::DriverKind::manual;
  return o;
}

class RegistryMachines : public ::testing::Test {
 protected:
  explicit RegistryMachines(Sim::WorldOptions const& options = manualDriver()) : world(options) {}

  void TearDown() override {
    if (sm) sm->doCleanup();
    sm = nullptr;
  }

  void start() { sm = world.startRegistry(); }

  // A service whose group mounts the paths, registered as its configuration machine would.
  Sim::ServiceDeclaration mounting(char const* service, char const* group,
                                   std::initializer_list<char const*> paths,
                                   bool preserve = false) {
    auto svc = world.declareService(Vesk::Name(std::string(service) + "Agent"), service);
    svc.groupIs(group, preserve);
    for (char const* path : paths) {
      svc.mountIs(group, path);
      world.registryMounterIs(svc, group, path);
    }
    return svc;
  }

  RecordingMountDriver& driver() { return *world.manualMountDriver(); }
  std::vector<Record> requests() {
    std::vector<Record> r = driver().records();
    driver().recordsDelAll();
    return r;
  }
  // The requests that change what is mounted: every re-evaluation of a machine that has not
  // settled yet also asks for a remount, which these leave out.
  std::vector<Record> decisions() {
    std::vector<Record> r = requests();
    std::erase_if(r, [](Record const& x) { return x.request == Request::remount; });
    return r;
  }
  static Record req(SystemId const& s, char const* path, Request r) {
    return Record{s.stringValue(), path, r};
  }

  Vesk::Ptr<MountsRegistryEntrySm> entrySm(char const* path) {
    return sm->mountsRegistryEntrySm(Vesk::Name(path));
  }
  Vesk::Ptr<MountSmData> data(char const* path, SystemId const& s) {
    auto e = entrySm(path);
    return e ? e->mountSmData(s) : nullptr;
  }
  void settle(char const* path, SystemId const& s, MountState state) {
    ASSERT_TRUE(data(path, s)) << path << " has no mount machine for " << s;
    data(path, s)->mountStateIs(state);
  }

  // The mount status a service sees, or null.
  static Vesk::Ptr<MountStatus> mountStatus(Sim::ServiceDeclaration const& svc, SystemId const& s,
                                            char const* group, char const* path) {
    auto sys = svc.status()->systemStatus(Vesk::Name(s.stringValue()));
    auto grp = sys ? sys->serviceMountGroupStatus(Vesk::Name(group)) : nullptr;
    return grp ? grp->mountStatus(Vesk::Name(path)) : nullptr;
  }
  static Vesk::Ptr<ServiceMountGroupStatus> groupStatus(Sim::ServiceDeclaration const& svc,
                                                        SystemId const& s, char const* group) {
    auto sys = svc.status()->systemStatus(Vesk::Name(s.stringValue()));
    return sys ? sys->serviceMountGroupStatus(Vesk::Name(group)) : nullptr;
  }

  Sim::World world;
  Vesk::Ptr<MountsRegistrySm> sm;
};

// ---- the decision -------------------------------------------------------------------------

TEST_F(RegistryMachines, ANegotiatedVersionIsRequiredEvenForAWildcard) {
  auto svc = mounting("Foo", "g", {"/a"});
  SystemId s1 = world.connectSwitch(1);
  start();
  EXPECT_TRUE(entrySm("/a")->wildCardMount());
  EXPECT_TRUE(requests().empty());

  world.negotiate(s1, "Bar", 1);  // another service's version does not count
  EXPECT_TRUE(requests().empty());
  world.negotiate(s1, "Foo", 2, {.complete = false});
  EXPECT_TRUE(requests().empty());
  world.negotiate(s1, "Foo", 2);
  EXPECT_EQ(requests(), (std::vector<Record>{req(s1, "/a", Request::mount)}));
}

TEST_F(RegistryMachines, TwoServicesOnOneEntryOneWildcardWriteStatusWhereInterested) {
  SystemId s1 = world.connectSwitch(1), s2 = world.connectSwitch(2);
  auto foo = mounting("Foo", "all", {"/a"});
  auto bar = mounting("Bar", "some", {"/a"});
  bar.systemFilterIs("some", {s2});
  world.negotiate(s1, "Bar", 1);
  world.negotiate(s2, "Foo", 1);
  world.negotiate(s2, "Bar", 1);
  start();
  auto r = decisions();
  std::sort(r.begin(), r.end(),
            [](Record const& a, Record const& b) { return a.system < b.system; });
  EXPECT_EQ(r, (std::vector<Record>{req(s1, "/a", Request::mount), req(s2, "/a", Request::mount)}));

  settle("/a", s1, mountStateMounted);
  settle("/a", s2, mountStateMounted);
  ASSERT_TRUE(mountStatus(foo, s1, "all", "/a"));
  EXPECT_EQ(mountStatus(foo, s1, "all", "/a")->mountState(), mountStateMounted);
  EXPECT_EQ(mountStatus(foo, s2, "all", "/a")->mountState(), mountStateMounted);
  EXPECT_FALSE(mountStatus(bar, s1, "some", "/a")) << "Bar's group does not include s1";
  EXPECT_TRUE(groupStatus(bar, s1, "some")->processed());
  ASSERT_TRUE(mountStatus(bar, s2, "some", "/a"));
  EXPECT_EQ(mountStatus(bar, s2, "some", "/a")->mountedPath(),
            entrySm("/a")->mountSm(s2)->targetPath() + "//a")
      << "the target, \"/\" and the entry's path, as they are";
  EXPECT_EQ(groupStatus(bar, s2, "some")->mountState(), mountStateMounted);
}

TEST_F(RegistryMachines, VersionFilterNarrowsBeforeTheSystemFilter) {
  SystemId s1 = world.connectSwitch(1), s2 = world.connectSwitch(2), s3 = world.connectSwitch(3);
  auto foo = mounting("Foo", "g", {"/a"});
  foo.versionFilterIs("g", {2});
  foo.systemFilterIs("g", {s1, s2});
  world.negotiate(s1, "Foo", 2);
  world.negotiate(s2, "Foo", 1);
  world.negotiate(s3, "Foo", 2);
  Vesk::TraceCapture capture;
  start();
  EXPECT_EQ(decisions(), (std::vector<Record>{req(s1, "/a", Request::mount)}));
  EXPECT_TRUE(capture.contains(" version filter not matched for " + s2.stringValue().stdString()));
  EXPECT_TRUE(capture.contains(" not in connectionFilter:" + s3.stringValue().stdString()));
  EXPECT_TRUE(capture.contains(" matched version:2 service:Foo connection:" +
                               s1.stringValue().stdString()));

  world.renegotiate(s2, "Foo", 2);  // a renegotiated version re-evaluates the connection
  EXPECT_EQ(decisions(), (std::vector<Record>{req(s2, "/a", Request::mount)}));

  // A mounter that arrives with both filters is decided with both folded in: s3 passes its
  // system filter but not its version filter, and is not mounted on the way.
  auto bar = world.declareService("barAgent", "Bar");
  bar.mountIs("h", "/b");
  bar.versionFilterIs("h", {2});
  bar.systemFilterIs("h", {s3});
  world.negotiate(s3, "Bar", 1);
  world.registryMounterIs(bar, "h", "/b");
  EXPECT_TRUE(requests().empty());
}

// ---- mount machines -----------------------------------------------------------------------

TEST_F(RegistryMachines, AnUnsettledMachineIsRemountedOnEveryReevaluation) {
  SystemId s1 = world.connectSwitch(1);
  auto foo = mounting("Foo", "g", {"/a"});
  world.negotiate(s1, "Foo", 1);
  start();
  requests();
  settle("/a", s1, mountStateMounting);
  world.establishedIs(false);  // any full re-evaluation
  world.establishedIs(true);
  EXPECT_EQ(requests(), (std::vector<Record>{req(s1, "/a", Request::remount),
                                             req(s1, "/a", Request::remount)}));
  // A remount carries the peer's connection configuration of the moment.
  auto moved = connectionConfigFactory("moved");
  world.peerTable()->peer(s1)->connectionConfigIs(moved);
  world.establishedIs(false);
  world.establishedIs(true);
  EXPECT_EQ(entrySm("/a")->mountSm(s1)->connectionConfig(), moved);
  requests();
  settle("/a", s1, mountStateMounted);
  world.establishedIs(false);
  EXPECT_TRUE(requests().empty()) << "a settled mount only has its status rewritten";
  entrySm("/a")->mountSm(s1)->pendingRequestIs(true);
  world.establishedIs(true);
  EXPECT_EQ(requests(), (std::vector<Record>{req(s1, "/a", Request::remount)}));
}

TEST_F(RegistryMachines, AMachineIsDeletedWhenItsStateReturnsToZero) {
  SystemId s1 = world.connectSwitch(1);
  auto foo = mounting("Foo", "g", {"/a"});
  world.negotiate(s1, "Foo", 1);
  start();
  long const machines = Vesk::liveObjects<MountSm>();
  settle("/a", s1, mountStateConnecting);
  requests();
  world.serviceDel(s1, "Foo");  // the connection's last service goes
  EXPECT_EQ(requests(), (std::vector<Record>{req(s1, "/a", Request::unmount)}));
  EXPECT_EQ(sm->connectionServiceStatusDirSm(Vesk::Name(s1.stringValue()))->serviceStatusSize(),
            0u);
  EXPECT_EQ(entrySm("/a")->mountSmSize(), 1u) << "kept until the unmount is reported";
  Vesk::TraceCapture capture;
  settle("/a", s1, mountStateNotMounted);
  EXPECT_EQ(entrySm("/a")->mountSmSize(), 0u);
  EXPECT_EQ(Vesk::liveObjects<MountSm>(), machines - 1);
  EXPECT_EQ(requests(), (std::vector<Record>{req(s1, "/a", Request::cleanup)}));
  EXPECT_TRUE(capture.contains(": Deleting mountSm for " + s1.stringValue().stdString()));
  EXPECT_EQ(mountStatus(foo, s1, "g", "/a")->mountState(), mountStateNotMounted);
}

TEST_F(RegistryMachines, TheGroupSummaryLetsFailureWinAndReadsDisagreementAsZero) {
  SystemId s1 = world.connectSwitch(1);
  auto foo = world.declareService("fooAgent", "Foo");
  for (char const* p : {"/a", "/b"}) {
    foo.mountIs("g", p);
    world.registryMounterIs(foo, "g", p);
  }
  world.negotiate(s1, "Foo", 1);
  start();
  settle("/b", s1, mountStateConnecting);
  EXPECT_EQ(groupStatus(foo, s1, "g")->mountState(), mountStateConnecting)
      << "the summary covers the mounts that have reported";
  settle("/a", s1, mountStateMounted);
  EXPECT_EQ(groupStatus(foo, s1, "g")->mountState(), mountStateNotMounted);
  settle("/b", s1, mountStateMounted);
  EXPECT_EQ(groupStatus(foo, s1, "g")->mountState(), mountStateMounted);
  settle("/b", s1, mountStateFailed);
  EXPECT_EQ(groupStatus(foo, s1, "g")->mountState(), mountStateFailed);
  settle("/a", s1, mountStateMounting);
  EXPECT_EQ(groupStatus(foo, s1, "g")->mountState(), mountStateFailed);
  settle("/b", s1, mountStateMounting);
  EXPECT_EQ(groupStatus(foo, s1, "g")->mountState(), mountStateMounting);
  EXPECT_EQ(mountStatus(foo, s1, "g", "/a")->mountedPath(),
            entrySm("/a")->mountSm(s1)->targetPath() + "//a")
      << "a mount that leaves the mounted state keeps its last mounted path";
}

// A group status held no mount when another entry's mounter of the same group left, so that
// mounter's cleanup took it, and the system status with it; the mount still on its way must
// still reach the service.
TEST_F(RegistryMachines, AMountInFlightReachesItsServiceAfterAnotherEntryTookItsEmptyGroup) {
  SystemId s1 = world.connectSwitch(1);
  mounting("Foo", "all", {"/a"});
  auto baz = mounting("Baz", "few", {"/a", "/b"});
  baz.systemFilterIs("few", {});
  world.negotiate(s1, "Foo", 1);
  start();
  settle("/a", s1, mountStateConnecting);
  baz.config()->systemFilter("few")->includedSystemIs(s1.stringValue(), true);
  ASSERT_TRUE(groupStatus(baz, s1, "few"));
  EXPECT_FALSE(mountStatus(baz, s1, "few", "/a")) << "written when the mount next reports";

  world.registry()->mountEntryDel("/b");
  EXPECT_FALSE(baz.status()->systemStatus(Vesk::Name(s1.stringValue())));
  settle("/a", s1, mountStateMounted);
  ASSERT_TRUE(mountStatus(baz, s1, "few", "/a"));
  EXPECT_EQ(mountStatus(baz, s1, "few", "/a")->mountState(), mountStateMounted);
  EXPECT_EQ(groupStatus(baz, s1, "few")->mountState(), mountStateMounted);
}

// Names come from services' declarations as they are: empty, without a leading slash, or
// naming no system at all.
TEST_F(RegistryMachines, OddPathsAndFilterMembersAreTakenAsTheyAre) {
  SystemId s1 = world.connectSwitch(1), s2 = world.connectSwitch(2);
  auto foo = mounting("Foo", "g", {"", "noslash", "/a//b/"});
  auto bar = mounting("Bar", "", {"/x"});
  bar.systemFilterIs("", {s1});
  for (char const* member : {"garbage", "", "00:1c:73"}) {
    bar.config()->systemFilter("")->includedSystemIs(member, true);
  }
  for (SystemId const& s : {s1, s2}) {
    world.negotiate(s, "Foo", 1);
    world.negotiate(s, "Bar", 1);
  }
  start();
  EXPECT_TRUE(data("/x", s1));
  EXPECT_FALSE(data("/x", s2)) << "no other member names a system";
  for (char const* path : {"", "noslash", "/a//b/"}) {
    settle(path, s1, mountStateMounted);
    ASSERT_TRUE(mountStatus(foo, s1, "g", path)) << "'" << path << "'";
    EXPECT_EQ(mountStatus(foo, s1, "g", path)->mountedPath(),
              entrySm(path)->mountSm(s1)->targetPath() + "/" + path);
  }
  bar.config()->systemFilter("")->includedSystemDel("garbage");
  world.registry()->mountEntryDel("");
  EXPECT_FALSE(entrySm(""));
}

TEST_F(RegistryMachines, AVersionReportVisitsOnlyTheEntriesOfItsService) {
  SystemId s1 = world.connectSwitch(1);
  mounting("Foo", "g", {"/a", "/b"});
  mounting("Bar-Proxy", "g", {"/b", "/c"});
  start();
  EXPECT_EQ(sm->entriesOfService("Foo"), 2u);
  EXPECT_EQ(sm->entriesOfService("Bar"), 2u) << "a proxy's entries count for its real service";
  auto decisionsOf = [&](char const* path) { return entrySm(path)->decisions(); };
  uint64_t const a = decisionsOf("/a"), b = decisionsOf("/b"), c = decisionsOf("/c");
  world.negotiate(s1, "Bar", 1);
  EXPECT_EQ(decisionsOf("/a"), a);
  EXPECT_EQ(decisionsOf("/b"), b + 1);
  EXPECT_EQ(decisionsOf("/c"), c + 1);

  world.registry()->mountEntry("/b")->mounterDel("Bar-Proxy");
  EXPECT_EQ(sm->entriesOfService("Bar"), 1u);
  uint64_t const b2 = decisionsOf("/b");
  world.renegotiate(s1, "Bar", 2);
  EXPECT_EQ(decisionsOf("/b"), b2) << "/b no longer has a mounter of Bar";
  world.registry()->mountEntryDel("/a");
  world.registry()->mountEntryDel("/b");
  EXPECT_EQ(sm->entriesOfService("Foo"), 0u);
}

TEST(MountGroupSummaries, AGroupChangedWithoutAReportIsCountedAfresh) {
  MountGroupSummaries summaries;
  Vesk::Ptr<ServiceMountGroupStatus> group(new ServiceMountGroupStatus("g"));
  for (char const* p : {"/a", "/b"}) group->mountStatusIs(p)->mountStateIs(mountStateMounted);
  EXPECT_EQ(summaries.summary(*group, mountStateMounted), mountStateMounted);
  group->mountStatusIs("/c");  // not reported: still in state 0
  EXPECT_EQ(summaries.summary(*group, mountStateMounted), mountStateNotMounted);
  summaries.mountStateIs(*group, *group->mountStatus("/c"), mountStateFailed);
  EXPECT_EQ(summaries.summary(*group, mountStateMounted), mountStateFailed);
  summaries.mountStatusDel(*group, "/c");
  EXPECT_EQ(summaries.summary(*group, mountStateMounted), mountStateMounted);
  summaries.groupDel(*group);
  EXPECT_EQ(summaries.groups(), 0u);
}

TEST(MountGroupSummaries, AKeptPlaceIsTrustedOnlyWhileItHoldsItsGroup) {
  MountGroupSummaries summaries;
  Vesk::Ptr<ServiceMountGroupStatus> up(new ServiceMountGroupStatus("up"));
  Vesk::Ptr<ServiceMountGroupStatus> down(new ServiceMountGroupStatus("down"));
  up->mountStatusIs("/a")->mountStateIs(mountStateMounted);
  down->mountStatusIs("/a")->mountStateIs(mountStateFailed);
  MountGroupSummaries::Place place = MountGroupSummaries::kNoPlace;
  EXPECT_EQ(summaries.summary(*up, mountStateMounted, &place), mountStateMounted);
  summaries.groupDel(*up);
  EXPECT_EQ(summaries.summary(*down, mountStateMounted), mountStateFailed)
      << "the other group's record takes the place given up";
  EXPECT_EQ(summaries.summary(*up, mountStateMounted, &place), mountStateMounted);
  EXPECT_EQ(summaries.summary(*down, mountStateMounted, &place), mountStateFailed);
  summaries.mountStateIs(*up, *up->mountStatus("/a"), mountStateFailed, &place);
  EXPECT_EQ(summaries.groups(), 2u);
}

TEST_F(RegistryMachines, ThreeServicesOnOneEntryEachSeeEveryStateOfTheMount) {
  SystemId s1 = world.connectSwitch(1);
  std::vector<Sim::ServiceDeclaration> services;
  for (char const* name : {"Foo", "Bar", "Baz"}) {
    services.push_back(mounting(name, "g", {"/a"}));
    world.negotiate(s1, name, 1);
  }
  start();
  settle("/a", s1, mountStateMounting);
  long const held = Vesk::liveObjectTotal();  // the mount keeps one set of records a service
  for (MountState state : {mountStateConnecting, mountStateMounted, mountStateFailed}) {
    settle("/a", s1, state);
    EXPECT_EQ(Vesk::liveObjectTotal(), held) << "a change of state finds the records it kept";
    for (auto const& svc : services) {
      ASSERT_TRUE(mountStatus(svc, s1, "g", "/a")) << svc.serviceName();
      EXPECT_EQ(mountStatus(svc, s1, "g", "/a")->mountState(), state) << svc.serviceName();
      EXPECT_EQ(groupStatus(svc, s1, "g")->mountState(), state) << svc.serviceName();
    }
  }
  EXPECT_EQ(mountStatus(services[2], s1, "g", "/a")->mountedPath(),
            entrySm("/a")->mountSm(s1)->targetPath() + "//a");
}

TEST_F(RegistryMachines, MountMachinesGetTheRegistrysParametersWithTheirNoLimitForms) {
  SystemId s1 = world.connectSwitch(1);
  auto foo = mounting("Foo", "g", {"/a"});
  world.negotiate(s1, "Foo", 1);
  start();
  auto m = entrySm("/a")->mountSm(s1);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->remoteRoot(), world.registry()->remoteRootPath());
  EXPECT_EQ(m->path(), "/a");
  EXPECT_EQ(m->targetPath(), "/controller/mounts/00:1c:73:00:00:01");
  EXPECT_EQ(m->veskType(), "Vesk::Dir");
  EXPECT_EQ(m->flags(), "");
  EXPECT_EQ(m->reconnectRetries(), world.registry()->reconnectRetries());
  EXPECT_EQ(m->mountTimeout(), uint32_t(world.registry()->mountTimeout()));
  EXPECT_EQ(m->heartbeatConfig(), world.heartbeatConfig());
  EXPECT_EQ(m->connectionConfig(), world.connectionConfig(s1));
  EXPECT_EQ(m->data(), data("/a", s1));

  Vesk::Ptr<MountsRegistry> unlimited(new MountsRegistry("unlimited", world.registryDir(), "/r",
                                                         world.mountRootDir(), "/remote", 0, 0.0));
  auto entry = unlimited->mountEntryIs("/b", "/t", "Vesk::Dir", "");
  entry->mounterIs(MounterName("Foo", "g"), foo.config()->mountGroupConfig("g")->mountConfig("/a"),
                   foo.config()->mountGroupConfig("g"), foo.status());
  auto other = mountsRegistrySmFactory(unlimited, world.oobStatus(), world.heartbeatConfig(),
                                       world.mountStatusDir(), world.publishStatus());
  auto um = other->mountsRegistryEntrySm("/b")->mountSm(s1);
  ASSERT_TRUE(um);
  EXPECT_EQ(um->reconnectRetries(), 0xFFFFFFFFu);
  EXPECT_EQ(um->mountTimeout(), 0x7FFFFFFFu);
  other->doCleanup();
}

// ---- inactive and removed switches --------------------------------------------------------

TEST_F(RegistryMachines, AnInactiveSwitchIsUnmountedStatePreservinglyWhereAGroupAsks) {
  SystemId s1 = world.connectSwitch(1);
  auto foo = mounting("Foo", "g", {"/a"}, true);
  auto bar = mounting("Bar", "h", {"/b"});
  world.negotiate(s1, "Foo", 1);
  world.negotiate(s1, "Bar", 1);
  start();
  settle("/a", s1, mountStateMounted);
  settle("/b", s1, mountStateMounted);
  requests();
  world.inactiveIs(s1, true);
  auto r = requests();
  EXPECT_EQ(r.size(), 2u);
  EXPECT_NE(std::find(r.begin(), r.end(), req(s1, "/a", Request::statePreservingUnmount)), r.end());
  EXPECT_NE(std::find(r.begin(), r.end(), req(s1, "/b", Request::unmount)), r.end());
  EXPECT_TRUE(mountStatus(foo, s1, "g", "/a")) << "an inactive switch keeps its statuses";
}

TEST_F(RegistryMachines, ARemovedSwitchIsUnmountedAndLosesItsStatusAndRecords) {
  SystemId s1 = world.connectSwitch(1);
  auto foo = mounting("Foo", "g", {"/a"}, true);
  world.negotiate(s1, "Foo", 1);
  start();
  EXPECT_TRUE(world.publishStatus()->system(s1));
  EXPECT_EQ(sm->connectionServiceStatusDirSmSize(), 1u);
  settle("/a", s1, mountStateMounted);
  requests();
  world.removeSwitch(s1);
  // Each of the connection's services, and then the connection, re-evaluates the system as
  // it goes: every request is the one full unmount.
  std::vector<Record> const unmounts = requests();
  EXPECT_FALSE(unmounts.empty());
  for (Record const& r : unmounts) EXPECT_EQ(r, req(s1, "/a", Request::unmount));
  EXPECT_FALSE(foo.status()->systemStatus(Vesk::Name(s1.stringValue())));
  EXPECT_FALSE(world.publishStatus()->system(s1));
  EXPECT_EQ(sm->connectionServiceStatusDirSmSize(), 0u);
  settle("/a", s1, mountStateNotMounted);
  EXPECT_EQ(entrySm("/a")->mountSmSize(), 0u);
  EXPECT_FALSE(foo.status()->systemStatus(Vesk::Name(s1.stringValue())))
      << "the unmount's report does not bring the status back";
}

// ---- the union filters --------------------------------------------------------------------

TEST_F(RegistryMachines, TheConnectionFilterCountsTheMountersThatIncludeASystem) {
  SystemId s1 = world.connectSwitch(1), s2 = world.connectSwitch(2);
  auto foo = mounting("Foo", "g", {"/a"});
  foo.systemFilterIs("g", {s1});
  auto bar = mounting("Bar", "h", {"/a"});
  bar.systemFilterIs("h", {s1, s2});
  world.negotiate(s1, "Foo", 1);
  world.negotiate(s2, "Foo", 1);
  start();
  auto entry = entrySm("/a");
  EXPECT_EQ(entry->connectionFilter(s1.stringValue()), 2u);
  EXPECT_EQ(entry->connectionFilter(s2.stringValue()), 1u);
  settle("/a", s1, mountStateMounted);
  requests();

  Vesk::TraceCapture capture;
  foo.config()->systemFilter("g")->includedSystemDel(s1.stringValue());
  EXPECT_EQ(entry->connectionFilter(s1.stringValue()), 1u);
  EXPECT_TRUE(capture.contains(" refcount:1 filter:" + s1.stringValue().stdString() + " path:/a"));
  EXPECT_FALSE(capture.contains("MountsRegistryEntrySm::handleSwitchConnection"))
      << "a count that merely drops re-evaluates nothing";
  // Foo's group no longer includes s1, so Foo no longer sees the mount; Bar still does.
  EXPECT_FALSE(mountStatus(foo, s1, "g", "/a"));
  ASSERT_TRUE(mountStatus(bar, s1, "h", "/a"));
  foo.config()->systemFilter("g")->includedSystemIs(s1.stringValue(), true);
  EXPECT_EQ(entry->connectionFilter(s1.stringValue()), 2u);
  ASSERT_TRUE(mountStatus(foo, s1, "g", "/a"));
  EXPECT_EQ(mountStatus(foo, s1, "g", "/a")->mountState(), mountStateMounted);
  EXPECT_EQ(groupStatus(foo, s1, "g")->mountState(), mountStateMounted);
  EXPECT_FALSE(capture.contains("MountsRegistryEntrySm::handleSwitchConnection"));
  EXPECT_TRUE(requests().empty()) << "the mount itself is left alone";

  bar.config()->systemFilter("h")->includedSystemIs(s2.stringValue(), false);
  EXPECT_EQ(entry->connectionFilter(s2.stringValue()), 0u);
  EXPECT_TRUE(capture.contains(" del filter:" + s2.stringValue().stdString() + " path:/a"));
  EXPECT_EQ(decisions(), (std::vector<Record>{req(s2, "/a", Request::unmount)}));
}

TEST_F(RegistryMachines, RemovingAServicesLastVersionFallsBackToTheConnectionFilter) {
  SystemId s1 = world.connectSwitch(1), s2 = world.connectSwitch(2);
  auto foo = mounting("Foo", "g", {"/a"});
  foo.versionFilterIs("g", {7});
  auto bar = mounting("Bar", "h", {"/a"});
  bar.systemFilterIs("h", {s2});
  world.negotiate(s1, "Foo", 1);
  world.negotiate(s2, "Foo", 1);
  start();
  EXPECT_TRUE(requests().empty()) << "version 1 is not in Foo's filter";
  EXPECT_EQ(entrySm("/a")->versionFilterSize(), 1u);
  foo.config()->versionFilter("g")->includedServiceVersionDel(7);
  EXPECT_EQ(entrySm("/a")->versionFilterSize(), 0u);
  EXPECT_EQ(requests(), (std::vector<Record>{req(s2, "/a", Request::mount)}));
}

TEST_F(RegistryMachines, FoldingAWholeFilterInOrOutReevaluatesEachSwitchOnce) {
  std::vector<SystemId> all;
  for (unsigned i = 1; i <= 40; ++i) {
    all.push_back(world.connectSwitch(i));
    world.negotiate(all.back(), "Foo", 1);
  }
  auto foo = mounting("Foo", "g", {"/a"});
  start();
  auto entry = entrySm("/a");
  uint64_t before = entry->decisions();
  auto wide = foo.config()->systemFilterIs("wide");
  for (SystemId const& s : all) wide->includedSystemIs(s.stringValue(), true);
  before = entry->decisions();
  foo.config()->mountGroupConfig("g")->systemFilterIs(wide);
  EXPECT_EQ(entry->decisions() - before, all.size()) << "one pass, not one per member";
  EXPECT_EQ(entry->connectionFilterSize(), all.size());
  before = entry->decisions();
  world.registry()->mountEntryDel("/a");
  EXPECT_LE(entry->decisions() - before, all.size());
}

// ---- connection service status ------------------------------------------------------------

TEST_F(RegistryMachines, AServiceReportsOnlyOnceItsNegotiationCompletes) {
  SystemId s1 = world.connectSwitch(1);
  start();
  auto dirSm = sm->connectionServiceStatusDirSm(Vesk::Name(s1.stringValue()));
  ASSERT_TRUE(dirSm);
  Vesk::TraceCapture capture;
  world.negotiate(s1, "Foo", 3, {.complete = false});
  EXPECT_FALSE(capture.contains("MountsRegistrySm::handleServiceVersion"));
  EXPECT_FALSE(world.publishStatus()->system(s1)->registeredPublishedPathsProcessed("Foo"));
  world.negotiate(s1, "Foo", 3);
  EXPECT_TRUE(capture.contains("MountsRegistrySm::handleServiceVersion connection:" +
                               s1.stringValue().stdString() + " service:Foo"));
  EXPECT_TRUE(world.publishStatus()->system(s1)->registeredPublishedPathsProcessed("Foo"));
  auto const reports = [&] {
    return std::count_if(capture.lines().begin(), capture.lines().end(), [](std::string const& l) {
      return l.find("MountsRegistrySm::handleServiceVersion") != std::string::npos;
    });
  };
  auto before = reports();
  world.serviceEnabledIs(s1, "Foo", false);
  EXPECT_EQ(reports(), before + 1) << "toggling enabled reports again";
  EXPECT_TRUE(capture.contains("ConnectionServiceStatusDirSm::handleEnabled" +
                               s1.stringValue().stdString() + ": Foo enabled: 0"));
}

// ---- failure texts ------------------------------------------------------------------------

TEST_F(RegistryMachines, ReinstantiationAndNullParametersFailWithTheirTexts) {
  SystemId s1 = world.connectSwitch(1);
  start();
  auto dirSm = sm->connectionServiceStatusDirSm(Vesk::Name(s1.stringValue()));
  try {
    dirSm->serviceStatusIs(nullptr);
    FAIL();
  } catch (Vesk::NullParameterException const& e) {
    EXPECT_STREQ(e.what(),
                 "null _serviceStatus parameter to mutator for "
                 "Controller::ConnectionServiceStatusDirSm::serviceStatus not allowed\"");
  }
  Vesk::MachineCollection<Vesk::Name, MountsRegistryEntrySm> entries(MountsRegistrySm::typeName,
                                                                     "mountsRegistryEntrySm");
  auto entry = world.registry()->mountEntryIs("/x", "/t", "Vesk::Dir", "");
  entries.is("/x", entry, world.oobStatus(), world.mountStatusDir(), sm.ptr());
  EXPECT_EQ(entries.is("/x", entry, world.oobStatus(), world.mountStatusDir(), sm.ptr()),
            entries("/x"));
  try {
    Sim::World other(manualDriver());
    entries.is("/x", entry, other.oobStatus(), world.mountStatusDir(), sm.ptr());
    FAIL();
  } catch (Vesk::ReinstantiationException const& e) {
    EXPECT_STREQ(e.what(),
                 "Reinstantiating the pointer interface where constructor parameter attribute "
                 "_oobStatus has a different value of");
  }
  entries.cleanupAndDelAll();

  // The factory hands out the registry's one machine, and refuses one of other inputs.
  EXPECT_EQ(world.startRegistry(), sm);
  auto otherRecords = Controllerdb::publishStatusFactory("other");
  EXPECT_EQ(testsupport::failureText<Vesk::ReinstantiationException>([&] {
              mountsRegistrySmFactory(world.registry(), world.oobStatus(), world.heartbeatConfig(),
                                      world.mountStatusDir(), otherRecords);
            }),
            "Reinstantiating the pointer interface where constructor parameter attribute "
            "_controllerdbPublishStatus has a different value of");
}

TEST(RegistryMachineInvariants, ConnectingAPeerWithoutItsConfigurationStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto scenario = [](bool dropConfig, unsigned system) {
    Sim::World world(manualDriver());
    SystemId s1 = world.connectSwitch(1);
    auto foo = world.declareService("fooAgent", "Foo");
    foo.mountIs("g", "/a");
    world.registryMounterIs(foo, "g", "/a");
    auto sm = world.startRegistry();
    if (dropConfig) world.peerTable()->peer(s1)->connectionConfigIs(nullptr);
    sm->mountsRegistryEntrySm("/a")->doConnectSwitch(Sim::World::systemOf(system));
  };
  EXPECT_DEATH(scenario(true, 1), "Assertion failed: peer->connectionConfig\\(\\)");
  EXPECT_DEATH(scenario(false, 9), "Assertion failed: peer ");
}

// A mounter must carry where its results go and the group that declared it; the invariants
// name the missing one by itself.
TEST(RegistryMachineInvariants, AMounterWithoutItsStatusOrGroupStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto scenario = [](bool withStatus) {
    Sim::World world(manualDriver());
    SystemId s1 = world.connectSwitch(1);
    auto foo = world.declareService("fooAgent", "Foo");
    auto mount = foo.mountIs("g", "/a");
    auto entry = world.registry()->mountEntryIs("/a", "/a", "Vesk::Dir", "");
    entry->mounterIs(MounterName("Foo", "g"), mount,
                     withStatus ? nullptr : foo.config()->mountGroupConfig("g"),
                     withStatus ? foo.status() : nullptr);
    auto sm = world.startRegistry();
    world.negotiate(s1, "Foo", 1);
  };
  EXPECT_DEATH(scenario(false), "Assertion failed: serviceMountStatus ");
  EXPECT_DEATH(scenario(true), "Assertion failed: mountGroupConfig ");
}

// ---- cleanup ------------------------------------------------------------------------------

TEST(RegistryCleanup, RemovingEntriesAndStoppingTheRegistryLeavesNothingBehind) {
  long const baseline = Vesk::liveObjectTotal();
  {
    Sim::World world(manualDriver());
    SystemId s1 = world.connectSwitch(1), s2 = world.connectSwitch(2);
    auto foo = world.declareService("fooAgent", "Foo");
    foo.mountIs("g", "/a");
    foo.systemFilterIs("g", {s1, s2});
    world.registryMounterIs(foo, "g", "/a");
    world.negotiate(s1, "Foo", 1);
    world.negotiate(s2, "Foo", 1);
    auto sm = world.startRegistry();
    foo.status()->mountedPathPrefixIs("/a", "/mnt/a");
    sm->mountsRegistryEntrySm("/a")->mountSmData(s1)->mountStateIs(mountStateConnecting);
    EXPECT_EQ(sm->mountGroupSummaries().groups(), 1u);
    EXPECT_EQ(Vesk::liveObjects<MountSm>(), 2);
    world.manualMountDriver()->recordsDelAll();
    world.registry()->mountEntryDel("/a");
    auto const& records = world.manualMountDriver()->records();
    EXPECT_EQ(std::count_if(records.begin(), records.end(),
                            [](auto const& r) { return r.request == Request::cleanup; }),
              2)
        << "each machine is cleaned up before it goes";
    EXPECT_EQ(sm->mountGroupSummaries().groups(), 0u);
    EXPECT_EQ(Vesk::liveObjects<MountSm>(), 0);
    EXPECT_EQ(Vesk::liveObjects<MountSmData>(), 0);
    EXPECT_EQ(Vesk::liveObjects<MountsRegistryEntrySm>(), 0);
    EXPECT_EQ(Vesk::liveObjects<MounterConfigSm>(), 0);
    EXPECT_EQ(foo.status()->systemStatusSize(), 0u) << "no status of the entry stays behind";
    EXPECT_EQ(foo.status()->mountedPathPrefixSize(), 0u);
    EXPECT_EQ(Vesk::liveObjects<SystemStatus>(), 0);
    EXPECT_EQ(Vesk::liveObjects<ServiceMountGroupStatus>(), 0);
    EXPECT_EQ(Vesk::liveObjects<MountStatus>(), 0);
    sm->doCleanup();
    sm = nullptr;
    EXPECT_EQ(Vesk::liveObjects<MountsRegistrySm>(), 0);
    EXPECT_EQ(Vesk::liveObjects<ConnectionServiceStatusDirSm>(), 0);
    EXPECT_EQ(Vesk::liveObjects<ConnectionServiceStatusDirSm::ServiceStatusSm>(), 0);
    // The per-system publish records belong to the connected systems, not to the machine.
    EXPECT_EQ(world.publishStatus()->systemSize(), 2u);
  }
  EXPECT_EQ(Vesk::liveObjectTotal(), baseline);
}

// ---- against the reference ----------------------------------------------------------------

// The automatic driver. Without failures, every mount that must be made ends mounted; with
// them, some end failed once their retries run out.
Sim::WorldOptions settlingDriver(uint64_t seed = 1, double failureProbability = 0.0) {
  Sim::WorldOptions o;
  o.seed = seed;
  o.autoMount.failureProbability = failureProbability;
  return o;
}

// How much of a history a comparison with the reference may rely on.
struct Expectations {
  // Each entry has decided every system since the system came. Otherwise a system that
  // arrived may still wait for its first decision, which comes once a negotiated version of
  // one of the entry's services is reported on it, and until then no service sees a status
  // of the entry's mount on it.
  bool everySystemDecided = true;
  // Mounts may fail: a mount that must be made has settled, mounted or failed.
  bool mountsMayFail = false;
};

// Every mount status a service holds belongs to an entry that still has the service's
// mounter, of the status's group: a mounter that leaves, or an entry, takes its statuses.
void expectNoStrayStatus(Sim::World& world, std::string const& when) {
  for (Vesk::Dir const* dir : {world.mountStatusDir().ptr(), world.proxyMountStatusDir().ptr()}) {
    for (auto const& [agent, record] : dir->entityPtrMembers()) {
      auto const* status = dynamic_cast<ServiceMountStatus const*>(record.ptr().ptr());
      if (!status) continue;
      for (auto const& [system, sys] : status->systemStatusMembers()) {
        for (auto const& [group, grp] : sys->serviceMountGroupStatusMembers()) {
          for (auto const& [path, mount] : grp->mountStatusMembers()) {
            auto entry = world.registry()->mountEntry(path);
            auto mounter = entry ? entry->mounter(Vesk::Name(status->serviceName())) : nullptr;
            EXPECT_TRUE(mounter && mounter->mounterName().groupName() == group)
                << when << ": " << status->serviceName() << " sees " << path << " on " << system
                << " in group " << group << " without a mounter there";
          }
        }
      }
    }
  }
}

// Compares the registry's mount machines and the status each service sees with the
// reference's answer, once every mount has settled. A service never sees a mount where its
// group is not interested, sees every mount made where it is, in the mount's state, and
// (when every system has been decided) the mounts not made where it is interested.
// Runs the clock until every mount has settled, then once more through a presence check: a
// publish machine whose local entity is missing looks for it once a second for as long as
// it is missing, which would keep the clock busy to any limit.
void settle(Sim::World& world, MountsRegistrySm const& sm) {
  auto polls = [&] {
    size_t armed = 0;
    for (auto const& [name, publishSm] : sm.publishRegistryEntrySms().members()) {
      armed += publishSm->entityPresenceCheckTime() != Vesk::Clock::never;
    }
    return armed;
  };
  Vesk::Seconds const limit = world.now() + 600;
  Vesk::ManualClock& clock = *world.clock();
  while (clock.armedCount() > polls() && clock.nextWakeup() <= limit) clock.runNext();
  world.advance(PublishRegistryEntrySm::kPresenceCheckPeriod);
}

void expectMatches(Sim::World& world, MountsRegistrySm& sm, std::string const& when,
                   Expectations expect = {}) {
  settle(world, sm);
  for (auto const& [name, entrySm] : sm.mountsRegistryEntrySms().members()) {
    EXPECT_TRUE(world.registry()->mountEntry(name)) << when << ": a machine outlives " << name;
  }
  for (auto const& [key, decision] : Sim::expectedMounts(world)) {
    auto const& [entry, system] = key;
    SystemId id;
    ASSERT_TRUE(id.stringValueIs(Vesk::String(system)));
    auto entrySm = sm.mountsRegistryEntrySm(Vesk::Name(entry));
    auto d = entrySm ? entrySm->mountSmData(id) : nullptr;
    MountState const state = d ? d->mountState() : mountStateNotMounted;
    bool const made =
        state == mountStateMounted || (expect.mountsMayFail && state == mountStateFailed);
    EXPECT_EQ(made, decision.mounted) << when << ": " << entry << " from " << system;
    bool const present = bool(world.peerTable()->peer(id));
    for (auto const& [service, m] :
         world.registry()->mountEntry(Vesk::Name(entry))->mounterMembers()) {
      auto const& svc = *m.ptr();
      if (!present) {
        EXPECT_FALSE(svc.serviceMountStatus()->systemStatus(Vesk::Name(system)))
            << when << ": " << service << " still has a status of " << system << ", gone";
        continue;
      }
      auto group = Vesk::Name(svc.mounterName().groupName());
      auto sys = svc.serviceMountStatus()->systemStatus(Vesk::Name(system));
      auto grp = sys ? sys->serviceMountGroupStatus(group) : nullptr;
      auto status = grp ? grp->mountStatus(Vesk::Name(entry)) : nullptr;
      bool const interested = Sim::mounterIsInterested(world, svc, id);
      std::string const what =
          when + ": " + std::string(service.view()) + "'s status of " + entry + " on " + system;
      if (!interested || made || expect.everySystemDecided) {
        EXPECT_EQ(bool(status), interested) << what;
      }
      if (status) {
        // A mount not made has no machine, and its status reads not mounted.
        EXPECT_EQ(status->mountState(), state) << what;
        EXPECT_TRUE(grp->processed()) << what << ": its group is not processed";
      }
      if (status && state == mountStateMounted) {
        EXPECT_EQ(status->mountedPath(), entrySm->mountSm(id)->targetPath() + "/" + entry) << what;
      }
      if (grp) {
        EXPECT_EQ(grp->mountState(), MountGroupSummaries::walkedMembersSummary(*grp))
            << what << ": the summary of its group";
      }
    }
  }
  expectNoStrayStatus(world, when);
  for (auto const& [name, publishSm] : sm.publishRegistryEntrySms().members()) {
    EXPECT_TRUE(world.registry()->publishEntry(name)) << when << ": a machine outlives " << name;
  }
  for (std::string const& mismatch : Sim::publishMismatches(world)) {
    ADD_FAILURE() << when << ": " << mismatch;
  }
}

// ---- random steps against the reference ----------------------------------------------------

// One seeded run of random steps of what services and sibling components do, on a small
// world of four services whose groups cover every kind of filter (one service with two
// groups), with entries shared between them; entries go, and come back with their
// mounters. Each service also publishes one local entity (one of them a directory published
// per switch) under its group's filters; publish entries, local entities, their filters and
// readiness come and go. Some steps are checked against the reference once the mounts
// settle; the others land while earlier mounts are still on their way.
class RandomRun {
 public:
  RandomRun(uint64_t seed, double failureProbability, unsigned switches)
      : switches_(switches),
        world_(settlingDriver(seed, failureProbability)),
        rng_(seed),
        expect_{false, failureProbability > 0} {
    declare(0, "fooAgent", "Foo", false, "all", {"/a", "/b"});
    declare(1, "barAgent", "Bar", false, "v", {"/b", "/c"});
    declare(2, "bazAgent", "Baz", false, "few", {"/c", "/d"});
    declare(3, "quxProxy", "Qux-Proxy", true, "both", {"/a", "/d"});
    groupIs(0, "some", {"/c"});  // a second group of Foo: its statuses share Foo's systems'
    services_[0].systemFilterIs("some", {Sim::World::systemOf(3), Sim::World::systemOf(5)});
    services_[1].versionFilterIs("v", {2});
    services_[2].systemFilterIs("few", {Sim::World::systemOf(1), Sim::World::systemOf(3)});
    services_[3].versionFilterIs("both", {1});
    services_[3].systemFilterIs("both", {Sim::World::systemOf(2), Sim::World::systemOf(4)});
    for (unsigned i = 1; i <= switches_; i += 2) world_.connectSwitch(i);
    for (Publish const& p : kPublishes) {
      if (p.present) localIs(p);
      publishEntryIs(p);
    }
    world_.autoMountDriver()->requestObserverIs(
        [this](MountSm const& sm, Controller::MountDriver::Request request) {
          judge(sm, request);
        });
    sm_ = world_.startRegistry();
  }
  ~RandomRun() {
    world_.autoMountDriver()->requestObserverIs(nullptr);  // a registry that stops unmounts all
    sm_->doCleanup();
  }

  void run(int steps) {
    for (int i = 0; i < steps && !::testing::Test::HasFailure(); ++i) {
      current_ = "step " + std::to_string(i);
      current_ += " (" + step() + ")";
      if (rng_.chance(0.4)) {
        expectMatches(world_, *sm_, current_, expect_);
      } else {
        world_.advance(rng_.uniform(0.0, 0.3));
      }
    }
    expectMatches(world_, *sm_, "after the last step", expect_);
  }

 private:
  static constexpr char const* kRealServices[] = {"Foo", "Bar", "Baz", "Qux"};
  struct Mount {
    unsigned service;
    char const* group;
    char const* path;
  };
  // A publish entry of one of the services, filtered by that service's mount group filters
  // (which the mount side's steps change too), and whether its local entity starts present.
  struct Publish {
    char const* name;  // in the local tree
    char const* service;
    unsigned filters;  // the services_ index whose group filters it takes
    char const* group;
    bool prefix;
    bool present;
  };
  static constexpr Publish kPublishes[] = {{"p0", "Foo", 0, "all", false, true},
                                           {"p1", "Bar", 1, "v", false, false},
                                           {"dir", "Baz", 2, "few", true, true},
                                           {"p3", "Qux-Proxy", 3, "both", false, false}};

  static Vesk::String localPath(Publish const& p) {
    return Vesk::String("/controller/local/") + p.name;
  }
  void localIs(Publish const& p) {
    if (p.prefix) {
      world_.localDirIs(localPath(p));
    } else {
      world_.localEntityIs(localPath(p));
    }
  }
  void publishEntryIs(Publish const& p) {
    auto group = services_[p.filters].config()->mountGroupConfig(p.group);
    auto entry = world_.registry()->publishEntryIs(
        localPath(p), Vesk::String("/published/") + p.name, p.service, p.prefix,
        p.prefix ? "Vesk::Dir" : "Sim::LocalEntity", group->versionFilter(), group->systemFilter());
    entry->readyToPublishIs(true);
  }

  // Takes one random publishing step and says which: an entry goes or comes back, its local
  // entity goes or comes back (a prefix entry's directory may come back as a plain entity),
  // its filters follow its group's or are dropped, or its ready flag flips.
  std::string publishStep() {
    Publish const& p = kPublishes[rng_.below(std::size(kPublishes))];
    std::string const what = std::string(" ") + p.name;
    auto entry = world_.registry()->publishEntry(localPath(p));
    switch (rng_.below(4)) {
      case 0:
        if (entry) {
          world_.registry()->publishEntryDel(localPath(p));
          return "publish entry gone:" + what;
        }
        publishEntryIs(p);
        return "publish entry back:" + what;
      case 1:
        if (world_.localDir()->entry(p.name)) {
          world_.localEntityDel(localPath(p));
          return "local entity gone:" + what;
        }
        if (p.prefix && rng_.chance(0.2)) {
          world_.localEntityIs(localPath(p));
          return "local entity back, not a directory:" + what;
        }
        localIs(p);
        return "local entity back:" + what;
      case 2: {
        if (!entry) return "nothing";
        auto group = services_[p.filters].config()->mountGroupConfig(p.group);
        bool const systems = rng_.chance(0.5);
        bool const off = rng_.chance(0.5);
        if (systems) {
          entry->systemFilterIs(off ? nullptr : group->systemFilter());
        } else {
          entry->versionFilterIs(off ? nullptr : group->versionFilter());
        }
        return std::string(off ? "publish filter off:" : "publish filter follows its group:") +
               what + (systems ? " systems" : " versions");
      }
      default:
        if (!entry) return "nothing";
        entry->readyToPublishIs(!entry->readyToPublish());
        return std::string(entry->readyToPublish() ? "ready:" : "not ready:") + what;
    }
  }

  void declare(unsigned k, char const* agent, char const* service, bool proxy, char const* group,
               std::initializer_list<char const*> paths) {
    services_[k] = world_.declareService(agent, service, proxy);
    groupIs(k, group, paths);
  }
  void groupIs(unsigned k, char const* group, std::initializer_list<char const*> paths) {
    services_[k].groupIs(group);
    for (char const* path : paths) {
      services_[k].mountIs(group, path);
      world_.registryMounterIs(services_[k], group, path);
      mounts_.push_back({k, group, path});
    }
  }

  SystemId anySystem() { return Sim::World::systemOf(1 + unsigned(rng_.below(switches_))); }
  Vesk::Name anyService() { return Vesk::Name(kRealServices[rng_.below(4)]); }
  uint32_t anyVersion() { return uint32_t(1 + rng_.below(3)); }
  Sim::Negotiation anyOutcome() {
    Sim::Negotiation how;
    how.compatible = rng_.chance(0.85);
    how.enabled = rng_.chance(0.85);
    return how;
  }

  // Marks the switch inactive: each of its mounts is unmounted at once, state-preservingly
  // exactly where the reference says the entry's groups ask for it.
  void goInactive(SystemId const& s) {
    using Request = Controller::MountDriver::Request;
    Sim::AutoMountDriver const& driver = *world_.autoMountDriver();
    uint64_t const preservingBefore = driver.requests(Request::statePreservingUnmount);
    uint64_t const fullBefore = driver.requests(Request::unmount);
    std::vector<std::string> mounted;
    for (auto const& [name, entrySm] : sm_->mountsRegistryEntrySms().members()) {
      if (entrySm->mountSm(s)) mounted.push_back(std::string(name.view()));
    }
    world_.inactiveIs(s, true);
    Sim::ExpectedMounts const expected = Sim::expectedMounts(world_);
    uint64_t preserving = 0;
    for (std::string const& entry : mounted) {
      preserving += expected.at({entry, std::string(s.stringValue().view())}).preserveState;
    }
    EXPECT_EQ(driver.requests(Request::statePreservingUnmount) - preservingBefore, preserving);
    EXPECT_EQ(driver.requests(Request::unmount) - fullBefore, mounted.size() - preserving);
  }

  // Each request must follow from the records as they stand when it is made: a mount or a
  // remount where the reference mounts, an unmount where it does not.
  void judge(MountSm const& sm, Controller::MountDriver::Request request) {
    using Request = Controller::MountDriver::Request;
    if (request == Request::cleanup) return;
    if (!world_.registry()->mountEntry(Vesk::Name(sm.path()))) return;  // the entry is going
    Sim::ExpectedMounts const expected = Sim::expectedMounts(world_);
    auto const found = expected.find(
        {std::string(sm.path().view()), std::string(sm.system().stringValue().view())});
    bool const mounted = found != expected.end() && found->second.mounted;
    bool const mounting = request == Request::mount || request == Request::remount;
    EXPECT_EQ(mounting, mounted) << request << " of " << sm.path() << " from "
                                 << sm.system().stringValue() << " during " << current_;
  }

  // Points a filtered group at its filter, or at none (which may make the entry a wildcard
  // mount).
  std::string toggleFilter() {
    struct Filtered {
      unsigned service;
      char const* group;
      bool systems;
    };
    static constexpr Filtered kFiltered[] = {{1, "v", false},
                                             {2, "few", true},
                                             {3, "both", true},
                                             {3, "both", false},
                                             {0, "some", true}};
    Filtered const& f = kFiltered[rng_.below(std::size(kFiltered))];
    auto const& config = services_[f.service].config();
    auto group = config->mountGroupConfig(f.group);
    bool const on = f.systems ? !group->systemFilter() : !group->versionFilter();
    if (f.systems) {
      group->systemFilterIs(on ? config->systemFilter(f.group) : nullptr);
    } else {
      group->versionFilterIs(on ? config->versionFilter(f.group) : nullptr);
    }
    return (on ? "filter back: " : "filter off: ") + std::string(f.group) +
           (f.systems ? " systems" : " versions");
  }

  // Takes one random step and says which.
  std::string step() {
    SystemId const s = anySystem();
    std::string const on = " on " + std::string(s.stringValue().view());
    bool const connected = world_.connected(s);
    switch (rng_.below(15)) {
      case 0:
        if (connected) {
          world_.removeSwitch(s);
          return "remove" + on;
        }
        world_.inactiveDel(s);  // a switch that comes back is no longer inactive
        world_.connectSwitch(s);
        return "connect" + on;
      case 1:
      case 2: {
        if (!connected) return "nothing";
        Vesk::Name const service = anyService();
        uint32_t const version = anyVersion();
        Sim::Negotiation how = anyOutcome();
        bool const fresh = rng_.chance(0.5);
        auto const negotiation = fresh ? &Sim::World::renegotiate : &Sim::World::negotiate;
        std::string what = std::string(fresh ? "renegotiate " : "negotiate ") +
                           std::string(service.view()) + " " + std::to_string(version);
        // A round under way is not reported until it completes, so it completes within the
        // step: the machines act on complete rounds only.
        if (rng_.chance(0.2)) {
          how.complete = false;
          (world_.*negotiation)(s, service, version, how);
          world_.advance(rng_.uniform(0.0, 0.3));
          how.complete = true;
          world_.negotiate(s, service, version, how);
          what += " (after a while under way)";
        } else {
          (world_.*negotiation)(s, service, version, how);
        }
        return what + (how.compatible ? "" : " incompatible") + (how.enabled ? "" : " disabled") +
               on;
      }
      case 3: {
        if (!connected) return "nothing";
        Vesk::Name const service = anyService();
        if (rng_.chance(0.5)) {
          world_.serviceDel(s, service);
          return std::string(service.view()) + " gone" + on;
        }
        bool const enabled = rng_.chance(0.5);
        world_.serviceEnabledIs(s, service, enabled);
        return std::string(service.view()) + (enabled ? " enabled" : " disabled") + on;
      }
      case 4:
        // An inactive switch is on its way out: it is removed a moment later.
        if (!connected) return "nothing";
        goInactive(s);
        world_.advance(rng_.uniform(0.0, 0.3));
        world_.removeSwitch(s);
        return "inactive, then removed" + on;
      case 5: {
        static constexpr std::pair<unsigned, char const*> kSystemFilters[] = {
            {2, "few"}, {3, "both"}, {0, "some"}};
        auto const& [k, name] = kSystemFilters[rng_.below(std::size(kSystemFilters))];
        auto filter = services_[k].config()->systemFilter(name);
        if (rng_.chance(0.3)) {
          filter->includedSystemDel(s.stringValue());
          return "filter " + std::string(name) + " drops" + on;
        }
        bool const included = rng_.chance(0.7);
        filter->includedSystemIs(s.stringValue(), included);
        return "filter " + std::string(name) + (included ? " includes" : " excludes") + on;
      }
      case 6: {
        bool const v = rng_.chance(0.5);
        auto filter = v ? services_[1].config()->versionFilter("v")
                        : services_[3].config()->versionFilter("both");
        std::string const name = v ? "v" : "both";
        uint32_t const version = anyVersion();
        if (rng_.chance(0.3)) {
          filter->includedServiceVersionDel(version);
          return "filter " + name + " drops version " + std::to_string(version);
        }
        bool const included = rng_.chance(0.7);
        filter->includedServiceVersionIs(version, included);
        return "filter " + name + (included ? " includes" : " excludes") + " version " +
               std::to_string(version);
      }
      case 7: {
        Mount const& m = mounts_[rng_.below(mounts_.size())];
        Sim::ServiceDeclaration const& svc = services_[m.service];
        auto entry = world_.registry()->mountEntry(Vesk::Name(m.path));
        if (entry && entry->mounter(svc.serviceName())) {
          entry->mounterDel(svc.serviceName());
          return "mounter gone: " + std::string(svc.serviceName().view()) + " " + m.path;
        }
        world_.registryMounterIs(svc, m.group, m.path);
        return "mounter back: " + std::string(svc.serviceName().view()) + " " + m.path;
      }
      case 8: {
        Mount const& m = mounts_[rng_.below(mounts_.size())];
        bool const preserve = rng_.chance(0.5);
        services_[m.service].groupIs(m.group, preserve);
        return std::string(preserve ? "preserve " : "do not preserve ") + m.group;
      }
      case 9: {
        Mount const& m = mounts_[rng_.below(mounts_.size())];
        world_.registry()->mountEntryDel(Vesk::Name(m.path));  // its mounters come back one by one
        return std::string("entry gone: ") + m.path;
      }
      case 10: {
        bool const established = rng_.chance(0.5);
        world_.establishedIs(established);
        return established ? "established" : "not established";
      }
      case 11:
        return toggleFilter();
      case 12:
      case 13:
        return publishStep();
      default:
        world_.advance(rng_.uniform(0.0, 2.0));
        return "time passes";
    }
  }

  unsigned const switches_;
  Sim::World world_;
  Sim::Rng rng_;
  Expectations const expect_;
  std::string current_ = "the start";
  std::array<Sim::ServiceDeclaration, 4> services_;
  std::vector<Mount> mounts_;
  Vesk::Ptr<MountsRegistrySm> sm_;
};

// A number from the environment, or `otherwise` when it is unset or not a number.
uint64_t environmentNumber(char const* name, uint64_t otherwise) {
  char const* text = std::getenv(name);
  char* end = nullptr;
  uint64_t const value = text ? std::strtoull(text, &end, 10) : 0;
  return text && *text && *end == '\0' ? value : otherwise;
}

// An optimised build runs many times the seeds of a sanitized debug build in the same time.
#ifdef NDEBUG
constexpr uint64_t kBuildSeedFactor = 50;
#else
constexpr uint64_t kBuildSeedFactor = 1;
#endif

// Runs `seeds` seeds (times kBuildSeedFactor), each a run of its own, and checks that they
// left nothing behind. The seeds start at 1; to search further, VESK_FIRST_SEED moves the
// start and VESK_SEED_FACTOR multiplies the count (a failure names its seed, which the
// first alone replays).
void runSeeds(uint64_t seeds, double failures, unsigned switches, int steps) {
  uint64_t const first = environmentNumber("VESK_FIRST_SEED", 1);
  uint64_t const factor = kBuildSeedFactor * environmentNumber("VESK_SEED_FACTOR", 1);
  uint64_t const last = first + seeds * factor;
  long const baseline = Vesk::liveObjectTotal();
  for (uint64_t seed = first; seed < last && !::testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", failures " + std::to_string(failures));
    RandomRun(seed, failures, switches).run(steps);
  }
  EXPECT_EQ(Vesk::liveObjectTotal(), baseline) << "a run left objects behind";
}

// With failures, mounts that must be made settle mounted or failed, and each service sees
// the state they settled in.
TEST(RegistryRandomSteps, EverySettledMomentOfManySeedsMatchesTheReference) {
  runSeeds(60, 0.0, 6, 150);
  runSeeds(60, 0.6, 6, 150);
}

// Fewer, longer runs over more switches: the entries' collections grow and shrink through
// many sizes while whole-table walks go over them.
TEST(RegistryRandomSteps, LongRunsOverMoreSwitchesMatchTheReference) { runSeeds(6, 0.0, 40, 600); }

}  // namespace
}  // namespace Controller
