#include "framework/core/Ptr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <latch>
#include <set>
#include <thread>
#include <type_traits>
#include <vector>

#include "framework/core/Dir.h"
#include "framework/core/Entity.h"
#include "framework/core/LiveCount.h"
#include "framework/core/PtrInterface.h"
#include "framework/core/Reflection.h"
#include "tests/framework/core/TestNotifier.h"

namespace Vesk::test {
namespace {

// A second, unrelated entity type, for casts that must fail.
class Other : public Entity {
 public:
  static Ptr<Other> otherNew() { return new Other; }

 private:
  Other() : Entity(Name("other")) {}
};

template <class P>
concept CanSetValue = requires(P p) {
  p->valueIs(1);
};

static_assert(CanSetValue<Ptr<Counter>>);
static_assert(!CanSetValue<Ptr<Counter const>>);
static_assert(std::is_convertible_v<Ptr<Counter>, Ptr<Counter const>>);
static_assert(std::is_convertible_v<Ptr<Counter>, Ptr<Entity>>);
static_assert(std::is_convertible_v<Ptr<Counter const>, Ptr<Entity const>>);
static_assert(!std::is_convertible_v<Ptr<Counter const>, Ptr<Counter>>);
static_assert(!std::is_convertible_v<Ptr<Entity>, Ptr<Counter>>);
static_assert(!std::is_convertible_v<Ptr<Other>, Ptr<Counter>>);

// ---------------------------------------------------------------------------------------
// Reference counts.

TEST(PtrCount, CopyMoveAndConversionEachMoveTheCountExactly) {
  Ptr<Counter> a = Counter::counterNew("a");
  EXPECT_EQ(a->references(), 1u);
  Ptr<Counter> copy = a;
  Ptr<Entity> base = a;
  Ptr<Counter const> view = a;
  Ptr<Entity const> constBase = view;
  EXPECT_EQ(a->references(), 5u);
  Ptr<Counter> moved = std::move(copy);
  Ptr<Entity> movedBase = std::move(moved);  // a converting move
  EXPECT_EQ(copy, nullptr);
  EXPECT_EQ(moved, nullptr);
  EXPECT_EQ(a->references(), 5u);

  Ptr<Counter> assigned;
  assigned = a;
  EXPECT_EQ(a->references(), 6u);
  Ptr<Entity> assignedBase;
  assignedBase = std::move(assigned);
  EXPECT_EQ(assigned, nullptr);
  assignedBase = a;  // replaces a reference to the same object
  EXPECT_EQ(a->references(), 6u);
  for (Ptr<Entity>* p : {&assignedBase, &base, &movedBase}) *p = nullptr;
  view = nullptr;
  constBase = nullptr;
  EXPECT_EQ(a->references(), 1u);
}

// Self-assignment in every form keeps the object; a raw pointer may be wrapped again at any
// time; release() hands over the reference; the last one deletes through the framework's
// allocator.
TEST(PtrCount, SelfAssignmentRewrappingReleaseAndTheLastReference) {
  long const objects = liveObjects<Counter>();
  long const allocations = veskLiveAllocations();
  Ptr<Counter> a = Counter::counterNew("a");
  EXPECT_EQ(veskLiveAllocations(), allocations + 1);
  Ptr<Counter>& alias = a;
  a = alias;
  a = std::move(alias);
  a = a.ptr();
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->references(), 1u);
  a->valueIs(1);  // still a live object
  {
    Ptr<Counter> again(a.ptr());
    Ptr<Entity> base = a;
    EXPECT_EQ(a->references(), 3u);
  }
  EXPECT_EQ(a->references(), 1u);

  Counter* raw = a.release();
  EXPECT_EQ(a, nullptr);
  EXPECT_EQ(raw->references(), 1u);
  Ptr<Entity> last = raw;
  raw->deleteRef();  // the released reference, handed back
  EXPECT_EQ(liveObjects<Counter>(), objects + 1);
  last = nullptr;
  EXPECT_EQ(liveObjects<Counter>(), objects);
  EXPECT_EQ(veskLiveAllocations(), allocations);
}

TEST(PtrCount, CountsStayExactWhenTwoThreadsCopyOnePointer) {
  threadSafePointers_ = true;
  long const before = liveObjects<Counter>();
  constexpr int kCopies = 20000;
  {
    Ptr<Counter> shared = Counter::counterNew("shared");
    std::latch full(3);
    std::latch release(1);
    auto work = [&] {
      std::vector<Ptr<Counter>> held;
      held.reserve(kCopies);
      for (int i = 0; i < kCopies; ++i) {
        held.push_back(shared);
        Ptr<Counter const> transient = shared;  // one more up and down per step
      }
      full.count_down();
      release.wait();
    };
    std::thread one(work), two(work);
    full.arrive_and_wait();
    EXPECT_EQ(shared->references(), 1u + 2u * kCopies);
    release.count_down();
    one.join();
    two.join();
    EXPECT_EQ(shared->references(), 1u);
  }
  EXPECT_EQ(liveObjects<Counter>(), before);
  threadSafePointers_ = false;
}

// ---------------------------------------------------------------------------------------
// Casts and comparisons.

TEST(PtrCast, CastsShareTheObjectAndAFailedOneLeaksNoCount) {
  Ptr<Counter> a = Counter::counterNew("a");
  Ptr<Entity> base = a;
  EXPECT_EQ(ptr_cast<Counter>(base), a);
  EXPECT_EQ(ptr_cast<Other>(base), nullptr);
  EXPECT_EQ(ptr_cast<Counter>(Ptr<Entity>()), nullptr);
  EXPECT_EQ(a->references(), 2u);

  Ptr<Counter const> view = ptr_cast<Counter const>(Ptr<Entity const>(a));
  Ptr<Counter> down = static_ptr_cast<Counter>(base);
  Ptr<Counter> writable = const_ptr_cast<Counter>(view);
  EXPECT_EQ(view, a);
  EXPECT_EQ(down, a);
  EXPECT_EQ(a->references(), 5u);
  writable->valueIs(2);
  EXPECT_EQ(a->value(), 2);

  // Equality across types; a strict order by object for sets.
  Ptr<Counter> b = Counter::counterNew("b");
  EXPECT_TRUE(a == view && a == a.ptr() && !(a == b));
  EXPECT_NE(a < b, b < a);
  EXPECT_FALSE(a < view);
  EXPECT_EQ((std::set<Ptr<Counter>>{a, b, a}).size(), 2u);
}

// ---------------------------------------------------------------------------------------
// Live counts per type.

TEST(LiveCount, CountsFollowEachTypeAndAreListedUnderTheirReadableName) {
  long const counters = liveObjects<Counter>();
  long const others = liveObjects<Other>();
  Ptr<Counter> a = Counter::counterNew("a");
  a->childNew("b");
  EXPECT_EQ(liveObjects<Counter>(), counters + 2);
  EXPECT_EQ(liveObjects<Other>(), others);
  auto all = liveObjectCounts();
  auto it = std::find_if(all.begin(), all.end(),
                         [](auto const& e) { return e.first == "Vesk::test::Counter"; });
  ASSERT_NE(it, all.end());
  EXPECT_EQ(it->second, counters + 2);
}

// ---------------------------------------------------------------------------------------
// The entity tree: names, parents, paths.

// hasFullName compares whole names: a prefix, a suffix or a split at another slash is
// not a match. A directory's kept full name follows the directory out of its parent.
TEST(EntityTree, KeptFullNameStaysRightWhenTheDirectoryMoves) {
  Ptr<Counter> root = Counter::counterNew("root");
  Ptr<Counter> leaf = root->childNew("ab")->childNew("c");
  EXPECT_TRUE(leaf->hasFullName("/root/ab/c"));
  for (char const* wrong :
       {"/root/ab/cc", "root/ab/c", "/root/a/bc", "/rootxabxc", "/x/root/ab/c", "/ab/c", ""}) {
    EXPECT_FALSE(leaf->hasFullName(wrong)) << wrong;
  }

  Ptr<Dir> top = dirFactory("top");
  Ptr<Dir> sub = top->subdirIs("conn");
  String const first = sub->keptFullName();
  EXPECT_EQ(first, "/top/conn");
  EXPECT_EQ(sub->keptFullName().view().data(), first.view().data());  // shared, not rebuilt
  top->entityPtrDel("conn");
  EXPECT_EQ(sub->keptFullName(), "/conn");
}

TEST(EntityTree, PathsResolveThroughEntityCollectionsAndReferences) {
  Ptr<Counter> root = Counter::counterNew("root");
  Ptr<Counter> child = root->childNew("c1");
  Ptr<Counter> leaf = child->childNew("c2");

  EXPECT_EQ(root->entity("child/c1"), child);
  EXPECT_EQ(root->entity("child/c1/child/c2"), leaf);
  EXPECT_EQ(root->entity("/child//c1/"), child);
  EXPECT_EQ(root->entity(""), root);
  EXPECT_EQ(leaf->entity("parent/parent"), root);
  EXPECT_EQ(leaf->entity("parent/child/c2"), leaf);

  EXPECT_EQ(root->entity("child"), nullptr);          // a collection needs a key
  EXPECT_EQ(root->entity("child/missing"), nullptr);  // no such member
  EXPECT_EQ(root->entity("value"), nullptr);          // a scalar is not an entity
  EXPECT_EQ(root->entity("name"), nullptr);
  EXPECT_EQ(root->entity("nothing/c1"), nullptr);
  EXPECT_EQ(root->entity("parent"), nullptr);  // the root has none
}

// ---------------------------------------------------------------------------------------
// Type descriptions.

// Every entity has the common attributes 253 to 257; a type's own attributes follow.
TEST(TypeDescription, CommonAndOwnAttributesByNameAndId) {
  Ptr<Counter> root = Counter::counterNew("root");
  Ptr<Counter> child = root->childNew("a b");
  char const* const names[] = {"name", "fullName", "parent", "parentAttrName", "entity"};
  for (TypeDescription const* type :
       {&child->veskTypeDescription(), &root->Entity::veskTypeDescription()}) {
    for (uint32_t id = 253; id <= 257; ++id) {
      AttributeDescription const* byId = type->attribute(id);
      ASSERT_NE(byId, nullptr) << id;
      EXPECT_STREQ(byId->name, names[id - 253]);
      EXPECT_EQ(type->attribute(names[id - 253]), byId);
    }
  }
  TypeDescription const& type = child->veskTypeDescription();
  EXPECT_STREQ(child->veskTypeName(), "Vesk::test::Counter");
  EXPECT_EQ(type.attribute("name")->get(*child), "a b");
  EXPECT_EQ(type.attribute("fullName")->get(*child), "/root/a b");
  EXPECT_EQ(type.attribute("parent")->get(*child), "/root");
  EXPECT_EQ(type.attribute("parent")->get(*root), "");
  EXPECT_EQ(type.attribute("parentAttrName")->get(*child), "child");
  // The entity attribute is the percent-encoded full path.
  EXPECT_EQ(child->uriPath(), "/root/a%20b");
  EXPECT_EQ(type.attribute("entity")->get(*child), "/root/a%20b");

  ASSERT_NE(type.attribute("value"), nullptr);
  EXPECT_EQ(type.attribute("value")->id, firstOwnAttributeId);
  EXPECT_EQ(type.attribute(firstOwnAttributeId), type.attribute("value"));
  EXPECT_EQ(type.attribute("nothing"), nullptr);
  EXPECT_EQ(type.attribute(252u), nullptr);
  EXPECT_EQ(type.attribute(Counter::kChildAttr + 1), nullptr);
}

}  // namespace
}  // namespace Vesk::test
