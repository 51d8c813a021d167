#include "framework/trace/Trace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "framework/core/Assert.h"
#include "framework/core/Exception.h"
#include "framework/trace/FlitlogReader.h"
#include "framework/trace/TraceHelper.h"

namespace Vesk {
namespace {

// The handles these tests make start from their own defaults whatever levels the run's
// environment asks for (the environment's own effect is tested where it is set).
[[maybe_unused]] bool const environmentCleared = ::unsetenv("VESK_TRACE") == 0;

struct Peer {
  static inline int conversions = 0;
  int id;
  String stringValue() const {
    ++conversions;
    return String("peer-" + std::to_string(id));
  }
};

struct Point {
  int x, y;
};
std::ostream& operator<<(std::ostream& os, Point const& p) {
  return os << '(' << p.x << ',' << p.y << ')';
}

enum class Color : uint32_t { red = 1, blue = 7 };
enum Small : int8_t { minusTwo = -2 };
enum class Wide : uint64_t { top = std::numeric_limits<uint64_t>::max() };

std::string tempPath(std::string const& name) {
  return ::testing::TempDir() + "trace_test_" + std::to_string(::getpid()) + "_" + name;
}

std::vector<std::string> textsOf(FlitDecoding const& d) {
  std::vector<std::string> out;
  for (FlitMessage const& m : d.messages) out.push_back(m.text);
  return out;
}

// Tests that switch trace files go back to a small in-memory image and remove their files.
class TraceFileTest : public ::testing::Test {
 protected:
  // A temporary file, and unless told otherwise the smallest trace file there from now on.
  std::string file(std::string const& name, bool traceTo = true) {
    files_.push_back(tempPath(name));
    if (traceTo) Flitlog::fileIs(files_.back(), flit::minFileBytes);
    return files_.back();
  }
  void TearDown() override {
    Flitlog::fileIs(String(), flit::minFileBytes * 4);
    for (std::string const& f : files_) std::remove(f.c_str());
  }

 private:
  std::vector<std::string> files_;
};

// ---- message text

TEST(TraceMessageText, JoinsPiecesAndValuesOfEveryKind) {
  TraceHandle h("TraceTestKinds", false);
  TraceCapture capture;
  String s("str");
  Name n("name");
  char const* cp = "cp";
  char const* null = nullptr;
  std::string ss = "ss";
  std::string_view sv = "sv";
  char buffer[8] = "buf";
  VESK_TRACE(h, 5, "text:", s, "|", n, "|", cp, "|", null, "|", ss, "|", sv, "|", buffer, "|", '!');
  VESK_TRACE(h, 5, "ints:", -7, ",", 7u, ",", -(int64_t(1) << 40), ",", UINT64_MAX, ",", true, ",",
             false, ",", Color::blue, ",", minusTwo, ",", short(-3), ",",
             static_cast<unsigned char>(200), ",", Wide::top, ",", INT32_MIN);
  VESK_TRACE(h, 5, "doubles:", 0.1, ",", 1e300, ",", -2.5, ",", 3.0, ",", 1.0f / 3);
  VESK_TRACE(h, 5, "objects:", Peer{4}, ",", Point{1, 2});
  // Adjacent pieces and bare values join without separators.
  int x = 1;
  VESK_TRACE(h, 1, "a", "b", x, "c", "d");
  VESK_TRACE(h, 1, x, x);
  VESK_TRACE(h, 1, "only");
  EXPECT_EQ(capture.lines(), (std::vector<std::string>{
                                 "text:str|name|cp||ss|sv|buf|!",
                                 "ints:-7,7,-1099511627776,18446744073709551615,1,0,7,-2,-3,200,"
                                 "18446744073709551615,-2147483648",
                                 "doubles:0.1,1e+300,-2.5,3,0.3333333432674408",
                                 "objects:peer-4,(1,2)", "ab1cd", "11", "only"}));
  EXPECT_TRUE(capture.contains("1cd"));
  EXPECT_FALSE(capture.contains("abc"));
}

// The ring holds the captured text with its call site, but not what only a capture enabled.
TEST(TraceMessageText, DecodedRingTextEqualsCapturedText) {
  TraceHandle h("TraceTestRoundTrip", true);
  TraceHandle silent("TraceTestSilent", false);
  TraceCapture capture;
  VESK_TRACE(silent, 5, "unrecorded ", 1);
  VESK_TRACE(h, 5, "mixed ", String("s"), " ", -3, " ", 4000000000u, " ", INT64_MIN, " ",
             UINT64_MAX, " ", 2.5e-9, " ", Peer{9}, " ", Point{-1, 0}, " end");
  VESK_TRACE(h, 5, "empty:", String(), std::string_view(), std::string(), "|");
  FlitDecoding d = decodeFlitlog(Flitlog::image());
  ASSERT_TRUE(d.ok()) << d.error;
  ASSERT_GE(d.messages.size(), 2u);
  ASSERT_EQ(capture.lines().size(), 3u);
  EXPECT_EQ(capture.lines()[0], "unrecorded 1");
  EXPECT_EQ(d.messages[d.messages.size() - 2].text, capture.lines()[1]);
  EXPECT_EQ(d.messages.back().text, "empty:|");
  EXPECT_EQ(d.messages.back().module, "TraceTestRoundTrip");
  EXPECT_EQ(d.messages.back().file, "TraceTest.cpp");
  EXPECT_EQ(d.messages.back().level, 5);
  for (FlitMessage const& m : d.messages) EXPECT_NE(m.text, "unrecorded 1");
}

// ---- levels

TEST(TraceLevels, DisabledCallsEvaluateNoArgument) {
  TraceHandle h("TraceTestLazy", true);
  int evaluated = 0;
  auto touch = [&] { return ++evaluated; };
  Peer::conversions = 0;
  VESK_TRACE(h, 8, "detail ", touch(), Peer{1});
  EXPECT_EQ(evaluated, 0);
  EXPECT_EQ(Peer::conversions, 0);
  VESK_TRACE(h, 5, "routine ", touch(), Peer{1});
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(Peer::conversions, 1);
  h.levelIs(0);
  VESK_TRACE(h, 1, "important ", touch());
  VESK_MIRRLOG(h, 1, "important ", touch());
  EXPECT_EQ(evaluated, 1);
}

TEST(TraceLevels, DefaultsTheEnvironmentAndLevelIsClamps) {
  TraceHandle on("TraceTestOn", true);
  TraceHandle off("TraceTestOff", false);
  EXPECT_EQ(on.level(), TraceHandle::onLevel);
  EXPECT_TRUE(on.enabled(1) && on.enabled(5));
  EXPECT_FALSE(on.enabled(8));
  EXPECT_EQ(off.level(), 0);
  EXPECT_FALSE(off.enabled(1));
  off.levelIs(-4);
  EXPECT_EQ(off.level(), 0);
  off.levelIs(1000);
  EXPECT_EQ(off.level(), TraceHandle::maxLevel);
  EXPECT_TRUE(off.enabled(8));

  // The environment sets the level when a handle is created.
  char const* const old = std::getenv("VESK_TRACE");
  std::optional<std::string> const saved = old ? std::optional<std::string>(old) : std::nullopt;
  ::setenv("VESK_TRACE", "*=1,TraceTestEnv*=8,TraceTestEnvQuiet=0,bad=entry", 1);
  TraceHandle loud("TraceTestEnvLoud", false);
  TraceHandle quiet("TraceTestEnvQuiet", true);
  TraceHandle other("TraceTestOther", true);
  saved ? ::setenv("VESK_TRACE", saved->c_str(), 1) : ::unsetenv("VESK_TRACE");
  EXPECT_EQ(loud.level(), 8);
  EXPECT_EQ(quiet.level(), 0);
  EXPECT_EQ(other.level(), 1);
}

TEST(TraceLevels, CaptureRaisesEveryHandleToEightAndRestores) {
  TraceHandle before("TraceTestBefore", false);
  before.levelIs(1);
  {
    TraceCapture capture;
    TraceHandle during("TraceTestDuring", false);
    EXPECT_TRUE(before.enabled(8));
    EXPECT_FALSE(before.enabled(9));
    EXPECT_TRUE(during.enabled(8));
    EXPECT_EQ(before.level(), 1);
    before.levelIs(2);
    EXPECT_TRUE(before.enabled(8));
    {
      TraceCapture inner;
      VESK_TRACE(before, 8, "to the inner capture");
      EXPECT_EQ(inner.lines().size(), 1u);
    }
    EXPECT_TRUE(capture.lines().empty());
    VESK_TRACE(during, 8, "to the outer capture");
    EXPECT_EQ(capture.lines().size(), 1u);
    during.levelIs(9);
    { TraceCapture inner; }
    EXPECT_TRUE(during.enabled(9));
  }
  EXPECT_EQ(before.level(), 2);
  EXPECT_TRUE(before.enabled(2));
  EXPECT_FALSE(before.enabled(3));
}

TEST(TraceLevels, ConfigSyntax) {
  struct Case {
    char const* config;
    char const* module;
    int level;
    int expected;
  };
  Case const cases[] = {
      {"*=5,MountsRegistrySm=8", "MountsRegistrySm", 0, 8},
      {"*=5,MountsRegistrySm=8", "Other", 0, 5},
      {"MountsRegistrySm=8,*=2", "MountsRegistrySm", 0, 2},  // the last match wins
      {"Mounts*=1", "MountsRegistrySm", 5, 1},
      {"Mounts*=1", "Mount", 5, 5},
      {"", "Any", 3, 3},
      {" A = 7 , B ", "A", 0, 7},
      {" A = 7 , B ", "B", 0, TraceHandle::onLevel},
      {"A=x,A=128,A=-1,A=,*A=1,A*B=4,=3,A", "A", 0, TraceHandle::onLevel},
      {"A=0", "A", 5, 0},
      {"A=127", "AB", 4, 4},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(traceLevelFor(c.config, c.module, c.level), c.expected)
        << c.config << " for " << c.module;
  }
}

// ---- registry

TEST(TraceRegistry, HandlesAreFoundByNameAndNamesAreUnique) {
  std::optional<TraceHandle> b(std::in_place, "TraceTestRegB", true);
  TraceHandle a("TraceTestRegA", false);
  EXPECT_EQ(TraceHandle::handle(Name("TraceTestRegA")), &a);
  EXPECT_EQ(TraceHandle::handle(Name("TraceTestRegB")), &*b);
  EXPECT_THROW(TraceHandle("TraceTestRegA", true), NameInUseException);
  EXPECT_EQ(TraceHandle::handle(Name("TraceTestRegA")), &a);

  std::vector<TraceHandle*> all = TraceHandle::handles();
  auto posA = std::find(all.begin(), all.end(), &a);
  auto posB = std::find(all.begin(), all.end(), &*b);
  ASSERT_TRUE(posA != all.end() && posB != all.end());
  EXPECT_LT(posA, posB);
  for (size_t i = 1; i < all.size(); ++i) EXPECT_LT(all[i - 1]->name(), all[i]->name());

  b.reset();
  EXPECT_EQ(TraceHandle::handle(Name("TraceTestRegB")), nullptr);
  TraceHandle again("TraceTestRegB", true);
  EXPECT_EQ(TraceHandle::handle(Name("TraceTestRegB")), &again);
}

// ---- text trace

// Whether the process holds `path` open in a descriptor that is closed on exec: a program
// the host starts must not inherit the trace files.
::testing::AssertionResult closedOnExec(std::string const& path) {
  for (auto const& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (std::filesystem::read_symlink(fd.path(), error) !=
        std::filesystem::weakly_canonical(path)) {
      continue;
    }
    if (::fcntl(std::stoi(fd.path().filename().string()), F_GETFD) & FD_CLOEXEC) {
      return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << path << " would be inherited";
  }
  return ::testing::AssertionFailure() << path << " is not open";
}

TEST(TraceText, DetailAndMirroredMessagesBecomeTextLines) {
  std::string const path = tempPath("text");
  TraceText::fileIs(path);
  EXPECT_EQ(TraceText::file(), path);
#ifdef __GLIBC__
  EXPECT_TRUE(closedOnExec(path));
#endif
  TraceHandle h("TraceTestText", true);
  int const routineLine = __LINE__ + 1;
  VESK_TRACE(h, 5, "routine ", 1);
  int const mirroredLine = __LINE__ + 1;
  VESK_MIRRLOG(h, 1, "mirrored ", 2);
  VESK_TRACE(h, 8, "detail, not at this handle's level ", 3);
  h.levelIs(8);
  int const detailLine = __LINE__ + 1;
  VESK_TRACE(h, 8, "detail ", 4.5);
  TraceText::fileIs(String());

  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  std::remove(path.c_str());
  EXPECT_EQ(text.str(), "TraceTest.cpp:" + std::to_string(mirroredLine) +
                            " TraceTestText mirrored 2\n"
                            "TraceTest.cpp:" +
                            std::to_string(detailLine) + " TraceTestText detail 4.5\n");
  // The ring has all three produced messages.
  FlitDecoding d = decodeFlitlog(Flitlog::image());
  ASSERT_TRUE(d.ok()) << d.error;
  ASSERT_GE(d.messages.size(), 3u);
  std::vector<std::string> last = textsOf(d);
  last.erase(last.begin(), last.end() - 3);
  EXPECT_EQ(last, (std::vector<std::string>{"routine 1", "mirrored 2", "detail 4.5"}));
  EXPECT_EQ(d.messages[d.messages.size() - 3].line, uint32_t(routineLine));
}

// A helper exists only at an enabled level and prints its line, start and rest, through
// the text trace when the handle records the level and to a capture in any case.
TEST(TraceText, AHelperPrintsOneLineAtAnEnabledLevel) {
  std::string const path = tempPath("helper");
  TraceText::fileIs(path);
  TraceHandle h("TraceTestHelper", true);
  EXPECT_FALSE(TraceHelper::createIfEnabled(h, 8, "detail"));
  int const line = __LINE__ + 1;
  if (auto t = TraceHelper::createIfEnabled(h, 5, "TraceTestHelper::peer ", 7, ' ', Point{1, 2})) {
    t->trace(String(" added"), line, __FILE__);
  }
  {
    TraceCapture capture;
    auto t = TraceHelper::createIfEnabled(h, 8, "detail ", 3);
    ASSERT_TRUE(t);
    t->trace(" captured only", line, __FILE__);
    EXPECT_EQ(capture.lines(), std::vector<std::string>{"detail 3 captured only"});
  }
  TraceText::fileIs(String());
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  std::remove(path.c_str());
  EXPECT_EQ(text.str(), "TraceTest.cpp:" + std::to_string(line) +
                            " TraceTestHelper TraceTestHelper::peer 7 (1,2) added\n");
}

// ---- trace files

void tracePeer(TraceHandle& h, int peer) { VESK_TRACE(h, 5, "peer ", peer); }

TEST_F(TraceFileTest, CallSiteRegistersAgainWithEachNewFile) {
  TraceHandle h("TraceTestSwitch", true);
  std::string const first = file("first.flit");
#ifdef __GLIBC__
  EXPECT_TRUE(closedOnExec(first));
#endif
  uint32_t const generation = Flitlog::generation();
  tracePeer(h, 1);
  std::string const second = file("second.flit");
  EXPECT_NE(Flitlog::generation(), generation);
  EXPECT_EQ(Flitlog::file(), second);
  tracePeer(h, 2);
  tracePeer(h, 3);
  Flitlog::flush();

  // The first file was written out when the second replaced it.
  FlitDecoding a = readFlitlogFile(first);
  FlitDecoding b = readFlitlogFile(second);
  ASSERT_TRUE(a.ok()) << a.error;
  ASSERT_TRUE(b.ok()) << b.error;
  EXPECT_EQ(textsOf(a), (std::vector<std::string>{"peer 1"}));
  ASSERT_EQ(textsOf(b), (std::vector<std::string>{"peer 2", "peer 3"}));
  EXPECT_EQ(b.messages[0].module, "TraceTestSwitch");
  EXPECT_EQ(b.messages[0].lineText(),
            "TraceTestSwitch:" + std::to_string(b.messages[0].line) + " peer 2");
}

std::string wrapText(int i) {
  return "msg " + std::to_string(i) + " " + std::string(size_t(i % 41), char('a' + i % 26)) + " " +
         std::to_string(int64_t(i) * 1000000007) + " " + std::to_string(i % 3 - 1) + " " +
         std::to_string(i) + ".25";
}

TEST_F(TraceFileTest, WrappedRingKeepsTheNewestMessagesInOrderAndIntact) {
  TraceHandle h("TraceTestWrap", true);
  std::string const path = file("wrap.flit");
  int const total = 3000;
  for (int i = 0; i < total; ++i) {
    VESK_TRACE(h, 5, "msg ", i, " ", std::string(size_t(i % 41), char('a' + i % 26)), " ",
               int64_t(i) * 1000000007, " ", i % 3 - 1, " ", i + 0.25);
  }
  Flitlog::flush();
  FlitDecoding d = readFlitlogFile(path);
  ASSERT_TRUE(d.ok()) << d.error;
  size_t const kept = d.messages.size();
  ASSERT_GT(kept, 50u);
  // The ring went round several times.
  EXPECT_LT(kept * 4, size_t(total));
  int const first = total - int(kept);
  for (size_t k = 0; k < kept; ++k) {
    ASSERT_EQ(d.messages[k].text, wrapText(first + int(k))) << "message " << k;
    ASSERT_EQ(d.messages[k].sequence, uint64_t(first) + k);
  }
  // The reader sees the same in the live image.
  FlitDecoding live = decodeFlitlog(Flitlog::image());
  ASSERT_TRUE(live.ok()) << live.error;
  EXPECT_EQ(textsOf(live), textsOf(d));
}

TEST_F(TraceFileTest, OversizedTextIsShortenedToFitTheRing) {
  TraceHandle h("TraceTestBig", true);
  std::string const path = file("big.flit");
  std::string const big(100000, 'y');
  VESK_TRACE(h, 5, "big:", big, " n:", 42, " tail:", std::string_view("zz"));
  VESK_TRACE(h, 5, "after");
  Flitlog::flush();
  FlitDecoding d = readFlitlogFile(path);
  ASSERT_TRUE(d.ok()) << d.error;
  ASSERT_EQ(d.messages.size(), 2u);
  std::string const& text = d.messages[0].text;
  // Fixed payload: two text lengths and one int32.
  size_t const kept = Flitlog::current().maxPayload() - 3 * 4;
  EXPECT_EQ(text, "big:" + std::string(kept, 'y') + " n:42 tail:");
  EXPECT_EQ(d.messages[1].text, "after");
}

template <int N>
void numberedSite(TraceHandle& h) {
  VESK_TRACE(h, 5, "site ", N);
}
template <int... N>
void allNumberedSites(TraceHandle& h, std::integer_sequence<int, N...>) {
  (numberedSite<N>(h), ...);
}

TEST_F(TraceFileTest, FullDescriptorAreaDropsOnlyTheLateSites) {
  TraceHandle h("TraceTestMany", true);
  std::string const path = file("many.flit");
  int const sites = 200;
  allNumberedSites(h, std::make_integer_sequence<int, sites>());
  allNumberedSites(h, std::make_integer_sequence<int, sites>());
  Flitlog::flush();
  FlitDecoding d = readFlitlogFile(path);
  ASSERT_TRUE(d.ok()) << d.error;
  ASSERT_GT(d.lostDescriptors, 0u);
  size_t const registered = size_t(sites) - d.lostDescriptors;
  ASSERT_EQ(d.messages.size(), 2 * registered);
  for (size_t i = 0; i < d.messages.size(); ++i) {
    EXPECT_EQ(d.messages[i].text, "site " + std::to_string(i % registered));
  }
}

// The file holds the image as of fileIs() until a flush writes it over; a failed fileIs()
// leaves both the image and the file in use.
TEST_F(TraceFileTest, FileHoldsTheImageOfTheLastFlush) {
  TraceHandle h("TraceTestFlush", true);
  std::string const path = file("flush.flit");
  auto fileBytes = [&] {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), {});
  };
  tracePeer(h, 1);
  EXPECT_EQ(fileBytes().size(), flit::minFileBytes);
  FlitDecoding d = readFlitlogFile(path);
  ASSERT_TRUE(d.ok()) << d.error;
  EXPECT_TRUE(d.messages.empty());

  Flitlog::flush();
  std::vector<char> const flushed = fileBytes();
  std::span<std::byte const> const image = Flitlog::image();
  ASSERT_EQ(flushed.size(), image.size());
  EXPECT_EQ(std::memcmp(flushed.data(), image.data(), image.size()), 0);

  EXPECT_THROW(Flitlog::fileIs("/nonexistent-dir/x.flit", flit::minFileBytes), Exception);
  EXPECT_EQ(Flitlog::file(), path);
  tracePeer(h, 2);
  Flitlog::flush();
  EXPECT_EQ(textsOf(readFlitlogFile(path)), (std::vector<std::string>{"peer 1", "peer 2"}));
}

// A reader says what it was given: a ring that wrapped and how much it dropped, a file cut
// short, and something that is no trace at all, read no further than a header.
TEST_F(TraceFileTest, TheReaderSaysWhatItWasGiven) {
  TraceHandle h("TraceTestWrap", true);
  std::string const path = file("wrap.flit");
  int const traced = 2000;  // far more than a smallest file's ring holds
  for (int peer = 0; peer < traced; ++peer) tracePeer(h, peer);
  Flitlog::flush();
  FlitDecoding const d = readFlitlogFile(path);
  ASSERT_TRUE(d.ok()) << d.error;
  ASSERT_GT(d.lostMessages, 0u);
  EXPECT_EQ(d.lostMessages + d.messages.size(), size_t(traced));
  EXPECT_EQ(d.messages.front().text, "peer " + std::to_string(d.lostMessages));

  std::string const cut = tempPath("cut.flit");
  std::filesystem::copy_file(path, cut, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::resize_file(cut, flit::minFileBytes / 2);
  EXPECT_EQ(readFlitlogFile(cut).error.rfind("truncated: 8192 of the 16384 bytes", 0), 0u)
      << readFlitlogFile(cut).error;
  std::remove(cut.c_str());
  EXPECT_EQ(readFlitlogFile("/dev/zero").error, "not a flitlog trace file");
}

TEST_F(TraceFileTest, MessagesSurviveAFailedAssertion) {
  std::string const path = file("crash.flit", /*traceTo=*/false);
  EXPECT_DEATH(
      {
        TraceHandle h("TraceTestCrash", true);
        Flitlog::fileIs(path, flit::minFileBytes);
        for (int i = 0; i < 500; ++i) VESK_TRACE(h, 5, "before the crash ", i);
        VESK_ASSERT_MSG(h.level() < 0, "stopped after tracing");
      },
      "stopped after tracing");
  FlitDecoding d = readFlitlogFile(path);
  ASSERT_TRUE(d.ok()) << d.error;
  ASSERT_FALSE(d.messages.empty());
  EXPECT_EQ(d.messages.back().text, "before the crash 499");
  EXPECT_EQ(d.messages.back().module, "TraceTestCrash");
}

TEST_F(TraceFileTest, EveryDamageIsReportedWithTheMessagesBeforeIt) {
  TraceHandle h("TraceTestDamage", true);
  file("damage.flit");
  for (int i = 0; i < 10; ++i) VESK_TRACE(h, 5, "intact ", String("text"), " ", i);
  std::vector<std::byte> image(Flitlog::image().begin(), Flitlog::image().end());
  flit::Header header;
  std::memcpy(&header, image.data(), sizeof header);
  auto poke = [&](size_t at, auto value) { std::memcpy(image.data() + at, &value, sizeof value); };
  auto decode = [&] { return decodeFlitlog(image); };
  ASSERT_TRUE(decode().ok()) << decode().error;
  ASSERT_EQ(decode().messages.size(), 10u);

  // The header.
  EXPECT_FALSE(decodeFlitlog(std::span<std::byte const>(image).first(100)).ok());
  EXPECT_FALSE(decodeFlitlog(std::span<std::byte const>(image).first(image.size() / 2)).ok());
  EXPECT_FALSE(decodeFlitlog(std::vector<std::byte>(image.size())).ok());
  poke(offsetof(flit::Header, head), header.tail + header.ringBytes + 8);
  EXPECT_FALSE(decode().ok());
  poke(0, header);

  // A record: each here is 32 bytes; the second one is damaged.
  size_t const second = header.ringOffset + header.tail % header.ringBytes + 32;
  ASSERT_EQ(decode().messages.at(1).text, "intact text 1");
  poke(second, uint32_t(12));  // record length not a multiple of 8
  FlitDecoding d = decode();
  EXPECT_FALSE(d.ok());
  EXPECT_EQ(textsOf(d), (std::vector<std::string>{"intact text 0"}));
  poke(second, uint32_t(32));
  poke(second + 4, uint32_t(999));  // unknown descriptor
  EXPECT_FALSE(decode().ok());
  poke(second + 4, uint32_t(0));  // padding anywhere but at the end of the ring
  EXPECT_FALSE(decode().ok());
  poke(second + 4, uint32_t(1));
  poke(second + 16, uint32_t(1000));  // text longer than its record
  EXPECT_FALSE(decode().ok());
  poke(second + 16, uint32_t(4));
  EXPECT_TRUE(decode().ok());

  // A descriptor: its module name runs past the record.
  poke(header.descOffset + sizeof(flit::DescHeader), uint16_t(60000));
  EXPECT_FALSE(decode().ok());
}

TEST(FlitlogFiles, AMissingFileOrOneTooSmallIsAnError) {
  FlitDecoding d = readFlitlogFile(tempPath("missing.flit"));
  EXPECT_FALSE(d.ok());
  EXPECT_NE(d.error.find("missing.flit"), std::string::npos);
  EXPECT_THROW(Flitlog::fileIs(tempPath("tiny.flit"), 1024), RangeException);
}

}  // namespace
}  // namespace Vesk
