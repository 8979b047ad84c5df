// SPDX-License-Identifier: Apache-2.0
#include "quill/Remainder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace QuillTest {

TEST(Remainder, IsTheDivisionsAtTheEdges) {
  constexpr std::uint32_t kEdges[] = {1,          2,          3,          509,        2557,
                                      0x7FFFFFFF, 0x80000000, 0x80000001, 0xFFFFFFFE, 0xFFFFFFFF};
  for (const std::uint32_t divisor : kEdges) {
    const Quill::Remainder remainder(divisor);
    EXPECT_EQ(remainder(0), 0U) << divisor;
    for (const std::uint32_t number : kEdges) {
      EXPECT_EQ(remainder(number), number % divisor) << number << " by " << divisor;
      EXPECT_EQ(remainder(divisor - 1), divisor - 1) << divisor;
    }
  }
}

TEST(Remainder, IsTheDivisionsForRandomNumbers) {
  std::mt19937 random(7);
  for (int i = 0; i < 200'000; ++i) {
    const std::uint32_t divisor = static_cast<std::uint32_t>(random() >> (random() % 32)) | 1U;
    const std::uint32_t number = static_cast<std::uint32_t>(random());
    ASSERT_EQ(Quill::Remainder(divisor)(number), number % divisor) << number << " by " << divisor;
  }
}

TEST(Remainder, OfNoDivisorIsZero) { EXPECT_EQ(Quill::Remainder()(12345), 0U); }

}  // namespace QuillTest
