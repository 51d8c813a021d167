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

namespace Controller {
namespace {

using Vesk::Ptr;
using Calls = std::vector<std::string>;

char const* kindName(Vesk::AttributeKind k) {
  switch (k) {
    case Vesk::AttributeKind::key:
      return "key";
    case Vesk::AttributeKind::scalar:
      return "scalar";
    case Vesk::AttributeKind::reference:
      return "reference";
    case Vesk::AttributeKind::scalarCollection:
      return "scalarCollection";
    case Vesk::AttributeKind::entityCollection:
      return "entityCollection";
  }
  return "?";
}

// "<id> <name> <kind>" for every attribute the type declares itself.
std::vector<std::string> ownAttributes(Vesk::Entity const& e) {
  std::vector<std::string> out;
  for (auto const& a : e.veskTypeDescription().attributes) {
    out.push_back(std::to_string(a.id) + " " + a.name + " " + kindName(a.kind));
  }
  return out;
}

// The text of the reinstantiation failure f throws, or a marker when it throws none.
template <class F>
std::string reinstantiationText(F&& f) {
  try {
    f();
  } catch (Vesk::ReinstantiationException const& e) {
    return e.what();
  }
  return "<no failure>";
}

std::string reinstantiating(std::string const& fullName, std::string const& attr,
                            std::string const& newValue, std::string const& oldValue) {
  return "Reinstantiating the entity with fullName " + fullName +
         " where constructor parameter attribute '" + attr + "' has a different value of " +
         newValue + " than the current value of " + oldValue;
}

// Reactors that log every keyed or scalar notification they receive into one shared list.
struct FilterSystemLog : MountFilterSystem::NotifieeConst {
  Calls& calls;
  explicit FilterSystemLog(Calls& c) : calls(c) {}
  void onIncludedSystem(Vesk::String const& k) override {
    calls.push_back("includedSystem:" + k.stdString());
  }
};
struct FilterVersionLog : MountFilterServiceVersion::NotifieeConst {
  Calls& calls;
  explicit FilterVersionLog(Calls& c) : calls(c) {}
  void onIncludedServiceVersion(uint32_t const& k) override {
    calls.push_back("includedServiceVersion:" + std::to_string(k));
  }
};
struct ServiceMountStatusLog : ServiceMountStatus::NotifieeConst {
  Calls& calls;
  explicit ServiceMountStatusLog(Calls& c) : calls(c) {}
  void onServiceName() override { calls.push_back("serviceName"); }
  void onMountedPathPrefix(Vesk::Name const& k) override {
    calls.push_back("mountedPathPrefix:" + k.stdString());
  }
  void onSystemStatus(Vesk::Name const& k) override {
    calls.push_back("systemStatus:" + k.stdString());
  }
  void onInitialMountsComplete(Vesk::String const& k) override {
    calls.push_back("initialMountsComplete:" + k.stdString());
  }
};
struct MountStatusLog : MountStatus::NotifieeConst {
  Calls& calls;
  explicit MountStatusLog(Calls& c) : calls(c) {}
  void onMountState() override { calls.push_back("mountState"); }
  void onMountedPath() override { calls.push_back("mountedPath"); }
};
struct GroupStatusLog : ServiceMountGroupStatus::NotifieeConst {
  Calls& calls;
  explicit GroupStatusLog(Calls& c) : calls(c) {}
  void onMountState() override { calls.push_back("groupMountState"); }
  void onProcessed() override { calls.push_back("processed"); }
  void onMountStatus(Vesk::Name const& k) override {
    calls.push_back("mountStatus:" + k.stdString());
  }
};
struct PublishDirLog : PublishDir::NotifieeConst {
  Calls& calls;
  explicit PublishDirLog(Calls& c) : calls(c) {}
  void onRemoteTargetPath() override { calls.push_back("remoteTargetPath"); }
  void onReadyToPublish() override { calls.push_back("readyToPublish"); }
};
struct MountGroupLog : ServiceMountGroupConfig::NotifieeConst {
  Calls& calls;
  explicit MountGroupLog(Calls& c) : calls(c) {}
  void onVersionFilter() override { calls.push_back("versionFilter"); }
  void onSystemFilter() override { calls.push_back("systemFilter"); }
  void onMountConfig(Vesk::Name const& k) override {
    calls.push_back("mountConfig:" + k.stdString());
  }
};
struct PublishGroupLog : ServicePublishGroupConfig::NotifieeConst {
  Calls& calls;
  explicit PublishGroupLog(Calls& c) : calls(c) {}
  void onVersionFilter() override { calls.push_back("versionFilter"); }
  void onSystemFilter() override { calls.push_back("systemFilter"); }
  void onPublishConfig(Vesk::Name const& k) override {
    calls.push_back("publishConfig:" + k.stdString());
  }
  void onPublishDir(Vesk::Name const& k) override {
    calls.push_back("publishDir:" + k.stdString());
  }
};

TEST(ModelReflection, EveryTypeNumbersItsAttributesInDeclarationOrder) {
  auto mountConfig = serviceMountConfigFactory("agent");
  auto mountGroup = mountConfig->mountGroupConfigIs("grp");
  auto mount = mountGroup->mountConfigIs("vol", "plov", "ro", "/mnt/vol");
  auto status = serviceMountStatusFactory("agent");
  auto groupStatus = status->systemStatusIs("sys")->serviceMountGroupStatusIs("grp");
  auto publishConfig = servicePublishConfigFactory("agent");
  auto publishGroup = publishConfig->publishGroupConfigIs("pg");
  auto published = publishGroup->publishConfigIs("cfg", "/remote", "plov");
  auto publishedDir = publishGroup->publishDirIs("dir", "Vesk::Dir");
  auto publishStatus = servicePublishStatusFactory("svc");
  auto publishGroupStatus = publishStatus->servicePublishGroupStatusIs("pg");

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
  EXPECT_EQ(ownAttributes(*mountGroup),
            (std::vector<std::string>{"258 serviceMountGroupName key",
                                      "259 versionFilter reference", "260 systemFilter reference",
                                      "261 preserveMountsOnDisconnect scalar",
                                      "262 mountConfig entityCollection"}));
  EXPECT_EQ(ownAttributes(*mount),
            (std::vector<std::string>{"258 remotePath key", "259 plovType scalar",
                                      "260 mountFlags scalar", "261 targetMountPath scalar"}));
  EXPECT_EQ(
      ownAttributes(*status),
      (std::vector<std::string>{
          "258 agentName key", "259 serviceName scalar", "260 mountedPathPrefix entityCollection",
          "261 systemStatus entityCollection", "262 initialMountsComplete scalarCollection"}));
  EXPECT_EQ(ownAttributes(*groupStatus),
            (std::vector<std::string>{"258 serviceMountGroupName key", "259 mountState scalar",
                                      "260 mountStatus entityCollection", "261 processed scalar"}));
  EXPECT_EQ(ownAttributes(*published),
            (std::vector<std::string>{"258 controllerdbPath key", "259 remotePath scalar",
                                      "260 plovType scalar", "261 readyToPublish scalar"}));
  EXPECT_EQ(ownAttributes(*publishedDir),
            (std::vector<std::string>{"258 controllerdbPath key", "259 veskType scalar",
                                      "260 remoteTargetPath scalar", "261 readyToPublish scalar"}));
  EXPECT_EQ(ownAttributes(*publishGroupStatus),
            (std::vector<std::string>{"258 groupName key", "259 publishState scalar",
                                      "260 publishStatus entityCollection"}));
  EXPECT_EQ(mountConfig->veskTypeDescription().attribute(264)->name, std::string("warm"));
  EXPECT_STREQ(publishedDir->veskTypeName(), "Controller::PublishDir");
}

TEST(ModelNotification, ScalarsNotifyOnlyWhenTheirValueChanges) {
  Calls calls;
  auto status = serviceMountStatusFactory("agent");
  auto groupStatus = status->systemStatusIs("sys")->serviceMountGroupStatusIs("grp");
  auto mountStatus = groupStatus->mountStatusIs("vol");
  auto dir = servicePublishConfigFactory("agent")->publishGroupConfigIs("pg")->publishDirIs(
      "dir", "Vesk::Dir");
  MountStatusLog mountLog(calls);
  GroupStatusLog groupLog(calls);
  PublishDirLog dirLog(calls);
  mountLog.notifierIs(mountStatus);
  groupLog.notifierIs(groupStatus);
  dirLog.notifierIs(dir);
  calls.clear();

  mountStatus->mountStateIs(mountStateNotMounted);  // the state it already holds
  mountStatus->mountStateIs(mountStateMounting);
  mountStatus->mountStateIs(mountStateMounting);
  groupStatus->processedIs(true);
  groupStatus->processedIs(true);
  groupStatus->mountStateIs(mountStateFailed);
  dir->remoteTargetPathIs("/remote/dir");
  dir->remoteTargetPathIs(Vesk::String(std::string("/remote/dir")));  // equal text, own buffer
  dir->readyToPublishIs(false);
  EXPECT_EQ(calls, (Calls{"mountState", "processed", "groupMountState", "remoteTargetPath"}));
  EXPECT_EQ(mountStatus->mountState(), mountStateMounting);
  EXPECT_EQ(dir->remoteTargetPath(), "/remote/dir");
}

TEST(ModelNotification, KeyedValuesNotifyPerKeyOnlyOnAChange) {
  Calls calls;
  auto filter = serviceMountConfigFactory("agent")->systemFilterIs("f");
  auto versions = serviceMountConfigFactory("agent")->versionFilterIs("v");
  auto status = serviceMountStatusFactory("agent");
  FilterSystemLog filterLog(calls);
  FilterVersionLog versionLog(calls);
  ServiceMountStatusLog statusLog(calls);
  filterLog.notifierIs(filter);
  versionLog.notifierIs(versions);
  statusLog.notifierIs(status);
  calls.clear();

  filter->includedSystemIs("sysA", true);
  filter->includedSystemIs("sysA", true);
  filter->includedSystemIs("sysA", false);
  filter->includedSystemDel("absent");
  versions->includedServiceVersionIs(3, true);
  versions->includedServiceVersionIs(3, true);
  status->initialMountsCompleteIs("grp", false);  // new key holding the default still counts
  status->initialMountsCompleteIs("grp", false);
  EXPECT_EQ(calls, (Calls{"includedSystem:sysA", "includedSystem:sysA", "includedServiceVersion:3",
                          "initialMountsComplete:grp"}));
  EXPECT_EQ(filter->includedSystemSize(), 1u);
  EXPECT_FALSE(filter->includedSystem("sysA"));
  EXPECT_EQ(status->initialMountsCompleteSize(), 1u);
  EXPECT_FALSE(status->initialMountsComplete("grp"));

  calls.clear();
  filter->includedSystemDel("sysA");
  EXPECT_EQ(calls, (Calls{"includedSystem:sysA"}));
  EXPECT_EQ(filter->includedSystemSize(), 0u);
}

TEST(ModelNotification, AGroupsFilterReferencesNotifyOnlyWhenTheyPointElsewhere) {
  Calls calls;
  auto service = serviceMountConfigFactory("agent");
  auto group = service->mountGroupConfigIs("grp");
  auto versions = service->versionFilterIs("v");
  auto systems = service->systemFilterIs("s");
  auto publishService = servicePublishConfigFactory("agent");
  auto publishGroup = publishService->publishGroupConfigIs("pg");
  MountGroupLog groupLog(calls);
  PublishGroupLog publishLog(calls);
  groupLog.notifierIs(group);
  publishLog.notifierIs(publishGroup);
  calls.clear();

  group->versionFilterIs(versions);
  group->versionFilterIs(service->versionFilter("v"));  // the same filter reached again
  group->systemFilterIs(systems);
  group->versionFilterIs(nullptr);
  publishGroup->systemFilterIs(systems);  // a filter may be shared across configurations
  publishGroup->systemFilterIs(systems);
  EXPECT_EQ(calls, (Calls{"versionFilter", "systemFilter", "versionFilter", "systemFilter"}));
  EXPECT_EQ(group->systemFilter(), systems);
  EXPECT_EQ(group->versionFilter(), nullptr);
}

TEST(ModelCreateOrReturn, MountConfigIsReturnsTheHeldEntityOrNamesTheFirstDifferingParameter) {
  Calls calls;
  auto service = serviceMountConfigFactory("agent");
  auto group = service->mountGroupConfigIs("grp");
  MountGroupLog groupLog(calls);
  groupLog.notifierIs(group);
  calls.clear();

  auto mount = group->mountConfigIs("vol", "plov", "ro", "/mnt/vol");
  EXPECT_EQ(group->mountConfigIs("vol", "plov", "ro", "/mnt/vol"), mount);
  EXPECT_EQ(calls, (Calls{"mountConfig:vol"}));
  EXPECT_EQ(mount->fullName(), "/agent/grp/vol");

  EXPECT_EQ(reinstantiationText([&] { group->mountConfigIs("vol", "nfs", "rw", "/other"); }),
            reinstantiating("/agent/grp/vol", "plovType", "nfs", "plov"));
  EXPECT_EQ(reinstantiationText([&] { group->mountConfigIs("vol", "plov", "rw", "/other"); }),
            reinstantiating("/agent/grp/vol", "mountFlags", "rw", "ro"));
  EXPECT_EQ(reinstantiationText([&] { group->mountConfigIs("vol", "plov", "ro", "/other"); }),
            reinstantiating("/agent/grp/vol", "targetMountPath", "/other", "/mnt/vol"));
  // One literal, so that the shared message builder is checked too.
  EXPECT_EQ(reinstantiationText([&] { group->mountConfigIs("vol", "plov", "ro", "/x"); }),
            "Reinstantiating the entity with fullName /agent/grp/vol where constructor parameter "
            "attribute 'targetMountPath' has a different value of /x than the current value of "
            "/mnt/vol");

  // A refused declaration changes nothing and tells nobody.
  EXPECT_EQ(calls, (Calls{"mountConfig:vol"}));
  EXPECT_EQ(group->mountConfigSize(), 1u);
  EXPECT_EQ(group->mountConfig("vol"), mount);
  EXPECT_EQ(mount->plovType(), "plov");
  EXPECT_EQ(mount->mountFlags(), "ro");
  EXPECT_EQ(mount->targetMountPath(), "/mnt/vol");
}

TEST(ModelCreateOrReturn, PrefixesAndPublishedEntitiesRefuseADifferentConstructorValue) {
  Calls calls;
  auto status = serviceMountStatusFactory("agent");
  ServiceMountStatusLog statusLog(calls);
  statusLog.notifierIs(status);
  calls.clear();
  auto prefix = status->mountedPathPrefixIs("vol", "/mnt/a");
  EXPECT_EQ(status->mountedPathPrefixIs("vol", "/mnt/a"), prefix);
  EXPECT_EQ(calls, (Calls{"mountedPathPrefix:vol"}));
  EXPECT_EQ(reinstantiationText([&] { status->mountedPathPrefixIs("vol", "/mnt/b"); }),
            reinstantiating("/agent/vol", "pathPrefix", "/mnt/b", "/mnt/a"));
  EXPECT_EQ(prefix->pathPrefix(), "/mnt/a");

  auto service = servicePublishConfigFactory("agent");
  auto group = service->publishGroupConfigIs("pg");
  auto published = group->publishConfigIs("cfg", "/remote/a", "plovA");
  EXPECT_EQ(group->publishConfigIs("cfg", "/remote/a", "plovA"), published);
  EXPECT_EQ(reinstantiationText([&] { group->publishConfigIs("cfg", "/remote/b", "plovB"); }),
            reinstantiating("/agent/pg/cfg", "remotePath", "/remote/b", "/remote/a"));
  EXPECT_EQ(reinstantiationText([&] { group->publishConfigIs("cfg", "/remote/a", "plovB"); }),
            reinstantiating("/agent/pg/cfg", "plovType", "plovB", "plovA"));

  auto dir = group->publishDirIs("dir", "Vesk::Dir");
  EXPECT_EQ(group->publishDirIs("dir", "Vesk::Dir"), dir);
  EXPECT_EQ(reinstantiationText([&] { group->publishDirIs("dir", "Controller::MountStatus"); }),
            reinstantiating("/agent/pg/dir", "veskType", "Controller::MountStatus", "Vesk::Dir"));
  EXPECT_EQ(group->publishConfigSize(), 1u);
  EXPECT_EQ(group->publishDirSize(), 1u);
}

TEST(ModelEnums, PublishStateAndMountStateReadAndPrintTheirNames) {
  std::string const complete = "publishStateComplete";
  PublishState parsed = publishStateInvalid;
  EXPECT_TRUE(sequenceToValue(complete.data(), complete.data() + complete.size(), parsed));
  EXPECT_EQ(parsed, PublishState(1));
  EXPECT_EQ(valueToStrep(PublishState(0)), "publishStateInvalid");
  std::ostringstream printed;
  printed << PublishState(0) << " " << publishStateComplete;
  EXPECT_EQ(printed.str(), "publishStateInvalid publishStateComplete");

  EXPECT_EQ(PublishStateInstance(1u), publishStateComplete);
  EXPECT_EQ(PublishStateInstance(0u), publishStateInvalid);
  EXPECT_EQ(PublishStateInstance(Vesk::String("publishStateComplete")), publishStateComplete);
  EXPECT_THROW(PublishStateInstance(2u), Vesk::RangeException);
  EXPECT_THROW(PublishStateInstance(Vesk::String("publishStateDone")), Vesk::RangeException);
  EXPECT_THROW(PublishStateInstance(Vesk::String("")), Vesk::RangeException);
  std::string const two = "2";
  EXPECT_FALSE(sequenceToValue(two.data(), two.data() + two.size(), parsed));
  EXPECT_EQ(parsed, publishStateComplete);  // left as it was

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
  Calls calls;
  auto status = serviceMountStatusFactory("agent");
  for (char const* system : {"sysA", "sysB"}) {
    auto s = status->systemStatusIs(system);
    for (char const* group : {"g1", "g2"}) {
      auto g = s->serviceMountGroupStatusIs(group);
      g->mountStatusIs("vol1");
      g->mountStatusIs("vol2");
    }
  }
  EXPECT_EQ(Vesk::liveObjects<SystemStatus>(), systems + 2);
  EXPECT_EQ(Vesk::liveObjects<ServiceMountGroupStatus>(), groups + 4);
  EXPECT_EQ(Vesk::liveObjects<MountStatus>(), mounts + 8);

  ServiceMountStatusLog statusLog(calls);
  statusLog.notifierIs(status);
  calls.clear();
  status->systemStatusDel("sysA");
  status->systemStatusDel("sysA");  // already gone: nobody hears of it
  EXPECT_EQ(calls, (Calls{"systemStatus:sysA"}));
  EXPECT_EQ(Vesk::liveObjects<SystemStatus>(), systems + 1);
  EXPECT_EQ(Vesk::liveObjects<ServiceMountGroupStatus>(), groups + 2);
  EXPECT_EQ(Vesk::liveObjects<MountStatus>(), mounts + 4);

  statusLog.notifierIs(nullptr);
  status = nullptr;
  EXPECT_EQ(Vesk::liveObjects<SystemStatus>(), systems);
  EXPECT_EQ(Vesk::liveObjects<ServiceMountGroupStatus>(), groups);
  EXPECT_EQ(Vesk::liveObjects<MountStatus>(), mounts);
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
  EXPECT_EQ(Vesk::liveObjects<PublishConfig>(), configs + 3);
  EXPECT_EQ(Vesk::liveObjects<PublishDir>(), dirs + 2);
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
  EXPECT_EQ(group->systemFilter()->filterName(), "f");
  EXPECT_EQ(group->systemFilter()->fullName(), "/f");  // no longer under the service
  EXPECT_EQ(Vesk::liveObjects<MountFilterSystem>(), filters + 1);
  group->systemFilterIs(nullptr);
  EXPECT_EQ(Vesk::liveObjects<MountFilterSystem>(), filters);
}

}  // namespace
}  // namespace Controller
