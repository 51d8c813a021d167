// The records shared with the controller's sibling components: SystemId as a value and as a
// collection key, the mount machine's contract with its driver, published mounts, and the
// change count of the counted records.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "framework/core/HashMap.h"
#include "framework/records/ControllerRecords.h"

namespace Controller {
namespace {

using Vesk::Ptr;

SystemId systemOf(uint64_t bits) { return SystemId(Corvex::EthAddr(bits)); }

TEST(SystemIdValue, TextFormOrderAndUseAsAKey) {
  SystemId id = systemOf(0x001c73000001);
  EXPECT_EQ(id.stringValue(), "00:1c:73:00:00:01");
  EXPECT_EQ(SystemId().stringValue(), "00:00:00:00:00:00");
  std::ostringstream os;
  os << id;
  EXPECT_EQ(os.str(), "00:1c:73:00:00:01");

  // Two ids of one address are one key, in an owned collection (named by the text form) and
  // in a plain one.
  auto published = Controllerdb::publishStatusFactory("pub");
  auto slot = published->systemIs(id);
  EXPECT_EQ(published->systemIs(systemOf(0x001c73000001)), slot);
  EXPECT_EQ(published->systemSize(), 1u);
  EXPECT_EQ(slot->fullName(), "/pub/00:1c:73:00:00:01");
  Vesk::HashMap<SystemId, int> inactive;
  inactive.emplace(id, 1);
  EXPECT_FALSE(inactive.emplace(systemOf(0x001c73000001), 2).second);
  EXPECT_NE(id, systemOf(0x001c73000002));

  EXPECT_TRUE(id.stringValueIs("0A:1B:2c:3d:4e:5F"));
  EXPECT_EQ(id, systemOf(0x0a1b2c3d4e5f));
  EXPECT_EQ(id.stringValue(), "0a:1b:2c:3d:4e:5f");
  EXPECT_TRUE(id.stringValueIs("00-1c-73-00-00-02"));
  EXPECT_EQ(id, systemOf(0x001c73000002));
  for (char const* bad : {"", "00:1c:73:00:00", "00:1c:73:00:00:0g", "00:1c:73:00:00:012",
                          "00;1c:73:00:00:02", "001c:73:00:00:02 ", "0:1c:73:00:00:002"}) {
    EXPECT_FALSE(id.stringValueIs(bad)) << bad;
    EXPECT_EQ(id, systemOf(0x001c73000002)) << bad;
  }

  // Ordered by address, most significant byte first.
  EXPECT_LT(systemOf(0x001c73000001), systemOf(0x001c73000002));
  EXPECT_LT(systemOf(0x00ffffffffff), systemOf(0x010000000000));
  EXPECT_FALSE(systemOf(0x010000000000) < systemOf(0x00ffffffffff));
  EXPECT_FALSE(id < id);
}

// A machine asks for its mount when it is made and keeps the driver it was made under.
TEST(MountMachine, EveryRequestReachesTheDriverItWasCreatedUnder) {
  using Request = MountDriver::Request;
  using Record = RecordingMountDriver::Record;
  struct CountingDriver : RecordingMountDriver {
    int destroyed = 0;
    void onDestroyed(MountSm&) override { ++destroyed; }
  };
  auto driver = std::make_shared<CountingDriver>();
  mountDriverIs(driver);
  SystemId const system = systemOf(0x001c73000001);
  auto machine = [&] {
    return Ptr<MountSm>(new MountSm(
        system, connectionConfigFactory("conn"), Heartbeat::configFactory("hb"), "/remote/root",
        "/state/vol", "/mnt/vol", "Vesk::Dir", "ro", 7, 30, new MountSmData(system, "conn")));
  };
  auto sm = machine();
  EXPECT_EQ(sm->driver(), driver);
  EXPECT_EQ(sm->name(), "00:1c:73:00:00:01");
  sm->doRemount();
  sm->doUnmount();
  sm->doStatePreservingUnmount();
  mountDriverIs(nullptr);  // machines already made keep their driver
  sm->doCleanup();
  std::string const id = "00:1c:73:00:00:01";
  EXPECT_EQ(driver->records(),
            (std::vector<Record>{{id, "/state/vol", Request::mount},
                                 {id, "/state/vol", Request::remount},
                                 {id, "/state/vol", Request::unmount},
                                 {id, "/state/vol", Request::statePreservingUnmount},
                                 {id, "/state/vol", Request::cleanup}}));
  std::vector<std::string> names;
  for (auto const& r : driver->records()) names.push_back(requestName(r.request));
  EXPECT_EQ(names, (std::vector<std::string>{"mount", "remount", "unmount",
                                             "statePreservingUnmount", "cleanup"}));

  auto later = machine();
  EXPECT_NE(later->driver(), driver);
  EXPECT_EQ(driver->records().size(), 5u);
  EXPECT_EQ(driver->destroyed, 0);
  sm = nullptr;
  EXPECT_EQ(driver->destroyed, 1);
}

TEST(PublishedMounts, APublishedMountIsKeyedByItsLocalPath) {
  auto published = Controllerdb::publishStatusFactory("pub");
  auto system = published->systemIs(systemOf(0x001c73000001));
  MountDesc const desc{"/local/a", "/remote/a", "Vesk::Dir", "svc"};
  system->publishedMountIs(desc);
  EXPECT_EQ(system->publishedMountSize(), 1u);
  EXPECT_EQ(system->publishedMount("/local/a"), desc);
}

// Each change of a counted record is counted before its notifiees hear of it, so that a
// reader called from any of them already sees the new count; setting a value already held
// and changing an uncounted record count nothing.
TEST(CountedRecords, EveryChangeIsCountedBeforeItIsNotified) {
  struct Seen : ServiceVersionStatusV1::NotifieeConst {
    uint64_t count = 0;
    void onNegotiatedVersion() override { count = Vesk::countedRecordChanges(); }
  } seen;
  auto version = serviceVersionStatusV1Factory("v");
  seen.notifierIs(version);
  uint64_t const before = Vesk::countedRecordChanges();
  version->negotiatedVersionIs(2);
  EXPECT_EQ(seen.count, before + 1);
  version->negotiatedVersionIs(2);
  EXPECT_EQ(Vesk::countedRecordChanges(), before + 1);

  auto counts = [](auto&& change) {
    uint64_t const start = Vesk::countedRecordChanges();
    change();
    return Vesk::countedRecordChanges() - start;
  };
  auto peers = peerTableFactory("peers");
  auto dir = serviceStatusDirFactory("dir");
  SystemId const system = systemOf(0x001c73000001);
  EXPECT_EQ(counts([&] { peers->peerIs(system); }), 1u);
  EXPECT_EQ(counts([&] { peers->peer(system)->serviceStatusDirIs(dir); }), 1u);
  EXPECT_EQ(counts([&] { dir->serviceIs("svc"); }), 1u);
  EXPECT_EQ(counts([&] { dir->service("svc")->enabledIs(true); }), 1u);
  EXPECT_EQ(counts([&] { dir->service("svc")->versionStatusIs(version); }), 1u);
  EXPECT_EQ(counts([&] { version->versionCompatibleIs(true); }), 1u);
  EXPECT_EQ(counts([&] { dir->serviceDel("svc"); }), 1u);
  EXPECT_EQ(counts([&] { peers->peerDel(system); }), 1u);
  EXPECT_EQ(counts([&] { connectionConfigFactory("conn")->mountTimeoutIs(5); }), 0u);
  seen.notifierIs(nullptr);
}

}  // namespace
}  // namespace Controller
