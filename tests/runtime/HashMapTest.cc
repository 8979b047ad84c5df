// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/HashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "runtime/bridging/VlanId.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/PtrInterface.h"
#include "tests/runtime/AllocationCount.h"

namespace {

using Vex::bitReverse;
using Vex::makePtr;
using Vex::Ptr;

// A key whose hash the test chooses.
struct Key {
  std::uint32_t chosenHash = 0;
  int name = 0;
  std::uint32_t hash() const noexcept { return chosenHash; }
  bool operator==(const Key&) const = default;
  bool operator<(const Key& other) const { return name < other.name; }
};

class Item final : public Vex::VFPtrInterface, public Vex::HashMapLink {
 public:
  explicit Item(Key key) : key_(key) {}
  ~Item() override {
    if (onEnd) onEnd();
  }
  const Key& fwkKey() const noexcept { return key_; }
  int name() const { return key_.name; }
  std::function<void()> onEnd;

 private:
  const Key key_;
};

using Map = Vex::HashMap<Item, Key>;

// Keys of equal hash and name are equal; here the name is the hash.
Key key(std::uint32_t hash) { return {hash, static_cast<int>(hash)}; }
Item& add(Map& map, Key k) { return map.memberIs(makePtr<Item>(k)); }
std::vector<int> names(const Map& map) {
  std::vector<int> result;
  for (auto it = map.iteratorConst(); it; ++it) result.push_back(it->name());
  return result;
}

TEST(BitReverse, ReversesAll32Bits) {
  EXPECT_EQ(bitReverse(0), 0U);
  EXPECT_EQ(bitReverse(1), 0x80000000U);
  EXPECT_EQ(bitReverse(0x80000000U), 1U);
  EXPECT_EQ(bitReverse(0x12345678U), 0x1E6A2C48U);
  for (std::uint32_t bit = 0; bit < 32; ++bit) {
    EXPECT_EQ(bitReverse(std::uint32_t{1} << bit), std::uint32_t{1} << (31 - bit));
  }
}

TEST(HashMap, HashesOfNumbersAndVlansAreTheValuesThemselves) {
  EXPECT_EQ(Vex::fwkHash(std::uint32_t{0xDEADBEEF}), 0xDEADBEEFU);
  EXPECT_EQ(Vex::fwkHash(Bridging::VlanId(4094)), 4094U);
  const auto intfId = Portus::IntfId::fromName("eth1");
  EXPECT_EQ(Vex::fwkHash(intfId), intfId.hash());
}

TEST(HashMap, ANewMapHasOneBucketAndNoMemory) {
  const AllocationCount allocations;
  const Map sut;
  EXPECT_EQ(sut.buckets(), 1U);
  EXPECT_TRUE(sut.empty());
  EXPECT_EQ(sut.member(key(1)), nullptr);
  EXPECT_FALSE(sut.iteratorConst());
  EXPECT_EQ(allocations.sinceThen(), 0U);
}

TEST(HashMap, HoldsOneReferenceToEachMember) {
  Map sut;
  const auto item = makePtr<Item>(key(1));
  sut.memberIs(item);
  EXPECT_EQ(item->references(), 2U);
  EXPECT_EQ(sut.member(key(1)), item.get());
  const auto taken = sut.memberDel(key(1));
  EXPECT_EQ(taken, item);
  EXPECT_EQ(item->references(), 2U);
  EXPECT_FALSE(sut.memberDel(key(1)));
  EXPECT_FALSE(sut.has(key(1)));
}

TEST(HashMap, ReleasesItsMembersInMapOrderWhenItGoes) {
  std::vector<int> ends;
  {
    Map sut;
    for (const std::uint32_t n : {1U, 2U, 3U, 4U}) {
      add(sut, key(n)).onEnd = [&ends, n] { ends.push_back(static_cast<int>(n)); };
    }
  }
  EXPECT_EQ(ends, (std::vector<int>{4, 2, 1, 3}));
}

TEST(HashMap, MemberDelAllLeavesMembersOfOthersUnlinked) {
  Map sut;
  const auto item = makePtr<Item>(key(2));
  sut.memberIs(item);
  add(sut, key(6));
  add(sut, key(10));
  sut.memberDelAll();
  EXPECT_TRUE(sut.empty());
  EXPECT_EQ(item->references(), 1U);
  EXPECT_EQ(item->fwkHmNext(), nullptr);
  sut.memberIs(item);  // can go in again
  EXPECT_EQ(names(sut), std::vector<int>{2});
}

TEST(HashMap, DoublesItsBucketsWhenMembersOutnumberThem) {
  Map sut;
  for (std::uint32_t n = 0; n < 1000; ++n) {
    add(sut, key(n));
    ASSERT_GE(sut.buckets(), sut.members());
    ASSERT_LT(sut.buckets(), 2 * sut.members() + (n == 0 ? 1 : 0));
  }
  EXPECT_EQ(sut.buckets(), 1024U);
}

TEST(HashMap, IteratesInTheOrderOfTheReversedHash) {
  Map sut;
  for (std::uint32_t n = 0; n < 8; ++n) add(sut, key(n));
  EXPECT_EQ(names(sut), (std::vector<int>{0, 4, 2, 6, 1, 5, 3, 7}));
}

// The upper bits of the reversed hash are the bucket, so a key goes to bucket
// bitReverse(hash) >> (32 - k): members of one bucket stand together and buckets come in order.
TEST(HashMap, MembersOfABucketStandTogetherAndBucketsComeInOrder) {
  Map sut;
  std::mt19937 random(1);
  for (int n = 0; n < 300; ++n) add(sut, {static_cast<std::uint32_t>(random()), n});
  std::uint32_t k = 0;
  while ((std::uint32_t{1} << k) < sut.buckets()) ++k;
  ASSERT_EQ(k, 9U);
  std::vector<std::uint32_t> buckets;
  for (auto it = sut.iteratorConst(); it; ++it) {
    buckets.push_back(bitReverse(it.key().hash()) >> (32 - k));
  }
  EXPECT_TRUE(std::is_sorted(buckets.begin(), buckets.end()));
  EXPECT_EQ(buckets.size(), 300U);
}

TEST(HashMap, EqualHashesAreOrderedByKey) {
  Map sut;
  for (const int name : {5, 1, 4, 2, 3}) add(sut, {0xABCD, name});
  add(sut, {0xABCC, 9});
  add(sut, {0xABCF, 0});
  EXPECT_EQ(names(sut), (std::vector<int>{9, 1, 2, 3, 4, 5, 0}));
  for (const int name : {5, 1, 4, 2, 3}) {
    ASSERT_NE(sut.member({0xABCD, name}), nullptr);
    EXPECT_EQ(sut.member({0xABCD, name})->name(), name);
  }
  EXPECT_EQ(sut.member({0xABCD, 9}), nullptr);
  EXPECT_TRUE(sut.memberDel({0xABCD, 3}));
  EXPECT_EQ(names(sut), (std::vector<int>{9, 1, 2, 4, 5, 0}));
}

TEST(HashMap, TheOrderDoesNotDependOnTheHistory) {
  std::vector<std::uint32_t> keys;
  std::mt19937 random(7);
  for (int i = 0; i < 200; ++i) keys.push_back(static_cast<std::uint32_t>(random()));
  std::vector<int> expected;
  for (int round = 0; round < 5; ++round) {
    std::shuffle(keys.begin(), keys.end(), random);
    Map sut;
    for (std::uint32_t extra = 0; extra < 1000 * static_cast<std::uint32_t>(round); ++extra) {
      add(sut, {extra * 2654435761U, -1 - static_cast<int>(extra)});  // grows the table
    }
    for (const std::uint32_t k : keys) add(sut, key(k));
    for (auto it = sut.iterator(); it; ++it) {
      const Key k = it.key();
      if (k != key(k.chosenHash)) sut.memberDel(k);
    }
    if (round == 0) expected = names(sut);
    ASSERT_EQ(names(sut).size(), 200U);
    EXPECT_EQ(names(sut), expected);
  }
}

TEST(HashMap, GrowthDuringAnIterationDoesNotReorder) {
  Map sut;
  for (std::uint32_t n = 0; n < 8; ++n) add(sut, key(n));
  std::vector<int> seen;
  std::uint32_t next = 1000;
  const std::uint32_t before = sut.buckets();
  for (auto it = sut.iterator(); it; ++it) {
    if (it->name() < 1000) seen.push_back(it->name());
    if (it->name() < 1000) {
      for (int i = 0; i < 5; ++i) add(sut, key(next++));
    }
  }
  EXPECT_GT(sut.buckets(), before);
  EXPECT_EQ(seen, (std::vector<int>{0, 4, 2, 6, 1, 5, 3, 7}));
}

TEST(HashMapDeathTest, AMemberThatIsLinkedCannotGoInAgain) {
  Map sut;
  const auto first = makePtr<Item>(Key{3, 1});
  sut.memberIs(first);
  add(sut, {3, 2});
  ASSERT_NE(first->fwkHmNext(), nullptr);
  Map other;
  EXPECT_DEATH(other.memberIs(first), "ASSERTION FAILED: t->fwkHmNext\\(\\) == 0 ");
}

TEST(HashMap, AMemberTakenOutIsNotLinked) {
  Map sut;
  const auto first = makePtr<Item>(Key{3, 1});
  sut.memberIs(first);
  add(sut, {3, 2});
  sut.memberDel(first->fwkKey());
  EXPECT_EQ(first->fwkHmNext(), nullptr);
}

TEST(HashMap, EveryChangeCountsAVersion) {
  Map sut;
  add(sut, key(1));
  const std::uint32_t one = sut.version();
  sut.memberDel(key(2));
  EXPECT_EQ(sut.version(), one);
  sut.memberDel(key(1));
  EXPECT_NE(sut.version(), one);
}

// Iteration

TEST(HashMapIterator, HoldsTheCurrentMember) {
  Map sut;
  bool gone = false;
  add(sut, key(1)).onEnd = [&] { gone = true; };
  auto it = sut.iterator();
  sut.memberDel(key(1));
  EXPECT_FALSE(gone);
  EXPECT_EQ(it->name(), 1);
  ++it;
  EXPECT_TRUE(gone);
  EXPECT_FALSE(it);
}

TEST(HashMapIterator, DeletingEachCurrentMemberVisitsEveryMemberOnce) {
  for (const std::uint32_t count : {1U, 2U, 3U, 64U, 1000U}) {
    Map sut;
    for (std::uint32_t n = 0; n < count; ++n) add(sut, {n % 7, static_cast<int>(n)});
    std::vector<int> seen;
    for (auto it = sut.iterator(); it; ++it) {
      seen.push_back(it->name());
      sut.memberDel(it.key());
    }
    EXPECT_TRUE(sut.empty());
    std::sort(seen.begin(), seen.end());
    ASSERT_EQ(seen.size(), count);
    for (std::uint32_t n = 0; n < count; ++n) ASSERT_EQ(seen[n], static_cast<int>(n));
  }
}

TEST(HashMapIterator, DeletingTheNextMemberSkipsItAlone) {
  Map sut;
  for (std::uint32_t n = 0; n < 8; ++n) add(sut, key(n));
  std::vector<int> seen;
  for (auto it = sut.iterator(); it; ++it) {
    seen.push_back(it->name());
    if (it->name() == 4) sut.memberDel(key(2));
  }
  EXPECT_EQ(seen, (std::vector<int>{0, 4, 6, 1, 5, 3, 7}));
}

TEST(HashMapIterator, DeletingAllMembersEndsTheIteration) {
  Map sut;
  for (std::uint32_t n = 0; n < 8; ++n) add(sut, key(n));
  int seen = 0;
  for (auto it = sut.iterator(); it; ++it) {
    ++seen;
    sut.memberDelAll();
  }
  EXPECT_EQ(seen, 1);
}

TEST(HashMapIterator, AReplacedCurrentMemberIsNotVisitedAgain) {
  Map sut;
  for (std::uint32_t n = 0; n < 4; ++n) add(sut, key(n));
  std::vector<int> seen;
  for (auto it = sut.iterator(); it; ++it) {
    seen.push_back(it->name());
    const Key k = it.key();
    sut.memberDel(k);
    add(sut, k);
  }
  EXPECT_EQ(seen, (std::vector<int>{0, 2, 1, 3}));
  EXPECT_EQ(sut.members(), 4U);
}

TEST(HashMapIterator, AMemberInsertedFurtherOnIsVisitedAndOneInsertedBeforeIsNot) {
  Map sut;
  for (const std::uint32_t n : {0U, 2U, 1U}) add(sut, key(n));
  std::vector<int> seen;
  for (auto it = sut.iterator(); it; ++it) {
    seen.push_back(it->name());
    if (it->name() == 2) {
      add(sut, key(4));  // between 0 and 2
      add(sut, key(6));  // between 2 and 1
    }
  }
  EXPECT_EQ(seen, (std::vector<int>{0, 2, 6, 1}));
}

TEST(HashMapIterator, AMemberWhoseEndChangesTheMapDoesNotDisturbTheIteration) {
  // All in one chain; the end of a member happens inside the step that leaves it.
  Map sut;
  for (int name = 0; name < 6; ++name) add(sut, {5, name});
  sut.member({5, 1})->onEnd = [&] {
    sut.memberDel({5, 2});
    sut.memberDel({5, 3});
  };
  std::vector<int> seen;
  for (auto it = sut.iterator(); it; ++it) {
    seen.push_back(it->name());
    if (it->name() == 1) sut.memberDel({5, 1});
  }
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 4, 5}));  // 2 was reached when 1 ended
}

TEST(HashMapIterator, ReadOnlyIterationGivesReadOnlyMembers) {
  static_assert(std::is_same_v<decltype(*std::declval<const Map&>().iteratorConst()), const Item&>);
  static_assert(std::is_same_v<decltype(*std::declval<Map&>().iterator()), Item&>);
  Map sut;
  add(sut, key(1));
  const auto it = sut.iteratorConst();
  EXPECT_EQ(it.ptr().get(), sut.member(key(1)));
}

// Random changes, some of them from inside iterations, compared with a std::map in the same order.
TEST(HashMap, BehavesLikeAnOrderedMapUnderRandomChanges) {
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  using ModelKey = std::pair<std::uint32_t, int>;  // reversed hash, name
  for (const std::uint32_t spread : {3U, 64U, 4096U}) {
    Map sut;
    std::map<ModelKey, const Item*> model;
    const auto randomKey = [&] {
      const auto hash = static_cast<std::uint32_t>(random() % spread) * 0x01000193U;
      return Key{hash, static_cast<int>(random() % 50)};
    };
    const auto toggle = [&](const Key& k) {
      const ModelKey mk{bitReverse(k.chosenHash), k.name};
      const auto at = model.find(mk);
      ASSERT_EQ(sut.member(k), at == model.end() ? nullptr : at->second);
      if (at == model.end()) {
        model[mk] = &add(sut, k);
      } else {
        ASSERT_EQ(sut.memberDel(k).get(), at->second);
        model.erase(at);
      }
    };
    for (int step = 0; step < 3000; ++step) {
      toggle(randomKey());
      if (step % 100 != 0) continue;
      // An iteration with changes between its steps: always the first member behind the last one.
      auto it = sut.iterator();
      auto expected = model.begin();
      while (it) {
        ASSERT_NE(expected, model.end());
        ASSERT_EQ(&*it, expected->second);
        const ModelKey current = expected->first;
        if (random() % 3 == 0) toggle(it.key());
        if (random() % 5 == 0) toggle(randomKey());
        expected = model.upper_bound(current);
        ++it;
      }
      ASSERT_EQ(expected, model.end());
      ASSERT_EQ(sut.members(), model.size());
    }
  }
}

}  // namespace
