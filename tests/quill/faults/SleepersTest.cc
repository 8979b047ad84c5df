// SPDX-License-Identifier: Apache-2.0
//
// Readers that sleep are woken whatever memory there is: no allocation on the way to a kick can
// fail such that a sleeper is forgotten, and a reader that cannot be woken costs no other one its
// kick.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "quill/MounterSm.h"
#include "quill/ReaderKickSm.h"
#include "quill/WriterKickSm.h"
#include "runtime/mem/Region.h"
#include "runtime/vex/LogService.h"
#include "tests/quill/KickPeer.h"
#include "tests/quill/TestTable.h"
#include "tests/quill/faults/Calls.h"

namespace QuillTest {

namespace {

using Faults::Fault;
using Faults::Kind;

// As the table's writer does it.
class SleepersWriter : public Quill::WriterKickSm {
 public:
  SleepersWriter(Sable::Platform::DebugHandler& handler, const Quill::RootPath& root)
      : WriterKickSm(handler, root, false) {}
  unsigned numReaders() const override { return header_; }
  void updateNumReaders() override { header_ = connectedReaders(); }
  void change() {
    ++sequence_;
    doKickSleepers();
  }
  std::uint64_t last() const { return sequence_; }

 private:
  unsigned header_ = 0;
};

class Sleepers : public TableTest {
 protected:
  static constexpr unsigned kReaders = 6;

  Sleepers() {
    loop_.logService().sinkIs(log_);
    Faults::watchingIs(false);
    sut_.createKickSocket();
    sut_.doEnableListen();
  }
  ~Sleepers() override {
    sut_.deleteKickSocket();
    loop_.logService().sinkDel(log_);
  }
  void settle() { loop_.runFor(0.0); }
  KickPeer reader() {
    KickPeer peer = KickPeer::connected(path_ + "/kick");
    EXPECT_TRUE(peer.send(hello()));
    EXPECT_TRUE(peer.send(sequenceBytes(sut_.last())));
    settle();
    EXPECT_EQ(peer.received(), ack(sut_.last()));
    return peer;
  }
  // One that takes nothing of `kicks` kicks; fewer, if it is dropped meanwhile.
  KickPeer deafReader(unsigned kicks, unsigned& taken) {
    KickPeer peer = reader();
    for (taken = 0; taken < kicks; ++taken) {
      EXPECT_TRUE(peer.send(sleepBytes(sut_.last())));
      settle();
      sut_.change();
      if (peer.closed()) break;
    }
    return peer;
  }
  void fallAsleep(const std::vector<KickPeer>& readers) {
    for (const KickPeer& peer : readers) EXPECT_TRUE(peer.send(sleepBytes(sut_.last())));
    settle();
  }

  Vex::MemorySink log_;
  std::string path_ = root_.table("t");
  Quill::RootPath rootPath_{handler_, path_, true};
  SleepersWriter sut_{handler_, rootPath_};
};

}  // namespace

TEST_F(Sleepers, AllAreKickedWhereverAnAllocationFailsAndOnlyWhoCannotBeIsLetGo) {
  // How many kicks a reader's socket holds.
  unsigned room = 0;
  deafReader(100'000, room).hangUp();
  ASSERT_GT(room, 0U);
  ASSERT_LT(room, 100'000U);
  settle();

  unsigned failed = 0;
  for (const bool forEver : {false, true}) {
    for (unsigned at = 1, allocations = 1; at <= allocations; ++at) {
      unsigned taken = 0;
      const KickPeer deaf = deafReader(room, taken);
      ASSERT_EQ(taken, room);
      std::vector<KickPeer> readers;
      for (std::size_t i = 0; i < kReaders; ++i) readers.push_back(reader());
      EXPECT_TRUE(deaf.send(sleepBytes(sut_.last())));
      fallAsleep(readers);
      readers[0].hangUp();
      readers[3].hangUp();
      {
        const Faults::Plan plan(Fault{Kind::allocation, at, 0, forEver});
        EXPECT_NO_THROW(sut_.change()) << "allocation " << at;
        if (at == 1) allocations = std::max(plan.count(), kReaders);
        if (plan.failed() != nullptr) ++failed;
      }
      EXPECT_TRUE(deaf.closed()) << "allocation " << at;
      readers.erase(readers.begin() + 3);
      readers.erase(readers.begin());
      for (const KickPeer& peer : readers) {
        EXPECT_EQ(peer.received(), kick(sut_.last())) << "allocation " << at;
      }
      EXPECT_EQ(sut_.connectedReaders(), readers.size());
      // They can sleep and be woken again.
      fallAsleep(readers);
      sut_.change();
      for (const KickPeer& peer : readers) EXPECT_EQ(peer.received(), kick(sut_.last()));
      readers.clear();
      settle();
      EXPECT_EQ(sut_.connectedReaders(), 0U);
    }
  }
  EXPECT_GT(failed, 3U) << "those of the lines and traces";
}

TEST_F(Sleepers, OneThatHasResetItsConnectionIsLetGoWithoutALine) {
  for (const int error : {ECONNRESET, EPIPE}) {
    const KickPeer peer = reader();
    EXPECT_TRUE(peer.send(sleepBytes(sut_.last())));
    settle();
    {
      const Faults::Plan plan(Fault{Kind::call, 1, error, false});
      sut_.change();
      EXPECT_STREQ(plan.failed(), "send");
    }
    EXPECT_TRUE(peer.closed());
    EXPECT_EQ(sut_.connectedReaders(), 0U);
    EXPECT_TRUE(log_.texts().empty());
  }
}

TEST_F(Sleepers, AnAttemptThatGoesBeforeItIsTakenCostsNobodyElseHisPlace) {
  for (const int error : {ECONNABORTED, EINTR}) {
    const KickPeer peer = KickPeer::connected(path_ + "/kick");
    EXPECT_TRUE(peer.send(hello()));
    EXPECT_TRUE(peer.send(sequenceBytes(sut_.last())));
    {
      const Faults::Plan plan(Fault{Kind::call, 1, error, false});
      loop_.runTurn();
      EXPECT_STREQ(plan.failed(), "accept4");
    }
    settle();
    EXPECT_EQ(peer.received(), ack(sut_.last()));
  }
}

namespace {

class LonelyReader : public Quill::ReaderKickSm {
 public:
  LonelyReader(Sable::Platform::DebugHandler& handler, const Quill::RootPath& root,
               Quill::Reader::Counters& counters)
      : ReaderKickSm(handler, root, counters) {}
  std::uint64_t doProcessNotifications() override { return 0; }
  void handleConnected() override { ++events; }
  void handleAck() override {}
  void handleEnabled() override {}
  unsigned events = 0;
};

class WatchedTable : public Quill::MounterBase {
 public:
  using MounterBase::MounterBase;
  void notify(const std::string& eventName) override { names.push_back(eventName); }
  std::vector<std::string> names;
};

}  // namespace

TEST_F(Sleepers, AReaderThatCannotReportLosesItsConnectionAndSaysWhyUnlessTheWriterWent) {
  Quill::Reader::Counters counters;
  for (const int error : {EPIPE, ECONNRESET, EIO}) {
    LonelyReader sut(handler_, rootPath_, counters);
    sut.doConnect();
    ASSERT_TRUE(sut.connected());
    {
      const Faults::Plan plan(Fault{Kind::call, 1, error, false});
      sut.sendSequence(0);
      EXPECT_STREQ(plan.failed(), "send");
    }
    EXPECT_FALSE(sut.connected());
    settle();
    EXPECT_EQ(sut.events, 2U) << "connected, and not";
    EXPECT_EQ(log_.texts().size(), error == EIO ? 1U : 0U);
  }
}

TEST_F(Sleepers, AWatchThatCannotBeSetIsTriedAgainAndAnInterruptedReadIsNothing) {
  Faults::watchingIs(true);
  const std::string path = root_.path() + "/a/b/t";
  for (const int error : {EBADF, ENOSPC, ENOMEM}) {
    std::filesystem::remove_all(root_.path() + "/a");
    WatchedTable mounter(handler_);
    const Quill::MounterSm sut(handler_, path, mounter);
    ASSERT_TRUE(sut.ready());
    std::filesystem::create_directories(path);
    const std::size_t lines = log_.texts().size();
    {
      const Faults::Plan plan(Fault{Kind::call, 2, error, false});
      loop_.runTurn();
      EXPECT_STREQ(plan.failed(), "inotify_add_watch");
    }
    EXPECT_EQ(log_.texts().size(), lines + 1);
    mounter.names.clear();
    loop_.runFor(10.5);
    EXPECT_EQ(mounter.names, (std::vector<std::string>{"directory"}));
    mounter.names.clear();
    std::ofstream(path + "/fenix") << "x";
    for (const int none : {EINTR, EAGAIN}) {
      // Asked again in the next turn.
      const Faults::Plan plan(Fault{Kind::call, 1, none, false});
      loop_.runTurn();
      EXPECT_STREQ(plan.failed(), "read");
      EXPECT_TRUE(mounter.names.empty());
    }
    settle();
    EXPECT_EQ(mounter.names.back(), "fenix");
  }
  Faults::watchingIs(false);
}

TEST(RegionFaults, AFileThatCannotBeMadeShorterKeepsItsMapping) {
  const TemporaryRoot root;
  Mem::Shared sut(root.path(), "region", false, 0, false);
  ASSERT_NE(sut.attach(8192, Mem::Mode::readWrite), nullptr);
  {
    const Faults::Plan plan(Fault{Kind::call, 1, EIO, false});
    EXPECT_EQ(sut.resize(4096), nullptr);
    EXPECT_STREQ(plan.failed(), "ftruncate64");
  }
  EXPECT_EQ(sut.size(), 8192U);
  EXPECT_EQ(sut.memSize(), 8192U);
  EXPECT_NE(sut.resize(4096), nullptr);
}

}  // namespace QuillTest
