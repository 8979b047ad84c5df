// SPDX-License-Identifier: Apache-2.0
//
// The two ends of the kick socket and the watch of a directory, where they are used before they
// stand, after they went, or without a loop.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <new>

#include "quill/Exceptions.h"
#include "quill/MounterSm.h"
#include "quill/ReaderKickSm.h"
#include "quill/WriterKickSm.h"
#include "tests/quill/KickPeer.h"
#include "tests/quill/RawFile.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {
namespace {

using Quill::CorruptionDetectedException;
using Sable::InvalidInitializeException;

class EdgeWriter : public Quill::WriterKickSm {
 public:
  EdgeWriter(Sable::Platform::DebugHandler& handler, const Quill::RootPath& root)
      : WriterKickSm(handler, root, false) {}
  using WriterKickSm::handleReaderConnection;
  using WriterKickSm::handleReaderConnectionTimeout;
  unsigned numReaders() const override { return header; }
  void updateNumReaders() override { ++updates; }

  unsigned header = 0;
  unsigned updates = 0;
};

class EdgeReader : public Quill::ReaderKickSm {
 public:
  EdgeReader(Sable::Platform::DebugHandler& handler, const Quill::RootPath& root,
             Quill::Reader::Counters& counters)
      : ReaderKickSm(handler, root, counters) {
    enabled_ = true;
  }
  std::uint64_t doProcessNotifications() override {
    ++batches;
    yielded_ = yields;
    run(inBatch);
    return 0;
  }
  void handleConnected() override {}
  void handleAck() override { run(onAck); }
  void handleEnabled() override {}
  using ReaderKickSm::fdEvent;

  unsigned batches = 0;
  bool yields = false;
  std::function<void()> inBatch;
  std::function<void()> onAck;

 private:
  // By a copy: it may take this object away.
  static void run(std::function<void()> what) {
    if (what) what();
  }
};

class KickEdge : public TableTest {
 protected:
  KickEdge() { loop_.logService().sinkIs(log_); }
  ~KickEdge() override { loop_.logService().sinkDel(log_); }
  void settle() { loop_.runFor(0.0); }
  // A reader that follows a hand-made writer.
  KickPeer follow(EdgeReader& sut) {
    std::filesystem::create_directories(path_);
    listening_ = KickPeer::listening(path_ + "/kick");
    sut.doConnect();
    KickPeer peer = listening_.accepted();
    EXPECT_EQ(peer.received(), hello());
    sut.sendSequence(0);
    EXPECT_EQ(peer.received(), sequenceBytes(0));
    EXPECT_TRUE(peer.send(ack(0)));
    settle();
    return peer;
  }

  Vex::MemorySink log_;
  std::string path_ = root_.table("t");
  Quill::RootPath rootPath_{handler_, path_, true};
  Quill::Reader::Counters counters_;
  KickPeer listening_;
};

TEST_F(KickEdge, AWriterThatDoesNotListenYetHasNobody) {
  EdgeWriter sut(handler_, rootPath_);
  EXPECT_EQ(sut.lowestSequence(), 0xFFFFFFFFFFFFFFFFU);
  sut.handleReaderConnection(3);
  sut.handleReaderConnectionTimeout();
  EXPECT_EQ(sut.updates, 0U);
  EXPECT_EQ(textOfRaised<InvalidInitializeException>([&] { sut.doEnableListen(); }),
            "WriterKickSm::doEnableListen() " + path_ + ": there is no socket");
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { sut.validateSocket(); }),
            "WriterKickSm::validateSocket(): " + path_ + "/kick: No such file or directory");
  sut.createKickSocket();
  EXPECT_TRUE(sut.validateSocket());
  sut.deleteKickSocket();
  std::ofstream(path_ + "/kick") << "x";
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { sut.validateSocket(); }),
            "WriterKickSm::validateSocket(): " + path_ + "/kick is not this writer's socket");
}

TEST_F(KickEdge, ADescriptorThatIsNoReadersIsPassedOver) {
  EdgeWriter sut(handler_, rootPath_);
  sut.createKickSocket();
  sut.doEnableListen();
  sut.handleReaderConnection(12'345);
  EXPECT_EQ(sut.connectedReaders(), 0U);
  EXPECT_TRUE(log_.texts().empty());
}

TEST_F(KickEdge, AWriterWhoseSocketWasReplacedLeavesTheOtherOneAlone) {
  EdgeWriter sut(handler_, rootPath_);
  sut.createKickSocket();
  std::filesystem::remove(path_ + "/kick");
  std::ofstream(path_ + "/other") << "keeps the number of the old file from being used again";
  std::ofstream(path_ + "/kick") << "x";
  EXPECT_EQ(textOfRaised<CorruptionDetectedException>([&] { sut.validateSocket(); }),
            "WriterKickSm::validateSocket(): " + path_ + "/kick is not this writer's socket");
  sut.deleteKickSocket();
  EXPECT_TRUE(std::filesystem::exists(path_ + "/kick"));
}

TEST_F(KickEdge, ALockThatCannotBeTakenIsNamedWithItsReason) {
  std::filesystem::create_directories(path_ + "/lock");
  EdgeWriter sut(handler_, rootPath_);
  EXPECT_EQ(textOfRaised<InvalidInitializeException>([&] { sut.createKickSocket(); }),
            "WriterKickSm::createKickSocket() cannot lock " + path_ + ": Is a directory");
}

TEST_F(KickEdge, TheEndOfTheWaitForFormerReadersIsTraced) {
  EdgeWriter sut(handler_, rootPath_);
  sut.header = 3;
  sut.createKickSocket();
  sut.doEnableListen();
  ASSERT_TRUE(sut.waitingForReaders());
  const TraceText traces;
  loop_.runFor(EdgeWriter::kReaderWait + 1.0);
  EXPECT_TRUE(traces.has("WriterKickSm::handleReaderConnectionTimeout() 0 of 3 readers are back"));
  EXPECT_FALSE(sut.waitingForReaders());
}

TEST_F(KickEdge, AReaderThatIsLateIsDroppedWhileNobodyIsAccepted) {
  EdgeWriter sut(handler_, rootPath_);
  sut.createKickSocket();
  sut.doEnableListen();
  const KickPeer silent = KickPeer::connected(path_ + "/kick");
  settle();
  loop_.runFor(9.5);
  {
    // No descriptor for the next one: for a second nobody is accepted, past the first one's time.
    const KickPeer next = KickPeer::connected(path_ + "/kick");
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = static_cast<rlim_t>(next.fd()) + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    settle();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    loop_.runFor(0.7);
    EXPECT_TRUE(silent.closed()) << "no introduction within ten seconds";
    EXPECT_FALSE(next.closed());
    loop_.runFor(0.5);
    EXPECT_TRUE(next.send(hello()));
    EXPECT_TRUE(next.send(sequenceBytes(0)));
    settle();
    EXPECT_EQ(next.received(), ack(0));
  }
}

TEST_F(KickEdge, ManyKicksAtOnceAreReadInPiecesAndAreOneBatchEach) {
  EdgeReader sut(handler_, rootPath_, counters_);
  const KickPeer peer = follow(sut);
  sut.batches = 0;
  for (unsigned i = 0; i < 100; ++i) EXPECT_TRUE(peer.send(kick(0)));
  EXPECT_TRUE(loop_.runTurn());
  EXPECT_EQ(sut.batches, 1U);
  settle();
  EXPECT_GT(sut.batches, 1U);
  EXPECT_LT(sut.batches, 100U);
  EXPECT_TRUE(sut.connected());
}

TEST_F(KickEdge, AConnectionThatIsClosedIsTracedUnlessQuietly) {
  for (const bool quiet : {false, true}) {
    EdgeReader sut(handler_, rootPath_, counters_);
    const KickPeer peer = follow(sut);
    const TraceText traces;
    sut.doCloseWriterConnection(quiet);
    EXPECT_EQ(traces.has("ReaderKickSm: " + path_ + " closes its connection"), !quiet);
    EXPECT_TRUE(peer.closed());
    std::filesystem::remove(path_ + "/kick");
  }
}

TEST_F(KickEdge, ABatchThatIsToGoOnDoesNotOnceNotificationsAreOff) {
  EdgeReader sut(handler_, rootPath_, counters_);
  sut.yields = true;
  sut.inBatch = [&] { sut.notifying(false); };
  sut.doConquer();
  EXPECT_EQ(sut.batches, 1U);
  loop_.runFor(10.0);
  EXPECT_EQ(sut.batches, 1U);
}

TEST_F(KickEdge, MemoryThatRunsOutInABatchIsPassedOnAndAnotherBatchFollows) {
  EdgeReader sut(handler_, rootPath_, counters_);
  const KickPeer peer = follow(sut);
  sut.inBatch = [] { throw std::bad_alloc(); };
  EXPECT_THROW(sut.doConquer(), std::bad_alloc);
  sut.inBatch = nullptr;
  const unsigned before = sut.batches;
  loop_.runFor(EdgeReader::kRetryTime + 0.1);
  EXPECT_EQ(sut.batches, before + 1);
}

// An acknowledgement that cannot be taken, with what has become of the reader by then.
TEST_F(KickEdge, AnAnswerThatCannotBeTakenEndsTheConnectionThatItCameOn) {
  const auto refuse = [] { throw Sable::RuntimeException("as a test says"); };
  enum class Then { nothing, closed, again, destroyed };
  for (const Then then : {Then::nothing, Then::closed, Then::again, Then::destroyed}) {
    std::filesystem::remove_all(path_);
    std::filesystem::create_directories(path_);
    listening_ = KickPeer::listening(path_ + "/kick");
    auto sut = std::make_unique<EdgeReader>(handler_, rootPath_, counters_);
    sut->onAck = [&] {
      if (then == Then::closed || then == Then::again) sut->doCloseWriterConnection(true);
      if (then == Then::again) sut->doConnect();
      if (then == Then::destroyed) sut.reset();
      refuse();
    };
    sut->doConnect();
    const KickPeer peer = listening_.accepted();
    sut->sendSequence(0);
    EXPECT_TRUE(peer.send(ack(0)));
    const std::size_t lines = log_.texts().size();
    settle();
    EXPECT_TRUE(peer.closed());
    EXPECT_EQ(log_.texts().size() - lines, then == Then::destroyed ? 0U : 1U);
    if (sut != nullptr) {
      EXPECT_EQ(sut->connected(), then == Then::again);
    }
    sut.reset();
    loop_.runFor(2.0);  // the log has one line of a kind in a second
  }
}

// A batch that fails, with what has become of the reader by then.
TEST_F(KickEdge, ABatchThatFailsIsTriedAgainOnlyIfSomebodyIsThereAndWantsIt) {
  enum class Then { off, closed, destroyed };
  const std::function<void()> failures[] = {[] { throw Sable::RuntimeException("as a test says"); },
                                            [] { throw std::bad_alloc(); }};
  for (const auto& failure : failures) {
    for (const Then then : {Then::off, Then::closed, Then::destroyed}) {
      std::filesystem::remove_all(path_);
      auto sut = std::make_unique<EdgeReader>(handler_, rootPath_, counters_);
      const KickPeer peer = follow(*sut);
      unsigned batches = 0;
      sut->inBatch = [&, fail = failure] {
        ++batches;
        if (then == Then::off) sut->notifying(false);
        if (then == Then::closed) sut->doCloseWriterConnection(true);
        if (then == Then::destroyed) sut.reset();
        fail();
      };
      try {
        sut->doConquer();
      } catch (const std::bad_alloc&) {
      }
      EXPECT_EQ(batches, 1U);
      loop_.runFor(5.0);
      EXPECT_EQ(batches, 1U) << static_cast<int>(then);
      if (sut != nullptr) sut->inBatch = nullptr;
    }
  }
}

TEST(KickEdgeWithoutLoop, AReaderHasNoConnectionAndItsBatchesRunAllTheSame) {
  const TemporaryRoot root;
  Sable::Platform::DebugHandler handler("test");
  const Quill::RootPath path(handler, root.table("t"), true);
  Quill::Reader::Counters counters;
  EdgeReader sut(handler, path, counters);
  EXPECT_FALSE(sut.ready());
  sut.inBatch = [&] { sut.doConquer(); };  // asks for one from inside one
  sut.yields = true;
  sut.doConquer();
  EXPECT_EQ(sut.batches, 1U);
  sut.inBatch = [] { throw std::bad_alloc(); };
  EXPECT_THROW(sut.doConquer(), std::bad_alloc);
  sut.inBatch = [] { throw Sable::RuntimeException("x"); };
  sut.doConquer();
  sut.doConnect();
  sut.doCloseWriterConnection(false);
  sut.fdEvent(3);
  sut.sendSequence(1);
  sut.notifying(false);
  sut.notifying(true);
  EXPECT_FALSE(sut.connected());
}

TEST(KickEdgeWithoutLoop, AWriterDoesNotListen) {
  const TemporaryRoot root;
  Sable::Platform::DebugHandler handler("test");
  const Quill::RootPath path(handler, root.table("t"), true);
  EdgeWriter sut(handler, path);
  sut.createKickSocket();
  EXPECT_EQ(textOfRaised<InvalidInitializeException>([&] { sut.doEnableListen(); }),
            "WriterKickSm::doEnableListen() " + path.rootPath() +
                ": there is no activity loop on this thread");
}

class EdgeMounter : public Quill::MounterBase {
 public:
  using MounterBase::MounterBase;
  void notify(const std::string& eventName) override { names.push_back(eventName); }
  std::vector<std::string> names;
};

TEST_F(KickEdge, MoreEventsThanTheKernelKeepsCountAsAChangeOfEverything) {
  std::filesystem::create_directories(path_);
  const std::string files[] = {path_ + "/one", path_ + "/other"};
  for (const std::string& file : files) std::ofstream(file) << "x";
  unsigned most = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> most;
  ASSERT_GT(most, 0U);
  ASSERT_LT(most, 1'000'000U);
  EdgeMounter mounter(handler_);
  const Quill::MounterSm sut(handler_, path_, mounter);
  ASSERT_TRUE(sut.ready());
  settle();
  // Of files that mean nothing. Two in turn: equal events in a row are one.
  for (unsigned i = 0; i < most + 10; ++i) {
    std::filesystem::permissions(files[i % 2], std::filesystem::perms(0644));
  }
  mounter.names.clear();
  settle();
  EXPECT_EQ(mounter.names, (std::vector<std::string>{"directory"}));
}

}  // namespace
}  // namespace QuillTest
