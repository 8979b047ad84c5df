// SPDX-License-Identifier: Apache-2.0
#include "quill/Util.h"

#include <gtest/gtest.h>

#include "quill/BucketTable.h"
#include "quill/ConquerTable.h"
#include "quill/SlotTable.h"
#include "tests/quill/Records.h"
#include "tests/quill/TestTable.h"

template class Quill::SlotTable<QuillTest::IntfRecord>;
template class Quill::SlotTable<QuillTest::VlanRecord>;

namespace QuillTest {

TEST(Util, FenixIdsOfOneProcessDiffer) {
  unsigned first = 0;
  unsigned second = 0;
  Quill::Util::encodeFenix(7, 0, first);
  Quill::Util::encodeFenix(7, 1, second);
  EXPECT_NE(first, second);
}

}  // namespace QuillTest
#include "quill/QuillWriter.h"
template class Quill::QuillWriter<Portus::IntfId, QuillTest::IntfRecord>;
template class Quill::QuillWriter<Bridging::VlanIdOrNone, QuillTest::VlanRecord>;
