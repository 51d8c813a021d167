// The model replicated over the attribute log, writer and reader in one process: the copy
// converges after every kind of change, whatever room the stream has; a read-only copy
// refuses local writes; a hostile stream is refused message by message, and nothing of a
// refused message is applied.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "framework/attrlog/Wire.h"
#include "framework/core/Exception.h"
#include "model/MountInterface.h"
#include "tests/support/AttrLogLink.h"
#include "tests/support/FailureText.h"

namespace Controller {
namespace {

using testsupport::AttrLogLink;
using testsupport::treeText;
using Vesk::Name;
using Vesk::String;
using Vesk::NboAttrLog::DecodeError;
using Vesk::NboAttrLog::Kind;
using Vesk::NboAttrLog::Out;
using Vesk::NboAttrLog::Writer;

class Replication : public ::testing::Test {
 protected:
  void SetUp() override { mountInterfaceAttrLogIs(true); }
  void TearDown() override { mountInterfaceAttrLogIs(false); }
};

// A declaration with every kind of attribute: scalars, owned collections with parameters,
// collections of values, and references between members.
Vesk::Ptr<ServiceMountConfig> declaration() {
  auto config = serviceMountConfigFactory(Name("agent"));
  config->serviceNameIs("svc");
  auto systems = config->systemFilterIs(Name("some"));
  systems->includedSystemIs("sw1", true);
  systems->includedSystemIs("sw2", false);
  auto versions = config->versionFilterIs(Name("v2"));
  versions->includedServiceVersionIs(2, true);
  auto group = config->mountGroupConfigIs(Name("g"));
  group->systemFilterIs(systems);
  group->versionFilterIs(versions);
  for (int i = 0; i < 20; ++i) {
    std::string const path = "/p" + std::to_string(i);
    group->mountConfigIs(Name(path), "Vesk::Dir", "", String("/t" + path));
  }
  return config;
}

TEST_F(Replication, ACopyConvergesAfterEveryKindOfChange) {
  auto original = declaration();
  auto copy = serviceMountConfigFactory(Name("agent"));
  AttrLogLink link(original, copy);
  link.settle();
  EXPECT_EQ(treeText(*copy), treeText(*original));

  auto group = original->mountGroupConfig(Name("g"));
  original->warmIs(true);
  original->serviceNameIs(String(std::string(40000, 'x')));  // travels in pieces
  // A key and three parameters, all long, in one announcement.
  group->mountConfigIs(Name(std::string(16384, 'k')), String(std::string(16384, 'a')),
                       String(std::string(16384, 'c')), String(std::string(50000, 'b')));
  group->mountConfigDel(Name("/p3"));
  group->mountConfigIs(Name("/new"), "Vesk::Dir", "ro", "/t/new");
  group->systemFilterIs(nullptr);
  original->systemFilter(Name("some"))->includedSystemDel("sw2");
  original->versionFilter(Name("v2"))->includedServiceVersionIs(3, true);
  auto later = original->systemFilterIs(Name("later"));
  later->includedSystemIs("sw9", true);
  group->systemFilterIs(later);
  original->mountGroupConfigIs(Name("h"))->preserveMountsOnDisconnectIs(true);
  link.settle();
  EXPECT_EQ(treeText(*copy), treeText(*original));

  // A member deleted and made again under its key is a new entity on both sides.
  original->mountGroupConfigDel(Name("g"));
  original->mountGroupConfigIs(Name("g"))->mountConfigIs(Name("/again"), "T", "", "/a");
  link.settle();
  EXPECT_EQ(treeText(*copy), treeText(*original));
  EXPECT_EQ(copy->mountGroupConfig(Name("g"))->mountConfigSize(), 1u);
}

TEST_F(Replication, AStatusTreeConvergesThroughAStreamThatIsAlwaysFull) {
  auto original = serviceMountStatusFactory(Name("agent"));
  auto copy = serviceMountStatusFactory(Name("agent"));
  AttrLogLink link(original, copy, Out::minCapacity);
  for (int s = 0; s < 40; ++s) {
    auto system = original->systemStatusIs(Name("sw" + std::to_string(s)));
    auto group = system->serviceMountGroupStatusIs(Name("g"));
    for (int m = 0; m < 50; ++m) {
      auto status = group->mountStatusIs(Name("/mount/path/" + std::to_string(m)));
      status->mountStateIs(mountStateMounted);
      status->mountedPathIs("/controller/mounts/sw" + std::to_string(s) + "/" + std::to_string(m));
      original->mountedPathPrefixIs(Name("/prefix" + std::to_string(m)), "/controller/mounts");
    }
    link.carry(3000);  // the stream drains slower than the writer fills it
  }
  original->initialMountsCompleteIs("g", true);
  original->systemStatusDel(Name("sw7"));
  link.settle();
  EXPECT_EQ(treeText(*copy), treeText(*original));
}

// Bytes carried for a full send of `original`, in chunks of `chunk`.
size_t fullSendBytes(Vesk::Ptr<ServiceMountStatus> const& original, size_t capacity, size_t chunk) {
  auto copy = serviceMountStatusFactory(Name("agent"));
  AttrLogLink link(original, copy, capacity);
  while (link.carry(chunk) != 0 || !link.out->flowOutComplete()) {
  }
  EXPECT_EQ(treeText(*copy), treeText(*original));
  return link.carried;
}

TEST_F(Replication, AnInterruptedFullSendResumesAtItsBookmark) {
  auto original = serviceMountStatusFactory(Name("agent"));
  for (int m = 0; m < 20000; ++m) {
    original->mountedPathPrefixIs(Name("/a/rather/long/remote/path/" + std::to_string(m)),
                                  "/controller/mounts/prefix");
  }
  // Interrupted many times inside the collection, the send carries exactly what one
  // uninterrupted send carries: nothing is sent twice, nothing skipped.
  size_t const whole = fullSendBytes(original, size_t(64) << 20, SIZE_MAX);
  EXPECT_GT(whole, 2 * Out::minCapacity);
  EXPECT_EQ(fullSendBytes(original, Out::minCapacity, 4096), whole);
}

// The change messages in `bytes`, as "<attr> <entity>".
std::vector<std::string> changeMessages(std::span<char const> bytes) {
  std::vector<std::string> out;
  for (size_t at = 0; at + 4 <= bytes.size();) {
    uint32_t const length = Vesk::NboAttrLog::readU32(bytes.data() + at);
    if (Kind(bytes[at + 4]) == Kind::change) {
      out.push_back(std::to_string(int32_t(Vesk::NboAttrLog::readU32(bytes.data() + at + 9))));
    }
    at += 4 + length;
  }
  return out;
}

// Fills the stream with changes the reader has not taken yet.
void fillStream(AttrLogLink& link, ServiceMountStatus& original) {
  for (int i = 0; link.out->continueFlowOut(); ++i) {
    original.initialMountsCompleteIs(String("filler" + std::to_string(i)), true);
  }
}

TEST_F(Replication, AMemberAddedAndDeletedWhileTheStreamIsFullIsSentOnceAsADeletion) {
  auto original = serviceMountStatusFactory(Name("agent"));
  auto copy = serviceMountStatusFactory(Name("agent"));
  AttrLogLink link(original, copy, Out::minCapacity);
  link.settle();
  fillStream(link, *original);
  original->initialMountsCompleteIs("brief", true);
  original->initialMountsCompleteDel("brief");
  size_t const before = link.out->size();
  link.carry(before);  // exactly the filler
  link.out->flowOut();
  EXPECT_EQ(changeMessages(link.out->bytes()), std::vector<std::string>{"-262"});
  link.settle();
  EXPECT_EQ(treeText(*copy), treeText(*original));
}

struct CountingNotifiee : MountStatus::NotifieeConst {
  void onMountState() override { ++changes; }
  void onMountedPath() override { ++changes; }
  int changes = 0;
};

TEST_F(Replication, AReceivedValueEqualToTheCopysNotifiesNobody) {
  auto original = serviceMountStatusFactory(Name("agent"));
  auto status = original->systemStatusIs(Name("sw"))
                    ->serviceMountGroupStatusIs(Name("g"))
                    ->mountStatusIs(Name("/m"));
  status->mountStateIs(mountStateMounting);
  auto copy = serviceMountStatusFactory(Name("agent"));
  AttrLogLink link(original, copy);
  link.settle();
  CountingNotifiee seen;
  seen.notifierIs(
      copy->systemStatus(Name("sw"))->serviceMountGroupStatus(Name("g"))->mountStatus(Name("/m")));
  link.out->rootIs(original);  // a full send again, every value as the copy has it
  link.settle();
  EXPECT_EQ(seen.changes, 0);
  status->mountStateIs(mountStateMounted);
  link.settle();
  EXPECT_EQ(seen.changes, 1);
}

TEST_F(Replication, ACopyIsReadOnlyForLocalWriters) {
  auto original = declaration();
  auto copy = serviceMountConfigFactory(Name("agent"));
  AttrLogLink link(original, copy);
  link.settle();
  // A notifiee of the copy that writes into it while a received change is applied is a
  // local writer too.
  struct WritesBack : ServiceMountConfig::NotifieeConst {
    void onWarm() override {
      notifierRaw()->systemFilter(Name("some"))->includedSystemIs("echo", true);
    }
  } writesBack;
  writesBack.notifierIs(copy);
  original->warmIs(true);
  EXPECT_THROW(link.settle(), Vesk::Exception);
  writesBack.notifierIs(nullptr);
  EXPECT_FALSE(copy->systemFilter(Name("some"))->includedSystem("echo"));
  std::string const before = treeText(*copy);
  auto text = [](auto&& write) { return testsupport::failureText<Vesk::ReadOnlyException>(write); };
  EXPECT_EQ(text([&] { copy->serviceNameIs("other"); }),
            "Attempt to modify read-only attribute serviceName of /agent");
  auto systems = copy->systemFilter(Name("some"));
  EXPECT_EQ(text([&] { systems->includedSystemIs("sw3", true); }),
            "Attempt to modify read-only attribute includedSystem of /agent/some");
  EXPECT_EQ(text([&] { copy->mountGroupConfigDel(Name("g")); }),
            "Attempt to modify read-only attribute mountGroupConfig of /agent");
  EXPECT_EQ(treeText(*copy), before);
}

TEST_F(Replication, AReceivedChangeIsNotEchoedToItsWriterButIsRelayedToOthers) {
  auto original = serviceMountStatusFactory(Name("agent"));
  auto copy = serviceMountStatusFactory(Name("agent"));
  AttrLogLink link(original, copy);
  Vesk::Ptr<Out> back = new Out();   // the same connection, towards the writer
  Vesk::Ptr<Out> relay = new Out();  // another reader of the copy
  link.in.replyOutIs(back.ptr());
  link.settle();
  for (auto const& out : {back, relay}) {
    out->rootIs(copy);
    out->flowOut();
    out->consumed(out->size());
  }
  original->serviceNameIs("renamed");
  original->initialMountsCompleteIs("g", true);
  link.settle();
  EXPECT_EQ(back->size(), 0u);
  EXPECT_EQ(changeMessages(relay->bytes()), (std::vector<std::string>{"259", "262"}));
}

TEST_F(Replication, AMemberMadeAgainWithOtherParametersReplacesTheCopys) {
  auto original = serviceMountStatusFactory(Name("agent"));
  original->mountedPathPrefixIs(Name("/p"), "/old");
  auto copy = serviceMountStatusFactory(Name("agent"));
  AttrLogLink link(original, copy, Out::minCapacity);
  link.settle();
  fillStream(link, *original);
  original->mountedPathPrefixDel(Name("/p"));
  original->mountedPathPrefixIs(Name("/p"), "/new");
  link.settle();
  EXPECT_EQ(copy->mountedPathPrefix(Name("/p"))->pathPrefix(), "/new");
  // A full send again, over a copy that holds members the writer made since.
  original->mountedPathPrefixDel(Name("/p"));
  original->mountedPathPrefixIs(Name("/p"), "/newer");
  link.out->rootIs(nullptr);
  link.out->rootIs(original);
  link.settle();
  EXPECT_EQ(treeText(*copy), treeText(*original));
}

TEST_F(Replication, AMemberSentAgainKeepsItsMembersBound) {
  auto original = serviceMountStatusFactory(Name("agent"));
  auto copy = serviceMountStatusFactory(Name("agent"));
  AttrLogLink link(original, copy, Out::minCapacity);
  link.settle();
  // A new system whose group changes while the stream is full: the system is announced by
  // a dirty key and again by its own walk, and its group's later changes still land.
  fillStream(link, *original);
  auto group = original->systemStatusIs(Name("sw"))->serviceMountGroupStatusIs(Name("g"));
  group->mountStateIs(mountStateMounting);
  link.settle();
  group->mountStateIs(mountStateMounted);
  group->mountStatusIs(Name("/m"))->mountedPathIs("/here");
  link.settle();
  EXPECT_EQ(treeText(*copy), treeText(*original));
}

// ---- hostile streams ----------------------------------------------------------------------

// One message, written by hand.
template <class F>
std::string message(Kind kind, uint32_t entity, int32_t attr, F&& values) {
  std::string out;
  Writer w(out);
  w.open(kind, entity, attr);
  values(w);
  w.close();
  return out;
}
std::string rootAnnouncement(char const* type) {
  return message(Kind::change, 1, 253, [&](Writer& w) {
    w.putText(type);
    w.putText("agent");
  });
}

struct Refusal {
  char const* what;
  std::string bytes;
  char const* text;  // a part of the error's text
};

TEST_F(Replication, AHostileStreamIsRefusedAndNothingOfTheRefusedMessageIsApplied) {
  std::string const root = rootAnnouncement("Controller::ServiceMountStatus");
  auto value = [](int32_t attr, auto put) { return message(Kind::change, 1, attr, put); };
  std::string tooLong = value(259, [](Writer& w) { w.putText("x"); });
  tooLong[0] = char(0x7f);
  std::string oversized = value(259, [](Writer& w) { w.putText("x"); });
  oversized[14] = char(0x7f);  // the text's length
  std::vector<Refusal> const refusals{
      {"unknown attribute", value(999, [](Writer& w) { w.put(true); }), "unknown attribute"},
      {"wrong type", value(259, [](Writer& w) { w.put(uint32_t(1)); }),
       "expected a text value, found u32"},
      {"message longer than allowed", tooLong, "exceeds the limit"},
      {"oversized text", oversized, "exceeds the limit"},
      {"no such entity", message(Kind::change, 77, 259, [](Writer& w) { w.putText("x"); }),
       "no such entity"},
      {"trailing bytes",
       value(259,
             [](Writer& w) {
               w.putText("x");
               w.put(true);
             }),
       "unexpected bytes"},
      {"a member with a half-read parameter",
       value(260,
             [](Writer& w) {
               w.putText("/path");
               w.putEntity(2);
               w.put(true);  // the prefix's pathPrefix is a text
             }),
       "expected a text value"},
      {"a key written remotely", value(258, [](Writer& w) { w.putText("x"); }), "read-only proxy"},
      {"wrong root type", rootAnnouncement("Controller::MountStatus"), "into a copy of"},
      {"unknown kind", std::string("\0\0\0\x09\x09\0\0\0\x01\0\0\x01\x03", 13),
       "unknown message kind"},
      {"an end marker without a begin marker", message(Kind::end, 1, 261, [](Writer&) {}),
       "without a begin marker"},
      {"a member id of the root",
       value(261,
             [](Writer& w) {
               w.putText("sw2");
               w.putEntity(1);
             }),
       "must be above 1"},
      {"an entity id in use",
       value(261,
             [](Writer& w) {
               w.putText("other");
               w.putEntity(2);
             }),
       "is in use"},
      {"pieces of two messages interleaved",
       message(Kind::textPiece, 1, 259,
               [](Writer& w) {
                 w.put(uint32_t(0));
                 w.putText("a");
               }) +
           message(Kind::textPiece, 2, 259,
                   [](Writer& w) {
                     w.put(uint32_t(0));
                     w.putText("b");
                   }),
       "interleaved"},
  };
  for (Refusal const& r : refusals) {
    auto copy = serviceMountStatusFactory(Name("agent"));
    Vesk::NboAttrLog::In in(copy);
    if (std::string(r.what) != "wrong root type") {
      in.apply(root + value(261, [](Writer& w) {
                 w.putText("sw");
                 w.putEntity(2);
               }));
    }
    std::string const before = treeText(*copy);
    size_t const entities = in.entities();
    std::string text;
    try {
      in.apply(r.bytes);
    } catch (Vesk::Exception const& e) {
      text = e.what();
    }
    EXPECT_NE(text.find(r.text), std::string::npos) << r.what << ": " << text;
    EXPECT_EQ(treeText(*copy), before) << r.what;
    EXPECT_EQ(in.entities(), entities) << r.what;
  }
}

TEST_F(Replication, AnEnumerationValueOutOfRangeIsRefused) {
  auto copy = serviceMountStatusFactory(Name("agent"));
  Vesk::NboAttrLog::In in(copy);
  auto change = [](uint32_t entity, int32_t attr, auto put) {
    return message(Kind::change, entity, attr, put);
  };
  in.apply(rootAnnouncement("Controller::ServiceMountStatus") +
           change(1, 261,
                  [](Writer& w) {
                    w.putText("sw");
                    w.putEntity(2);
                  }) +
           change(2, 259, [](Writer& w) {
             w.putText("g");
             w.putEntity(3);
           }));
  auto group = copy->systemStatus(Name("sw"))->serviceMountGroupStatus(Name("g"));
  std::string const text = testsupport::failureText<DecodeError>(
      [&] { in.apply(change(3, 259, [](Writer& w) { w.put(uint32_t(0xffffffff)); })); });
  EXPECT_NE(text.find("4294967295 is not an enumerator"), std::string::npos) << text;
  EXPECT_EQ(group->mountState(), mountStateNotMounted);
}

TEST_F(Replication, AChangeToATypeNoLongerReplicatedIsRefused) {
  auto original = serviceMountStatusFactory(Name("agent"));
  auto copy = serviceMountStatusFactory(Name("agent"));
  AttrLogLink link(original, copy);
  original->serviceNameIs("before");
  link.settle();
  ServiceMountStatus::veskNboAttrLogSaIs(false);  // the writer's adapter stays and sends
  original->serviceNameIs("after");
  EXPECT_NE(testsupport::failureText<DecodeError>([&] { link.carry(); }).find("is not replicated"),
            std::string::npos);
  EXPECT_EQ(copy->serviceName(), "before");
}

TEST_F(Replication, ATruncatedMessageWaitsForTheRestOfIt) {
  auto copy = serviceMountStatusFactory(Name("agent"));
  Vesk::NboAttrLog::In in(copy);
  std::string const stream = rootAnnouncement("Controller::ServiceMountStatus") +
                             message(Kind::change, 1, 259, [](Writer& w) { w.putText("svc"); });
  size_t const used = in.apply(std::span<char const>(stream).first(stream.size() - 1));
  EXPECT_LT(used, stream.size());
  EXPECT_EQ(copy->serviceName(), "");
  EXPECT_EQ(in.apply(std::span<char const>(stream).subspan(used)), stream.size() - used);
  EXPECT_EQ(copy->serviceName(), "svc");
}

}  // namespace
}  // namespace Controller
