// SPDX-License-Identifier: Apache-2.0
//
// Readers that are dropped, refused or held back.
#include "quill/WriterKickSm.h"

#include <sys/resource.h>

#include <string>
#include <vector>

#include "tests/quill/WriterKickFixture.h"

namespace QuillTest {
namespace {

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

}  // namespace
}  // namespace QuillTest
