// SPDX-License-Identifier: Apache-2.0
#include "quill/BucketTable.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "quill/Exceptions.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

using Quill::BucketReaderTable;
using Quill::BucketTable;
using Quill::BucketWriterTable;
using Quill::CorruptionDetectedException;
using Quill::RootPath;

class BucketTableTest : public TableTest {
 protected:
  BucketTableTest() { path_.makeDirectory(); }
  std::unique_ptr<BucketWriterTable> writer(std::uint32_t maxSlots, bool local = false) {
    return std::make_unique<BucketWriterTable>(handler_, path_, local, maxSlots, counters_);
  }
  std::string whyNot(std::uint32_t size, std::uint32_t fenix = 7) {
    auto kept = writer(1024);
    kept->attach(file_.u32(12));
    std::string message;
    return kept->header()->validate(size, fenix, message) ? "sound" : message;
  }

  RootPath path_{handler_, root_.table("t"), true};
  RawFile file_{path_.filePath("buckets")};
  Quill::Writer::Counters counters_;
};

TEST_F(BucketTableTest, ATableOf1024Has2557Buckets) {
  EXPECT_EQ(BucketTable::bucketsFor(1024, 4096), 2557U);
  const auto sut = writer(1024);
  EXPECT_FALSE(sut->attach(7));
  EXPECT_EQ(sut->numBuckets(), 2557U);
  EXPECT_EQ(file_.size(), 20480U);
  EXPECT_EQ(file_.bytes(0, 8), "QUILLBKT");
  EXPECT_EQ(file_.u32(8), 1U);
  EXPECT_EQ(file_.u32(12), 7U);
  EXPECT_EQ(file_.u32(16), 2557U);
  EXPECT_EQ(file_.u32(20), static_cast<std::uint32_t>(getpid()));
  for (const std::uint64_t bucket : {0U, 1U, 2556U}) {
    EXPECT_EQ(file_.u32(24 + 8 * bucket), 0U);
    EXPECT_EQ(file_.u32(28 + 8 * bucket), 0xFFFFFFFFU);
  }
}

TEST_F(BucketTableTest, ASizeOfZeroStillHas509Buckets) {
  EXPECT_EQ(BucketTable::bucketsFor(0, 4096), 509U);
}

TEST_F(BucketTableTest, ATableTooLargeForItsFileIsRefused) {
  const auto sut = writer(0xFFFFFFFF);
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>([&] { sut->attach(7); }),
            "BucketWriter::attach() cannot attach to shmem " + path_.filePath("buckets") +
                " of size:34359738384: File too large");
}

TEST_F(BucketTableTest, UnderTheSameFenixTheFileIsUsedAsItStands) {
  auto sut = writer(1024);
  sut->attach(7);
  file_.u64Is(24 + 8 * 5, 0x0000000300000002);
  TraceText traces;
  EXPECT_FALSE(sut->attach(7));
  EXPECT_TRUE(traces.has("BucketWriter::attach() to existing "));
  EXPECT_EQ(sut->getRef(5)->load(Mem::relaxed), (Mem::VerU32{2, 3}));
}

TEST_F(BucketTableTest, UnderAnotherFenixTheFileIsFormattedAnewAtItsSize) {
  writer(97)->attach(7);
  auto sut = writer(1024);
  TraceText traces;
  EXPECT_TRUE(sut->attach(8));
  EXPECT_TRUE(traces.has("BucketWriter::attach() resize from 4096 to 20480 bytes"));
  EXPECT_TRUE(traces.has("BucketWriter::attach() re-formatted "));
  EXPECT_EQ(file_.u32(16), 2557U);
}

TEST_F(BucketTableTest, AnIndexAboveTheHighestIsCorruption) {
  auto sut = writer(1024, true);
  sut->attach(7);
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { sut->getRef(2557); }),
            "BucketWriter::getRef() out-of-range, index:2557 max:2556");
  writer(1024)->attach(7);
  BucketReaderTable reader(handler_, path_);
  ASSERT_TRUE(reader.attach());
  reader.numBucketsIs(2557);
  EXPECT_EQ(reader.getRef(2556)->load(Mem::acquire), (Mem::VerU32{0, 0xFFFFFFFF}));
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { reader.getRef(2557); }),
            "BucketReader::getRef() out-of-range, index:2557 max:2556");
}

// A table made for fewer slots, kept by a writer with more: nothing is read behind the mapping.
TEST_F(BucketTableTest, HeadsBehindAKeptFileAreOutOfRange) {
  writer(97)->attach(7);
  auto sut = writer(1024);
  EXPECT_FALSE(sut->attach(7));
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { sut->getRef(2000); }),
            "BucketWriter::getRef() out-of-range, index:2000 max:2556");
}

TEST_F(BucketTableTest, AReaderWithoutAFileAttachesNothing) {
  BucketReaderTable sut(handler_, path_);
  TraceText traces;
  EXPECT_FALSE(sut.attach());
  EXPECT_TRUE(traces.has("BucketReader::attach() no shared memory region"));
  std::filesystem::create_directory(path_.filePath("buckets"));
  traces.clear();
  EXPECT_FALSE(sut.attach());
  EXPECT_TRUE(traces.has("BucketReader::attach() cannot attach to shmem size:"));
}

TEST_F(BucketTableTest, HeadersAreCheckedInTheirOrder) {
  writer(1024)->attach(7);
  EXPECT_EQ(whyNot(20480), "sound");
  EXPECT_EQ(whyNot(20480, 0), "sound");
  EXPECT_EQ(whyNot(23), "BucketTable::validate() bad header file size: 23 wanted:24");
  EXPECT_EQ(whyNot(20480, 8), "BucketTable::validate() bad fenix:7 wanted:8");
  EXPECT_EQ(whyNot(20479),
            "BucketTable::validate() bad shmem size:20479 wanted:20480 for 2557 buckets");
  file_.u32Is(8, 2);
  EXPECT_EQ(whyNot(20480), "BucketTable::validate() bad version: 2");
  file_.u64Is(0, 0xABC);
  EXPECT_EQ(whyNot(20480), "BucketTable::validate() bad magic: abc");
}

TEST_F(BucketTableTest, DetachingClearsAReader) {
  writer(1024)->attach(7);
  BucketReaderTable sut(handler_, path_);
  sut.attach();
  sut.numBucketsIs(2557);
  sut.detach();
  EXPECT_EQ(sut.numBuckets(), 0U);
  EXPECT_EQ(sut.header(), nullptr);
}

}  // namespace QuillTest
