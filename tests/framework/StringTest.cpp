#include "framework/String.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "framework/Reflection.h"

namespace Vesk {
namespace {

// ---------------------------------------------------------------------------------------
// Construction and access.

TEST(StringConstruction, EveryFormHoldsTheSameBytes) {
  std::string const text = "mount/a";
  std::vector<String> forms{String("mount/a"), String("mount/a-extra", 7), String(text),
                            String(std::string_view(text)), Name("mount/a")};
  for (String const& s : forms) {
    EXPECT_EQ(s.size(), 7u);
    EXPECT_EQ(s.length(), 7u);
    EXPECT_FALSE(s.empty());
    EXPECT_STREQ(s.charPtr(), "mount/a");  // terminated even when cut from a longer text
    EXPECT_EQ(s.stdString(), text);
    EXPECT_EQ(s.view(), text);
    EXPECT_EQ(std::string(s.begin(), s.end()), text);
    EXPECT_EQ(s[6], 'a');
    EXPECT_EQ(s, forms[0]);
  }
}

TEST(StringConstruction, EmbeddedNulBytesAreKept) {
  String s("a\0b", 3);
  EXPECT_EQ(s.size(), 3u);
  EXPECT_EQ(s.stdString(), std::string("a\0b", 3));
  EXPECT_NE(s, String("a"));
  EXPECT_NE(s.hash(), String("a").hash());
}

TEST(StringConstruction, CopiesShareAndMovesEmptyTheSource) {
  String a("shared");
  String copy = a;
  EXPECT_EQ(copy.charPtr(), a.charPtr());
  String moved = std::move(copy);
  EXPECT_TRUE(copy.empty());  // a moved-from string is empty
  EXPECT_EQ(moved, "shared");
  String assigned;
  assigned = moved;
  assigned = std::move(moved);
  EXPECT_EQ(assigned, "shared");
  String& alias = assigned;
  assigned = alias;
  assigned = std::move(alias);
  EXPECT_EQ(assigned, "shared");
  EXPECT_EQ(a, "shared");
}

TEST(StringEmpty, EveryEmptyFormIsTheSameEmptyString) {
  std::vector<String> forms{String(),
                            String(""),
                            String(static_cast<char const*>(nullptr)),
                            String("abc", 0),
                            String(std::string()),
                            Name()};
  for (String const& s : forms) {
    EXPECT_TRUE(s.empty());
    EXPECT_EQ(s.size(), 0u);
    EXPECT_EQ(s.hash(), 0u);
    ASSERT_NE(s.charPtr(), nullptr);
    EXPECT_STREQ(s.charPtr(), "");
    EXPECT_EQ(s.stdString(), "");
    EXPECT_EQ(s.begin(), s.end());
    EXPECT_EQ(s, String());
    EXPECT_EQ(s, "");
    EXPECT_FALSE(s < String());
    EXPECT_TRUE(s < String("a"));
  }
  EXPECT_EQ(String().substr(0), String());
  EXPECT_EQ(String().pos(0, 'a'), String::npos);
  EXPECT_EQ(String().lastPos(String::npos, "a"), String::npos);
  EXPECT_TRUE(String().endsWith(""));
  EXPECT_FALSE(String().endsWith("a"));
  EXPECT_EQ(String().strep(), "''");
}

// ---------------------------------------------------------------------------------------
// Concatenation.

TEST(StringConcat, PlusWithStringsAndCharPointersOnEitherSide) {
  String a("mount"), b("/path");
  EXPECT_EQ(a + b, "mount/path");
  EXPECT_EQ(a + "/x", "mount/x");
  EXPECT_EQ("/x" + a, "/xmount");
  EXPECT_EQ(a + String(), a);
  EXPECT_EQ(String() + a, a);
  EXPECT_EQ(a + "", a);
  EXPECT_EQ("" + a, a);
  EXPECT_TRUE((String() + "").empty());
  EXPECT_TRUE(("" + String()).empty());
  EXPECT_EQ(a + static_cast<char const*>(nullptr), a);
  EXPECT_EQ(static_cast<char const*>(nullptr) + a, a);
  // A concatenation is an ordinary string: same hash as the text built in one piece.
  EXPECT_EQ((a + b).hash(), String("mount/path").hash());
  EXPECT_EQ(("mo" + String("unt")).hash(), a.hash());
  EXPECT_EQ(a, "mount");
  EXPECT_EQ(b, "/path");
}

TEST(StringConcat, PlusEqualsAppendsWithoutTouchingSharedCopies) {
  String s("a");
  String shared = s;
  s += String("b");
  s += "c";
  s += String();
  s += "";
  EXPECT_EQ(s, "abc");
  EXPECT_EQ(s.hash(), String("abc").hash());
  EXPECT_EQ(shared, "a");
  s += s;
  EXPECT_EQ(s, "abcabc");
  String empty;
  empty += "x";
  EXPECT_EQ(empty, "x");
}

// ---------------------------------------------------------------------------------------
// Comparison and hashing.

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

TEST(StringHash, EqualTextsHashEquallyWhateverTheirOrigin) {
  String whole("controller/mounts");
  std::vector<String> same{String(std::string("controller/mounts")),
                           String("controller") + "/mounts",
                           String("xcontroller/mountsx").substr(1, 17), Name("controller/mounts")};
  for (String const& s : same) {
    EXPECT_EQ(s, whole);
    EXPECT_EQ(s.hash(), whole.hash());
    EXPECT_EQ(StringHash()(s), std::hash<String>()(whole));
  }
  Name name("controller/mounts");
  EXPECT_EQ(std::hash<Name>()(name), size_t(whole.hash()));
  EXPECT_NE(String("controller/mount").hash(), whole.hash());
}

// ---------------------------------------------------------------------------------------
// Searching and slicing.

TEST(StringSearch, SubstrClampsToTheEnd) {
  String s("abcdef");
  EXPECT_EQ(s.substr(0), s);
  EXPECT_EQ(s.substr(2), "cdef");
  EXPECT_EQ(s.substr(2, 2), "cd");
  EXPECT_EQ(s.substr(4, 100), "ef");
  EXPECT_TRUE(s.substr(6).empty());
  EXPECT_TRUE(s.substr(100).empty());
  EXPECT_TRUE(s.substr(1, 0).empty());
  EXPECT_STREQ(s.substr(1, 2).charPtr(), "bc");
}

TEST(StringSearch, PosFindsTheFirstCharAtOrAfterStart) {
  String s("a/b/c");
  EXPECT_EQ(s.pos(0, '/'), 1u);
  EXPECT_EQ(s.pos(1, '/'), 1u);
  EXPECT_EQ(s.pos(2, '/'), 3u);
  EXPECT_EQ(s.pos(4, '/'), String::npos);
  EXPECT_EQ(s.pos(0, 'x'), String::npos);
  EXPECT_EQ(s.pos(100, 'a'), String::npos);
}

TEST(StringSearch, LastPosFindsTheLastStartAtOrBeforeStart) {
  String s("/a/bc/a/bc");
  EXPECT_EQ(s.lastPos(String::npos, "/bc"), 7u);
  EXPECT_EQ(s.lastPos(7, "/bc"), 7u);
  EXPECT_EQ(s.lastPos(6, "/bc"), 2u);
  EXPECT_EQ(s.lastPos(1, "/bc"), String::npos);
  EXPECT_EQ(s.lastPos(String::npos, "/"), 7u);
  EXPECT_EQ(s.lastPos(0, "/"), 0u);
  EXPECT_EQ(s.lastPos(String::npos, "x"), String::npos);
  EXPECT_EQ(s.lastPos(String::npos, "/a/bc/a/bc/"), String::npos);
  EXPECT_EQ(s.lastPos(3, String()), 3u);
}

TEST(StringSearch, EndsWith) {
  String s("mount.cfg");
  EXPECT_TRUE(s.endsWith(".cfg"));
  EXPECT_TRUE(s.endsWith("mount.cfg"));
  EXPECT_TRUE(s.endsWith(""));
  EXPECT_FALSE(s.endsWith(".cf"));
  EXPECT_FALSE(s.endsWith("xmount.cfg"));
}

// ---------------------------------------------------------------------------------------
// Text forms.

TEST(StringStrep, QuotesAndEscapesQuoteAndBackslash) {
  EXPECT_EQ(String("plain").strep(), "'plain'");
  EXPECT_EQ(String("it's").strep(), "'it\\'s'");
  EXPECT_EQ(String("a\\b").strep(), "'a\\\\b'");
  EXPECT_EQ(String("\\'").strep(), "'\\\\\\''");
  EXPECT_EQ(String("say \"hi\"").strep(), "'say \"hi\"'");
}

TEST(StringStream, WritesTheBytes) {
  std::ostringstream out;
  out << String("a\0b", 3) << String() << Name("c");
  EXPECT_EQ(out.str(), std::string("a\0bc", 4));
}

TEST(NameAsString, ConvertsBothWaysAndComparesWithStrings) {
  String s("key");
  Name n = s;
  String back = n;
  EXPECT_EQ(n, s);
  EXPECT_EQ(back, "key");
  EXPECT_EQ(n.hash(), s.hash());
  EXPECT_TRUE(Name("a") < String("b"));
  EXPECT_EQ(n + "/x", "key/x");
}

// ---------------------------------------------------------------------------------------
// Enumeration text forms.

enum class LinkState : uint32_t { down = 0, up = 1, unknown = 5 };
EnumDescription::Value const kLinkStateValues[] = {{0, "down"}, {1, "up"}, {5, "unknown"}};
EnumDescription const kLinkState{"LinkState", kLinkStateValues};

bool parse(std::string_view text, uint32_t& out) {
  return kLinkState.sequenceToValue(text.data(), text.data() + text.size(), out);
}

TEST(EnumText, ValueToStrepGivesTheNameOrTheNumber) {
  EXPECT_EQ(kLinkState.valueToStrep(uint32_t(LinkState::up)), "up");
  EXPECT_EQ(kLinkState.valueToStrep(0), "down");
  EXPECT_EQ(kLinkState.valueToStrep(5), "unknown");
  EXPECT_EQ(kLinkState.valueToStrep(7), "7");
  EXPECT_EQ(kLinkState.valueToStrep(4294967295u), "4294967295");
}

TEST(EnumText, SequenceToValueAcceptsNamesAndNumbers) {
  uint32_t v = 99;
  EXPECT_TRUE(parse("up", v));
  EXPECT_EQ(v, 1u);
  EXPECT_TRUE(parse("unknown", v));
  EXPECT_EQ(v, 5u);
  EXPECT_TRUE(parse("0", v));
  EXPECT_EQ(v, 0u);
  EXPECT_TRUE(parse("7", v));  // a number without a name is still a value
  EXPECT_EQ(v, 7u);
  EXPECT_TRUE(parse("4294967295", v));
  EXPECT_EQ(v, 4294967295u);
  // Only [begin, end) is read.
  char const text[] = "upstream";
  EXPECT_TRUE(kLinkState.sequenceToValue(text, text + 2, v));
  EXPECT_EQ(v, 1u);
}

TEST(EnumText, SequenceToValueRejectsGarbageAndLeavesTheOutputAlone) {
  for (std::string_view garbage :
       {"", "u", "upx", "UP", " up", "up ", "-1", "+1", "1x", "0x1", "4294967296", "1.0"}) {
    uint32_t v = 99;
    EXPECT_FALSE(parse(garbage, v)) << '"' << garbage << '"';
    EXPECT_EQ(v, 99u) << '"' << garbage << '"';
  }
}

}  // namespace
}  // namespace Vesk
