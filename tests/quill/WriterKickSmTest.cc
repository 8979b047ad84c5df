// SPDX-License-Identifier: Apache-2.0
#include "quill/WriterKickSm.h"

#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "quill/Exceptions.h"
#include "tests/quill/WriterKickFixture.h"

namespace QuillTest {
namespace {

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
    KickWriter writer(handler_, rootPath_);
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

}  // namespace
}  // namespace QuillTest
