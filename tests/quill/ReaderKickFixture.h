// SPDX-License-Identifier: Apache-2.0
//
// A reader's end of the kick socket against a hand-made writer.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "quill/ReaderKickSm.h"
#include "tests/quill/KickPeer.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

// Does as its members say, and writes down what happens to it.
class KickReader : public Quill::ReaderKickSm {
 public:
  KickReader(Sable::Platform::DebugHandler& handler, const Quill::RootPath& root,
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
  using Events = std::vector<bool>;
  using Lines = std::vector<std::string>;

  ReaderKickSmTest() { loop_.logService().sinkIs(log_); }
  ~ReaderKickSmTest() override { loop_.logService().sinkDel(log_); }

  void SetUp() override {
    std::filesystem::create_directories(path_);
    sut_ = std::make_unique<KickReader>(handler_, rootPath_, counters_);
  }
  void listen() { listening_ = KickPeer::listening(path_ + "/kick"); }
  void turns(unsigned count = 3) {
    for (unsigned i = 0; i < count; ++i) loop_.runTurn();
  }
  // A writer that hangs up at once, and a reader that tries again from within that loss.
  void loseAndTryAtOnce() {
    sut_->onConnected = [this] {
      if (!sut_->connected()) sut_->doConnect();
    };
    listen();
    sut_->doConnect();
    listening_.accepted().hangUp();
    turns();
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
  std::unique_ptr<KickReader> sut_;
};

}  // namespace QuillTest
