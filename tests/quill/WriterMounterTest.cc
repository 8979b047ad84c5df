// SPDX-License-Identifier: Apache-2.0
#include "quill/WriterMounter.h"

#include <gtest/gtest.h>

#include "quill/FenixFile.h"
#include "quill/Util.h"
#include "tests/quill/FakeMountable.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {
namespace {

using Quill::FenixFile;
using Quill::QuillType;
using Quill::WriterMounter;

class WriterMounterTest : public TableTest {
 protected:
  WriterMounterTest() {
    std::filesystem::create_directories(path_);
    map_.fenix = 7;
  }
  void report(const std::string& text) { Quill::Util::writeCorruptionFile(handler_, path_, text); }

  const std::string path_ = root_.table("table");
  FakeMountable map_{path_, QuillType::writer};
};

TEST_F(WriterMounterTest, WithoutAReportOnlyTheFilesAreChecked) {
  WriterMounter sut(handler_, map_);
  const TraceText traces;
  sut.notify("occasion");
  EXPECT_EQ(map_.calls, "validateFiles ");
  EXPECT_EQ(sut.notifyCount(), 1U);
  EXPECT_EQ(sut.remountTimeouts(), 0U);
  EXPECT_TRUE(traces.has("WriterMounter::notify() " + path_));
  EXPECT_EQ(FenixFile::read(handler_, path_), 0U);
}

TEST_F(WriterMounterTest, AReportHasTheTableCheckedAndTheReadersToldByTheFenixFile) {
  report("slot 3 is odd");
  WriterMounter sut(handler_, map_);
  const TraceText traces;
  sut.notify("corruption-detected");
  EXPECT_EQ(map_.calls, "validate validateFiles ");
  EXPECT_EQ(FenixFile::read(handler_, path_), 7U);
  EXPECT_TRUE(traces.has("WriterMounter::notify() corruptDetected: slot 3 is odd"));
  EXPECT_TRUE(traces.has("WriterMounter::notify() quill validation ok"));
}

TEST_F(WriterMounterTest, TheSameReportIsActedOnOnceAndAnotherOneAgain) {
  report("slot 3 is odd");
  WriterMounter sut(handler_, map_);
  sut.notify("corruption-detected");
  sut.notify("corruption-detected");
  EXPECT_EQ(map_.calls, "validate validateFiles validateFiles ");
  report("slot 4 is odd");
  sut.notify("corruption-detected");
  EXPECT_EQ(map_.calls, "validate validateFiles validateFiles validate validateFiles ");
}

TEST_F(WriterMounterTest, ATableThatFailsTheCheckIsAnExceptionAndNobodyIsToldToMount) {
  report("slot 3 is odd");
  map_.valid = false;
  WriterMounter sut(handler_, map_);
  const TraceText traces;
  try {
    sut.notify("corruption-detected");
    ADD_FAILURE() << "nothing raised";
  } catch (const Quill::CorruptionDetectedException& error) {
    EXPECT_EQ(error.msg(), "WriterMounter::notify() failed quill validation");
  }
  EXPECT_EQ(map_.calls, "validate ");
  EXPECT_EQ(FenixFile::read(handler_, path_), 0U);
  EXPECT_TRUE(traces.has("WriterMounter::notify() failed quill validation"));
}

TEST_F(WriterMounterTest, AReportThatAppearsInTheDirectoryIsHeard) {
  const WriterMounter sut(handler_, map_);
  report("slot 3 is odd");
  loop_.runFor(0.1);
  EXPECT_TRUE(map_.calls.starts_with("validate validateFiles ")) << map_.calls;
  EXPECT_EQ(FenixFile::read(handler_, path_), 7U);
}

TEST(WriterMounterWithoutLoop, CannotBeMade) {
  const TemporaryRoot root;
  Sable::Platform::DebugHandler handler("test");
  FakeMountable map(root.table("table"), QuillType::writer);
  const std::string text =
      "WriterMounter::WriterMounter() unable to initialize mounterSm for rootPath: " +
      root.table("table");
  const TraceText traces;
  try {
    const WriterMounter sut(handler, map);
    ADD_FAILURE() << "nothing raised";
  } catch (const Sable::InvalidInitializeException& error) {
    EXPECT_EQ(error.msg(), text);
  }
  EXPECT_TRUE(traces.has(text));
}

}  // namespace
}  // namespace QuillTest
