// SPDX-License-Identifier: Apache-2.0
#include "quill/WriterKickSm.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "quill/Exceptions.h"
#include "quill/Util.h"
#include "tests/quill/KickPeer.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

namespace {

constexpr std::uint64_t kNobody = 0xFFFFFFFFFFFFFFFFU;

class Writer : public Quill::WriterKickSm {
 public:
  Writer(Sable::Platform::DebugHandler& handler, const Quill::RootPath& root, bool local = false)
      : WriterKickSm(handler, root, local) {}

  // As the table's writer does it.
  unsigned numReaders() const override { return header; }
  void updateNumReaders() override {
    ++updates;
    if (!waitingForReaders()) {
      header = connectedReaders();
    } else if (connectedReaders() == header) {
      stopWaitingForReaders();
    }
  }
  // One change of the table.
  void change() {
    ++sequence_;
    doKickSleepers();
  }
  void sequenceIs(std::uint64_t sequence) { sequence_ = sequence; }

  unsigned header = 0;
  unsigned updates = 0;
};

class WriterKickSmTest : public TableTest {
 protected:
  WriterKickSmTest() { loop_.logService().sinkIs(log_); }
  ~WriterKickSmTest() override { loop_.logService().sinkDel(log_); }

  void startIs(unsigned formerReaders = 0) {
    sut_.header = formerReaders;
    sut_.createKickSocket();
    sut_.doEnableListen();
  }
  void turns(unsigned count = 3) {
    for (unsigned i = 0; i < count; ++i) loop_.runTurn();
  }
  KickPeer connect() { return KickPeer::connected(path_ + "/kick"); }
  // A reader that has introduced itself and taken the answer.
  KickPeer reader(std::uint64_t sequence) {
    KickPeer peer = connect();
    EXPECT_TRUE(peer.send(hello()));
    EXPECT_TRUE(peer.send(sequenceBytes(sequence)));
    turns();
    EXPECT_EQ(4, peer.received().substr(6, 1)[0]);
    return peer;
  }
  std::string dropped(const std::string& reason) const {
    return "Table " + path_ + ": reader with process id " + std::to_string(getpid()) + " of user " +
           std::to_string(geteuid()) + " was dropped: " + reason;
  }
  // What becomes of a reader that sends this after its introduction at sequence 3 of 5.
  std::vector<std::string> linesAfter(const std::string& bytes) {
    startIs();
    sut_.sequenceIs(5);
    const KickPeer peer = reader(3);
    EXPECT_TRUE(peer.send(bytes));
    turns();
    EXPECT_TRUE(peer.closed());
    EXPECT_EQ(0U, sut_.connectedReaders());
    EXPECT_EQ(kNobody, sut_.lowestSequence());
    return log_.texts();
  }

  using Lines = std::vector<std::string>;
  Vex::MemorySink log_;
  std::string path_ = root_.table("t");
  Quill::RootPath rootPath_{handler_, path_, true};
  Writer sut_{handler_, rootPath_};
};

// How many descriptors this process may have, for the life of the scope.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t limit) {
    EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &before_));
    rlimit wanted = before_;
    wanted.rlim_cur = limit;
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &wanted));
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

}  // namespace

TEST_F(WriterKickSmTest, LocalTableHasNoSocketAndNoDirectory) {
  Writer local(handler_, rootPath_, true);
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
  Writer second(handler_, rootPath_);
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
  Writer writer(handler_, longRoot);
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
  Writer second(handler_, rootPath_);
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
  Writer second(handler_, rootPath_);
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

TEST_F(WriterKickSmTest, ReaderCountsFromItsFirstSequenceAndIsAnsweredThen) {
  startIs();
  sut_.sequenceIs(10);
  const KickPeer peer = connect();
  turns();
  EXPECT_EQ(0U, sut_.connectedReaders());
  peer.send(hello());
  turns();
  EXPECT_EQ(0U, sut_.connectedReaders());
  EXPECT_EQ(kNobody, sut_.lowestSequence());
  EXPECT_EQ("", peer.received());
  peer.send(sequenceBytes(7));
  turns();
  EXPECT_EQ(1U, sut_.connectedReaders());
  EXPECT_EQ(1U, sut_.header);
  EXPECT_EQ(7U, sut_.lowestSequence());
  EXPECT_EQ(ack(10), peer.received());
  EXPECT_EQ("", peer.received());
}

TEST_F(WriterKickSmTest, ReaderThatConnectsBeforeListeningIsTakenLater) {
  sut_.createKickSocket();
  const KickPeer peer = connect();
  ASSERT_TRUE(peer.open());
  peer.send(hello());
  peer.send(sequenceBytes(0));
  turns();
  EXPECT_EQ(0U, sut_.connectedReaders());
  sut_.doEnableListen();
  turns();
  EXPECT_EQ(ack(0), peer.received());
}

TEST_F(WriterKickSmTest, LowestSequenceIsThatOfTheSlowestReader) {
  startIs();
  sut_.sequenceIs(100);
  EXPECT_EQ(kNobody, sut_.lowestSequence());
  const KickPeer slow = reader(10);
  KickPeer slower = reader(5);
  EXPECT_EQ(5U, sut_.lowestSequence());
  slower.send(sequenceBytes(50));
  turns();
  EXPECT_EQ(10U, sut_.lowestSequence());
  slow.send(sleepBytes(100));
  turns();
  EXPECT_EQ(50U, sut_.lowestSequence());
  slower.hangUp();
  turns();
  EXPECT_EQ(100U, sut_.lowestSequence());
  EXPECT_EQ(1U, sut_.connectedReaders());
  EXPECT_EQ(1U, sut_.header);
  EXPECT_EQ(Lines(), log_.texts());
}

TEST_F(WriterKickSmTest, SleeperIsKickedOnceForAnyNumberOfChanges) {
  startIs();
  const KickPeer peer = reader(0);
  sut_.change();
  EXPECT_EQ("", peer.received());  // it has not said that it sleeps
  peer.send(sleepBytes(1));
  turns();
  EXPECT_EQ("", peer.received());
  sut_.change();
  sut_.change();
  EXPECT_EQ(kick(2), peer.received());
  EXPECT_EQ("", peer.received());
  EXPECT_EQ(1U, sut_.kicks());
  peer.send(sleepBytes(2));
  turns();
  sut_.change();
  EXPECT_EQ(kick(3), peer.received());
  EXPECT_EQ(2U, sut_.kicks());
}

TEST_F(WriterKickSmTest, SleepThatIsSaidTwiceIsOneSleep) {
  startIs();
  const KickPeer peer = reader(0);
  peer.send(sleepBytes(0));
  peer.send(sleepBytes(0));
  turns();
  sut_.change();
  EXPECT_EQ(kick(1), peer.received());
  EXPECT_EQ("", peer.received());
  EXPECT_EQ(1U, sut_.kicks());
}

TEST_F(WriterKickSmTest, SleeperThatHasGoneIsNotKicked) {
  startIs();
  KickPeer peer = reader(0);
  peer.send(sleepBytes(0));
  turns();
  peer.hangUp();
  turns();
  sut_.change();
  EXPECT_EQ(0U, sut_.kicks());
  EXPECT_EQ(0U, sut_.connectedReaders());
}

TEST_F(WriterKickSmTest, ReaderThatWouldSleepThroughAChangeIsKickedAtOnce) {
  startIs();
  const KickPeer peer = reader(0);
  sut_.change();
  peer.send(sleepBytes(0));
  turns();
  EXPECT_EQ(kick(1), peer.received());
  sut_.change();
  EXPECT_EQ("", peer.received());  // awake
  EXPECT_EQ(1U, sut_.kicks());
}

TEST_F(WriterKickSmTest, EverySleeperIsKicked) {
  startIs();
  const KickPeer first = reader(0);
  KickPeer second = reader(0);
  const KickPeer third = reader(0);
  first.send(sleepBytes(0));
  second.send(sleepBytes(0));
  third.send(sleepBytes(0));
  turns();
  second.hangUp();  // dies in its sleep; the writer finds out by the kick
  sut_.change();
  EXPECT_EQ(kick(1), first.received());
  EXPECT_EQ(kick(1), third.received());
  EXPECT_EQ(2U, sut_.kicks());
  EXPECT_EQ(2U, sut_.connectedReaders());
  EXPECT_EQ(2U, sut_.header);
  EXPECT_EQ(Lines(), log_.texts());  // going is no fault
}

TEST_F(WriterKickSmTest, ReportDuringASleepDoesNotEndIt) {
  startIs();
  const KickPeer peer = reader(0);
  peer.send(sleepBytes(0));
  peer.send(sequenceBytes(0));
  turns();
  sut_.change();
  EXPECT_EQ(kick(1), peer.received());
}

TEST_F(WriterKickSmTest, ReaderWhoseSocketIsFullIsDropped) {
  startIs();
  sut_.change();
  const KickPeer peer = reader(0);
  for (unsigned i = 0; i < 5'000 && sut_.connectedReaders() == 1; ++i) {
    sut_.change();  // one KICK for each
    peer.send(sleepBytes(0));
    turns(1);
  }
  EXPECT_EQ(0U, sut_.connectedReaders());
  EXPECT_TRUE(peer.closed());
  EXPECT_EQ(
      Lines{dropped("KICK cannot be sent, it does not read: Resource temporarily unavailable")},
      log_.texts());
}

TEST_F(WriterKickSmTest, SequenceBeyondTheWritersDropsTheReader) {
  EXPECT_EQ(Lines{dropped("SEQUENCE with sequence 6, must be 3 to 5")},
            linesAfter(sequenceBytes(6)));
}

TEST_F(WriterKickSmTest, SequenceThatGoesBackDropsTheReader) {
  EXPECT_EQ(Lines{dropped("SLEEP with sequence 2, must be 3 to 5")}, linesAfter(sleepBytes(2)));
}

TEST_F(WriterKickSmTest, SecondHelloDropsTheReader) {
  EXPECT_EQ(Lines{dropped("a second HELLO")}, linesAfter(hello()));
}

TEST_F(WriterKickSmTest, UnknownTypeDropsTheReader) {
  EXPECT_EQ(Lines{dropped("message type 6, must be 1 to 5")}, linesAfter(kickBytes(6, 3)));
}

TEST_F(WriterKickSmTest, MessageOfAWriterDropsTheReader) {
  EXPECT_EQ(Lines{dropped("KICK from a reader, must be HELLO, SEQUENCE or SLEEP")},
            linesAfter(kick(3)));
}

TEST_F(WriterKickSmTest, WrongMagicDropsTheReader) {
  std::string bytes = sequenceBytes(3);
  bytes[0] = 'X';
  EXPECT_EQ(Lines{dropped("magic 0x4b434b58, must be 0x4b434b51")}, linesAfter(bytes));
}

TEST_F(WriterKickSmTest, WrongVersionDropsTheReader) {
  std::string bytes = sequenceBytes(3);
  bytes[4] = 2;
  EXPECT_EQ(Lines{dropped("protocol version 2, must be 1")}, linesAfter(bytes));
}

TEST_F(WriterKickSmTest, ShortMessageDropsTheReader) {
  EXPECT_EQ(Lines{dropped("message of 15 bytes, must be 16")},
            linesAfter(sequenceBytes(3).substr(0, 15)));
}

TEST_F(WriterKickSmTest, LongMessageDropsTheReader) {
  EXPECT_EQ(Lines{dropped("message of 17 bytes, must be 16")}, linesAfter(sequenceBytes(3) + "x"));
}

TEST_F(WriterKickSmTest, AnythingBeforeHelloDropsTheReader) {
  startIs();
  const KickPeer peer = connect();
  peer.send(sequenceBytes(0));
  turns();
  EXPECT_TRUE(peer.closed());
  EXPECT_EQ(Lines{dropped("SEQUENCE before HELLO")}, log_.texts());
  EXPECT_EQ(0U, sut_.updates);
}

TEST_F(WriterKickSmTest, SleepBeforeTheFirstSequenceDropsTheReader) {
  startIs();
  const KickPeer peer = connect();
  peer.send(hello());
  peer.send(sleepBytes(0));
  turns();
  EXPECT_TRUE(peer.closed());
  EXPECT_EQ(Lines{dropped("SLEEP before the first SEQUENCE")}, log_.texts());
}

TEST_F(WriterKickSmTest, ReaderThatSaysNothingIsDroppedAfterTenSeconds) {
  startIs();
  const KickPeer silent = connect();
  turns();
  loop_.runFor(5.0);
  const KickPeer halfway = connect();
  halfway.send(hello());
  const KickPeer good = reader(0);
  loop_.runFor(4.999);
  EXPECT_FALSE(silent.closed());
  loop_.runFor(0.001);
  EXPECT_TRUE(silent.closed());
  EXPECT_FALSE(halfway.closed());
  loop_.runFor(5.0);
  EXPECT_TRUE(halfway.closed());
  loop_.runFor(1'000.0);
  EXPECT_FALSE(good.closed());
  EXPECT_EQ((Lines{dropped("no introduction within 10 seconds"),
                   dropped("no introduction within 10 seconds")}),
            log_.texts());
}

TEST_F(WriterKickSmTest, AFloodIsHandledInBoundedTurns) {
  startIs();
  sut_.sequenceIs(100);
  const KickPeer peer = reader(0);
  for (unsigned i = 1; i <= 20; ++i) peer.send(sequenceBytes(i));
  turns(1);
  EXPECT_EQ(8U, sut_.lowestSequence());
  turns(1);
  EXPECT_EQ(16U, sut_.lowestSequence());
  turns(1);
  EXPECT_EQ(20U, sut_.lowestSequence());
}

TEST_F(WriterKickSmTest, TooManyMessagesInASecondDropTheReader) {
  startIs();
  const KickPeer peer = reader(0);  // two messages
  for (unsigned i = 2; i < 200'000; ++i) {
    ASSERT_TRUE(peer.send(sequenceBytes(0)));
    turns(1);
  }
  EXPECT_EQ(1U, sut_.connectedReaders());
  peer.send(sequenceBytes(0));
  turns(1);
  EXPECT_EQ(0U, sut_.connectedReaders());
  EXPECT_EQ(Lines{dropped("more than 200000 messages in a second")}, log_.texts());
}

TEST_F(WriterKickSmTest, LogLinesAboutReadersAreLimited) {
  startIs();
  for (unsigned i = 0; i < 20; ++i) {
    const KickPeer peer = connect();
    peer.send(kickBytes(100 + i, 0));
    turns();
    EXPECT_TRUE(peer.closed());
  }
  EXPECT_EQ(8U, log_.entries().size());
  loop_.runFor(1.0);
  const KickPeer peer = connect();
  peer.send(kickBytes(200, 0));
  turns();
  EXPECT_EQ(9U, log_.entries().size());
}

TEST_F(WriterKickSmTest, ReaderBeyondATablesLimitIsRefused) {
  const DescriptorLimit limit(4'096);
  startIs();
  std::vector<KickPeer> readers;
  for (unsigned i = 0; i < 1'024; ++i) readers.push_back(reader(0));
  EXPECT_EQ(1'024U, sut_.connectedReaders());
  const KickPeer oneMore = connect();
  turns();
  EXPECT_TRUE(oneMore.closed());
  EXPECT_EQ(1'024U, sut_.connectedReaders());
  EXPECT_EQ(Lines{dropped("the table has 1024 readers already")}, log_.texts());
  readers.pop_back();
  turns();
  readers.push_back(reader(0));
  EXPECT_EQ(1'024U, sut_.connectedReaders());
}

TEST_F(WriterKickSmTest, AnotherUsersReadersAreLimitedBesideThoseOfOthers) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can connect as another user";
  constexpr uid_t kOther = 65'534;
  std::filesystem::permissions(root_.path(), std::filesystem::perms(0755));
  startIs();
  std::vector<KickPeer> readers;
  ASSERT_EQ(0, seteuid(kOther));
  for (unsigned i = 0; i < 65; ++i) readers.push_back(connect());
  ASSERT_EQ(0, seteuid(0));
  turns(10);
  for (unsigned i = 0; i < 64; ++i) EXPECT_FALSE(readers[i].closed()) << i;
  EXPECT_TRUE(readers[64].closed());
  EXPECT_EQ(Lines{"Table " + path_ + ": reader with process id " + std::to_string(getpid()) +
                  " of user 65534 was dropped: user 65534 has 64 readers already"},
            log_.texts());
  const KickPeer ours = reader(0);
  EXPECT_FALSE(ours.closed());
}

TEST_F(WriterKickSmTest, MissingDescriptorsHoldConnectionsBackWithoutTurningTheLoop) {
  startIs();
  const KickPeer first = reader(0);
  const KickPeer peer = connect();
  ASSERT_TRUE(peer.open());
  {
    const DescriptorLimit limit(static_cast<rlim_t>(peer.fd()) + 1);
    turns(1);
    EXPECT_EQ(Lines{"Table " + path_ + ": no reader can be taken at present: Too many open files"},
              log_.texts());
    EXPECT_FALSE(loop_.runTurn());
    first.send(sleepBytes(0));  // who is connected is served
    turns();
    sut_.change();
    EXPECT_EQ(kick(1), first.received());
  }
  loop_.runFor(0.999);
  peer.send(hello());
  peer.send(sequenceBytes(0));
  turns();
  EXPECT_EQ("", peer.received());
  loop_.runFor(0.001);
  EXPECT_EQ(ack(1), peer.received());
}

TEST_F(WriterKickSmTest, WithoutFormerReadersNobodyIsWaitedFor) {
  startIs();
  EXPECT_FALSE(sut_.waitingForReaders());
  sut_.stopWaitingForReaders();
}

TEST_F(WriterKickSmTest, WaitEndsWhenTheFormerReadersAreBack) {
  startIs(2);
  EXPECT_TRUE(sut_.waitingForReaders());
  const KickPeer first = reader(0);
  EXPECT_TRUE(sut_.waitingForReaders());
  EXPECT_EQ(2U, sut_.header);
  const KickPeer second = reader(0);
  EXPECT_FALSE(sut_.waitingForReaders());
  const KickPeer third = reader(0);
  EXPECT_EQ(3U, sut_.header);
}

TEST_F(WriterKickSmTest, WaitEndsAfterNinetySeconds) {
  startIs(2);
  const KickPeer first = reader(0);
  loop_.runFor(89.999);
  EXPECT_TRUE(sut_.waitingForReaders());
  EXPECT_EQ(2U, sut_.header);
  loop_.runFor(0.001);
  EXPECT_FALSE(sut_.waitingForReaders());
  EXPECT_EQ(1U, sut_.header);
}

TEST_F(WriterKickSmTest, StoppedWaitChangesNothingLater) {
  startIs(2);
  sut_.stopWaitingForReaders();
  EXPECT_FALSE(sut_.waitingForReaders());
  loop_.runFor(200.0);
  EXPECT_EQ(0U, sut_.updates);
  EXPECT_EQ(2U, sut_.header);
}

TEST_F(WriterKickSmTest, KilledWriterLeavesItsLockAndItsReadersHearOfIt) {
  KickPeer peer;
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  const pid_t child = fork();
  if (child == 0) {
    Vex::VirtualActivityManager loop;
    const Vex::CurrentActivityManager current(loop);
    Writer writer(handler_, rootPath_);
    writer.createKickSocket();
    static_cast<void>(!write(ready[1], "x", 1));
    pause();
    _exit(0);
  }
  char byte = 0;
  ASSERT_EQ(1, read(ready[0], &byte, 1));
  close(ready[0]);
  close(ready[1]);
  peer = connect();
  EXPECT_TRUE(peer.open());
  EXPECT_FALSE(peer.closed());
  EXPECT_THROW(sut_.createKickSocket(), Sable::InvalidInitializeException);
  kill(child, SIGKILL);
  ASSERT_EQ(child, waitpid(child, nullptr, 0));
  EXPECT_TRUE(peer.closed());
  startIs();
  EXPECT_TRUE(connect().open());
}

}  // namespace QuillTest
