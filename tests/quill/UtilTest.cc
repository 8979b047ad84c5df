// SPDX-License-Identifier: Apache-2.0
#include "quill/Util.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>

#include "quill/Exceptions.h"
#include "quill/FenixFile.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

using Quill::FenixFile;
using Quill::RootPath;
using Quill::Util;

class UtilTest : public TableTest {
 protected:
  UtilTest() { path_.makeDirectory(); }
  void fileIs(const char* name, std::string_view text) const {
    std::ofstream(path_.filePath(name), std::ios::binary) << text;
  }
  // What a child process answers.
  template <class Question>
  int inChild(Question&& question) const {
    const pid_t child = fork();
    if (child == 0) _exit(question());
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  RootPath path_{handler_, root_.table("t"), true};
};

TEST_F(UtilTest, FenixIdsAreNeverZeroAndDifferByProcessAndInstance) {
  std::set<unsigned> ids;
  for (unsigned pid = 0; pid < 50; ++pid) {
    for (unsigned instance = 0; instance < 50; ++instance) {
      unsigned id = 0;
      Util::encodeFenix(static_cast<unsigned short>(pid), static_cast<unsigned short>(instance),
                        id);
      EXPECT_NE(id, 0U);
      ids.insert(id);
    }
  }
  EXPECT_EQ(ids.size(), 2500U);
}

TEST_F(UtilTest, HashesAreThoseThatStandInFiles) {
  EXPECT_EQ(Util::hash(""), 0xab3e7c0bU);
  EXPECT_EQ(Util::hash("counterIntf"), 0x6bf33243U);
  EXPECT_EQ(Util::hash("\x14\0\0\0", 4), 0x72a529daU);
}

TEST_F(UtilTest, TheFenixFileGivesBackWhatWasWritten) {
  EXPECT_EQ(FenixFile::read(handler_, path_.rootPath()), 0U);
  FenixFile::write(handler_, path_.rootPath(), 0xABCD0001);
  EXPECT_EQ(FenixFile::read(handler_, path_.rootPath()), 0xABCD0001);
  EXPECT_EQ(RawFile(path_.filePath("fenix")).all(), "quill-fenix 1 abcd0001\n");
  FenixFile::validate(handler_, path_.rootPath(), 0xABCD0001);
  EXPECT_EQ(textOfRaised<Quill::CorruptionDetectedException>(
                [&] { FenixFile::validate(handler_, path_.rootPath(), 7); }),
            "FenixFile::validate() " + path_.rootPath() + "/fenix holds 2882338817 wanted:7");
}

TEST_F(UtilTest, AnythingElseInTheFenixFileIsNoId) {
  for (const char* const text :
       {"", "quill-fenix 1 abcd000\n", "quill-fenix 1 abcd00011\n", "quill-fenix 2 abcd0001\n",
        "quill-fenix 1 ABCD0001\n", "quill-fenix 1 abcd0001", "quill-fenix 1 abcd000g\n"}) {
    fileIs("fenix", text);
    EXPECT_EQ(FenixFile::read(handler_, path_.rootPath()), 0U) << text;
  }
}

TEST_F(UtilTest, AFenixFileThatCannotBeWrittenIsNamed) {
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>(
                [&] { FenixFile::write(handler_, root_.path() + "/missing", 7); }),
            "FenixFile::write() cannot write " + root_.path() +
                "/missing/fenix: No such file or directory");
}

TEST_F(UtilTest, ReplacingLeavesNothingBehind) {
  ASSERT_EQ(Util::fileReplace(path_.rootPath(), "x", "one"), 0);
  ASSERT_EQ(Util::fileReplace(path_.rootPath(), "x", "two"), 0);
  EXPECT_EQ(Util::fileRead(handler_, path_.filePath("x"), false), "two");
  std::size_t files = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(path_.rootPath())) {
    ++files;
  }
  EXPECT_EQ(files, 1U);
}

TEST_F(UtilTest, OnlyRegularFilesAreReadAndOnlySoFar) {
  EXPECT_EQ(Util::fileRead(handler_, path_.filePath("missing"), true), "");
  ASSERT_EQ(mkfifo(path_.filePath("fifo").c_str(), 0644), 0);
  EXPECT_EQ(Util::fileRead(handler_, path_.filePath("fifo"), true), "");
  EXPECT_EQ(Util::fileRead(handler_, path_.rootPath(), true), "");
  fileIs("big", std::string(100'000, 'b'));
  EXPECT_EQ(Util::fileRead(handler_, path_.filePath("big"), true).size(), 65'536U);
}

TEST_F(UtilTest, TheOwnerIsThisProgramUntilAnotherWrites) {
  std::string name = "x";
  EXPECT_EQ(Util::readOwnerPid(handler_, path_.rootPath(), name), 0);
  EXPECT_EQ(name, "");
  ASSERT_EQ(Util::writeOwner(path_.rootPath()), 0);
  EXPECT_EQ(Util::readOwnerPid(handler_, path_.rootPath(), name), getpid());
  EXPECT_EQ(name, "quill_tests");
  EXPECT_EQ(Util::ownerText(handler_, path_.rootPath()), "quill_tests:" + std::to_string(getpid()));
}

TEST_F(UtilTest, AnOwnerFileThatIsNoneNamesNobody) {
  std::string name;
  for (const char* const text :
       {"", "\n", "12\n", "x y\n", "-5 y\n", "0 y\n", "99999999999 y\n", "12 y"}) {
    fileIs("last-owner", text);
    EXPECT_EQ(Util::readOwnerPid(handler_, path_.rootPath(), name), 0) << text;
    EXPECT_EQ(name, "") << text;
  }
  fileIs("last-owner", "12 a\x1b[2Jb\n");
  EXPECT_EQ(Util::readOwnerPid(handler_, path_.rootPath(), name), 12);
  EXPECT_EQ(name, "a?[2Jb");
}

TEST_F(UtilTest, ACorruptionReportIsBoundedAndMayFail) {
  Util::writeCorruptionFile(handler_, path_.rootPath(), std::string(10'000, 'c'));
  EXPECT_EQ(RawFile(path_.filePath("corruption-detected")).size(), 4'096U);
  TraceText traces;
  Util::writeCorruptionFile(handler_, root_.path() + "/missing", "text");
  EXPECT_TRUE(traces.has("Util::writeCorruptionFile()")) << traces.text();
}

TEST_F(UtilTest, MemSizeOfAMissingFileIsZero) {
  EXPECT_EQ(Util::memSize(handler_, path_.filePath("x")), 0U);
  fileIs("x", "12345");
  EXPECT_EQ(Util::memSize(handler_, path_.filePath("x")), 5U);
}

TEST_F(UtilTest, TheWriterLockKeepsOutASecondWriterOfThisProcess) {
  const int held = Util::acquireWriterLock(handler_, path_);
  ASSERT_NE(held, -1);
  EXPECT_EQ(Util::acquireWriterLock(handler_, path_), -1);
  EXPECT_EQ(errno, EAGAIN);
  // The refused attempt has not cost the first its lock.
  EXPECT_EQ(inChild([&] { return Util::acquireWriterLock(handler_, path_) == -1 ? 0 : 1; }), 0);
  Util::releaseWriterLock(handler_, held);
  const int again = Util::acquireWriterLock(handler_, path_);
  EXPECT_NE(again, -1);
  Util::releaseWriterLock(handler_, again);
}

TEST_F(UtilTest, TheWriterLockDiesWithItsProcess) {
  EXPECT_EQ(inChild([&] { return Util::acquireWriterLock(handler_, path_) != -1 ? 0 : 1; }), 0);
  const int held = Util::acquireWriterLock(handler_, path_);
  EXPECT_NE(held, -1);
  Util::releaseWriterLock(handler_, held);
}

TEST_F(UtilTest, AChildOfTheWriterDoesNotKeepTheLock) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  // A writer that forks and dies; the grandchild lives on until the pipe closes.
  int grandchildWaits[2];
  ASSERT_EQ(pipe(grandchildWaits), 0);
  EXPECT_EQ(inChild([&] {
              if (Util::acquireWriterLock(handler_, path_) == -1) return 1;
              if (fork() == 0) {
                close(grandchildWaits[1]);
                char byte;
                static_cast<void>(!read(grandchildWaits[0], &byte, 1));
                _exit(0);
              }
              return 0;
            }),
            0);
  const int held = Util::acquireWriterLock(handler_, path_);
  EXPECT_NE(held, -1) << "held by the child of a writer that is dead";
  Util::releaseWriterLock(handler_, held);
  for (const int fd : {ready[0], ready[1], grandchildWaits[0], grandchildWaits[1]}) close(fd);
}

TEST_F(UtilTest, AutoLockTakesAndGivesBackOnlyItsOwn) {
  TraceText traces;
  {
    const Util::AutoLock lock(handler_, path_, -1);
    EXPECT_EQ(Util::acquireWriterLock(handler_, path_), -1);
  }
  EXPECT_TRUE(traces.has("Util::AutoLock lock: -1"));
  EXPECT_TRUE(traces.has("Util::AutoLock lock acquired: "));
  EXPECT_TRUE(traces.has("Util::~AutoLock releasing lock: "));
  const int held = Util::acquireWriterLock(handler_, path_);
  traces.clear();
  { const Util::AutoLock lock(handler_, path_, held); }
  EXPECT_FALSE(traces.has("Util::"));
  EXPECT_EQ(Util::acquireWriterLock(handler_, path_), -1) << "still held";
  Util::releaseWriterLock(handler_, held);
}

TEST_F(UtilTest, AutoLockNamesTheOwner) {
  const int held = Util::acquireWriterLock(handler_, path_);
  ASSERT_EQ(Util::writeOwner(path_.rootPath()), 0);
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>(
                [&] { const Util::AutoLock lock(handler_, path_, -1); }),
            "table " + path_.rootPath() + " is owned by quill_tests:" + std::to_string(getpid()));
  Util::releaseWriterLock(handler_, held);
}

}  // namespace QuillTest
