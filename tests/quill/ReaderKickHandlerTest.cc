// SPDX-License-Identifier: Apache-2.0
//
// Handlers that raise, and handlers that destroy or reconnect the object that calls them.
#include "quill/ReaderKickSm.h"

#include <memory>

#include "quill/Exceptions.h"
#include "tests/quill/ReaderKickFixture.h"

namespace QuillTest {
namespace {

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

}  // namespace
}  // namespace QuillTest
