// SPDX-License-Identifier: Apache-2.0
#include "runtime/sable/Platform.h"

#include <gtest/gtest.h>

#include <sstream>

#include "runtime/sable/Exceptions.h"
#include "runtime/sable/TypeName.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace {

struct Count final : Sable::Platform::TimeoutHandler {
  void timeout() override {
    ++calls;
    if (again != nullptr) again->arm(0.0);
    if (end != nullptr) end->reset();
  }
  int calls = 0;
  Sable::Platform::TimerControl* again = nullptr;
  std::unique_ptr<Sable::Platform::TimerControl>* end = nullptr;
};

class Timer : public testing::Test {
 protected:
  Vex::VirtualActivityManager loop_;
  Vex::CurrentActivityManager current_{loop_};
  Count count_;
  std::unique_ptr<Sable::Platform::TimerControl> sut_ = Sable::Platform::getTimerControl(count_);
};

TEST_F(Timer, CallsItsHandlerOnceForEachArming) {
  sut_->arm(5.0);
  loop_.runFor(4.9);
  EXPECT_EQ(count_.calls, 0);
  loop_.runFor(100.0);
  EXPECT_EQ(count_.calls, 1);
  EXPECT_FALSE(sut_->armed());
}

TEST_F(Timer, ArmingAnewReplacesTheFormerTime) {
  sut_->arm(5.0);
  sut_->arm(50.0);
  loop_.runFor(10.0);
  EXPECT_EQ(count_.calls, 0);
}

TEST_F(Timer, ZeroSecondsAreTheNextTurn) {
  sut_->arm(0.0);
  EXPECT_EQ(count_.calls, 0);
  loop_.runTurn();
  EXPECT_EQ(count_.calls, 1);
}

TEST_F(Timer, ArmedInItsOwnHandlerItWaitsForAnotherTurn) {
  count_.again = sut_.get();
  sut_->arm(0.0);
  loop_.runTurn();
  EXPECT_EQ(count_.calls, 1);
  count_.again = nullptr;
  loop_.runTurn();
  EXPECT_EQ(count_.calls, 2);
}

TEST_F(Timer, MayEndInItsOwnHandler) {
  count_.end = &sut_;
  sut_->arm(1.0);
  loop_.runFor(2.0);
  EXPECT_EQ(sut_, nullptr);
}

TEST_F(Timer, CancelledOrDestroyedItCallsNobody) {
  sut_->arm(1.0);
  sut_->cancel();
  loop_.runFor(2.0);
  sut_->arm(1.0);
  sut_.reset();
  loop_.runFor(2.0);
  EXPECT_EQ(count_.calls, 0);
}

TEST_F(Timer, NegativeTimesAreRefusedByName) {
  try {
    sut_->arm(-1.5);
    FAIL();
  } catch (const Vex::RangeException& exception) {
    EXPECT_EQ(exception.text(), "timer of -1.5 seconds: must be 0 or more");
  }
}

TEST(DebugHandler, TracesUnderItsName) {
  std::ostringstream out;
  std::ostream* const before = Vex::coverageStream_;
  Vex::coverageStream_ = &out;
  Sable::Platform::getDebugHandler("Quill-12ab-x-writer")->trace(7, [](std::ostream& os) {
    os << "text";
  });
  Vex::coverageStream_ = before;
  EXPECT_NE(out.str().find("Quill-12ab-x-writer: text\n"), std::string::npos) << out.str();
}

struct Plain {};
struct Named {
  static constexpr std::string_view kTypeName = "Some::Name";
};

TEST(TypeName, IsTheTypesOwnOrTheLanguages) {
  EXPECT_EQ(Sable::typeName<Named>(), "Some::Name");
  EXPECT_EQ(Sable::typeName<Sable::RuntimeException>(), "Sable::RuntimeException");
  EXPECT_NE(Sable::typeName<Plain>().find("Plain"), std::string::npos);
}

TEST(Exceptions, NameThemselves) {
  EXPECT_STREQ(Sable::InvalidInitializeException("x").name(), "Sable::InvalidInitializeException");
  EXPECT_STREQ(Sable::MemoryResourceException("x").name(), "Sable::MemoryResourceException");
  EXPECT_STREQ(Sable::RuntimeException("x").name(), "Sable::RuntimeException");
  EXPECT_STREQ(Sable::NoPermissionException("x").name(), "Sable::NoPermissionException");
  EXPECT_STREQ(Sable::UnimplementedException("x").name(), "Sable::UnimplementedException");
  EXPECT_EQ(Sable::RuntimeException("the text").msg(), "the text");
}

}  // namespace
