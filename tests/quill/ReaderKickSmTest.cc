// SPDX-License-Identifier: Apache-2.0
#include "quill/ReaderKickSm.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

#include "quill/Exceptions.h"
#include "quill/WriterKickSm.h"
#include "tests/quill/KickPeer.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

namespace {

class Reader : public Quill::ReaderKickSm {
 public:
  Reader(Sable::Platform::DebugHandler& handler, const Quill::RootPath& root,
         Quill::Reader::Counters& counters)
      : ReaderKickSm(handler, root, counters) {}

  std::uint64_t doProcessNotifications() override {
    ++batches;
    yielded_ = yields > 0;
    if (yields > 0) --yields;
    if (newest != nullptr) sequence = *newest;
    const auto answer = sequence;
    const auto batch = inBatch;  // may destroy this object
    if (batch) batch();
    return answer;
  }
  void handleConnected() override {
    connectedEvents.push_back(connected());
    const auto event = onConnected;  // may destroy this object
    if (event) event();
  }
  void handleAck() override {
    ++acks;
    const auto event = onAck;
    if (event) event();
  }
  void handleEnabled() override { doConquer(); }

  using ReaderKickSm::fdEvent;
  void enabledIs(bool enabled) { enabled_ = enabled; }
  bool stopped() const { return stopFlag_; }

  unsigned batches = 0;
  unsigned acks = 0;
  unsigned yields = 0;  // batches that are to end for their time limit
  std::uint64_t sequence = 0;
  const std::uint64_t* newest = nullptr;  // what a batch comes up to, if not `sequence`
  std::vector<bool> connectedEvents;
  std::function<void()> inBatch;
  std::function<void()> onConnected;
  std::function<void()> onAck;
};

class ReaderKickSmTest : public TableTest {
 protected:
  ReaderKickSmTest() { loop_.logService().sinkIs(log_); }
  ~ReaderKickSmTest() override { loop_.logService().sinkDel(log_); }

  void SetUp() override {
    std::filesystem::create_directories(path_);
    sut_ = std::make_unique<Reader>(handler_, rootPath_, counters_);
  }
  void listen() { listening_ = KickPeer::listening(path_ + "/kick"); }
  void turns(unsigned count = 3) {
    for (unsigned i = 0; i < count; ++i) loop_.runTurn();
  }
  // A connection whose introduction at `sequence` the writer has answered.
  void connectIs(std::uint64_t sequence) {
    if (!listening_.open()) listen();
    sut_->doConnect();
    writer_ = listening_.accepted();
    ASSERT_TRUE(writer_.open());
    EXPECT_EQ(hello(), writer_.received());
    sut_->sendSequence(sequence);
    EXPECT_EQ(sequenceBytes(sequence), writer_.received());
    writer_.send(ack(sequence));
    turns();
    sut_->sequence = sequence;
  }
  // The same, asleep and following.
  void followIs(std::uint64_t sequence) {
    connectIs(sequence);
    sut_->enabledIs(true);
    sut_->doConquer();
    EXPECT_EQ(sleepBytes(sequence), writer_.received());
    sut_->batches = 0;
  }
  std::string closedText(const std::string& reason) const {
    return "Table " + path_ + ": the connection to the writer was closed: " + reason;
  }
  std::string failedText(const std::string& reason) const {
    return "Table " + path_ + ": changes could not be followed: " + reason;
  }
  // What becomes of a connection on which the writer sends this.
  void expectLost(const std::string& bytes, const std::string& reason) {
    followIs(3);
    writer_.send(bytes);
    turns();
    EXPECT_FALSE(sut_->connected());
    EXPECT_TRUE(writer_.closed());
    EXPECT_EQ((std::vector<bool>{true, false}), sut_->connectedEvents);
    EXPECT_EQ(std::vector<std::string>{closedText(reason)}, log_.texts());
    EXPECT_EQ(0U, sut_->batches);
  }

  Vex::MemorySink log_;
  std::string path_ = root_.table("t");
  Quill::RootPath rootPath_{handler_, path_, true};
  Quill::Reader::Counters counters_;
  KickPeer listening_;
  KickPeer writer_;
  std::unique_ptr<Reader> sut_;
};

using Events = std::vector<bool>;
using Lines = std::vector<std::string>;

// A loop of its own is what a thread has or has not.
class NoLoop {
 public:
  Sable::Platform::DebugHandler handler{"test"};
  Quill::RootPath root{handler, "/nowhere", true};
  Quill::Reader::Counters counters;
};

}  // namespace

TEST(ReaderKickSmWithoutLoop, IsNotReadyAndDoesNothing) {
  NoLoop none;
  Reader sut(none.handler, none.root, none.counters);
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
  Reader reader(handler_, longRoot, counters_);
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

TEST_F(ReaderKickSmTest, WriterThatGoesIsALostConnection) {
  followIs(3);
  writer_.hangUp();
  turns();
  EXPECT_FALSE(sut_->connected());
  EXPECT_TRUE(sut_->enabled());
  EXPECT_EQ((Events{true, false}), sut_->connectedEvents);
  EXPECT_EQ(Lines(), log_.texts());  // no fault
}

TEST_F(ReaderKickSmTest, LossFoundByAReportIsToldInALaterTurn) {
  followIs(3);
  writer_.hangUp();
  sut_->sendSequence(4);
  EXPECT_FALSE(sut_->connected());
  EXPECT_EQ(Events{true}, sut_->connectedEvents);
  turns();
  EXPECT_EQ((Events{true, false}), sut_->connectedEvents);
}

TEST_F(ReaderKickSmTest, ReconnectionAheadOfTheNewsOfALossReplacesIt) {
  followIs(3);
  writer_.hangUp();
  sut_->sendSequence(4);
  connectIs(4);
  turns();
  EXPECT_EQ((Events{true, true}), sut_->connectedEvents);
  EXPECT_EQ(2U, sut_->acks);
}

TEST_F(ReaderKickSmTest, ClosedConnectionTellsNobodyButTheWriter) {
  followIs(3);
  sut_->doCloseWriterConnection(true);
  EXPECT_FALSE(sut_->connected());
  EXPECT_TRUE(writer_.closed());
  turns();
  EXPECT_EQ(Events{true}, sut_->connectedEvents);
  sut_->doCloseWriterConnection(false);
  connectIs(3);
  EXPECT_TRUE(sut_->connected());
}

TEST_F(ReaderKickSmTest, CloseAheadOfTheNewsOfALossSilencesIt) {
  followIs(3);
  writer_.hangUp();
  sut_->sendSequence(4);
  sut_->doCloseWriterConnection(true);
  turns();
  EXPECT_EQ(Events{true}, sut_->connectedEvents);
}

TEST_F(ReaderKickSmTest, RefusedReaderWaitsASecondBeforeItTriesAgain) {
  sut_->onConnected = [this] {
    if (!sut_->connected()) sut_->doConnect();  // as the mounter does
  };
  listen();
  sut_->doConnect();
  listening_.accepted().hangUp();
  turns();
  EXPECT_FALSE(sut_->connected());
  EXPECT_FALSE(listening_.accepted().open());
  loop_.runFor(0.999);
  sut_->doConnect();
  EXPECT_FALSE(sut_->connected());
  loop_.runFor(0.001);
  sut_->doConnect();
  EXPECT_TRUE(sut_->connected());
}

// The occasion for the attempt, such as the next writer's start, may be the last for a long time.
TEST_F(ReaderKickSmTest, AnAttemptThatComesTooEarlyIsMadeUpFor) {
  sut_->onConnected = [this] {
    if (!sut_->connected()) sut_->doConnect();
  };
  listen();
  sut_->doConnect();
  listening_.accepted().hangUp();
  turns();
  EXPECT_FALSE(sut_->connected());
  loop_.runFor(0.99);
  EXPECT_FALSE(sut_->connected());
  loop_.runFor(0.02);
  EXPECT_TRUE(sut_->connected());
  EXPECT_EQ((std::vector<bool>{true, false, false, true}), sut_->connectedEvents);
}

TEST_F(ReaderKickSmTest, WithoutAWriterABatchReadsWhatTheLastOneLeft) {
  followIs(3);
  listening_ = {};
  writer_.hangUp();
  turns();
  EXPECT_FALSE(sut_->connected());
  sut_->doConnect();
  EXPECT_EQ(0U, sut_->batches) << "a writer that is just coming may give the table up";
  loop_.runFor(0.06);
  EXPECT_EQ(1U, sut_->batches);
  loop_.runFor(100.0);
  EXPECT_EQ(1U, sut_->batches);
}

TEST_F(ReaderKickSmTest, AClosedConnectionMakesUpForNothing) {
  sut_->onConnected = [this] {
    if (!sut_->connected()) sut_->doConnect();
  };
  listen();
  sut_->doConnect();
  listening_.accepted().hangUp();
  turns();
  sut_->doCloseWriterConnection(true);
  loop_.runFor(5.0);
  EXPECT_FALSE(sut_->connected());
}

TEST_F(ReaderKickSmTest, AnsweredReaderTriesAgainAtOnce) {
  sut_->onConnected = [this] {
    if (!sut_->connected()) sut_->doConnect();
  };
  followIs(3);
  writer_.hangUp();
  turns();
  EXPECT_TRUE(sut_->connected());
}

TEST_F(ReaderKickSmTest, ReportsThatFindNoRoomAreMadeLater) {
  followIs(3);
  std::uint64_t sequence = 3;
  for (unsigned i = 0; i < 100'000 && sut_->connected(); ++i) sut_->sendSequence(++sequence);
  EXPECT_TRUE(sut_->connected());
  sut_->sequence = sequence;
  sut_->doConquer();  // would sleep
  std::string last;
  for (std::string next = writer_.received(); !next.empty(); next = writer_.received()) last = next;
  EXPECT_NE(sleepBytes(sequence), last);
  loop_.runFor(0.999);
  EXPECT_EQ("", writer_.received());
  loop_.runFor(0.001);
  EXPECT_EQ(sleepBytes(sequence), writer_.received());
}

TEST_F(ReaderKickSmTest, WrongMagicFromTheWriterEndsTheConnection) {
  std::string bytes = kick(4);
  bytes[3] = 'X';
  expectLost(bytes, "magic 0x58434b51, must be 0x4b434b51");
}

TEST_F(ReaderKickSmTest, WrongVersionFromTheWriterEndsTheConnection) {
  std::string bytes = kick(4);
  bytes[5] = 1;
  expectLost(bytes, "protocol version 257, must be 1");
}

TEST_F(ReaderKickSmTest, UnknownTypeFromTheWriterEndsTheConnection) {
  expectLost(kickBytes(0, 4), "message type 0, must be 1 to 5");
}

TEST_F(ReaderKickSmTest, WrongLengthFromTheWriterEndsTheConnection) {
  expectLost(kick(4) + kick(4), "message of 32 bytes, must be 16");
}

TEST_F(ReaderKickSmTest, MessageOfAReaderFromTheWriterEndsTheConnection) {
  expectLost(sleepBytes(4), "SLEEP from the writer, must be one ACK, then KICK");
}

TEST_F(ReaderKickSmTest, SecondAnswerEndsTheConnection) {
  expectLost(ack(4), "ACK from the writer, must be one ACK, then KICK");
}

TEST_F(ReaderKickSmTest, AnswerBeforeTheFirstReportEndsTheConnection) {
  listen();
  sut_->doConnect();
  const KickPeer writer = listening_.accepted();
  writer.send(ack(0));
  turns();
  EXPECT_FALSE(sut_->connected());
  EXPECT_EQ(0U, sut_->acks);
  EXPECT_EQ(Lines{closedText("ACK from the writer, must be one ACK, then KICK")}, log_.texts());
}

TEST_F(ReaderKickSmTest, KickBeforeTheAnswerEndsTheConnection) {
  listen();
  sut_->doConnect();
  sut_->sendSequence(0);
  const KickPeer writer = listening_.accepted();
  writer.send(kick(0));
  turns();
  EXPECT_FALSE(sut_->connected());
  EXPECT_EQ(Lines{closedText("KICK from the writer, must be one ACK, then KICK")}, log_.texts());
}

TEST_F(ReaderKickSmTest, BatchThatRaisesIsLoggedAndTriedAgainAfterASecond) {
  followIs(3);
  sut_->inBatch = [this] {
    sut_->inBatch = nullptr;
    throw Sable::MemoryResourceException("no memory");
  };
  writer_.send(kick(4));
  turns();
  EXPECT_EQ(Lines{failedText("no memory")}, log_.texts());
  EXPECT_EQ("", writer_.received());
  loop_.runFor(0.999);
  EXPECT_EQ(1U, sut_->batches);
  loop_.runFor(0.001);
  EXPECT_EQ(2U, sut_->batches);
  EXPECT_EQ(sleepBytes(3), writer_.received());
}

TEST_F(ReaderKickSmTest, DamageFoundInABatchEndsHereWithTheConnectionClosed) {
  followIs(3);
  sut_->inBatch = [this] {
    sut_->doCloseWriterConnection(true);
    sut_->notifying(false);
    throw Quill::CorruptionDetectedException("damaged");
  };
  writer_.send(kick(4));
  turns();
  EXPECT_EQ(Lines{failedText("damaged")}, log_.texts());
  loop_.runFor(100.0);
  EXPECT_EQ(1U, sut_->batches);
  EXPECT_EQ(Events{true}, sut_->connectedEvents);
}

TEST_F(ReaderKickSmTest, OtherExceptionsReachTheLoopAndTheNextBatchRuns) {
  followIs(3);
  sut_->inBatch = [this] {
    sut_->inBatch = nullptr;
    throw Vex::RangeException("a listener's");
  };
  writer_.send(kick(4));
  EXPECT_THROW(turns(), Vex::RangeException);
  writer_.send(kick(4));
  turns();
  EXPECT_EQ(2U, sut_->batches);
}

TEST_F(ReaderKickSmTest, ConnectionClosedInABatchReportsNothing) {
  followIs(3);
  sut_->inBatch = [this] { sut_->doCloseWriterConnection(false); };
  writer_.send(kick(4));
  turns();
  EXPECT_EQ(1U, sut_->batches);
  EXPECT_EQ("", writer_.received());
  EXPECT_TRUE(writer_.closed());
}

TEST_F(ReaderKickSmTest, ObjectMayBeDestroyedInItsBatch) {
  followIs(3);
  sut_->inBatch = [this] { sut_.reset(); };
  writer_.send(kick(4));
  turns();
  EXPECT_EQ(nullptr, sut_);
  EXPECT_TRUE(writer_.closed());
}

TEST_F(ReaderKickSmTest, ObjectMayBeDestroyedInABatchThatRaises) {
  followIs(3);
  sut_->inBatch = [this] {
    sut_.reset();
    throw Quill::CorruptionDetectedException("damaged");
  };
  writer_.send(kick(4));
  turns();
  EXPECT_EQ(nullptr, sut_);
}

TEST_F(ReaderKickSmTest, ObjectMayBeDestroyedWhenItIsConnected) {
  listen();
  sut_->onConnected = [this] { sut_.reset(); };
  sut_->doConnect();
  EXPECT_EQ(nullptr, sut_);
}

TEST_F(ReaderKickSmTest, ObjectMayBeDestroyedWhenItsConnectionIsLost) {
  followIs(3);
  sut_->onConnected = [this] { sut_.reset(); };
  writer_.hangUp();
  turns();
  EXPECT_EQ(nullptr, sut_);
}

TEST_F(ReaderKickSmTest, ObjectMayBeDestroyedByTheNewsOfALossThatRaises) {
  followIs(3);
  sut_->onConnected = [this] {
    sut_.reset();
    throw Quill::CorruptionDetectedException("damaged");
  };
  writer_.hangUp();
  turns();
  EXPECT_EQ(nullptr, sut_);
  EXPECT_EQ(Lines(), log_.texts());
}

TEST_F(ReaderKickSmTest, ObjectMayBeDestroyedByTheAnswer) {
  listen();
  sut_->doConnect();
  sut_->sendSequence(0);
  sut_->onAck = [this] { sut_.reset(); };
  const KickPeer writer = listening_.accepted();
  writer.send(ack(0));
  writer.send(kick(0));
  turns();
  EXPECT_EQ(nullptr, sut_);
}

TEST_F(ReaderKickSmTest, DestroyedObjectLeavesNothingInTheLoop) {
  followIs(3);
  sut_->yields = 1;
  writer_.send(kick(4));
  turns(1);  // a timer is armed
  writer_.send(kick(5));
  sut_.reset();
  EXPECT_FALSE(loop_.runTurn());
  loop_.runFor(10.0);
}

TEST_F(ReaderKickSmTest, AnswerThatRaisesEndsTheConnectionAndHoldsTheNextBack) {
  sut_->onAck = [] { throw Quill::CorruptionDetectedException("damaged"); };
  sut_->onConnected = [this] {
    if (!sut_->connected()) sut_->doConnect();
  };
  connectIs(3);
  EXPECT_FALSE(sut_->connected());
  EXPECT_EQ((Events{true, false}), sut_->connectedEvents);
  EXPECT_EQ(Lines{failedText("damaged")}, log_.texts());
}

TEST_F(ReaderKickSmTest, HandlingOfALossThatRaisesDoesNotReachTheLoop) {
  followIs(3);
  sut_->onConnected = [] { throw Quill::CorruptionDetectedException("damaged"); };
  writer_.hangUp();
  turns();
  EXPECT_EQ(Lines{failedText("damaged")}, log_.texts());
}

TEST_F(ReaderKickSmTest, ReconnectionInsideTheAnswerBelongsToTheNewConnection) {
  listen();
  sut_->doConnect();
  sut_->sendSequence(0);
  sut_->onAck = [this] {
    sut_->onAck = nullptr;
    sut_->doCloseWriterConnection(true);
    sut_->doConnect();
  };
  const KickPeer first = listening_.accepted();
  first.send(ack(0));
  first.send(kick(0));  // of the old connection: means nothing to the new one
  turns();
  EXPECT_TRUE(sut_->connected());
  EXPECT_EQ(Lines(), log_.texts());
}

// Both ends together.
namespace {

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

}  // namespace

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

}  // namespace QuillTest
