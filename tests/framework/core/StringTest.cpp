#include "framework/core/String.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "framework/core/Reflection.h"

namespace Vesk {
namespace {

constexpr size_t npos = String::npos;

// Every way to make a string holds exactly its bytes, terminated, and hashes as the same text
// built in one piece: equality compares hashes first.
TEST(StringForms, EveryOriginHoldsItsBytesAndHashesAsTheText) {
  std::string const text = "mount/a";
  String const a("mount"), none;
  String appended("mou");
  String const shared = appended;  // appending to a copy leaves it alone
  appended += String("n");
  appended += "t";
  appended += String();
  appended += "";
  String doubled("ab");
  doubled += doubled;
  String grown;
  grown += "x";
  auto check = [](std::string const& bytes, std::vector<String> const& forms) {
    for (String const& s : forms) {
      SCOPED_TRACE(testing::PrintToString(bytes));
      EXPECT_EQ(s.size(), bytes.size());
      EXPECT_EQ(s.empty(), bytes.empty());
      ASSERT_NE(s.charPtr(), nullptr);
      EXPECT_EQ(std::string(s.charPtr(), bytes.size() + 1), bytes + '\0');
      EXPECT_EQ(s.stdString(), bytes);
      EXPECT_EQ(s.hash(), String(bytes).hash());
      EXPECT_EQ(s.hash() == 0, bytes.empty());  // only the empty string hashes to 0 here
      EXPECT_EQ(s, String(bytes));
    }
  };
  char const* const null = nullptr;
  check(text, {String("mount/a"), String("mount/a-extra", 7), String(text),
               String(std::string_view(text)), Name("mount/a"), String("xmount/ax").substr(1, 7),
               a + "/a", "mo" + String("unt/a"), a + String("/a")});
  check("mount", {a + String(), String() + a, a + "", "" + a, a + null, null + a, appended});
  check("", {String(), String(""), String(null), String("abc", 0), String(std::string()), Name(),
             none + "", "" + none});
  check(std::string("a\0b", 3), {String("a\0b", 3)});
  check("mou", {shared});
  check("abab", {doubled});
  check("x", {grown});
  EXPECT_NE(String("a\0b", 3), String("a"));
  EXPECT_NE(String("a\0b", 3).hash(), String("a").hash());
  EXPECT_NE(String("controller/mount").hash(), String("controller/mounts").hash());
}

TEST(StringForms, CopiesShareAndMovesEmptyTheSource) {
  String a("shared");
  String copy = a;
  EXPECT_EQ(copy.charPtr(), a.charPtr());
  String moved = std::move(copy);
  EXPECT_TRUE(copy.empty());  // a moved-from string is empty
  String assigned;
  assigned = moved;
  assigned = std::move(moved);
  String& alias = assigned;
  assigned = alias;
  assigned = std::move(alias);
  EXPECT_EQ(assigned, "shared");
  EXPECT_EQ(a, "shared");
}

TEST(StringCompare, EqualityIsByTextAndLessIsATotalOrderConsistentWithIt) {
  std::vector<String> values{String(),       String("a"),  String("ab"),
                             String("b"),    String("B"),  String("a\0", 2),
                             String("\xff"), String("aa"), String("a") + "b"};
  for (String const& x : values) {
    for (String const& y : values) {
      bool const equal = x.view() == y.view();
      EXPECT_EQ(x == y, equal) << x << " vs " << y;
      EXPECT_EQ(x != y, !equal);
      // Exactly one of x < y, y < x, x == y.
      EXPECT_EQ(int(x < y) + int(y < x) + int(x == y), 1) << x << " vs " << y;
      for (String const& z : values) {
        if (x < y && y < z) {
          EXPECT_TRUE(x < z);
        }
      }
    }
  }
  // Bytes compare unsigned, as their text order: a high byte sorts after every ASCII one.
  EXPECT_TRUE(String("z") < String("\xff"));
  EXPECT_TRUE(String("a") < String("ab"));
  EXPECT_TRUE(String("B") < String("a"));
}

TEST(StringSearch, SubstrPosLastPosAndEndsWith) {
  String const s("abcdef"), path("a/b/c"), twice("/a/bc/a/bc"), file("mount.cfg");
  EXPECT_EQ((std::vector<String>{s.substr(0), s.substr(2), s.substr(2, 2), s.substr(4, 100),
                                 s.substr(6), s.substr(100), s.substr(1, 0), String().substr(0)}),
            (std::vector<String>{"abcdef", "cdef", "cd", "ef", "", "", "", ""}));
  EXPECT_STREQ(s.substr(1, 2).charPtr(), "bc");

  // pos: the first char at or after start; lastPos: the last match starting at or before it.
  EXPECT_EQ(
      (std::vector<size_t>{path.pos(0, '/'), path.pos(1, '/'), path.pos(2, '/'), path.pos(4, '/'),
                           path.pos(0, 'x'), path.pos(100, 'a'), String().pos(0, 'a')}),
      (std::vector<size_t>{1, 1, 3, npos, npos, npos, npos}));
  EXPECT_EQ((std::vector<size_t>{twice.lastPos(npos, "/bc"), twice.lastPos(7, "/bc"),
                                 twice.lastPos(6, "/bc"), twice.lastPos(1, "/bc"),
                                 twice.lastPos(npos, "/"), twice.lastPos(0, "/"),
                                 twice.lastPos(npos, "x"), twice.lastPos(npos, "/a/bc/a/bc/"),
                                 twice.lastPos(3, String()), String().lastPos(npos, "a")}),
            (std::vector<size_t>{7, 7, 2, npos, 7, 0, npos, npos, 3, npos}));
  EXPECT_TRUE(file.endsWith(".cfg") && file.endsWith("mount.cfg") && file.endsWith(""));
  EXPECT_FALSE(file.endsWith(".cf") || file.endsWith("xmount.cfg"));
  EXPECT_TRUE(String().endsWith(""));
  EXPECT_FALSE(String().endsWith("a"));
}

TEST(StringText, StrepQuotesAndEscapesAndStreamsWriteTheBytes) {
  EXPECT_EQ(
      (std::vector<String>{String().strep(), String("plain").strep(), String("it's").strep(),
                           String("a\\b").strep(), String("\\'").strep(),
                           String("say \"hi\"").strep()}),
      (std::vector<String>{"''", "'plain'", "'it\\'s'", "'a\\\\b'", "'\\\\\\''", "'say \"hi\"'"}));
  std::ostringstream out;
  out << String("a\0b", 3) << String() << Name("c");
  EXPECT_EQ(out.str(), std::string("a\0bc", 4));
}

// ---------------------------------------------------------------------------------------
// Enumeration text forms.

EnumDescription::Value const kLinkStateValues[] = {{0, "down"}, {1, "up"}, {5, "unknown"}};
EnumDescription const kLinkState{"LinkState", kLinkStateValues};

TEST(EnumText, NamesAndNumbersConvertBothWays) {
  std::pair<uint32_t, char const*> const values[] = {
      {1, "up"}, {0, "down"}, {5, "unknown"}, {7, "7"}, {4294967295u, "4294967295"}};
  for (auto const& [value, text] : values) {
    EXPECT_EQ(kLinkState.valueToStrep(value), text);
    uint32_t v = 99;
    EXPECT_TRUE(kLinkState.sequenceToValue(text, text + std::strlen(text), v)) << text;
    EXPECT_EQ(v, value);
  }
  uint32_t v = 99;
  EXPECT_TRUE(kLinkState.sequenceToValue("0", "0" + 1, v) && v == 0u);
  char const text[] = "upstream";  // only [begin, end) is read
  EXPECT_TRUE(kLinkState.sequenceToValue(text, text + 2, v));
  EXPECT_EQ(v, 1u);
  // Garbage is refused and leaves the output alone.
  for (std::string_view garbage :
       {"", "u", "upx", "UP", " up", "up ", "-1", "+1", "1x", "0x1", "4294967296", "1.0"}) {
    v = 99;
    EXPECT_FALSE(kLinkState.sequenceToValue(garbage.data(), garbage.data() + garbage.size(), v))
        << '"' << garbage << '"';
    EXPECT_EQ(v, 99u) << '"' << garbage << '"';
  }
}

}  // namespace
}  // namespace Vesk
