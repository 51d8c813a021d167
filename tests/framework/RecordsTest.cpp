// The records shared with the controller's sibling components: SystemId as a value and as a
// collection key, the mount machine's contract with its driver, published mounts, and the
// change count of the counted records.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "framework/ControllerRecords.h"
#include "framework/HashMap.h"

namespace Controller {
namespace {

using Vesk::Ptr;

SystemId systemOf(uint64_t bits) { return SystemId(Corvex::EthAddr(bits)); }

TEST(SystemIdValue, TwoIdsOfOneAddressAreOneKey) {
  SystemId const a = systemOf(0x001c73000001);
  SystemId const b = systemOf(0x001c73000001);
  EXPECT_EQ(a, b);
  EXPECT_NE(a, systemOf(0x001c73000002));

  auto published = Controllerdb::publishStatusFactory("pub");
  auto slot = published->systemIs(a);
  EXPECT_EQ(published->systemIs(b), slot);
  EXPECT_EQ(published->systemSize(), 1u);
  EXPECT_EQ(slot->fullName(), "/pub/00:1c:73:00:00:01");  // named by its text form

  Vesk::HashMap<SystemId, int> inactive;
  inactive.emplace(a, 1);
  EXPECT_FALSE(inactive.emplace(b, 2).second);
  EXPECT_EQ(*inactive.find(b), 1);
}

TEST(SystemIdValue, TextFormOrderAndStreamOutput) {
  SystemId id = systemOf(0x001c73000001);
  EXPECT_EQ(id.stringValue(), "00:1c:73:00:00:01");
  EXPECT_EQ(SystemId().stringValue(), "00:00:00:00:00:00");
  std::ostringstream os;
  os << id;
  EXPECT_EQ(os.str(), "00:1c:73:00:00:01");

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

// Records requests like the default driver and also counts the machines that went away.
struct CountingDriver : RecordingMountDriver {
  int destroyed = 0;
  void onDestroyed(MountSm&) override { ++destroyed; }
};

class MountMachine : public ::testing::Test {
 protected:
  using Request = MountDriver::Request;
  using Record = RecordingMountDriver::Record;

  void SetUp() override { mountDriverIs(driver); }
  void TearDown() override { mountDriverIs(nullptr); }

  Ptr<MountSm> machine() {
    return new MountSm(system, connection, heartbeat, "/remote/root", "/state/vol", "/mnt/vol",
                       "Vesk::Dir", "ro", 7, 30, data);
  }

  std::shared_ptr<CountingDriver> driver = std::make_shared<CountingDriver>();
  SystemId system = systemOf(0x001c73000001);
  Ptr<ConnectionConfig> connection = connectionConfigFactory("conn");
  Ptr<Heartbeat::Config> heartbeat = Heartbeat::configFactory("hb");
  Ptr<MountSmData> data = new MountSmData(system, "conn");
};

TEST_F(MountMachine, TakesItsElevenInputsInOrder) {
  auto sm = machine();
  EXPECT_EQ(sm->system(), system);
  EXPECT_EQ(sm->connectionConfig(), connection);
  EXPECT_EQ(sm->heartbeatConfig(), heartbeat);
  EXPECT_EQ(sm->remoteRoot(), "/remote/root");
  EXPECT_EQ(sm->path(), "/state/vol");
  EXPECT_EQ(sm->targetPath(), "/mnt/vol");
  EXPECT_EQ(sm->veskType(), "Vesk::Dir");
  EXPECT_EQ(sm->flags(), "ro");
  EXPECT_EQ(sm->reconnectRetries(), 7u);
  EXPECT_EQ(sm->mountTimeout(), 30u);
  EXPECT_EQ(sm->data(), data);
  EXPECT_EQ(sm->name(), "00:1c:73:00:00:01");
  EXPECT_EQ(data->systemId(), system);
  EXPECT_EQ(data->connectionName(), "conn");
}

TEST_F(MountMachine, EveryRequestReachesTheDriverItWasCreatedUnder) {
  auto sm = machine();
  EXPECT_EQ(sm->driver(), driver);
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

TEST_F(MountMachine, ConnectionConfigIsReplacesTheConfiguration) {
  struct Log : MountSm::NotifieeConst {
    int changes = 0;
    void onConnectionConfig() override { ++changes; }
  } log;
  auto sm = machine();
  log.notifierIs(sm);
  Ptr<ConnectionConfig> replacement = connectionConfigFactory("conn2");
  sm->connectionConfigIs(replacement);
  sm->connectionConfigIs(replacement);
  EXPECT_EQ(sm->connectionConfig(), replacement);
  EXPECT_EQ(log.changes, 1);
  log.notifierIs(nullptr);
}

TEST(PublishedMounts, APublishedMountIsKeyedByItsLocalPath) {
  struct Log : Controllerdb::SystemPublishedMount::NotifieeConst {
    std::vector<std::string> keys;
    void onPublishedMount(Vesk::String const& k) override { keys.push_back(k.stdString()); }
  } log;
  auto published = Controllerdb::publishStatusFactory("pub");
  auto system = published->systemIs(systemOf(0x001c73000001));
  log.notifierIs(system);
  MountDesc const desc{"/local/a", "/remote/a", "Vesk::Dir", "svc"};
  system->publishedMountIs(desc);
  system->publishedMountIs(desc);
  EXPECT_EQ(system->publishedMountSize(), 1u);
  EXPECT_EQ(system->publishedMount("/local/a"), desc);
  EXPECT_TRUE(!system->publishedMount("/remote/a"));

  MountDesc moved = desc;
  moved.remotePath = "/remote/b";
  system->publishedMountIs(moved);
  EXPECT_EQ(system->publishedMount("/local/a"), moved);
  EXPECT_EQ(system->publishedMountSize(), 1u);
  EXPECT_EQ(log.keys, (std::vector<std::string>{"/local/a", "/local/a"}));
  log.notifierIs(nullptr);
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
