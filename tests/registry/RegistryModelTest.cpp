// The registry's own model: mount entries and their mounters, publish entries with their
// remote path and filters, MounterName and proxy service names.
#include <gtest/gtest.h>

#include "tests/support/FailureText.h"

#include <sstream>
#include <string>
#include <vector>

#include "framework/core/Dir.h"
#include "framework/core/Exception.h"
#include "framework/core/HashMap.h"
#include "registry/MounterName.h"
#include "registry/MountsRegistry.h"

namespace Controller {
namespace {

using Vesk::Ptr;
using Calls = std::vector<std::string>;

template <class F>
std::string nameInUseText(F&& f) {
  return testsupport::failureText<Vesk::NameInUseException>(f);
}

std::string refused(std::string const& fullName, std::string const& attr,
                    std::string const& newValue, std::string const& oldValue) {
  return testsupport::reinstantiating(fullName, attr, newValue, oldValue) + " not allowed";
}

// A new publish entry is logged with its remote path and whether it has each filter.
struct RegistryLog : MountsRegistry::NotifieeConst {
  Calls calls;
  void onMountEntry(Vesk::Name const& k) override {
    calls.push_back("mountEntry:" + k.stdString());
  }
  void onPublishEntry(Vesk::Name const& k) override {
    auto e = notifier()->publishEntry(k);
    calls.push_back("publishEntry:" + k.stdString() + " " + e->remotePath().stdString() + " " +
                    (e->versionFilter() ? "v" : "-") + (e->systemFilter() ? "s" : "-"));
  }
};
struct PublishEntryLog : PublishRegistryEntry::NotifieeConst {
  Calls calls;
  void onRemotePath() override { calls.push_back("remotePath"); }
  void onVersionFilter() override { calls.push_back("versionFilter"); }
  void onSystemFilter() override { calls.push_back("systemFilter"); }
};

class RegistryModel : public ::testing::Test {
 protected:
  void SetUp() override {
    log.notifierIs(registry);
    log.calls.clear();  // drop the immediate notifications of registration
  }
  void TearDown() override { log.notifierIs(nullptr); }

  Ptr<Vesk::Dir> root = Vesk::dirFactory("root");
  Ptr<MountsRegistry> registry =
      new MountsRegistry("reg", root->subdirIs("registry"), "registry", root, "/remote", 3, 5.0);
  RegistryLog log;
};

TEST_F(RegistryModel, MountEntryIsComparesTargetPathVeskTypeAndFlagsInThatOrder) {
  auto entry = registry->mountEntryIs("e", "/mnt/e", "Vesk::Dir", "ro");
  EXPECT_EQ(registry->mountEntryIs("e", "/mnt/e", "Vesk::Dir", "ro"), entry);
  EXPECT_EQ(entry->registry(), registry.ptr());
  EXPECT_EQ(nameInUseText([&] { registry->mountEntryIs("e", "/mnt/x", "Other", "rw"); }),
            refused("/reg/e", "targetPath", "/mnt/x", "/mnt/e"));
  EXPECT_EQ(nameInUseText([&] { registry->mountEntryIs("e", "/mnt/e", "Other", "rw"); }),
            refused("/reg/e", "veskType", "Other", "Vesk::Dir"));
  EXPECT_EQ(nameInUseText([&] { registry->mountEntryIs("e", "/mnt/e", "Vesk::Dir", "rw"); }),
            "Reinstantiating the entity with fullName /reg/e where constructor parameter "
            "attribute 'mountFlags' has a different value of rw than the current value of ro "
            "not allowed");
  EXPECT_EQ(log.calls, (Calls{"mountEntry:e"}));
  EXPECT_EQ(registry->mountEntrySize(), 1u);
}

class PublishEntries : public RegistryModel {
 protected:
  Ptr<ServicePublishConfig> service = servicePublishConfigFactory("agent");
  Ptr<MountFilterServiceVersion const> v1 = service->versionFilterIs("v1");
  Ptr<MountFilterServiceVersion const> v2 = service->versionFilterIs("v2");
  Ptr<MountFilterSystem const> s1 = service->systemFilterIs("s1");
  Ptr<MountFilterSystem const> s2 = service->systemFilterIs("s2");
};

// A new entry is announced once, with its path and filters already set. A re-declaration
// always takes the new remote path, even when a constructor value then refuses it; only one
// that succeeds takes the new filters.
TEST_F(PublishEntries, ARefusedRedeclarationKeepsTheNewRemotePathButNotTheNewFilters) {
  auto entry = registry->publishEntryIs("p", "/remote/a", "svc", false, "Vesk::Dir", v1, s1);
  registry->publishEntryIs("q", "/remote/q", "svc", false, "Vesk::Dir", nullptr, nullptr);
  Calls const announced{"publishEntry:p /remote/a vs", "publishEntry:q /remote/q --"};
  EXPECT_EQ(log.calls, announced);
  PublishEntryLog entryLog;
  entryLog.notifierIs(entry);

  // Every constructor value differs: isPrefixPath is compared first.
  EXPECT_EQ(nameInUseText([&] {
              registry->publishEntryIs("p", "/remote/b", "other", true, "Other", v2, s2);
            }),
            refused("/reg/p", "isPrefixPath", "true", "false"));
  EXPECT_EQ(nameInUseText([&] {
              registry->publishEntryIs("p", "/remote/c", "other", false, "Other", v2, s2);
            }),
            refused("/reg/p", "serviceName", "other", "svc"));
  EXPECT_EQ(nameInUseText(
                [&] { registry->publishEntryIs("p", "/remote/c", "svc", false, "Other", v2, s2); }),
            "Reinstantiating the entity with fullName /reg/p where constructor parameter "
            "attribute 'veskType' has a different value of Other than the current value of "
            "Vesk::Dir not allowed");
  EXPECT_EQ(entry->remotePath(), "/remote/c");
  EXPECT_EQ(entry->versionFilter(), v1);
  EXPECT_EQ(entry->systemFilter(), s1);
  EXPECT_EQ(entryLog.calls, (Calls{"remotePath", "remotePath"}));

  EXPECT_EQ(registry->publishEntryIs("p", "/remote/d", "svc", false, "Vesk::Dir", v2, s2), entry);
  EXPECT_EQ(entry->remotePath(), "/remote/d");
  EXPECT_EQ(entry->versionFilter(), v2);
  EXPECT_EQ(entry->systemFilter(), s2);
  EXPECT_EQ(entryLog.calls,
            (Calls{"remotePath", "remotePath", "remotePath", "versionFilter", "systemFilter"}));
  EXPECT_EQ(log.calls, announced);
  entryLog.notifierIs(nullptr);
}

TEST_F(RegistryModel, MountersAreKeyedByServiceSoASecondGroupOfOneServiceIsRefused) {
  auto config = serviceMountConfigFactory("agent");
  auto g1 = config->mountGroupConfigIs("g1");
  auto g2 = config->mountGroupConfigIs("g2");
  Ptr<MountConfig const> m1 = g1->mountConfigIs("vol", "plov", "ro", "/mnt/vol");
  Ptr<MountConfig const> m2 = g2->mountConfigIs("vol", "plov", "ro", "/mnt/vol");
  auto status = serviceMountStatusFactory("agent");
  auto entry = registry->mountEntryIs("e", "/mnt/e", "Vesk::Dir", "ro");

  auto mounter = entry->mounterIs(MounterName("svc", "g1"), m1, g1, status);
  EXPECT_EQ(entry->mounter("svc"), mounter);
  EXPECT_EQ(entry->mounterIs(MounterName("svc", "g1"), m1, g1, status), mounter);

  EXPECT_EQ(nameInUseText([&] { entry->mounterIs(MounterName("svc", "g2"), m2, g2, status); }),
            "Reinstantiating the entity with fullName /reg/e/svc where constructor parameter "
            "attribute 'mounterName' has a different value of Value('Controller::MounterName', "
            "** {'serviceName': 'svc', 'groupName': 'g2'}) than the current value of "
            "Value('Controller::MounterName', ** {'serviceName': 'svc', 'groupName': 'g1'}) not "
            "allowed");
  EXPECT_EQ(entry->mounterSize(), 1u);

  entry->mounterIs(MounterName("svc2", "g2"), m2, g2, status);
  EXPECT_EQ(entry->mounterSize(), 2u);
}

// Ordered by serviceName, then groupName. Swapped fields hash alike, yet a collection keeps
// them apart; the default name hashes to 0 and is the only false one.
TEST(MounterNameValue, EqualityOrderAndHash) {
  MounterName const a = MounterName("svc", "grp");
  EXPECT_EQ(a, MounterName(Vesk::String("svc"), Vesk::String("grp")));
  EXPECT_NE(a, MounterName("svc", "grp2"));
  EXPECT_NE(a, MounterName("svc2", "grp"));
  EXPECT_LT(MounterName("a", "z"), MounterName("b", "a"));
  EXPECT_LT(MounterName("svc", "a"), MounterName("svc", "b"));
  EXPECT_FALSE(MounterName("svc", "b") < MounterName("svc", "a"));
  EXPECT_FALSE(a < a);

  MounterName const swapped = MounterName("grp", "svc");
  EXPECT_EQ(swapped.hash(), a.hash());
  Vesk::HashMap<MounterName, int> members;
  members.emplace(a, 1);
  EXPECT_TRUE(members.emplace(swapped, 2).second);
  EXPECT_EQ(*members.find(a), 1);
  EXPECT_EQ(*members.find(swapped), 2);

  EXPECT_EQ(MounterName().hash(), 0u);
  EXPECT_TRUE(!MounterName() && !MounterName("", ""));
  EXPECT_FALSE(!MounterName("svc", "") || !MounterName("", "grp"));
}

TEST(MounterNameValue, StringFormPrintsAndReadsBack) {
  MounterName const a = MounterName("svc", "grp");
  std::string const text =
      "Value('Controller::MounterName', ** {'serviceName': 'svc', 'groupName': 'grp'})";
  EXPECT_EQ(a.stringValue(), text);
  EXPECT_EQ(valueToStrep(a), text);
  std::ostringstream os;
  os << a;
  EXPECT_EQ(os.str(), text);
  EXPECT_EQ(MounterName(MounterName::FromText{}, text.data(), text.data() + text.size()), a);

  // Quotes and backslashes in a field survive the round trip.
  MounterName const odd = MounterName("it's", "a\\b");
  EXPECT_EQ(odd.stringValue(),
            "Value('Controller::MounterName', ** {'serviceName': 'it\\'s', 'groupName': "
            "'a\\\\b'})");
  MounterName back;
  EXPECT_TRUE(back.stringValueIs(odd.stringValue()));
  EXPECT_EQ(back, odd);
  EXPECT_TRUE(back.stringValueIs(MounterName().stringValue()));
  EXPECT_TRUE(!back);

  MounterName kept = MounterName("svc", "grp");
  for (std::string const& bad : std::vector<std::string>{
           "",
           std::string("Value('Controller::Other', ** {'serviceName': 'svc', 'groupName': 'grp'})"),
           text.substr(0, text.size() - 1),  // no closing parenthesis
           text + " ",                       // trailing text
           "Value('Controller::MounterName', ** {'serviceName': 'svc, 'groupName': 'grp'})",
           "Value('Controller::MounterName', ** {'serviceName': svc, 'groupName': 'grp'})",
           "Value('Controller::MounterName', ** {'groupName': 'grp', 'serviceName': 'svc'})",
       }) {
    EXPECT_FALSE(kept.stringValueIs(Vesk::String(bad))) << bad;
    EXPECT_EQ(kept, MounterName("svc", "grp")) << bad;
    EXPECT_TRUE(!MounterName(MounterName::FromText{}, bad.data(), bad.data() + bad.size())) << bad;
  }
}

TEST(ProxyServiceNames, OnlyTheExactSuffixMakesAProxy) {
  std::pair<char const*, char const*> const proxies[] = {
      {"svc-Proxy", "svc"}, {"-Proxy", ""}, {"a-Proxy-Proxy", "a-Proxy"}};
  for (auto const& [name, real] : proxies) {
    EXPECT_TRUE(isProxyServiceName(name)) << name;
    EXPECT_EQ(realServiceNameOfProxy(name), real);
  }
  for (char const* name : {"svc-proxy", "a-Proxy-b", "Proxy", "svcProxy", ""}) {
    EXPECT_FALSE(isProxyServiceName(name)) << name;
  }
}

}  // namespace
}  // namespace Controller
