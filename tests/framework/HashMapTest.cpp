#include "framework/HashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "framework/String.h"

namespace Vesk {
namespace {

template <class K>
std::vector<K> keysInOrder(HashMap<K, int> const& m) {
  std::vector<K> out;
  for (auto& [k, v] : m) out.push_back(k);
  return out;
}

std::vector<Name> tenThousandNames() {
  std::vector<Name> keys;
  for (int i = 0; i < 10000; ++i) keys.push_back(Name("switch-" + std::to_string(i)));
  return keys;
}

TEST(HashMapOrder, SameKeySetIteratesIdenticallyWhateverTheInsertionOrder) {
  std::vector<Name> keys = tenThousandNames();
  std::vector<std::vector<Name>> orders{keys, keys, keys};
  std::reverse(orders[1].begin(), orders[1].end());
  std::shuffle(orders[2].begin(), orders[2].end(), std::mt19937(7));

  std::vector<std::vector<Name>> fullSequences;
  for (auto const& order : orders) {
    HashMap<Name, int> m;
    // The first 1,000 keys of each order, then all of them: the table grows in between.
    for (size_t i = 0; i < 1000; ++i) m.emplace(order[i], 0);
    for (size_t i = 1000; i < order.size(); ++i) m.emplace(order[i], 0);
    fullSequences.push_back(keysInOrder(m));
    EXPECT_EQ(m.size(), keys.size());
  }
  EXPECT_EQ(fullSequences[0], fullSequences[1]);
  EXPECT_EQ(fullSequences[0], fullSequences[2]);
}

TEST(HashMapOrder, GrowthKeepsTheRelativeOrderOfExistingMembers) {
  std::vector<Name> keys = tenThousandNames();
  HashMap<Name, int> m;
  for (size_t i = 0; i < 100; ++i) m.emplace(keys[i], 0);
  std::vector<Name> before = keysInOrder(m);
  for (size_t i = 100; i < keys.size(); ++i) m.emplace(keys[i], 0);
  std::vector<Name> after;
  for (Name const& k : keysInOrder(m)) {
    if (std::find(before.begin(), before.end(), k) != before.end()) after.push_back(k);
  }
  EXPECT_EQ(before, after);
}

TEST(HashMapOrder, EqualHashesAreOrderedByKey) {
  struct Collide {
    int v;
    uint64_t hash() const { return 42; }
    bool operator==(Collide const& o) const { return v == o.v; }
    bool operator<(Collide const& o) const { return v < o.v; }
  };
  HashMap<Collide, int> m;
  for (int v : {5, 1, 4, 2, 3}) m.emplace(Collide{v}, v);
  std::vector<int> seen;
  for (auto& [k, v] : m) seen.push_back(k.v);
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST(HashMapMembers, EmplaceReturnsTheExistingMemberAndEraseReportsPresence) {
  HashMap<unsigned, int> m;
  auto [v, isNew] = m.emplace(7u, 1);
  EXPECT_TRUE(isNew);
  auto [again, isNewAgain] = m.emplace(7u, 2);
  EXPECT_FALSE(isNewAgain);
  EXPECT_EQ(v, again);
  EXPECT_EQ(*m.find(7u), 1);
  EXPECT_FALSE(m.erase(8u));
  EXPECT_TRUE(m.erase(7u));
  EXPECT_EQ(m.find(7u), nullptr);
  EXPECT_TRUE(m.empty());
}

TEST(HashMapIteration, ErasingTheCurrentMemberContinuesWithTheNext) {
  HashMap<unsigned, int> m;
  for (unsigned i = 0; i < 100; ++i) m.emplace(i, int(i));
  std::vector<unsigned> expected;
  for (auto& [k, v] : m) expected.push_back(k);
  std::vector<unsigned> seen;
  for (auto& [k, v] : m) {
    seen.push_back(k);
    m.erase(k);
  }
  EXPECT_EQ(seen, expected);
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(m.begin(), m.end());
}

TEST(HashMapIteration, ErasedLaterMembersAreSkippedAndInsertsMayGrowTheTable) {
  HashMap<unsigned, int> m;
  for (unsigned i = 0; i < 16; ++i) m.emplace(i, 0);
  std::vector<unsigned> order;
  for (auto& [k, v] : m) order.push_back(k);
  unsigned victim = order[5];
  size_t visited = 0;
  for (auto& [k, v] : m) {
    EXPECT_NE(k, victim);
    if (visited++ == 0) {
      m.erase(victim);
      for (unsigned i = 1000; i < 1100; ++i) m.emplace(i, 0);  // forces growth
    }
  }
  EXPECT_EQ(m.size(), 115u);
}

TEST(HashMapIteration, ClearDuringIterationEndsIt) {
  HashMap<unsigned, int> m;
  for (unsigned i = 0; i < 50; ++i) m.emplace(i, 0);
  int visits = 0;
  for (auto it = m.begin(); it != m.end(); ++it) {
    ++visits;
    m.clear();
  }
  EXPECT_EQ(visits, 1);
  EXPECT_TRUE(m.empty());
  m.emplace(3u, 3);
  EXPECT_EQ(m.size(), 1u);
}

TEST(HashMapIteration, ReinsertingAnErasedPinnedKeyIsFound) {
  HashMap<unsigned, int> m;
  m.emplace(1u, 1);
  auto it = m.begin();
  m.erase(1u);
  EXPECT_EQ(m.find(1u), nullptr);
  m.emplace(1u, 2);
  EXPECT_EQ(*m.find(1u), 2);
  EXPECT_EQ(m.size(), 1u);
}

TEST(HashMapKeys, StringKeysAgreeWithAStandardMap) {
  HashMap<String, int> m;
  std::unordered_map<std::string, int> ref;
  std::mt19937 rng(3);
  for (int i = 0; i < 5000; ++i) {
    std::string k = "k" + std::to_string(rng() % 2000);
    if (rng() % 3 == 0) {
      EXPECT_EQ(m.erase(String(k)), ref.erase(k) == 1);
    } else {
      m.emplace(String(k), i);
      ref.emplace(k, i);
    }
  }
  ASSERT_EQ(m.size(), ref.size());
  for (auto& [k, v] : ref) {
    ASSERT_NE(m.find(String(k)), nullptr);
    EXPECT_EQ(*m.find(String(k)), v);
  }
}

}  // namespace
}  // namespace Vesk
