// The mount and publish model as services and the registry see it: attribute ids, change
// notification per attribute kind, create-or-return with its exact failure texts, the state
// enumerations' string forms, and the release of owned members with their owner.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "framework/Exception.h"
#include "framework/LiveCount.h"
#include "model/MountInterface.h"
#include "tests/support/FailureText.h"

namespace Controller {
namespace {

using Vesk::Name;
using Vesk::Ptr;
using Vesk::String;
using Calls = std::vector<std::string>;

// "<id> <name> <kind>" for every attribute the type declares itself.
std::vector<std::string> ownAttributes(Vesk::Entity const& e) {
  static char const* const kinds[] = {"key", "scalar", "reference", "scalarCollection",
                                      "entityCollection"};
  std::vector<std::string> out;
  for (auto const& a : e.veskTypeDescription().attributes) {
    out.push_back(std::to_string(a.id) + " " + a.name + " " + kinds[int(a.kind)]);
  }
  return out;
}

template <class F>
std::string reinstantiationText(F&& f) {
  return testsupport::failureText<Vesk::ReinstantiationException>(f);
}
using testsupport::reinstantiating;

// Reactors that log every notification they receive into one shared list.
struct MountStatusLog : MountStatus::NotifieeConst {
  explicit MountStatusLog(Calls& c) : calls(c) {}
  Calls& calls;
  void onMountState() override { calls.push_back("mountState"); }
  void onMountedPath() override { calls.push_back("mountedPath"); }
};
struct ServiceMountStatusLog : ServiceMountStatus::NotifieeConst {
  explicit ServiceMountStatusLog(Calls& c) : calls(c) {}
  Calls& calls;
  void onMountedPathPrefix(Name const& k) override { calls.push_back("prefix:" + k.stdString()); }
  void onSystemStatus(Name const& k) override { calls.push_back("system:" + k.stdString()); }
  void onInitialMountsComplete(String const& k) override {
    calls.push_back("initial:" + k.stdString());
  }
};
struct MountGroupLog : ServiceMountGroupConfig::NotifieeConst {
  explicit MountGroupLog(Calls& c) : calls(c) {}
  Calls& calls;
  void onVersionFilter() override { calls.push_back("versionFilter"); }
  void onSystemFilter() override { calls.push_back("systemFilter"); }
  void onMountConfig(Name const& k) override { calls.push_back("mountConfig:" + k.stdString()); }
};

TEST(ModelReflection, EveryTypeNumbersItsAttributesInDeclarationOrder) {
  auto mountConfig = serviceMountConfigFactory("agent");
  auto publishConfig = servicePublishConfigFactory("agent");
  // The key is numbered where it is declared: second in ServiceMountConfig, first in
  // ServicePublishConfig.
  EXPECT_EQ(ownAttributes(*mountConfig),
            (std::vector<std::string>{
                "258 leaderGenId scalar", "259 agentName key", "260 serviceName scalar",
                "261 mountGroupConfig entityCollection", "262 versionFilter entityCollection",
                "263 systemFilter entityCollection", "264 warm scalar"}));
  EXPECT_EQ(ownAttributes(*publishConfig),
            (std::vector<std::string>{
                "258 agentName key", "259 leaderGenId scalar", "260 serviceName scalar",
                "261 publishGroupConfig entityCollection", "262 versionFilter entityCollection",
                "263 systemFilter entityCollection", "264 ready scalar"}));
  EXPECT_EQ(mountConfig->veskTypeDescription().attribute(264)->name, std::string("warm"));

  // The other types: their first and last own attribute.
  auto mountGroup = mountConfig->mountGroupConfigIs("grp");
  auto status = serviceMountStatusFactory("agent");
  auto publishGroup = publishConfig->publishGroupConfigIs("pg");
  std::vector<std::string> ranges;
  for (Ptr<Vesk::Entity const> e : std::initializer_list<Ptr<Vesk::Entity const>>{
           mountGroup, mountGroup->mountConfigIs("vol", "plov", "ro", "/mnt/vol"), status,
           status->systemStatusIs("sys")->serviceMountGroupStatusIs("grp"),
           publishGroup->publishConfigIs("cfg", "/remote", "plov"),
           publishGroup->publishDirIs("dir", "Vesk::Dir"),
           servicePublishStatusFactory("svc")->servicePublishGroupStatusIs("pg")}) {
    auto const& own = e->veskTypeDescription().attributes;
    ranges.push_back(std::string(e->veskTypeName()) + " " + std::to_string(own.front().id) + " " +
                     own.front().name + " .. " + std::to_string(own.back().id) + " " +
                     own.back().name);
  }
  EXPECT_EQ(ranges,
            (std::vector<std::string>{
                "Controller::ServiceMountGroupConfig 258 serviceMountGroupName .. 262 mountConfig",
                "Controller::MountConfig 258 remotePath .. 261 targetMountPath",
                "Controller::ServiceMountStatus 258 agentName .. 262 initialMountsComplete",
                "Controller::ServiceMountGroupStatus 258 serviceMountGroupName .. 261 processed",
                "Controller::PublishConfig 258 controllerdbPath .. 261 readyToPublish",
                "Controller::PublishDir 258 controllerdbPath .. 261 readyToPublish",
                "Controller::ServicePublishGroupStatus 258 groupName .. 260 publishStatus"}));
}

TEST(ModelNotification, ScalarsNotifyOnlyWhenTheirValueChanges) {
  Calls calls;
  auto system = serviceMountStatusFactory("agent")->systemStatusIs("sys");
  auto mountStatus = system->serviceMountGroupStatusIs("grp")->mountStatusIs("vol");
  MountStatusLog mountLog(calls);
  mountLog.notifierIs(mountStatus);

  mountStatus->mountStateIs(mountStateNotMounted);  // the state it already holds
  mountStatus->mountStateIs(mountStateMounting);
  mountStatus->mountStateIs(mountStateMounting);
  mountStatus->mountedPathIs("/remote/dir");
  mountStatus->mountedPathIs(Vesk::String(std::string("/remote/dir")));  // equal text, own buffer
  EXPECT_EQ(calls, (Calls{"mountState", "mountedPath"}));
  EXPECT_EQ(mountStatus->mountState(), mountStateMounting);
}

TEST(ModelNotification, KeyedValuesNotifyPerKeyOnlyOnAChange) {
  Calls calls;
  auto status = serviceMountStatusFactory("agent");
  ServiceMountStatusLog statusLog(calls);
  statusLog.notifierIs(status);

  status->initialMountsCompleteIs("grp", false);  // new key holding the default still counts
  status->initialMountsCompleteIs("grp", false);
  status->initialMountsCompleteIs("other", true);
  status->initialMountsCompleteIs("grp", true);
  status->initialMountsCompleteDel("absent");
  status->initialMountsCompleteDel("other");
  EXPECT_EQ(calls, (Calls{"initial:grp", "initial:other", "initial:grp", "initial:other"}));
  EXPECT_EQ(status->initialMountsCompleteSize(), 1u);
  EXPECT_TRUE(status->initialMountsComplete("grp"));
}

TEST(ModelNotification, AGroupsFilterReferencesNotifyOnlyWhenTheyPointElsewhere) {
  Calls calls;
  auto service = serviceMountConfigFactory("agent");
  auto group = service->mountGroupConfigIs("grp");
  auto systems = service->systemFilterIs("s");
  MountGroupLog groupLog(calls);
  groupLog.notifierIs(group);

  group->versionFilterIs(service->versionFilterIs("v"));
  group->versionFilterIs(service->versionFilter("v"));  // the same filter reached again
  group->systemFilterIs(systems);
  group->versionFilterIs(nullptr);
  auto publishGroup = servicePublishConfigFactory("agent")->publishGroupConfigIs("pg");
  publishGroup->systemFilterIs(systems);  // a filter may be shared across configurations
  EXPECT_EQ(publishGroup->systemFilter(), group->systemFilter());
  EXPECT_EQ(calls, (Calls{"versionFilter", "systemFilter", "versionFilter"}));
  EXPECT_EQ(group->systemFilter(), systems);
  EXPECT_EQ(group->versionFilter(), nullptr);
}

TEST(ModelCreateOrReturn, MountConfigIsReturnsTheHeldEntityOrNamesTheFirstDifferingParameter) {
  Calls calls;
  auto service = serviceMountConfigFactory("agent");  // the group's owner, in its full name
  auto group = service->mountGroupConfigIs("grp");
  MountGroupLog groupLog(calls);
  groupLog.notifierIs(group);

  auto mount = group->mountConfigIs("vol", "plov", "ro", "/mnt/vol");
  EXPECT_EQ(group->mountConfigIs("vol", "plov", "ro", "/mnt/vol"), mount);
  EXPECT_EQ(mount->fullName(), "/agent/grp/vol");
  // Parameters are compared in declaration order; the first that differs is named.
  EXPECT_EQ(reinstantiationText([&] { group->mountConfigIs("vol", "nfs", "rw", "/other"); }),
            reinstantiating("/agent/grp/vol", "plovType", "nfs", "plov"));
  EXPECT_EQ(reinstantiationText([&] { group->mountConfigIs("vol", "plov", "rw", "/other"); }),
            reinstantiating("/agent/grp/vol", "mountFlags", "rw", "ro"));
  // One literal, so that the shared message builder is checked too.
  EXPECT_EQ(reinstantiationText([&] { group->mountConfigIs("vol", "plov", "ro", "/x"); }),
            "Reinstantiating the entity with fullName /agent/grp/vol where constructor parameter "
            "attribute 'targetMountPath' has a different value of /x than the current value of "
            "/mnt/vol");

  // A refused declaration changes nothing and tells nobody.
  EXPECT_EQ(calls, (Calls{"mountConfig:vol"}));
  EXPECT_EQ(group->mountConfigSize(), 1u);
  EXPECT_EQ(mount->targetMountPath(), "/mnt/vol");
}

// The other create-or-return members, each with the parameters in declaration order.
TEST(ModelCreateOrReturn, PrefixesAndPublishedEntitiesRefuseADifferentConstructorValue) {
  auto status = serviceMountStatusFactory("agent");
  auto prefix = status->mountedPathPrefixIs("vol", "/mnt/a");
  EXPECT_EQ(status->mountedPathPrefixIs("vol", "/mnt/a"), prefix);
  EXPECT_EQ(reinstantiationText([&] { status->mountedPathPrefixIs("vol", "/mnt/b"); }),
            reinstantiating("/agent/vol", "pathPrefix", "/mnt/b", "/mnt/a"));
  auto service = servicePublishConfigFactory("agent");
  auto group = service->publishGroupConfigIs("pg");
  group->publishConfigIs("cfg", "/remote/a", "plovA");
  EXPECT_EQ(reinstantiationText([&] { group->publishConfigIs("cfg", "/remote/b", "plovB"); }),
            reinstantiating("/agent/pg/cfg", "remotePath", "/remote/b", "/remote/a"));
  EXPECT_EQ(reinstantiationText([&] { group->publishConfigIs("cfg", "/remote/a", "plovB"); }),
            reinstantiating("/agent/pg/cfg", "plovType", "plovB", "plovA"));
  group->publishDirIs("dir", "Vesk::Dir");
  EXPECT_EQ(reinstantiationText([&] { group->publishDirIs("dir", "Controller::MountStatus"); }),
            reinstantiating("/agent/pg/dir", "veskType", "Controller::MountStatus", "Vesk::Dir"));
}

TEST(ModelEnums, PublishStateAndMountStateReadAndPrintTheirNames) {
  PublishState parsed = publishStateInvalid;
  auto parse = [&](std::string const& text) {
    return sequenceToValue(text.data(), text.data() + text.size(), parsed);
  };
  EXPECT_TRUE(parse("publishStateComplete"));
  EXPECT_EQ(parsed, PublishState(1));
  EXPECT_FALSE(parse("2"));
  EXPECT_EQ(parsed, publishStateComplete);  // left as it was
  EXPECT_EQ(valueToStrep(PublishState(0)), "publishStateInvalid");
  std::ostringstream printed;
  printed << PublishState(0) << " " << publishStateComplete;
  EXPECT_EQ(printed.str(), "publishStateInvalid publishStateComplete");

  EXPECT_EQ(PublishStateInstance(1u), publishStateComplete);
  EXPECT_EQ(PublishStateInstance(Vesk::String("publishStateComplete")), publishStateComplete);
  EXPECT_THROW(PublishStateInstance(2u), Vesk::RangeException);
  EXPECT_THROW(PublishStateInstance(Vesk::String("publishStateDone")), Vesk::RangeException);
  EXPECT_THROW(PublishStateInstance(Vesk::String("")), Vesk::RangeException);

  std::ostringstream states;
  for (unsigned v = 0; v <= 5; ++v) states << MountStateInstance(v) << (v < 5 ? "," : "");
  EXPECT_EQ(states.str(),
            "mountStateNotMounted,mountStateConnecting,mountStateMounting,mountStateFailed,"
            "mountStateMounted,mountStateUnmounting");
  EXPECT_THROW(MountStateInstance(6u), Vesk::RangeException);
}

TEST(ModelOwnership, DeletingASystemStatusReleasesItsGroupAndMountStatuses) {
  long const systems = Vesk::liveObjects<SystemStatus>();
  long const groups = Vesk::liveObjects<ServiceMountGroupStatus>();
  long const mounts = Vesk::liveObjects<MountStatus>();
  auto live = [&] {
    return std::vector<long>{Vesk::liveObjects<SystemStatus>() - systems,
                             Vesk::liveObjects<ServiceMountGroupStatus>() - groups,
                             Vesk::liveObjects<MountStatus>() - mounts};
  };
  auto status = serviceMountStatusFactory("agent");
  for (char const* system : {"sysA", "sysB"}) {
    for (char const* group : {"g1", "g2"}) {
      auto g = status->systemStatusIs(system)->serviceMountGroupStatusIs(group);
      g->mountStatusIs("vol1");
      g->mountStatusIs("vol2");
    }
  }
  EXPECT_EQ(live(), (std::vector<long>{2, 4, 8}));

  Calls calls;
  ServiceMountStatusLog statusLog(calls);
  statusLog.notifierIs(status);
  status->systemStatusDel("sysA");
  status->systemStatusDel("sysA");  // already gone: nobody hears of it
  EXPECT_EQ(calls, (Calls{"system:sysA"}));
  EXPECT_EQ(live(), (std::vector<long>{1, 2, 4}));
  statusLog.notifierIs(nullptr);
  status = nullptr;
  EXPECT_EQ(live(), (std::vector<long>{0, 0, 0}));
}

TEST(ModelOwnership, RemovingAPublishGroupRemovesWhatItPublishes) {
  long const configs = Vesk::liveObjects<PublishConfig>();
  long const dirs = Vesk::liveObjects<PublishDir>();
  auto service = servicePublishConfigFactory("agent");
  auto kept = service->publishGroupConfigIs("kept");
  kept->publishConfigIs("cfg", "/remote/k", "plov");
  for (char const* group : {"a", "b"}) {
    auto g = service->publishGroupConfigIs(group);
    g->publishConfigIs("cfg", "/remote/x", "plov");
    g->publishDirIs("dir", "Vesk::Dir");
  }
  service->publishGroupConfigDel("a");
  EXPECT_EQ(Vesk::liveObjects<PublishConfig>(), configs + 2);
  EXPECT_EQ(Vesk::liveObjects<PublishDir>(), dirs + 1);
  kept = nullptr;  // the service still holds it
  service->publishGroupConfigDelAll();
  EXPECT_EQ(Vesk::liveObjects<PublishConfig>(), configs);
  EXPECT_EQ(Vesk::liveObjects<PublishDir>(), dirs);
}

TEST(ModelOwnership, AFilterDeletedFromItsServiceStaysReferencedByItsGroup) {
  long const filters = Vesk::liveObjects<MountFilterSystem>();
  auto service = serviceMountConfigFactory("agent");
  auto group = service->mountGroupConfigIs("grp");
  group->systemFilterIs(service->systemFilterIs("f"));
  EXPECT_EQ(group->systemFilter()->fullName(), "/agent/f");
  service->systemFilterDel("f");
  EXPECT_EQ(service->systemFilter("f"), nullptr);
  ASSERT_NE(group->systemFilter(), nullptr);
  EXPECT_EQ(group->systemFilter()->fullName(), "/f");  // no longer under the service
  EXPECT_EQ(Vesk::liveObjects<MountFilterSystem>(), filters + 1);
  group->systemFilterIs(nullptr);
  EXPECT_EQ(Vesk::liveObjects<MountFilterSystem>(), filters);
}

}  // namespace
}  // namespace Controller
