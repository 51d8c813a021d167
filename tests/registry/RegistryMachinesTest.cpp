// The registry machines, driven as in a controller: sibling records and service
// declarations change, the clock advances, and the tests read back the mount machine
// requests, the status each service sees, the traces and the failure texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <vector>

#include "framework/trace/Trace.h"
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

}  // namespace
}  // namespace Controller
