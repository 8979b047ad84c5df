// SPDX-License-Identifier: Apache-2.0
#include "quill/QuillMem.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>

#include "tests/quill/TestTable.h"

namespace QuillTest {

using Quill::AutoMemMove;
using Quill::QuillMem;
using Quill::RootPath;

class QuillMemTest : public TableTest {
 protected:
  RootPath path_{handler_, root_.table("t"), true};
};

TEST_F(QuillMemTest, MemSizeOfAFileThatDoesNotExistIsZero) {
  EXPECT_EQ(QuillMem(handler_, path_, "slots", false).memSize(), 0U);
}

TEST_F(QuillMemTest, ALocalRegionIsAnonymousAndMakesNoFile) {
  QuillMem sut(handler_, path_, "slots", true);
  EXPECT_EQ(sut.memSize(), 0U);
  ASSERT_NE(sut.attach(5000, Mem::Mode::readWrite), nullptr);
  EXPECT_EQ(sut.getFilename(), "[ANONYMOUS]");
  EXPECT_EQ(sut.memSize(), 5000U);
  ASSERT_NE(sut.resize(9000), nullptr);
  EXPECT_EQ(sut.memSize(), 9000U);
  EXPECT_TRUE(std::filesystem::is_empty(root_.path()));
}

TEST_F(QuillMemTest, EveryOperationTracesItsSizeAndFile) {
  TraceText traces;
  path_.makeDirectory();
  QuillMem sut(handler_, path_, "slots", false);
  ASSERT_NE(sut.attach(100, Mem::Mode::readWrite), nullptr);
  ASSERT_NE(sut.resize(200), nullptr);
  sut.detach();
  sut.detach();
  const std::string file = path_.rootPath() + "/slots";
  EXPECT_TRUE(
      traces.has("QuillMem::QuillMem() prefix: " + path_.rootPath() + " name:slots localMem:0"));
  EXPECT_TRUE(traces.has("QuillMem::attach() size: 100 localMem: 0 filename: " + file));
  EXPECT_TRUE(traces.has("QuillMem::resize() size: 200 localMem: 0 filename: " + file));
  EXPECT_TRUE(traces.has("QuillMem::detach() size: 200 localMem: 0 filename: " + file));
}

// A region that "moves" from one array to the other.
class AutoMemMoveTest : public TableTest {
 protected:
  std::array<char, 64> old_{};
  std::array<char, 64> fresh_{};
  char outside_ = 0;
  char* base_ = old_.data();
};

TEST_F(AutoMemMoveTest, APointerInsideFollowsTheRegion) {
  char* pointer = old_.data() + 10;
  TraceText traces;
  {
    const AutoMemMove guard(handler_, &pointer, &base_, 64);
    base_ = fresh_.data();
  }
  EXPECT_EQ(pointer, fresh_.data() + 10);
  EXPECT_TRUE(traces.has("~AutoMemMove::AutoMemMove() ptr:"));
  EXPECT_TRUE(traces.has(" moved from:"));
}

TEST_F(AutoMemMoveTest, APointerOutsideIsLeftAloneThoughTheRegionMoves) {
  char* pointer = &outside_;
  TraceText traces;
  {
    const AutoMemMove guard(handler_, &pointer, &base_, 64);
    base_ = fresh_.data();
  }
  EXPECT_EQ(pointer, &outside_);
  EXPECT_TRUE(traces.has(" not moved"));
}

TEST_F(AutoMemMoveTest, APointerToTheBaseIsNeverReBased) {
  char* pointer = old_.data();
  {
    const AutoMemMove guard(handler_, &pointer, &base_, 64);
    base_ = fresh_.data();
  }
  EXPECT_EQ(pointer, old_.data());
}

TEST_F(AutoMemMoveTest, WithoutAMoveNothingChanges) {
  char* pointer = old_.data() + 10;
  { const AutoMemMove guard(handler_, &pointer, &base_, 64); }
  EXPECT_EQ(pointer, old_.data() + 10);
}

}  // namespace QuillTest
