// SPDX-License-Identifier: Apache-2.0
//
// What a reader says of a table whose file has lost its end: nothing that it would have to take
// back.
#include <gtest/gtest.h>

#include <filesystem>

#include "quill/QuillReader.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/WriterFixture.h"

namespace QuillTest {

class ShrunkFile : public WriterTest {};

TEST_F(ShrunkFile, ALookupThatIsNotBelievedHasNotFoundItsKey) {
  const auto table = writer(1000);
  for (std::uint32_t key = 0; key < 300; ++key) put(*table, key * 1000, key);
  Quill::QuillReader<Number, NumberRecord> sut(handler_, name_.c_str());
  ASSERT_TRUE(sut.initialize());
  std::filesystem::resize_file(name_ + "/slots", 4096);
  bool found = true;
  EXPECT_NE(textOfRaised<Quill::CorruptionDetectedException>([&] { sut.lookup({290'000}, found); }),
            "nothing raised");
  EXPECT_FALSE(found);
  // This one still lies in what is left of the file.
  EXPECT_EQ(textOfRaised<Quill::CorruptionDetectedException>([&] { sut.lookup({1000}, found); }),
            "SlotReader: " + name_ + "/slots became shorter than its mapping");
  EXPECT_FALSE(found);
}

TEST_F(ShrunkFile, AFileThatLostItsEndAndGrewAgainIsDamageAndNoWantOfMemory) {
  const auto table = writer(1000);
  for (std::uint32_t key = 0; key < 300; ++key) put(*table, key * 1000, key);
  Quill::QuillReader<Number, NumberRecord> sut(handler_, name_.c_str());
  ASSERT_TRUE(sut.initialize());
  const RawFile file(name_ + "/slots");
  const std::size_t whole = file.size();
  std::filesystem::resize_file(name_ + "/slots", 4096);
  bool found = true;
  EXPECT_NE(textOfRaised<Quill::CorruptionDetectedException>([&] { sut.lookup({290'000}, found); }),
            "nothing raised");
  std::filesystem::resize_file(name_ + "/slots", whole);
  file.u32Is(168, file.u32(168) + 1);  // the version of numSlots: a growth

  EXPECT_EQ(textOfRaised<Quill::CorruptionDetectedException>([&] { sut.lookup({1000}, found); }),
            "SlotReader: " + name_ + "/slots became shorter than its mapping");
  EXPECT_FALSE(found);
}

}  // namespace QuillTest
