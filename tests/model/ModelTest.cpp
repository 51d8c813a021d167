// The mount and publish model as services and the registry see it: attribute ids,
// create-or-return with its exact failure texts, the state enumerations' string forms, and
// the release of owned members with their owner. Change notification per attribute kind is
// the generator's, tested on its sample schema.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "framework/core/Exception.h"
#include "framework/core/LiveCount.h"
#include "model/MountInterface.h"
#include "tests/support/FailureText.h"

namespace Controller {
namespace {

using Vesk::Name;

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

TEST(ModelReflection, ServiceConfigurationsNumberTheirAttributesInDeclarationOrder) {
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
}

// Parameters are compared in declaration order and the first that differs is named; a
// refused declaration changes nothing and tells nobody.
TEST(ModelCreateOrReturn, EachMemberReturnsTheHeldEntityOrNamesTheFirstDifferingParameter) {
  struct GroupLog : ServiceMountGroupConfig::NotifieeConst {
    int calls = 0;
    void onMountConfig(Name const&) override { ++calls; }
  } log;
  auto service = serviceMountConfigFactory("agent");  // the group's owner, in its full name
  auto group = service->mountGroupConfigIs("grp");
  log.notifierIs(group);
  auto mount = group->mountConfigIs("vol", "plov", "ro", "/mnt/vol");
  EXPECT_EQ(group->mountConfigIs("vol", "plov", "ro", "/mnt/vol"), mount);
  EXPECT_EQ(mount->fullName(), "/agent/grp/vol");
  auto status = serviceMountStatusFactory("agent");
  EXPECT_EQ(status->mountedPathPrefixIs("vol", "/mnt/a"),
            status->mountedPathPrefixIs("vol", "/mnt/a"));
  auto publishService = servicePublishConfigFactory("agent");
  auto publish = publishService->publishGroupConfigIs("pg");
  publish->publishConfigIs("cfg", "/remote/a", "plovA");
  publish->publishDirIs("dir", "Vesk::Dir");

  std::pair<std::function<void()>, std::string> const cases[] = {
      {[&] { group->mountConfigIs("vol", "nfs", "rw", "/other"); },
       reinstantiating("/agent/grp/vol", "plovType", "nfs", "plov")},
      {[&] { group->mountConfigIs("vol", "plov", "rw", "/other"); },
       reinstantiating("/agent/grp/vol", "mountFlags", "rw", "ro")},
      // One literal, so that the shared message builder is checked too.
      {[&] { group->mountConfigIs("vol", "plov", "ro", "/x"); },
       "Reinstantiating the entity with fullName /agent/grp/vol where constructor parameter "
       "attribute 'targetMountPath' has a different value of /x than the current value of "
       "/mnt/vol"},
      {[&] { status->mountedPathPrefixIs("vol", "/mnt/b"); },
       reinstantiating("/agent/vol", "pathPrefix", "/mnt/b", "/mnt/a")},
      {[&] { publish->publishConfigIs("cfg", "/remote/b", "plovB"); },
       reinstantiating("/agent/pg/cfg", "remotePath", "/remote/b", "/remote/a")},
      {[&] { publish->publishConfigIs("cfg", "/remote/a", "plovB"); },
       reinstantiating("/agent/pg/cfg", "plovType", "plovB", "plovA")},
      {[&] { publish->publishDirIs("dir", "Controller::MountStatus"); },
       reinstantiating("/agent/pg/dir", "veskType", "Controller::MountStatus", "Vesk::Dir")},
  };
  for (auto const& [redeclare, text] : cases) EXPECT_EQ(reinstantiationText(redeclare), text);
  EXPECT_EQ(log.calls, 1);
  EXPECT_EQ(group->mountConfigSize(), 1u);
  EXPECT_EQ(mount->targetMountPath(), "/mnt/vol");
}

// The names and ranges are the model's own, quoted by services and traces; how a name is
// parsed is the generator's.
TEST(ModelEnums, PublishStateAndMountStateReadAndPrintTheirNames) {
  EXPECT_EQ(PublishStateInstance(Vesk::String("publishStateComplete")), PublishState(1));
  std::ostringstream states;
  states << PublishState(0) << "," << publishStateComplete;
  for (unsigned v = 0; v <= 5; ++v) states << "," << MountStateInstance(v);
  EXPECT_EQ(states.str(),
            "publishStateInvalid,publishStateComplete,mountStateNotMounted,mountStateConnecting,"
            "mountStateMounting,mountStateFailed,mountStateMounted,mountStateUnmounting");
  EXPECT_THROW(PublishStateInstance(2u), Vesk::RangeException);
  EXPECT_THROW(MountStateInstance(6u), Vesk::RangeException);
}

// Owned members go with their owner, all the way down; a referenced filter outlives its
// owner's deletion for as long as a group refers to it.
TEST(ModelOwnership, OwnedMembersGoWithTheirOwnerAndReferencesKeepTheirTarget) {
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
  status->systemStatusDel("sysA");
  status->systemStatusDel("sysA");
  EXPECT_EQ(live(), (std::vector<long>{1, 2, 4}));
  status = nullptr;
  EXPECT_EQ(live(), (std::vector<long>{0, 0, 0}));

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
