// SPDX-License-Identifier: Apache-2.0
#include "quill/ReaderKickSm.h"

#include <cstdint>
#include <filesystem>

#include "quill/WriterKickSm.h"
#include "tests/quill/ReaderKickFixture.h"

namespace QuillTest {
namespace {

// A loop of its own is what a thread has or has not.
class NoLoop {
 public:
  Sable::Platform::DebugHandler handler{"test"};
  Quill::RootPath root{handler, "/nowhere", true};
  Quill::Reader::Counters counters;
};

TEST(ReaderKickSmWithoutLoop, IsNotReadyAndDoesNothing) {
  NoLoop none;
  KickReader sut(none.handler, none.root, none.counters);
  EXPECT_FALSE(sut.ready());
  sut.doConnect();
  sut.sendSequence(1);
  sut.doCloseWriterConnection(true);
  sut.enabledIs(true);
  sut.notifying(false);
  sut.notifying(true);
  sut.yields = 1;
  sut.doConquer();
  EXPECT_FALSE(sut.connected());
  EXPECT_EQ(1U, sut.batches);
}

TEST_F(ReaderKickSmTest, WithoutAWriterTheConnectionFailsSilently) {
  sut_->doConnect();
  EXPECT_FALSE(sut_->connected());
  KickPeer::listening(path_ + "/kick").hangUp();  // a dead writer's
  sut_->doConnect();
  EXPECT_FALSE(sut_->connected());
  std::filesystem::remove_all(path_);
  sut_->doConnect();
  EXPECT_FALSE(sut_->connected());
  sut_->sendSequence(1);
  turns();
  EXPECT_EQ(Events(), sut_->connectedEvents);
  EXPECT_EQ(Lines(), log_.texts());
}

TEST_F(ReaderKickSmTest, ConnectionSaysHelloThenTheFirstReport) {
  listen();
  sut_->doConnect();
  EXPECT_TRUE(sut_->connected());
  EXPECT_EQ(Events{true}, sut_->connectedEvents);
  const KickPeer writer = listening_.accepted();
  EXPECT_EQ(hello(), writer.received());
  EXPECT_EQ("", writer.received());
  sut_->sendSequence(0x0102030405060708U);
  EXPECT_EQ(sequenceBytes(0x0102030405060708U), writer.received());
  EXPECT_EQ(0U, sut_->acks);
  writer.send(ack(9));
  turns();
  EXPECT_EQ(1U, sut_->acks);
  EXPECT_EQ(0U, sut_->batches);
}

TEST_F(ReaderKickSmTest, SecondConnectChangesNothing) {
  connectIs(0);
  sut_->doConnect();
  EXPECT_FALSE(listening_.accepted().open());
  EXPECT_EQ(Events{true}, sut_->connectedEvents);
}

TEST_F(ReaderKickSmTest, PathLongerThanASocketAddressWorks) {
  const std::string longPath = root_.path() + "/" + std::string(120, 'd');
  std::filesystem::create_directories(longPath);
  std::filesystem::create_symlink(longPath, root_.path() + "/short");
  const KickPeer listening = KickPeer::listening(root_.path() + "/short/kick");
  const Quill::RootPath longRoot(handler_, longPath, true);
  KickReader reader(handler_, longRoot, counters_);
  reader.doConnect();
  EXPECT_TRUE(reader.connected());
}

TEST_F(ReaderKickSmTest, KickRunsABatchAndTheReaderSleepsAgain) {
  followIs(3);
  sut_->sequence = 4;
  writer_.send(kick(4));
  turns();
  EXPECT_EQ(1U, sut_->batches);
  EXPECT_EQ(sleepBytes(4), writer_.received());
  turns();
  EXPECT_EQ(1U, sut_->batches);
  EXPECT_EQ("", writer_.received());
}

TEST_F(ReaderKickSmTest, SeveralKicksAreOneBatch) {
  followIs(3);
  writer_.send(kick(4));
  writer_.send(kick(5));
  turns();
  EXPECT_EQ(1U, sut_->batches);
}

TEST_F(ReaderKickSmTest, NoBatchBeginsBeforeTheReaderIsEnabled) {
  connectIs(3);
  writer_.send(kick(4));
  turns();
  sut_->doConquer();
  EXPECT_EQ(0U, sut_->batches);
  EXPECT_EQ("", writer_.received());
  sut_->enabledIs(true);
  sut_->handleEnabled();
  EXPECT_EQ(1U, sut_->batches);
  EXPECT_EQ(sleepBytes(3), writer_.received());
}

TEST_F(ReaderKickSmTest, KickWhileNotificationsAreOffIsMadeUpFor) {
  followIs(3);
  sut_->notifying(false);
  writer_.send(kick(4));
  turns();
  EXPECT_EQ(0U, sut_->batches);
  sut_->notifying(true);
  EXPECT_EQ(0U, sut_->batches);  // in a turn of the loop
  loop_.runFor(0.0);
  EXPECT_EQ(1U, sut_->batches);
  EXPECT_EQ(sleepBytes(3), writer_.received());
}

TEST_F(ReaderKickSmTest, NotificationsThatStayOnRunNoBatch) {
  followIs(3);
  sut_->notifying(true);
  loop_.runFor(1.0);
  EXPECT_EQ(0U, sut_->batches);
}

TEST_F(ReaderKickSmTest, NotificationsOffInABatchStopItAndTheReaderDoesNotSleep) {
  followIs(3);
  bool stopped = false;
  sut_->inBatch = [this, &stopped] {
    sut_->notifying(false);
    stopped = sut_->stopped();
  };
  sut_->sequence = 4;
  writer_.send(kick(6));
  turns();
  EXPECT_TRUE(stopped);
  EXPECT_EQ(sequenceBytes(4), writer_.received());
  loop_.runFor(10.0);
  EXPECT_EQ(1U, sut_->batches);
  sut_->inBatch = [this, &stopped] { stopped = sut_->stopped(); };
  sut_->notifying(true);
  loop_.runFor(0.0);
  EXPECT_FALSE(stopped);
  EXPECT_EQ(2U, sut_->batches);
  EXPECT_EQ(sleepBytes(4), writer_.received());
}

TEST_F(ReaderKickSmTest, NotificationsOffAndOnWithinABatchBeginAnother) {
  followIs(3);
  sut_->inBatch = [this] {
    sut_->inBatch = nullptr;
    sut_->notifying(false);
    sut_->notifying(true);
  };
  writer_.send(kick(6));
  loop_.runFor(0.0);
  EXPECT_EQ(2U, sut_->batches);
  EXPECT_EQ(sleepBytes(3), writer_.received());
}

TEST_F(ReaderKickSmTest, BatchThatGaveWayIsFollowedByAnotherWithoutTimePassing) {
  followIs(3);
  sut_->yields = 2;
  sut_->sequence = 4;
  sut_->inBatch = [this] { ++sut_->sequence; };
  writer_.send(kick(9));
  turns(1);
  EXPECT_EQ(1U, sut_->batches);
  EXPECT_EQ(sequenceBytes(4), writer_.received());  // so that the writer can prune
  loop_.runFor(0.0);
  EXPECT_EQ(3U, sut_->batches);
  EXPECT_EQ(sequenceBytes(5), writer_.received());
  EXPECT_EQ(sleepBytes(6), writer_.received());
  EXPECT_EQ("", writer_.received());
}

TEST_F(ReaderKickSmTest, NotificationsOffLeaveNoBatchWaiting) {
  followIs(3);
  sut_->yields = 1;
  writer_.send(kick(4));
  turns(1);
  sut_->notifying(false);
  EXPECT_FALSE(loop_.runTurn());
  EXPECT_EQ(1U, sut_->batches);
}

TEST_F(ReaderKickSmTest, EventOfAnotherDescriptorMeansNothing) {
  followIs(3);
  sut_->fdEvent(-1);
  sut_->fdEvent(listening_.fd());
  turns();
  EXPECT_TRUE(sut_->connected());
}

TEST_F(ReaderKickSmTest, BatchInsideABatchRunsAfterwards) {
  followIs(3);
  unsigned inside = 0;
  sut_->inBatch = [this, &inside] {
    sut_->inBatch = nullptr;
    sut_->doConquer();
    inside = sut_->batches;
  };
  writer_.send(kick(4));
  loop_.runFor(0.0);
  EXPECT_EQ(1U, inside);
  EXPECT_EQ(2U, sut_->batches);
}

TEST_F(ReaderKickSmTest, ReportNeverGoesBack) {
  followIs(5);
  sut_->sendSequence(4);
  EXPECT_EQ("", writer_.received());
  sut_->sequence = 4;
  sut_->doConquer();
  EXPECT_EQ(sleepBytes(5), writer_.received());
}

TEST_F(ReaderKickSmTest, FirstReportIsASequenceAlsoForAReaderThatSleeps) {
  listen();
  sut_->doConnect();
  sut_->enabledIs(true);
  sut_->sequence = 7;
  sut_->doConquer();
  const KickPeer writer = listening_.accepted();
  EXPECT_EQ(hello(), writer.received());
  EXPECT_EQ(sequenceBytes(7), writer.received());
  EXPECT_EQ(sleepBytes(7), writer.received());
}

TEST_F(ReaderKickSmTest, WithoutAConnectionABatchReportsNothing) {
  sut_->enabledIs(true);
  sut_->doConquer();
  EXPECT_EQ(1U, sut_->batches);
  loop_.runFor(10.0);
  EXPECT_EQ(1U, sut_->batches);
}

class Writer : public Quill::WriterKickSm {
 public:
  Writer(Sable::Platform::DebugHandler& handler, const Quill::RootPath& root)
      : WriterKickSm(handler, root, false) {}
  unsigned numReaders() const override { return 0; }
  void updateNumReaders() override {}
  void change() {
    ++sequence_;
    doKickSleepers();
  }
};

// Both ends together.
TEST_F(ReaderKickSmTest, NoChangeIsSleptThrough) {
  Writer writer(handler_, rootPath_);
  writer.createKickSocket();
  writer.doEnableListen();
  std::uint64_t newest = 0;
  sut_->newest = &newest;
  sut_->onAck = [this] {
    sut_->enabledIs(true);
    sut_->handleEnabled();
  };
  sut_->doConnect();
  sut_->sendSequence(0);
  // Changes between any two steps of the two ends.
  for (unsigned i = 0; i < 1'000; ++i) {
    if (i % 3 == 0) {
      writer.change();
      ++newest;
    }
    turns(1 + i % 4);
  }
  loop_.runFor(0.0);
  EXPECT_EQ(newest, writer.lowestSequence());
  EXPECT_GT(writer.kicks(), 100U);
  EXPECT_EQ(1U, writer.connectedReaders());
  EXPECT_EQ(Lines(), log_.texts());
}

}  // namespace
}  // namespace QuillTest
