// The generator's output for a small schema that uses every attribute kind.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "framework/core/Dir.h"
#include "framework/core/TypeRegistry.h"
#include "tests/support/FailureText.h"
#include "tests/tools/Sample.h"

namespace Sample {
namespace {

using Calls = std::vector<std::string>;
using testsupport::failureText;

struct Recorder : Shelf::NotifieeConst {
  Calls calls;
  void onLabel() override { calls.push_back("label"); }
  void onCount() override { calls.push_back("count"); }
  void onColour() override { calls.push_back("colour"); }
  void onFavourite() override { calls.push_back("favourite"); }
  void onTag(Vesk::String const& k) override { calls.push_back("tag:" + k.stdString()); }
  void onTag() override { calls.push_back("tag*"); }
  void onBook(Vesk::Name const& k) override { calls.push_back("book:" + k.stdString()); }
};

class GeneratedShelf : public ::testing::Test {
 protected:
  Vesk::Ptr<Shelf> shelf = shelfFactory("shelf");
  Recorder recorder;
  void SetUp() override {
    recorder.notifierIs(shelf);
    // Registration delivers the immediate whole-collection notifications.
    EXPECT_EQ(recorder.calls, Calls{"tag*"});
    recorder.calls.clear();
  }
};

TEST_F(GeneratedShelf, ScalarsAndReferencesNotifyOnlyOnAChangeOfValue) {
  auto book = shelf->bookIs("b", "author", 10);
  recorder.calls.clear();
  shelf->labelIs("a");
  shelf->labelIs(Vesk::String(std::string("a")));  // equal text in its own buffer
  shelf->countIs(3);
  shelf->countIs(3);
  shelf->colourIs(colourRed);
  shelf->colourIs(colourRed);
  shelf->quietIs(true);  // not notifying
  shelf->favouriteIs(book);
  shelf->favouriteIs(book);
  shelf->favouriteIs(nullptr);
  EXPECT_EQ(recorder.calls, (Calls{"label", "count", "colour", "favourite", "favourite"}));
  EXPECT_TRUE(shelf->quiet());
}

TEST_F(GeneratedShelf, CollectionMembersNotifyOnInsertChangeAndDeleteOnly) {
  shelf->tagIs("x", true);
  shelf->tagIs("x", true);
  shelf->tagIs("x", false);
  shelf->tagDel("absent");
  shelf->tagDel("x");
  shelf->tagIs("y", false);  // a new key with the default value still notifies
  EXPECT_EQ(recorder.calls, (Calls{"tag:x", "tag:x", "tag:x", "tag:y"}));
  EXPECT_EQ(shelf->tagSize(), 1u);

  shelf->bookIs("a", "x", 1);
  shelf->bookIs("b", "x", 1);
  recorder.calls.clear();
  shelf->bookDelAll();
  std::sort(recorder.calls.begin(), recorder.calls.end());  // in hash order
  EXPECT_EQ(recorder.calls, (Calls{"book:a", "book:b"}));
  EXPECT_EQ(shelf->bookSize(), 0u);
}

// An owned member is created once; a differing parameter is refused with the first one named,
// in declaration order, and a name-in-use collection ends its text with "not allowed".
TEST_F(GeneratedShelf, OwnedMembersAreCreatedOnceAndRefusalsHaveTheirExactTexts) {
  auto first = shelf->bookIs("b", "author", 10);
  EXPECT_EQ(shelf->bookIs("b", "author", 10), first);
  EXPECT_EQ(recorder.calls, Calls{"book:b"});
  EXPECT_EQ(first->shelf(), shelf.ptr());
  EXPECT_EQ(first->fullName(), "/shelf/b");
  EXPECT_EQ(failureText<Vesk::ReinstantiationException>([&] { shelf->bookIs("b", "other", 11); }),
            "Reinstantiating the entity with fullName /shelf/b where constructor parameter "
            "attribute 'author' has a different value of other than the current value of author");
  EXPECT_EQ(failureText<Vesk::ReinstantiationException>([&] { shelf->bookIs("b", "author", 11); }),
            "Reinstantiating the entity with fullName /shelf/b where constructor parameter "
            "attribute 'pages' has a different value of 11 than the current value of 10");
  shelf->rareIs("r", "a", 1);
  EXPECT_EQ(failureText<Vesk::NameInUseException>([&] { shelf->rareIs("r", "b", 1); }),
            "Reinstantiating the entity with fullName /shelf/r where constructor parameter "
            "attribute 'author' has a different value of b than the current value of a not "
            "allowed");
  EXPECT_EQ(failureText<Vesk::NullParameterException>([&] { shelf->requiredIs(nullptr); }),
            "null _required parameter to mutator for Sample::Shelf::required not allowed\"");
}

TEST_F(GeneratedShelf, DeletingTheOwnerReleasesItsMembersAndClearsTheirParent) {
  long before = Vesk::liveObjects<Book>();
  auto kept = shelf->bookIs("kept", "a", 1);
  shelf->bookIs("dropped", "a", 1);
  EXPECT_EQ(Vesk::liveObjects<Book>(), before + 2);
  recorder.notifierIs(nullptr);
  shelf = nullptr;
  EXPECT_EQ(Vesk::liveObjects<Book>(), before + 1);
  EXPECT_EQ(kept->shelf(), nullptr);
  EXPECT_EQ(kept->fullName(), "/kept");
}

// Own attributes are numbered from 258 in declaration order, the key where it is declared,
// and are read and written as text.
TEST(GeneratedReflection, AttributesAreNumberedInDeclarationOrderAndReadAsText) {
  auto shelf = shelfFactory("s");
  auto const& type = shelf->veskTypeDescription();
  EXPECT_STREQ(type.name, "Sample::Shelf");
  std::vector<std::pair<uint32_t, std::string>> ids;
  for (auto const& a : type.attributes) ids.emplace_back(a.id, a.name);
  ASSERT_EQ(ids.size(), 11u);
  EXPECT_EQ(ids.front(), (std::pair<uint32_t, std::string>{258, "label"}));
  EXPECT_EQ(ids[1], (std::pair<uint32_t, std::string>{259, "shelfName"}));
  EXPECT_EQ(ids.back(), (std::pair<uint32_t, std::string>{268, "rare"}));
  EXPECT_EQ(type.attribute("name")->id, 253u);
  EXPECT_EQ(type.attribute(262)->name, std::string("quiet"));

  EXPECT_TRUE(type.attribute("count")->set(*shelf, "42"));
  EXPECT_FALSE(type.attribute("count")->set(*shelf, "forty"));
  EXPECT_EQ(shelf->count(), 42u);
  EXPECT_TRUE(type.attribute("colour")->set(*shelf, "colourRed"));
  EXPECT_EQ(type.attribute("colour")->get(*shelf), "colourRed");
  EXPECT_EQ(type.attribute("shelfName")->get(*shelf), "s");
  shelf->ratingIs(7, 70);
  std::vector<std::string> rows;
  type.attribute("rating")->forEach(*shelf, [&](Vesk::String const& k, Vesk::String const& v) {
    rows.push_back(k.stdString() + "=" + v.stdString());
  });
  EXPECT_EQ(rows, (std::vector<std::string>{"7=70"}));
  EXPECT_EQ(shelf->entity("book/b"), nullptr);
  auto book = shelf->bookIs("b", "x", 1);
  EXPECT_EQ(shelf->entity("book/b"), book);
}

// Tools write collection members by key text and references by the target's full name;
// a text that does not parse is refused with false, a name of nothing or of an entity of
// another type with a range failure.
TEST(GeneratedReflection, MembersAndReferencesAreWrittenFromText) {
  Vesk::Ptr<Library> library(new Library("lib"));
  auto const& shelves = *library->veskTypeDescription().attribute("shelf");
  Vesk::Ptr<Vesk::Entity> made = shelves.memberNew(*library, "s");
  Vesk::Ptr<Shelf> shelf = library->shelf("s");
  ASSERT_TRUE(shelf);
  EXPECT_EQ(made, shelf);
  EXPECT_EQ(shelves.memberNew(*library, "s"), made);
  auto const& type = shelf->veskTypeDescription();
  EXPECT_EQ(type.attribute("book")->memberNew, nullptr);  // a book needs an author and pages

  auto const& rating = *type.attribute("rating");
  EXPECT_TRUE(rating.memberIs(*shelf, "7", "70"));
  EXPECT_FALSE(rating.memberIs(*shelf, "seven", "70"));
  EXPECT_FALSE(rating.memberIs(*shelf, "8", "lots"));
  EXPECT_EQ(shelf->ratingSize(), 1u);
  EXPECT_EQ(shelf->rating(7), 70u);
  EXPECT_FALSE(rating.memberDel(*shelf, "seven"));
  EXPECT_TRUE(rating.memberDel(*shelf, "7"));
  EXPECT_EQ(shelf->ratingSize(), 0u);
  EXPECT_TRUE(shelves.memberDel(*library, "s"));
  EXPECT_EQ(library->shelfSize(), 0u);
  shelf = library->shelfIs("s");

  auto book = shelf->bookIs("b", "author", 10);
  auto const& favourite = *type.attribute("favourite");
  EXPECT_TRUE(favourite.set(*shelf, "/lib/s/b"));
  EXPECT_EQ(shelf->favourite(), book);
  EXPECT_EQ(favourite.get(*shelf), "/lib/s/b");
  EXPECT_FALSE(favourite.set(*shelf, "b"));  // not a full name
  EXPECT_EQ(failureText<Vesk::RangeException>([&] { favourite.set(*shelf, "/lib/s/c"); }),
            "Sample::Shelf::favourite: no entity /lib/s/c in the tree of /lib/s");
  EXPECT_EQ(failureText<Vesk::RangeException>([&] { favourite.set(*shelf, "/lib/s"); }),
            "Sample::Shelf::favourite: /lib/s is a Sample::Shelf, not a Sample::Book");
  EXPECT_EQ(shelf->favourite(), book);
  EXPECT_TRUE(favourite.set(*shelf, "null"));
  EXPECT_EQ(shelf->favourite(), nullptr);
  auto const& required = *type.attribute("required");
  EXPECT_TRUE(required.set(*shelf, "/lib/s/b"));
  EXPECT_EQ(shelf->required(), book);
  EXPECT_THROW(required.set(*shelf, "null"), Vesk::NullParameterException);
}

TEST(GeneratedEnum, ParsesAndPrintsItsStringForms) {
  EXPECT_EQ(valueToStrep(colourRed), "colourRed");
  EXPECT_EQ(ColourInstance(Vesk::String("colourRed")), colourRed);
  EXPECT_EQ(ColourInstance(3u), colourRed);
  EXPECT_THROW(ColourInstance(2u), Vesk::RangeException);
  EXPECT_THROW(ColourInstance(Vesk::String("colourBlue")), Vesk::RangeException);
  Colour parsed = colourRed;
  EXPECT_FALSE(sequenceToValue("2", "2" + 1, parsed));  // a number without a name
  EXPECT_EQ(parsed, colourRed);                         // left as it was
  std::ostringstream os;
  os << colourNone;
  EXPECT_EQ(os.str(), "colourNone");
}

TEST(GeneratedFactory, RegisteredTypesAreCreatedByNameInADirectory) {
  registerSampleTypes();
  auto dir = Vesk::dirFactory("root");
  auto e = dir->entryIs("made", "Sample::Shelf");
  ASSERT_TRUE(e);
  EXPECT_STREQ(e->veskTypeName(), "Sample::Shelf");
  EXPECT_EQ(dir->entryIs("made", "Sample::Shelf"), e);
  EXPECT_EQ(e->entityAtFullName("/root/made"), e);  // a directory's entries by name
  EXPECT_THROW(dir->entryIs("made", "Vesk::Dir"), Vesk::NameInUseException);
}

}  // namespace
}  // namespace Sample
