#include "framework/core/HashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "framework/core/String.h"

namespace Vesk {
namespace {

template <class K>
std::vector<K> keysInOrder(HashMap<K, int> const& m) {
  std::vector<K> out;
  for (auto& [k, v] : m) out.push_back(k);
  return out;
}

// The order is a function of the key set alone: not of the insertion order, not of the
// table's size; equal hashes are ordered by key.
TEST(HashMapOrder, IterationOrderDependsOnTheKeySetAlone) {
  std::vector<Name> keys;
  for (int i = 0; i < 10000; ++i) keys.push_back(Name("switch-" + std::to_string(i)));
  std::vector<std::vector<Name>> orders{keys, keys, keys};
  std::reverse(orders[1].begin(), orders[1].end());
  std::shuffle(orders[2].begin(), orders[2].end(), std::mt19937(7));
  std::vector<std::vector<Name>> sequences;
  for (auto const& order : orders) {
    HashMap<Name, int> m;
    for (Name const& k : order) m.emplace(k, 0);  // the table grows many times
    EXPECT_EQ(m.size(), keys.size());
    sequences.push_back(keysInOrder(m));
  }
  EXPECT_EQ(sequences[0], sequences[1]);
  EXPECT_EQ(sequences[0], sequences[2]);

  // Growth keeps the relative order of the members already there.
  HashMap<Name, int> small;
  for (size_t i = 0; i < 100; ++i) small.emplace(keys[i], 0);
  std::vector<Name> const before = keysInOrder(small);
  std::vector<Name> after;
  for (Name const& k : sequences[0]) {
    if (small.find(k)) after.push_back(k);
  }
  EXPECT_EQ(before, after);

  struct Collide {
    int v;
    uint64_t hash() const { return 42; }
    bool operator==(Collide const& o) const { return v == o.v; }
    bool operator<(Collide const& o) const { return v < o.v; }
  };
  HashMap<Collide, int> collide;
  for (int v : {5, 1, 4, 2, 3}) collide.emplace(Collide{v}, v);
  std::vector<int> seen;
  for (auto& [k, v] : collide) seen.push_back(k.v);
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST(HashMapMembers, EmplaceFindAndEraseAgreeWithAStandardMap) {
  HashMap<String, int> m;
  std::unordered_map<std::string, int> ref;
  std::mt19937 rng(3);
  for (int i = 0; i < 5000; ++i) {
    std::string k = "k" + std::to_string(rng() % 2000);
    if (rng() % 3 == 0) {
      EXPECT_EQ(m.erase(String(k)), ref.erase(k) == 1);
      EXPECT_EQ(m.find(String(k)), nullptr);
    } else {
      // An existing member is returned as it is, not overwritten.
      auto [value, isNew] = m.emplace(String(k), i);
      EXPECT_EQ(isNew, ref.emplace(k, i).second);
      EXPECT_EQ(value, m.find(String(k)));
      EXPECT_EQ(*value, ref.at(k));
    }
  }
  ASSERT_EQ(m.size(), ref.size());
  for (auto& [k, v] : ref) {
    ASSERT_NE(m.find(String(k)), nullptr);
    EXPECT_EQ(*m.find(String(k)), v);
  }
}

// An iterator pins its member: erasing any member, the current one included, inserting
// (which may grow the table) or clearing during a visit is safe.
TEST(HashMapIteration, ErasingInsertingAndClearingDuringAVisit) {
  HashMap<unsigned, int> m;
  for (unsigned i = 0; i < 100; ++i) m.emplace(i, int(i));
  std::vector<unsigned> const order = keysInOrder(m);
  std::vector<unsigned> seen;
  for (auto& [k, v] : m) {
    seen.push_back(k);
    m.erase(k);  // the visit goes on with the next member
  }
  EXPECT_EQ(seen, order);
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m.begin(), m.end());

  for (unsigned i = 0; i < 16; ++i) m.emplace(i, 0);
  unsigned const victim = keysInOrder(m)[5];
  size_t visited = 0;
  for (auto& [k, v] : m) {
    EXPECT_NE(k, victim);  // erased ahead of the visit: skipped
    if (visited++ == 0) {
      m.erase(victim);
      for (unsigned i = 1000; i < 1100; ++i) m.emplace(i, 0);
    }
  }
  EXPECT_EQ(m.size(), 115u);

  int visits = 0;
  for (auto it = m.begin(); it != m.end(); ++it) {
    ++visits;
    m.clear();
  }
  EXPECT_EQ(visits, 1);
  EXPECT_TRUE(m.empty());

  // A key erased while pinned and inserted again is found with its new value.
  m.emplace(1u, 1);
  auto pin = m.begin();
  m.erase(1u);
  EXPECT_EQ(m.find(1u), nullptr);
  m.emplace(1u, 2);
  EXPECT_EQ(*m.find(1u), 2);
  EXPECT_EQ(m.size(), 1u);
}

// Erasing the current key and inserting it again, even while other iterators pin older
// copies of it, leaves the new member behind every walk: each key is visited once.
TEST(HashMapIteration, ReinsertingTheCurrentKeyDoesNotRevisitIt) {
  HashMap<unsigned, int> m;
  for (unsigned i = 0; i < 50; ++i) m.emplace(i, 0);
  std::vector<unsigned> const order = keysInOrder(m);
  std::vector<unsigned> seen;
  for (auto it = m.begin(); it != m.end() && seen.size() <= order.size(); ++it) {
    unsigned const k = it.key();
    seen.push_back(k);
    m.erase(k);
    m.emplace(k, 1);
    auto second = m.iteratorAt(k);
    m.erase(k);
    m.emplace(k, 2);
    ++second;
    EXPECT_TRUE(second == m.end() || second.key() != k) << k;
  }
  EXPECT_EQ(seen, order);
  EXPECT_EQ(keysInOrder(m), order);
  for (auto& [k, v] : m) EXPECT_EQ(v, 2) << k;
}

// A cursor gives find()'s answer for every key, whatever changes between seeks: keys sought
// in the order of a walk over another map, then out of order, then after a clear().
TEST(HashMapCursor, AnswersAsFindDoesWhileTheMapChanges) {
  HashMap<unsigned, int> walked;
  for (unsigned i = 0; i < 2000; ++i) walked.emplace(i, 0);
  HashMap<unsigned, int> m;
  std::mt19937 rng(5);
  for (unsigned i = 0; i < 2000; i += 3) m.emplace(i, int(i));
  auto expectSameAsFind = [&](HashMap<unsigned, int>::Cursor& cursor, unsigned k) {
    int* found = m.find(k);
    int* sought = cursor.seek(k);
    ASSERT_EQ(sought, found) << k;
  };
  {
    HashMap<unsigned, int>::Cursor cursor(m);
    for (auto& [k, v] : walked) {
      switch (rng() % 8) {
        case 0:
          m.erase(k);
          break;  // the sought key itself
        case 1:
          m.emplace(k, 1);
          break;
        case 2:
          m.erase(unsigned(rng() % 2000));
          break;  // anywhere, the cursor's own included
        case 3:
          m.emplace(unsigned(rng() % 4000), 2);
          break;  // may grow the table
        default:
          break;
      }
      expectSameAsFind(cursor, k);
    }
    for (unsigned k : {7u, 3u, 3u, 1999u}) expectSameAsFind(cursor, k);  // out of order
  }
  HashMap<unsigned, int>::Cursor cursor(m);
  unsigned seeks = 0;
  for (auto& [k, v] : walked) {
    if (++seeks == 100) m.clear();
    if (seeks > 100 && seeks % 2) m.emplace(k, 3);
    expectSameAsFind(cursor, k);
  }
}

}  // namespace
}  // namespace Vesk
