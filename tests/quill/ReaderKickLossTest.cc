// SPDX-License-Identifier: Apache-2.0
//
// A connection that is lost, closed, refused or broken off, and the next one.
#include "quill/ReaderKickSm.h"

#include <string>
#include <vector>

#include "tests/quill/ReaderKickFixture.h"

namespace QuillTest {
namespace {

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
  loseAndTryAtOnce();
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
  loseAndTryAtOnce();
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

}  // namespace
}  // namespace QuillTest
