// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/Exception.h"

#include <gtest/gtest.h>

#include <string>

namespace {

template <class E, class Raise>
std::string textOf(Raise raise) {
  try {
    raise();
  } catch (const E& e) {
    EXPECT_EQ(e.text(), e.what());
    EXPECT_FALSE(e.flag());
    return e.what();
  } catch (...) {
    return "another exception";
  }
  return "no exception";
}

TEST(Exception, CarriesTextNumberAndFlag) {
  const Vex::Exception plain("text");
  EXPECT_STREQ(plain.what(), "text");
  EXPECT_EQ(plain.idBits(), 0U);
  EXPECT_FALSE(plain.flag());
  const Vex::Exception full("of a peer", 77, true);
  const Vex::Exception copy = full;  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_STREQ(copy.what(), "of a peer");
  EXPECT_EQ(copy.idBits(), 77U);
  EXPECT_TRUE(copy.flag());
}

TEST(Exception, EachFunctionRaisesItsClassWithTheTextAsGiven) {
  EXPECT_EQ(textOf<Vex::RangeException>([] { Vex::throwRangeException("r"); }), "r");
  EXPECT_EQ(textOf<Vex::InternalException>([] { Vex::throwInternalException("i"); }), "i");
  EXPECT_EQ(textOf<Vex::NameInUseException>([] { Vex::throwNameInUseException("n"); }), "n");
}

TEST(Exception, AllAreCaughtAsTheRootAndAsTheStandardOne) {
  EXPECT_EQ(textOf<Vex::Exception>([] { Vex::throwRangeException("r"); }), "r");
  EXPECT_THROW(Vex::throwInternalException("i"), std::exception);
}

TEST(Exception, ClassesDifferInTheirNumber) {
  EXPECT_NE(Vex::RangeException("").idBits(), Vex::InternalException("").idBits());
  EXPECT_NE(Vex::RangeException("").idBits(), Vex::NameInUseException("").idBits());
  EXPECT_NE(Vex::InternalException("").idBits(), Vex::NameInUseException("").idBits());
}

TEST(ExceptionDeathTest, AFailedAssertionEndsTheProcessWithTheExpressionsText) {
  const int two = 2;
  VEX_ASSERT(two == 2);
  EXPECT_DEATH(VEX_ASSERT(two == 3), "ASSERTION FAILED: two == 3");
  EXPECT_DEATH(VEX_ASSERT_TEXT(two == 3, "!intfRxSm( intfId )"),
               "ASSERTION FAILED: !intfRxSm\\( intfId \\)");
}

}  // namespace
