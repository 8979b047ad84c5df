// SPDX-License-Identifier: Apache-2.0
//
// Files that somebody else writes into while they are in use.
#include "quill/Exceptions.h"
#include "tests/quill/WriterFixture.h"

namespace QuillTest {

namespace {

using HostileFileTest = WriterTest;

}  // namespace

TEST_F(HostileFileTest, AnIterationOfTheWriterOverAChainThatBecameACycleEnds) {
  const auto sut = writer();
  for (const std::uint32_t key : {1U, 2U, 3U}) put(*sut, key, key);
  file("slots").u32Is(slotAt(2) + 4, 0);  // behind 3 comes 1 again
  NumberRecord record;
  Quill::IterHint hint;
  ASSERT_TRUE(sut->first(record, hint));
  ASSERT_TRUE(sut->next({1}, record, hint));
  ASSERT_TRUE(sut->next({2}, record, hint));
  EXPECT_EQ(textOfRaised<Quill::CorruptionDetectedException>([&] { sut->next({3}, record, hint); }),
            "QuillWriter::next() hash chain cycle detected, slotCount:163 capacity:162");
}

}  // namespace QuillTest
