// SPDX-License-Identifier: Apache-2.0
#include "quill/QuillBaseDummy.h"

#include <gtest/gtest.h>

#include "quill/QuillWriter.h"
#include "tests/quill/Records.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {
namespace {

using Dummy = Quill::QuillBaseDummy<Portus::IntfId, IntfRecord>;
using Writer = Quill::QuillWriter<Portus::IntfId, IntfRecord>;

class QuillBaseDummyTest : public TableTest {
 protected:
  const std::string path_ = root_.table("a/b");
  Dummy sut_{handler_, path_, true};
  const IntfRecord something_ = intfRecord("eth1", 1, 2, 3);
};

TEST_F(QuillBaseDummyTest, EveryReadFindsNothing) {
  bool found = true;
  EXPECT_EQ(sut_.lookup(something_.key, found), IntfRecord{});
  EXPECT_FALSE(found);
  found = true;
  EXPECT_EQ(sut_.directLookup(something_.key, found), IntfRecord{});
  EXPECT_FALSE(found);
  IntfRecord value = something_;
  Quill::IterHint hint;
  EXPECT_FALSE(sut_.first(value, hint));
  EXPECT_EQ(value, IntfRecord{});
  value = something_;
  EXPECT_FALSE(sut_.next(something_.key, value, hint));
  EXPECT_EQ(value, IntfRecord{});
  EXPECT_EQ(sut_.members(), 0U);
  EXPECT_EQ(sut_.maxSize(), 0U);
  EXPECT_EQ(sut_.capacity(), 0U);
  EXPECT_FALSE(sut_.resize());
}

TEST_F(QuillBaseDummyTest, AnswersAsAReaderThatIsNotMounted) {
  EXPECT_TRUE(sut_.initialize());
  EXPECT_TRUE(sut_.validate());
  EXPECT_TRUE(sut_.validateFiles());
  EXPECT_EQ(sut_.type(), Quill::QuillType::reader);
  EXPECT_EQ(sut_.mountStatus(), 0U);
  EXPECT_EQ(sut_.fenixId(), 0U);
  EXPECT_EQ(sut_.sequence(), 0U);
  EXPECT_EQ(sut_.readerCounters().connections, 0U);
  EXPECT_EQ(sut_.rootPath(), path_);
  EXPECT_EQ(sut_.quillName(), "a/b");
}

TEST_F(QuillBaseDummyTest, RefusesChangesAsAnyReader) {
  IntfRecord old;
  try {
    sut_.write(something_, true);
    ADD_FAILURE() << "nothing raised";
  } catch (const Sable::NoPermissionException& error) {
    EXPECT_EQ(error.msg(), "write to read-only Quill table");
  }
  EXPECT_THROW(sut_.remove(something_.key, old), Sable::NoPermissionException);
  EXPECT_THROW(sut_.directWrite(something_.key), Sable::NoPermissionException);
  EXPECT_THROW(sut_.directCommit(), Sable::NoPermissionException);
  EXPECT_THROW(sut_.writerCounters(), Sable::UnimplementedException);
}

TEST_F(QuillBaseDummyTest, MakesNoDirectory) { EXPECT_FALSE(std::filesystem::exists(path_)); }

TEST_F(QuillBaseDummyTest, CleanupWithNothingWrappedDoesNothing) {
  std::filesystem::create_directories(path_);
  sut_.cleanup();
  EXPECT_TRUE(std::filesystem::exists(path_));
}

TEST_F(QuillBaseDummyTest, CleanupReachesTheWriterThatWasReplaced) {
  auto writer = std::make_unique<Writer>(handler_, path_.c_str(), 100, false, "");
  ASSERT_TRUE(writer->initialize());
  writer->detach();
  ASSERT_TRUE(std::filesystem::exists(path_ + "/slots"));
  sut_.wrap(std::move(writer));
  sut_.cleanup();
  EXPECT_FALSE(std::filesystem::exists(path_ + "/slots"));
}

}  // namespace
}  // namespace QuillTest
