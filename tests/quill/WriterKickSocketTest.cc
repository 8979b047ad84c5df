// SPDX-License-Identifier: Apache-2.0
//
// The socket in the table's directory and the lock that goes with it.
#include "quill/WriterKickSm.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "quill/Exceptions.h"
#include "quill/Util.h"
#include "tests/quill/WriterKickFixture.h"

namespace QuillTest {
namespace {

TEST_F(WriterKickSmTest, LocalTableHasNoSocketAndNoDirectory) {
  KickWriter local(handler_, rootPath_, true);
  local.createKickSocket();
  local.doEnableListen();
  EXPECT_TRUE(local.validateSocket());
  EXPECT_EQ(-1, local.lockHandle());
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(WriterKickSmTest, SocketIsMadeInTheTablesDirectoryAndOpenToEverybody) {
  const mode_t umaskBefore = umask(077);
  startIs();
  umask(umaskBefore);
  struct stat status {};
  ASSERT_EQ(0, lstat((path_ + "/kick").c_str(), &status));
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(0666U, status.st_mode & 07777U);
  EXPECT_FALSE(std::filesystem::exists(path_ + "/.kick.new"));
  EXPECT_GE(sut_.lockHandle(), 0);
  EXPECT_TRUE(sut_.validateSocket());
  EXPECT_EQ(getpid(),
            std::stoi(Quill::Util::ownerText(handler_, path_)
                          .substr(Quill::Util::ownerText(handler_, path_).rfind(':') + 1)));
}

TEST_F(WriterKickSmTest, SecondWriterIsRefusedWithTheOwnersName) {
  startIs();
  KickWriter second(handler_, rootPath_);
  try {
    second.createKickSocket();
    FAIL() << "two writers";
  } catch (const Sable::InvalidInitializeException& exception) {
    EXPECT_EQ("WriterKickSm::createKickSocket() " + path_ + " is owned by " +
                  Quill::Util::ownerText(handler_, path_),
              exception.msg());
  }
  EXPECT_EQ(-1, second.lockHandle());
  second.deleteKickSocket();
  EXPECT_TRUE(sut_.validateSocket());
  EXPECT_TRUE(connect().open());
}

TEST_F(WriterKickSmTest, SecondCallInOneWriterIsRefusedAndHarmless) {
  startIs();
  EXPECT_THROW(sut_.createKickSocket(), Sable::InvalidInitializeException);
  EXPECT_GE(sut_.lockHandle(), 0);
  EXPECT_TRUE(sut_.validateSocket());
}

TEST_F(WriterKickSmTest, SocketOfADeadWriterIsReplacedAndNothingElseTouched) {
  std::filesystem::create_directories(path_);
  KickPeer::listening(path_ + "/kick").hangUp();
  KickPeer::listening(path_ + "/.kick.new").hangUp();
  std::ofstream(path_ + "/slots") << "content";
  std::ofstream(path_ + "/corruption-detected") << "text";
  EXPECT_FALSE(connect().open());
  startIs();
  EXPECT_TRUE(connect().open());
  EXPECT_EQ(7U, std::filesystem::file_size(path_ + "/slots"));
  EXPECT_EQ(4U, std::filesystem::file_size(path_ + "/corruption-detected"));
}

TEST_F(WriterKickSmTest, SocketThatCannotBePutIntoPlaceIsAnErrorAndGivesTheLockBack) {
  std::filesystem::create_directories(path_ + "/kick/full");
  try {
    sut_.createKickSocket();
    FAIL() << "a directory was replaced";
  } catch (const Sable::InvalidInitializeException& exception) {
    EXPECT_EQ(
        "WriterKickSm::createKickSocket() cannot put into place " + path_ + "/kick: Is a directory",
        exception.msg());
  }
  EXPECT_EQ(-1, sut_.lockHandle());
  EXPECT_FALSE(std::filesystem::exists(path_ + "/.kick.new"));
  std::filesystem::remove_all(path_ + "/kick");
  startIs();
  EXPECT_TRUE(connect().open());
}

TEST_F(WriterKickSmTest, PathLongerThanASocketAddressWorks) {
  const std::string longPath = root_.path() + "/" + std::string(120, 'd') + "/t";
  const Quill::RootPath longRoot(handler_, longPath, true);
  KickWriter writer(handler_, longRoot);
  writer.createKickSocket();
  writer.doEnableListen();
  EXPECT_TRUE(writer.validateSocket());
  std::filesystem::create_symlink(longPath, root_.path() + "/short");
  const KickPeer peer = KickPeer::connected(root_.path() + "/short/kick");
  ASSERT_TRUE(peer.open());
  peer.send(hello());
  peer.send(sequenceBytes(0));
  turns();
  EXPECT_EQ(1U, writer.connectedReaders());
}

TEST_F(WriterKickSmTest, DeleteRemovesTheSocketOnlyAndGivesTheLockBack) {
  startIs();
  std::ofstream(path_ + "/slots") << "content";
  const KickPeer peer = reader(0);
  sut_.deleteKickSocket();
  EXPECT_FALSE(std::filesystem::exists(path_ + "/kick"));
  EXPECT_TRUE(std::filesystem::exists(path_ + "/slots"));
  EXPECT_TRUE(std::filesystem::exists(path_ + "/last-owner"));
  EXPECT_TRUE(peer.closed());
  EXPECT_EQ(0U, sut_.connectedReaders());
  EXPECT_EQ(-1, sut_.lockHandle());
  sut_.deleteKickSocket();
  KickWriter second(handler_, rootPath_);
  second.createKickSocket();
  EXPECT_GE(second.lockHandle(), 0);
}

TEST_F(WriterKickSmTest, AnOrderlyEndLeavesTheHeadersCountForTheNextLife) {
  startIs();
  const KickPeer peer = reader(0);
  const unsigned updates = sut_.updates;
  sut_.deleteKickSocket();
  EXPECT_EQ(updates, sut_.updates);
  EXPECT_EQ(1U, sut_.header);
}

TEST_F(WriterKickSmTest, DeleteLeavesTheSocketOfAnotherWriterAlone) {
  startIs();
  std::filesystem::remove_all(path_);
  KickWriter second(handler_, rootPath_);
  second.createKickSocket();
  sut_.deleteKickSocket();
  EXPECT_TRUE(second.validateSocket());
}

TEST_F(WriterKickSmTest, MissingOrForeignSocketIsCorruption) {
  startIs();
  std::filesystem::remove(path_ + "/kick");
  const auto textOfFailure = [this] {
    try {
      sut_.validateSocket();
    } catch (const Quill::CorruptionDetectedException& exception) {
      return exception.msg();
    }
    return std::string("none");
  };
  EXPECT_EQ("WriterKickSm::validateSocket(): " + path_ + "/kick: No such file or directory",
            textOfFailure());
  std::ofstream(path_ + "/kick") << "";
  EXPECT_EQ("WriterKickSm::validateSocket(): " + path_ + "/kick is not this writer's socket",
            textOfFailure());
}

TEST_F(WriterKickSmTest, ListeningWithoutALoopOrASocketIsAnError) {
  EXPECT_THROW(sut_.doEnableListen(), Sable::InvalidInitializeException);
  sut_.createKickSocket();
  sut_.doEnableListen();
  sut_.doEnableListen();
  EXPECT_TRUE(connect().open());
}

}  // namespace
}  // namespace QuillTest
