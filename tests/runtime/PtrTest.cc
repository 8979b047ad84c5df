// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/Ptr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include "runtime/vex/PtrInterface.h"

namespace {

using Vex::makePtr;
using Vex::Ptr;

class Base : public Vex::VFPtrInterface {
 public:
  explicit Base(int* deleted = nullptr) : deleted_(deleted) {}
  ~Base() override {
    if (deleted_ != nullptr) ++*deleted_;
  }

 private:
  int* const deleted_;
};

class Derived final : public Base {
 public:
  using Base::Base;
};

// Each rule of counting holds whichever way counts are changed.
class PtrTest : public testing::TestWithParam<bool> {
 protected:
  PtrTest() { Vex::enableThreadSafePointers = GetParam(); }
  ~PtrTest() override { Vex::enableThreadSafePointers = false; }
  int deleted = 0;
};

INSTANTIATE_TEST_SUITE_P(Counts, PtrTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "Atomic" : "Plain"; });

TEST_P(PtrTest, ANewObjectHasOneCountWhichItsFactoryHandsOver) {
  auto* plain = new Base(&deleted);
  EXPECT_EQ(plain->references(), 1U);
  {
    const auto sut = Ptr<Base>::adopt(plain);
    EXPECT_EQ(plain->references(), 1U);
  }
  EXPECT_EQ(deleted, 1);
  {
    const auto made = makePtr<Base>(&deleted);
    EXPECT_EQ(made->references(), 1U);
  }
  EXPECT_EQ(deleted, 2);
}

TEST_P(PtrTest, EachCopyHoldsOneCount) {
  auto sut = makePtr<Base>(&deleted);
  {
    const Ptr<Base> copy = sut;
    EXPECT_EQ(sut->references(), 2U);
    const Ptr<Base> fromPlain(sut.get());
    EXPECT_EQ(sut->references(), 3U);
  }
  EXPECT_EQ(sut->references(), 1U);
  EXPECT_EQ(deleted, 0);
  sut.reset();
  EXPECT_EQ(deleted, 1);
}

TEST_P(PtrTest, MovingTakesTheCountAlong) {
  auto from = makePtr<Derived>(&deleted);
  Ptr<Base> to = std::move(from);
  EXPECT_FALSE(from);  // NOLINT(bugprone-use-after-move): that it is null is the rule
  EXPECT_EQ(to->references(), 1U);
  to = nullptr;
  EXPECT_EQ(deleted, 1);
}

TEST_P(PtrTest, AssigningDropsTheOldObjectAndSurvivesItself) {
  auto sut = makePtr<Base>(&deleted);
  const auto& same = sut;
  sut = same;
  ASSERT_TRUE(sut);
  EXPECT_EQ(sut->references(), 1U);
  EXPECT_EQ(deleted, 0);
  sut = makePtr<Base>();
  EXPECT_EQ(deleted, 1);
}

TEST_P(PtrTest, ReleaseGivesTheCountToTheCaller) {
  auto sut = makePtr<Base>(&deleted);
  Base* const object = sut.release();
  EXPECT_FALSE(sut);
  EXPECT_EQ(object->references(), 1U);
  EXPECT_EQ(deleted, 0);
  object->vexUnref();
  EXPECT_EQ(deleted, 1);
}

TEST_P(PtrTest, FlagsLeaveTheCountAloneAndDoNotKeepTheObject) {
  auto sut = makePtr<Base>(&deleted);
  const Ptr<Base> second = sut;
  sut->vexMarkedForDeletionIs(true);
  sut->hasNotificationActiveIs(true);
  EXPECT_EQ(sut->references(), 2U);
  EXPECT_TRUE(sut->isZombie());
  EXPECT_TRUE(sut->hasNotificationActive());

  sut->vexMarkedForDeletionIs(false);
  EXPECT_FALSE(sut->isZombie());
  EXPECT_TRUE(sut->hasNotificationActive());
  sut->vexMarkedForDeletionIs(true);
  sut->hasNotificationActiveIs(false);
  EXPECT_TRUE(sut->isZombie());
  EXPECT_FALSE(sut->hasNotificationActive());
  sut->hasNotificationActiveIs(true);
  EXPECT_EQ(sut->references(), 2U);
}

TEST_P(PtrTest, AnObjectWithFlagsSetGoesWithItsLastReference) {
  auto sut = makePtr<Base>(&deleted);
  sut->vexMarkedForDeletionIs(true);
  sut->hasNotificationActiveIs(true);
  sut.reset();
  EXPECT_EQ(deleted, 1);
}

// Comes back once when its count falls to zero.
class Phoenix final : public Vex::VFPtrInterface {
 public:
  explicit Phoenix(int* falls) : falls_(falls) {}
  Ptr<Phoenix>* rebirth = nullptr;

 protected:
  void handleZeroRef() override {
    ++*falls_;
    if (rebirth == nullptr) {
      Vex::VFPtrInterface::handleZeroRef();
    } else {
      *std::exchange(rebirth, nullptr) = Ptr<Phoenix>(this);
    }
  }

 private:
  int* const falls_;
};

TEST_P(PtrTest, HandleZeroRefRunsOnceForEachFallToZero) {
  int falls = 0;
  auto sut = makePtr<Phoenix>(&falls);
  Ptr<Phoenix> reborn;
  sut->rebirth = &reborn;
  const Ptr<Phoenix> copy = sut;
  sut.reset();
  EXPECT_EQ(falls, 0);
  const_cast<Ptr<Phoenix>&>(copy).reset();
  EXPECT_EQ(falls, 1);
  ASSERT_TRUE(reborn);
  EXPECT_EQ(reborn->references(), 1U);
  reborn.reset();
  EXPECT_EQ(falls, 2);
}

TEST(PtrThreads, CountsFromManyThreadsAreNotLostAndTheObjectGoesOnce) {
  Vex::enableThreadSafePointers = true;
  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  int deleted = 0;
  {
    auto shared = makePtr<Base>(&deleted);
    std::atomic<bool> go = false;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&go, mine = shared] {
        while (!go) std::this_thread::yield();
        for (int i = 0; i < kRounds; ++i) {
          const Ptr<Base> copy = mine;
          EXPECT_GE(copy->references(), 2U);
        }
      });
    }
    go = true;
    // The owner's flags share the word with the count.
    for (int i = 0; i < kRounds; ++i) {
      shared->vexMarkedForDeletionIs(i % 2 == 0);
      shared->hasNotificationActiveIs(i % 3 == 0);
      ASSERT_EQ(shared->isZombie(), i % 2 == 0);
      ASSERT_EQ(shared->hasNotificationActive(), i % 3 == 0);
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(shared->references(), 1U);
    EXPECT_EQ(deleted, 0);
  }
  EXPECT_EQ(deleted, 1);
  Vex::enableThreadSafePointers = false;
}

TEST(PtrThreads, TheLastOfManyThreadsDeletesTheObject) {
  Vex::enableThreadSafePointers = true;
  for (int round = 0; round < 200; ++round) {
    int deleted = 0;
    {
      std::vector<std::thread> threads;
      auto shared = makePtr<Base>(&deleted);
      for (int t = 0; t < 3; ++t) threads.emplace_back([mine = shared]() mutable { mine.reset(); });
      shared.reset();
      for (std::thread& thread : threads) thread.join();
    }
    ASSERT_EQ(deleted, 1);
  }
  Vex::enableThreadSafePointers = false;
}

TEST(Ptr, NullIsAValue) {
  const Ptr<Base> sut;
  EXPECT_FALSE(sut);
  EXPECT_EQ(sut, nullptr);
  EXPECT_EQ(sut.get(), nullptr);
  const Ptr<Base> copy = sut;  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_FALSE(copy);
  EXPECT_EQ(sut, Ptr<Base>(nullptr));
}

TEST(Ptr, ComparesByObject) {
  const auto a = makePtr<Derived>();
  const auto b = makePtr<Derived>();
  const Ptr<Base const> sameAsA = a;
  EXPECT_EQ(a, sameAsA);
  EXPECT_NE(a, b);
  const std::unordered_set<Ptr<Derived>> set{a, a, b};
  EXPECT_EQ(set.size(), 2U);
}

TEST(Ptr, ConvertsAsPlainPointersDo) {
  static_assert(std::is_convertible_v<Ptr<Derived>, Ptr<Base>>);
  static_assert(std::is_convertible_v<Ptr<Base>, Ptr<Base const>>);
  static_assert(!std::is_convertible_v<Ptr<Base const>, Ptr<Base>>);
  static_assert(!std::is_convertible_v<Ptr<Base>, Ptr<Derived>>);
  static_assert(!std::is_convertible_v<Base*, Ptr<Base>>);
  const auto derived = makePtr<Derived>();
  const Ptr<Base> base = derived;
  EXPECT_EQ(derived->references(), 2U);
  EXPECT_EQ(Vex::dynamicPtrCast<Derived>(base), derived);
  EXPECT_EQ(Vex::staticPtrCast<Derived>(base), derived);
  EXPECT_FALSE(Vex::dynamicPtrCast<Derived>(makePtr<Base>()));
  EXPECT_EQ(derived->references(), 2U);
}

TEST(Ptr, AFactoryThatPromisesAResultRaisesNullValidPtrForNull) {
  const auto object = makePtr<Base>();
  EXPECT_EQ(Vex::validPtr(object), object);
  try {
    (void)Vex::validPtr(Ptr<Base>());
    FAIL() << "nothing raised";
  } catch (const Vex::RangeException& e) {
    EXPECT_STREQ(e.what(), "null ValidPtr");
  }
}

}  // namespace
