// SPDX-License-Identifier: Apache-2.0
//
// Small parts of the store at the edges of what they take: names, small files, texts, regions.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>

#include "quill/FenixFile.h"
#include "quill/KickMessage.h"
#include "quill/KickSession.h"
#include "quill/QuillReader.h"
#include "quill/Util.h"
#include "runtime/mem/Region.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/Records.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {
namespace {

using Quill::FenixFile;
using Quill::RootPath;
using Quill::Util;

class UtilEdge : public TableTest {
 protected:
  UtilEdge() { path_.makeDirectory(); }

  void fileIs(const char* name, const std::string& text) const {
    std::ofstream(path_.filePath(name)) << text;
  }
  std::string ownerOf(const std::string& text) {
    fileIs("last-owner", text);
    std::string name;
    const int pid = Util::readOwnerPid(handler_, path_.rootPath(), name);
    return std::to_string(pid) + " " + name;
  }

  const RootPath path_{handler_, root_.table("t"), true};
};

// The soft limit of something this process may have, for the life of the scope.
class Limit {
 public:
  Limit(__rlimit_resource what, rlim_t value) : what_(what) {
    EXPECT_EQ(getrlimit(what_, &before_), 0);
    rlimit wanted = before_;
    wanted.rlim_cur = value;
    EXPECT_EQ(setrlimit(what_, &wanted), 0);
  }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;
  ~Limit() { setrlimit(what_, &before_); }

 private:
  __rlimit_resource what_;
  rlimit before_{};
};

TEST_F(UtilEdge, ARootIsAbsoluteAndItsSlashesAtTheEndMeanNothing) {
  EXPECT_EQ(Quill::tablePath("/a///", "t"), "/a/t");
  EXPECT_EQ(Quill::tablePath("/", "t"), "/t");
  EXPECT_EQ(Quill::tablePath("//", "t"), "/t");
  for (const char* const root : {"", "a"}) {
    EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>([&] { Quill::tablePath(root, "t"); }),
              "table root " + std::string(root) + ": must be an absolute path");
  }
}

TEST_F(UtilEdge, ATablesPathIsADirectorysWithoutClimbing) {
  EXPECT_EQ(RootPath(handler_, "/a/t//", true).rootPath(), "/a/t");
  const auto refused = [this](std::string_view name) {
    return textOfRaised<Sable::InvalidInitializeException>([&] { RootPath(handler_, name, true); });
  };
  EXPECT_EQ(refused(""), "table name is empty");
  for (const std::string& name :
       {std::string("/"), std::string("///"), std::string("/a/../t"), std::string("/a\0b", 4)}) {
    EXPECT_EQ(refused(name),
              "table path " + name + ": must be a directory's absolute path without \"..\"");
  }
}

TEST_F(UtilEdge, CleaningUpADirectoryThatIsNotThereSaysNothing) {
  const TraceText traces;
  RootPath(handler_, root_.table("never"), true).cleanup();
  EXPECT_EQ(traces.text(), "");
  fileIs("other", "x");
  path_.cleanup();
  EXPECT_TRUE(traces.has("RootPath::cleanup() " + path_.rootPath() + ": Directory not empty"));
}

TEST_F(UtilEdge, AFenixFileWithoutItsLinesEndIsNoId) {
  fileIs("fenix", "quill-fenix 1 0000000aX");
  EXPECT_EQ(FenixFile::read(handler_, path_.rootPath()), 0U);
  fileIs("fenix", "quill-fenix 1 0000000a\n");
  EXPECT_EQ(FenixFile::read(handler_, path_.rootPath()), 10U);
}

TEST_F(UtilEdge, IdsAreReadFromFilesThatAreThereAndAPathThatCannotBeIsAnError) {
  EXPECT_TRUE(FenixFile::idsIn(path_.rootPath()).empty());
  fileIs("file", "x");
  EXPECT_TRUE(FenixFile::idsIn(path_.filePath("file")).empty()) << "no directory";
  fileIs("slots", std::string("0123456789ab\1\0\0\0", 16));
  fileIs("buckets", "short");
  fileIs("conquer.1", "");
  EXPECT_EQ(FenixFile::idsIn(path_.rootPath()), (std::vector<unsigned>{1, 0}));
  const std::string tooLong = "/" + std::string(300, 'x');
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>([&] { FenixFile::idsIn(tooLong); }),
            "FenixFile::idsIn() cannot read " + tooLong + "/slots: File name too long");
}

TEST_F(UtilEdge, AnOwnersNameIsPrintableAndStandsBehindABlank) {
  EXPECT_EQ(ownerOf("12 a\x7f"
                    "b\tc\n"),
            "12 a?b?c");
  EXPECT_EQ(ownerOf("12\n"), "0 ");
  EXPECT_EQ(ownerOf("12x y\n"), "0 ");
  EXPECT_EQ(ownerOf("12 \n"), "12 ");
}

TEST_F(UtilEdge, AProgramWithoutANameIsUnknown) {
  char before[16] = {};
  ASSERT_EQ(prctl(PR_GET_NAME, before), 0);
  ASSERT_EQ(prctl(PR_SET_NAME, ""), 0);
  const int error = Util::writeOwner(path_.rootPath());
  ASSERT_EQ(prctl(PR_SET_NAME, before), 0);
  EXPECT_EQ(error, 0);
  std::string name;
  EXPECT_EQ(Util::readOwnerPid(handler_, path_.rootPath(), name), getpid());
  EXPECT_EQ(name, "unknown");
}

TEST_F(UtilEdge, AnOwnerCannotTakeTheNameOfADirectory) {
  std::filesystem::create_directory(path_.filePath("last-owner"));
  EXPECT_EQ(Util::writeOwner(path_.rootPath()), EISDIR);
  EXPECT_FALSE(std::filesystem::exists(path_.filePath(".last-owner.new")));
}

TEST_F(UtilEdge, WithoutADescriptorNoOwnerIsWritten) {
  const Limit none(RLIMIT_NOFILE, 0);
  EXPECT_EQ(Util::writeOwner(path_.rootPath()), EMFILE);
}

TEST_F(UtilEdge, AnIdThatCannotBeReadIsNoOtherId) {
  FenixFile::write(handler_, path_.rootPath(), 7);
  {
    const Limit none(RLIMIT_NOFILE, 0);
    EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>(
                  [&] { FenixFile::validate(handler_, path_.rootPath(), 7); }),
              "FenixFile::read() cannot read " + path_.rootPath() + "/fenix: Too many open files");
  }
  FenixFile::validate(handler_, path_.rootPath(), 7);
  std::filesystem::remove(path_.filePath("fenix"));
  EXPECT_EQ(textOfRaised<Quill::CorruptionDetectedException>(
                [&] { FenixFile::validate(handler_, path_.rootPath(), 7); }),
            "FenixFile::validate() " + path_.rootPath() + "/fenix holds 0 wanted:7");
}

TEST_F(UtilEdge, ALockThatCannotBeIsAnErrorWithItsReason) {
  std::filesystem::create_directory(path_.filePath("lock"));
  EXPECT_EQ(textOfRaised<Sable::InvalidInitializeException>(
                [&] { const Util::AutoLock lock(handler_, path_, -1); }),
            "cannot lock the table " + path_.rootPath() + ": Is a directory");
  Util::releaseWriterLock(handler_, 12'345);  // nobody's: nothing happens
}

TEST(MessageEdge, MessagesAreEqualIfBothTheirPartsAre) {
  const Quill::KickMessage message{Quill::KickType::sleep, 7};
  EXPECT_TRUE(message == (Quill::KickMessage{Quill::KickType::sleep, 7}));
  EXPECT_FALSE(message == (Quill::KickMessage{Quill::KickType::kick, 7}));
  EXPECT_FALSE(message == (Quill::KickMessage{Quill::KickType::sleep, 8}));
  EXPECT_FALSE((Mem::VerU32{1, 2} == Mem::VerU32{1, 3}));
  EXPECT_FALSE((Mem::VerU32{1, 2} == Mem::VerU32{2, 2}));
  EXPECT_TRUE((Quill::IterHint{1, 2} == Quill::IterHint{1, 2}));
  EXPECT_FALSE((Quill::IterHint{1, 2} == Quill::IterHint{2, 2}));
  EXPECT_FALSE((Quill::IterHint{1, 2} == Quill::IterHint{1, 1}));
  std::ostringstream text;
  text << Quill::IterHint{3, 4};
  EXPECT_EQ(text.str(), "IterHint{ slot 3, bucket 4 }");
}

TEST(MessageEdge, FewerBytesThanAMessageAreNone) {
  std::string reason;
  const Quill::KickBytes bytes = Quill::encodeKick({Quill::KickType::hello, 0});
  EXPECT_FALSE(Quill::decodeKick(std::span(bytes).first(8), 16, reason).has_value());
  EXPECT_TRUE(Quill::decodeKick(bytes, 16, reason).has_value());
}

TEST(MessageEdge, WhatOnlyAWriterSaysIsRefusedFromAReader) {
  for (const auto type : {Quill::KickType::ack, Quill::KickType::kick}) {
    Quill::KickSession sut;
    std::string reason;
    EXPECT_EQ(sut.handleMessage({type, 0}, 0, 1.0, reason), Quill::KickSession::Effect::refused);
    EXPECT_EQ(reason, std::string(type == Quill::KickType::ack ? "ACK" : "KICK") +
                          " from a reader, must be HELLO, SEQUENCE or SLEEP");
  }
}

TEST(MessageEdge, ClearedBytesAreZeroAndNoMoreThanThose) {
  Mem::SharedBytes<8> eight;
  Mem::SharedBytes<15> odd;
  std::array<unsigned char, 15> own{};
  own.fill(0xEE);
  eight.copyIn(own.data());
  odd.copyIn(own.data());
  eight.clear();
  odd.clear();
  std::array<unsigned char, 15> back{};
  back.fill(0x11);
  odd.copyOut(back.data());
  EXPECT_EQ(back, (std::array<unsigned char, 15>{}));
  for (std::size_t size = 0; size <= 15; ++size) {
    odd.clear();
    odd.copyIn(own.data(), size);
    odd.copyOut(back.data());
    EXPECT_EQ(std::count(back.begin(), back.end(), 0xEE), static_cast<std::ptrdiff_t>(size));
  }
}

TEST(MessageEdge, ExceptionsHaveTheirNames) {
  EXPECT_STREQ(Quill::CorruptionDetectedException("x").name(),
               "Quill::CorruptionDetectedException");
  EXPECT_STREQ(Quill::TableFullException("x").name(), "Quill::TableFullException");
}

class RegionEdge : public TableTest {
 protected:
  Mem::Shared region() { return {root_.path(), "region", false, 0, false}; }
};

TEST_F(RegionEdge, NoBytesAreNoRegion) {
  Mem::Shared sut = region();
  EXPECT_EQ(sut.attach(0, Mem::Mode::readWrite), nullptr);
  EXPECT_EQ(errno, EINVAL);
  ASSERT_NE(sut.attach(4096, Mem::Mode::readWrite), nullptr);
  EXPECT_EQ(sut.resize(0), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(sut.size(), 4096U);
}

TEST_F(RegionEdge, AWriterMakesTheFileShorterWithItsMapping) {
  Mem::Shared sut = region();
  ASSERT_NE(sut.attach(8192, Mem::Mode::readWrite), nullptr);
  ASSERT_NE(sut.resize(4096), nullptr);
  EXPECT_EQ(sut.memSize(), 4096U);
}

TEST_F(RegionEdge, TheSizeOfAFileThatCannotBeAskedForIsAnErrorAndNotZeroBytes) {
  std::ofstream(root_.path() + "/file") << "x";
  const Mem::Shared below(root_.path() + "/file", "region", false, 0, false);
  EXPECT_EQ(below.memSize(), 0U);
  EXPECT_EQ(errno, 0) << "below a file there is none";
  const Mem::Shared tooLong(root_.path() + "/" + std::string(300, 'x'), "region", false, 0, false);
  EXPECT_EQ(tooLong.memSize(), 0U);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

// The process that the signal meets leaves by exit().
struct BusCalls {
  static void plain(int) { calls = calls + 1; }
  static void withInformation(int, siginfo_t*, void*) { calls = calls + 1; }
  static inline volatile int calls = 0;
};

class BusEdgeDeathTest : public RegionEdge {
 protected:
  BusEdgeDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  // A signal that a process sent while a region is mapped; `action` was there before.
  void sendUnder(const struct sigaction& action) {
    sigaction(SIGBUS, &action, nullptr);
    Mem::Shared sut = region();
    if (sut.attach(4096, Mem::Mode::readWrite) == nullptr) std::exit(9);
    raise(SIGBUS);
    std::exit(BusCalls::calls);
  }
};

TEST_F(BusEdgeDeathTest, ASentSignalGoesToWhoeverHadItBefore) {
  struct sigaction action {};
  action.sa_handler = &BusCalls::plain;
  EXPECT_EXIT(sendUnder(action), testing::ExitedWithCode(1), "");
  action.sa_sigaction = &BusCalls::withInformation;
  action.sa_flags = SA_SIGINFO;
  EXPECT_EXIT(sendUnder(action), testing::ExitedWithCode(1), "");
}

TEST_F(BusEdgeDeathTest, ASentSignalThatWasIgnoredIsIgnored) {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  EXPECT_EXIT(sendUnder(action), testing::ExitedWithCode(0), "");
}

using NumberReader = Quill::QuillReader<Number, NumberRecord>;

TEST_F(UtilEdge, WhatIsTheWritersAloneIsRefusedToAReader) {
  NumberReader sut(handler_, path_.rootPath().c_str());
  using Refused = Sable::NoPermissionException;
  EXPECT_EQ(textOfRaised<Refused>([&] { sut.validate(); }), "validate to read-only Quill table");
  EXPECT_EQ(textOfRaised<Refused>([&] { sut.validateFiles(); }),
            "validateFiles to read-only Quill table");
  EXPECT_EQ(textOfRaised<Refused>([&] { sut.cleanup(); }), "cleanup to read-only Quill table");
}

}  // namespace
}  // namespace QuillTest
