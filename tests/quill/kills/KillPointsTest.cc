// SPDX-License-Identifier: Apache-2.0
//
// One scenario of each operation and each shape, and what follows from some; the proof makes many.
#include <gtest/gtest.h>

#include <limits>

#include "tests/quill/TestTable.h"
#include "tests/quill/kills/KillPlan.h"
#include "tests/quill/kills/KillWorker.h"

namespace QuillTest {

class KillPoints : public testing::TestWithParam<unsigned> {};

TEST_P(KillPoints, LeaveTheTableBeforeOrAfterTheOperationOrAnew) {
  const TemporaryRoot root;
  KillWorker sut(root.path(), false, 200);
  for (unsigned shape = 0; shape < kKillShapes; ++shape) {
    const unsigned seed = GetParam() + shape * kKillOps;
    EXPECT_NO_THROW(sut.run(seed, std::numeric_limits<double>::infinity()));
  }
  for (const auto& [name, counts] : sut.counts()) EXPECT_LT(0U, counts.images) << name;
  EXPECT_LT(0U, sut.distinct().size());
}

INSTANTIATE_TEST_SUITE_P(OfEachOperation, KillPoints, testing::Range(0U, kKillOps),
                         [](const auto& each) {
                           std::string name = nameOf(static_cast<KillOp>(each.param));
                           std::erase(name, '-');
                           return name;
                         });

// The chain of a slot that a dead writer left with LOOKASIDE up is that of the default key.
TEST(KillPoints, ARecoveryGivesNobodyTheZerosOfALookasideThatItHasFormatted) {
  const TemporaryRoot root;
  KillWorker sut(root.path(), true, 0);
  EXPECT_NO_THROW(sut.run(20'262'233, std::numeric_limits<double>::infinity()));
}

}  // namespace QuillTest
