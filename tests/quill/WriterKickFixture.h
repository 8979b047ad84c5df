// SPDX-License-Identifier: Apache-2.0
//
// A writer's end of the kick socket against hand-made readers.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "quill/WriterKickSm.h"
#include "tests/quill/KickPeer.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

// The lowest sequence where no reader counts.
inline constexpr std::uint64_t kNobody = 0xFFFFFFFFFFFFFFFFU;

class KickWriter : public Quill::WriterKickSm {
 public:
  KickWriter(Sable::Platform::DebugHandler& handler, const Quill::RootPath& root,
             bool local = false)
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
  KickWriter sut_{handler_, rootPath_};
};

}  // namespace QuillTest
