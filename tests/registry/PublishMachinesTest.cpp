// The publish side of the registry machines, driven as in a controller: publish entries,
// local entities, negotiations and filters change, the clock advances, and the tests read
// back the published mounts of every switch, the ready flags and the traces.
#include <gtest/gtest.h>

#include <string>

#include "framework/trace/Trace.h"
#include "registry/MountsRegistrySm.h"
#include "registry/PublishRegistryEntrySm.h"
#include "sim/World.h"

namespace Controller {
namespace {

class PublishMachines : public ::testing::Test {
 protected:
  PublishMachines() : world(manualDriver()) {
    s1 = world.connectSwitch(1);
    s2 = world.connectSwitch(2);
    s3 = world.connectSwitch(3);
  }
  void TearDown() override {
    if (sm) sm->doCleanup();
  }
  static Sim::WorldOptions manualDriver() {
    Sim::WorldOptions o;
    o.driver = Sim::DriverKind::manual;
    return o;
  }

  void start() { sm = world.startRegistry(); }
  Vesk::Ptr<Vesk::Dir> local() const { return world.rootDir()->subdirIs("local"); }
  // A ready publish entry of `service` for the local entity /controller/local/<name>.
  Vesk::Ptr<PublishRegistryEntry> entry(char const* name, bool prefix = false,
                                        char const* service = "Pub") {
    auto e = world.registry()->publishEntryIs(path(name), std::string("/remote/") + name, service,
                                              prefix, "Vesk::Dir", nullptr, nullptr);
    e->readyToPublishIs(!prefix);
    return e;
  }
  static Vesk::String path(char const* name) { return Vesk::String("/controller/local/") + name; }
  // What switch s has published under path, or a null description.
  MountDesc published(SystemId const& s, Vesk::String const& at) const {
    auto record = world.publishStatus()->system(s);
    MountDesc const* held = record ? record->publishedMountMembers().find(at) : nullptr;
    return held ? *held : MountDesc{};
  }
  bool publishedOn(SystemId const& s, char const* name) const { return !!published(s, path(name)); }

  Sim::World world;
  SystemId s1, s2, s3;
  Vesk::Ptr<MountsRegistrySm> sm;
};

TEST_F(PublishMachines, AMissingEntityIsPublishedWithinASecondOfAppearingAndWithdrawnWhenItGoes) {
  world.negotiate(s1, "Pub", 1);
  world.negotiate(s2, "Pub", 3);
  start();
  Vesk::TraceCapture capture;
  entry("ports");
  auto psm = sm->publishRegistryEntrySm(Vesk::Name(path("ports")));
  ASSERT_TRUE(psm);
  EXPECT_TRUE(capture.contains("Entity at /controller/local/ports doesn't exist."));
  EXPECT_EQ(psm->entityPresenceCheckTime(), world.now() + 1.0);
  EXPECT_FALSE(publishedOn(s1, "ports"));

  world.advance(0.5);
  local()->subdirIs("ports");
  world.advance(0.49);
  EXPECT_FALSE(publishedOn(s1, "ports")) << "the poll has not looked again yet";
  world.advance(0.01);
  EXPECT_EQ(published(s1, path("ports")),
            (MountDesc{path("ports"), "/remote/ports", "Vesk::Dir", "Pub"}));
  EXPECT_TRUE(publishedOn(s2, "ports"));
  EXPECT_FALSE(publishedOn(s3, "ports")) << "no version of the service on s3";
  EXPECT_EQ(psm->entityPresenceCheckTime(), Vesk::Clock::never);

  world.negotiate(s3, "Pub", 1);
  EXPECT_TRUE(publishedOn(s3, "ports")) << "a version reported on s3 publishes there";
  world.registry()->publishEntry(path("ports"))->remotePathIs("/remote/moved");
  EXPECT_EQ(published(s2, path("ports")).remotePath, "/remote/moved");

  local()->entityPtrDel("ports");
  EXPECT_FALSE(publishedOn(s1, "ports") || publishedOn(s2, "ports") || publishedOn(s3, "ports"))
      << "an entity that goes is withdrawn at once";
  EXPECT_EQ(psm->entityPresenceCheckTime(), world.now() + 1.0);

  local()->subdirIs("ports");
  world.advance(1.0);
  EXPECT_TRUE(publishedOn(s1, "ports"));
  world.rootDir()->entityPtrDel("local");
  EXPECT_FALSE(publishedOn(s1, "ports")) << "so is one whose directory goes from above it";
}

TEST_F(PublishMachines, FiltersAdmitExactlyWhatTheyListAndAnUnsetOneAdmitsEveryVersion) {
  local()->subdirIs("ports");
  world.negotiate(s1, "Pub", 1);
  world.negotiate(s2, "Pub", 2);
  world.negotiate(s3, "Pub", 2);
  start();
  auto versions = mountFilterServiceVersionFactory("v");
  versions->includedServiceVersionIs(2, true);
  auto systems = mountFilterSystemFactory("s");
  systems->includedSystemIs(s2.stringValue(), true);
  systems->includedSystemIs(s1.stringValue(), false);
  auto e = entry("ports");
  e->versionFilterIs(versions);
  EXPECT_FALSE(publishedOn(s1, "ports"));
  EXPECT_TRUE(publishedOn(s2, "ports") && publishedOn(s3, "ports"));
  e->systemFilterIs(systems);
  EXPECT_TRUE(publishedOn(s2, "ports"));
  EXPECT_FALSE(publishedOn(s3, "ports"));

  systems->includedSystemIs(s3.stringValue(), true);
  EXPECT_TRUE(publishedOn(s3, "ports"));
  versions->includedServiceVersionDel(2);
  EXPECT_FALSE(publishedOn(s2, "ports") || publishedOn(s3, "ports"));
  versions->includedServiceVersionIs(1, false);
  EXPECT_TRUE(publishedOn(s1, "ports")) << "a member admits whatever flag it carries";
  systems->includedSystemDel(s1.stringValue());
  EXPECT_FALSE(publishedOn(s1, "ports"));

  Vesk::TraceCapture capture;
  e->systemFilterIs(nullptr);
  EXPECT_TRUE(publishedOn(s1, "ports"));
  EXPECT_TRUE(capture.contains(" no systemfilter for /controller/local/ports"));
  e->versionFilterIs(nullptr);
  EXPECT_TRUE(publishedOn(s1, "ports") && publishedOn(s2, "ports") && publishedOn(s3, "ports"));

  world.renegotiate(s2, "Pub", 2, Sim::Negotiation{true, false, true});
  EXPECT_FALSE(publishedOn(s2, "ports")) << "an incompatible version counts as none";
  EXPECT_TRUE(capture.contains(" All published mounts gone for " + s2.stringValue().stdString()));
}

TEST_F(PublishMachines, APrefixEntryGivesEachAdmittedSwitchItsDirectoryAndALeavingSwitchLosesIt) {
  auto dir = local()->subdirIs("per-switch");
  // Whatever holds s2's name in the directory without being a directory keeps s2 out.
  dir->entityPtrIs(connectionConfigFactory(s2.stringValue()));
  world.negotiate(s1, "Pub", 1);
  world.negotiate(s2, "Pub", 1);
  start();
  Vesk::TraceCapture capture;
  auto e = entry("per-switch", true);
  EXPECT_TRUE(dir->entry(s1.stringValue())) << "an admitted switch gets its directory";
  EXPECT_FALSE(dir->entry(s3.stringValue())) << "one without a version does not";
  EXPECT_TRUE(capture.contains("could not create subdir " + s2.stringValue().stdString()));
  EXPECT_EQ(world.publishStatus()->system(s1)->publishedMountSize(), 0u) << "not ready yet";

  e->readyToPublishIs(true);
  Vesk::String const mine = path("per-switch") + "/" + s1.stringValue();
  EXPECT_EQ(published(s1, mine), (MountDesc{mine, "/remote/per-switch", "Vesk::Dir", "Pub"}));
  EXPECT_EQ(world.publishStatus()->system(s2)->publishedMountSize(), 0u);

  world.removeSwitch(s1);
  EXPECT_FALSE(world.publishStatus()->system(s1)) << "the switch's publish record goes with it";
  world.connectSwitch(1);
  EXPECT_EQ(world.publishStatus()->system(s1)->publishedMountSize(), 0u)
      << "a switch that comes back is published only once it negotiates";
  world.negotiate(s1, "Pub", 1);
  EXPECT_TRUE(!!published(s1, mine));
}

TEST_F(PublishMachines, TheReadyFlagWaitsUntilEveryEntryOfTheServiceIsProcessed) {
  local()->subdirIs("a");
  world.negotiate(s1, "Pub", 1);
  start();
  entry("a");
  entry("b");
  Vesk::TraceCapture capture;
  world.registry()->servicePublishReadyIs("Pub", true);
  EXPECT_FALSE(world.publishStatus()->servicePublishReadyMembers().find("Pub"));
  EXPECT_TRUE(capture.contains("Publish entry /controller/local/b not yet processed"));

  local()->subdirIs("b");
  world.advance(1.0);
  EXPECT_TRUE(world.publishStatus()->servicePublishReady("Pub"));
  EXPECT_TRUE(capture.contains("Setting publishReady for Pub"));
  world.registry()->servicePublishReadyIs("Pub", false);
  EXPECT_FALSE(world.publishStatus()->servicePublishReady("Pub"));
  world.registry()->servicePublishReadyDel("Pub");
  EXPECT_FALSE(world.publishStatus()->servicePublishReadyMembers().find("Pub"));
}

TEST_F(PublishMachines, CleanupLeavesNoPublishedMountAndNoMachineBehind) {
  long const baseline = Vesk::liveObjects<PublishRegistryEntrySm>();
  local()->subdirIs("a");
  local()->subdirIs("b");
  for (SystemId const& s : {s1, s2, s3}) world.negotiate(s, "Pub", 1);
  start();
  entry("a");
  entry("b");
  world.registry()->publishEntryDel(path("a"));
  for (SystemId const& s : {s1, s2, s3}) {
    EXPECT_FALSE(publishedOn(s, "a"));
    EXPECT_TRUE(publishedOn(s, "b"));
  }
  EXPECT_EQ(sm->publishRegistryEntrySms().size(), 1u);
  sm->doCleanup();
  for (SystemId const& s : {s1, s2, s3}) {
    EXPECT_EQ(world.publishStatus()->system(s)->publishedMountSize(), 0u);
  }
  sm = nullptr;
  EXPECT_EQ(Vesk::liveObjects<PublishRegistryEntrySm>(), baseline);
}

}  // namespace
}  // namespace Controller
