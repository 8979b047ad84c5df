// SPDX-License-Identifier: Apache-2.0
#include "cli/quillctl/Texts.h"

#include <gtest/gtest.h>

#include "cli/quillctl/Failure.h"

namespace Quillctl {
namespace {

std::string errorOf(std::string_view text) {
  try {
    return "number " + std::to_string(numberOf(text, "TX", 0, 4'294'967'295U));
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status(), ExitStatus::usage);
    return failure.what();
  }
}

TEST(QuillctlTexts, ANumberIsDecimalDigitsWithinItsRange) {
  EXPECT_EQ(errorOf("0"), "number 0");
  EXPECT_EQ(errorOf("4294967295"), "number 4294967295");
  for (const char* const wrong :
       {"", "-1", "+1", " 1", "1 ", "0x10", "1.0", "1e3", "4294967296", "99999999999999999999"}) {
    EXPECT_EQ(errorOf(wrong),
              "TX \"" + std::string(wrong) + "\": must be a decimal number from 0 to 4294967295");
  }
}

TEST(QuillctlTexts, AnOverlongNumberIsShownByItsBeginningAndItsLength) {
  EXPECT_EQ(errorOf(std::string(100'000, '7')),
            "TX \"" + std::string(64, '7') +
                "\"... (100000 bytes): must be a decimal number from 0 to 4294967295");
}

TEST(QuillctlTexts, EveryByteThatIsNotPrintableIsShownAsAnEscape) {
  EXPECT_EQ(printable(std::string("a\0\x1b[2J\n\xff\\", 9)), "a\\x00\\x1b[2J\\x0a\\xff\\\\");
}

TEST(QuillctlTexts, TheNearestNameNeedsTheFewestChanges) {
  EXPECT_EQ(nearest("counterInt", {"counterVlan", "counterIntf", "other"}), "counterIntf");
  EXPECT_EQ(nearest("x", {}), "");
  EXPECT_EQ(editDistance("", "abc"), 3U);
  EXPECT_EQ(editDistance("kitten", "sitting"), 3U);
}

}  // namespace
}  // namespace Quillctl
