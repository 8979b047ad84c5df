// SPDX-License-Identifier: Apache-2.0
//
// A clock that jumps: back, far forward, to and fro, or that stands still. The store asks
// CLOCK_MONOTONIC alone, through the loop; CLOCK_REALTIME, which people set, it never asks.
//
// What is promised while the clock is wrong: nobody crashes, the loop comes to rest, no table is
// given up, whoever writes and whoever reads the files straight is right at all times. A shadow may
// lag: what it does in a while waits until the clock has caught up with the latest that it has
// shown, as all timers of the loop do. From then on everything is as if nothing had been.
#include <gtest/gtest.h>

#include <optional>
#include <ostream>

#include "quill/WriterKickSm.h"
#include "runtime/vex/EpollActivityManager.h"
#include "tests/quill/KickPeer.h"
#include "tests/quill/faults/Scenario.h"

namespace QuillTest {

namespace {

using Faults::Kind;
using Quill::QuillType;

struct Jump {
  const char* name;
  void (*begin)(Faults::Time&);
};

std::ostream& operator<<(std::ostream& out, const Jump& jump) { return out << jump.name; }

constexpr double kHour = 3'600.0;
// All the jumps of one test together stay below 68 years, where the clock of a 32-bit program ends.
constexpr double kSixYears = 189'216'000.0;

const std::vector<Jump>& jumps() {
  static const std::vector<Jump> kAll = {
      {"BackByAnHour", [](Faults::Time& time) { time.nowIs(time.now() - kHour); }},
      {"BackToTheBeginning", [](Faults::Time& time) { time.nowIs(0.0); }},
      {"BackByLessThanATick", [](Faults::Time& time) { time.nowIs(time.now() - 0.004); }},
      {"ForwardByAnHour", [](Faults::Time& time) { time.nowIs(time.now() + kHour); }},
      {"ForwardBySixYears", [](Faults::Time& time) { time.nowIs(time.now() + kSixYears); }},
      {"ForwardAndBack",
       [](Faults::Time& time) {
         time.nowIs(time.now() + kSixYears);
         time.nowIs(time.now() - kSixYears);
       }},
      {"StandsStill", [](Faults::Time& time) { time.stepIs(0.0); }},
      {"ToAndFro", [](Faults::Time& time) { time.swingIs(kHour); }},
  };
  return kAll;
}

class ClockTest : public testing::TestWithParam<Jump> {
 protected:
  static constexpr double kStep = 0.001;

  ClockTest() { Faults::watchingIs(false); }

  void init(std::optional<NumberMap>& map, QuillType mode) {
    map.emplace(path_, "t");
    map->notifierIs(&listener_);
    map->init(mode, false, 100);
  }
  void put(std::uint32_t key, std::uint32_t data) {
    writer_->safeWrite({{key}, data});
    wanted_[key] = data;
  }
  void del(std::uint32_t key) {
    writer_->safeRemove({key});
    wanted_.erase(key);
  }
  void turns(unsigned count) {
    for (unsigned i = 0; i < count; ++i) loop_.runTurn(0.0);
  }
  // One step of the table's life.
  void step(unsigned number) {
    switch (number) {
      case 0:
        init(writer_, QuillType::writer);
        for (std::uint32_t key = 0; key < 40; ++key) put(key * 1'000, key);
        break;
      case 1:
        init(reader_, QuillType::reader);
        init(shadow_, QuillType::shadow);
        init(keyShadow_, QuillType::keyshadow);
        // As fine as can be: they look at the clock ahead of each entry.
        shadow_->sampleIs(0);
        keyShadow_->yieldTimeIs(0.0005);
        break;
      case 2:
        put(1, 1);
        break;
      case 3:  // the queue is moved, more than once
        for (std::uint32_t i = 0; i < 900; ++i) put(i % 150, i);
        for (std::uint32_t i = 0; i < 50; ++i) del(i);
        break;
      case 4:
        writer_.reset();
        break;
      case 5:
        init(writer_, QuillType::writer);
        put(7, 8);
        break;
      case 6:
        shadow_->corruptionDetected("as a test says");
        put(9, 10);
        break;
      default:
        break;
    }
  }
  static constexpr unsigned kSteps = 7;

  void jump() {
    GetParam().begin(time_);
    restless_ = std::string(GetParam().name) == "ToAndFro";
  }
  // What holds at any time.
  void expectRight(unsigned at) {
    if (writer_) {
      EXPECT_EQ(contentOf(*writer_), wanted_) << "step " << at;
      if (fenix_ == 0) fenix_ = writer_->fenixId();
      EXPECT_EQ(writer_->fenixId(), fenix_) << "step " << at;
    }
    if (reader_) {
      EXPECT_EQ(reader_->mountStatus(), 1U);
      EXPECT_EQ(contentOf(*reader_), wanted_) << "step " << at;
    }
    // At rest nothing is done but to look whether there is something.
    const Faults::Plan plan({Kind::call, 0, 0, false});
    turns(10);
    if (restless_) {
      // An hour passes at every look, and with it every timer.
      EXPECT_LT(plan.count(), 500U) << "step " << at;
    } else {
      EXPECT_EQ(plan.count(), 0U) << "step " << at << ": the loop goes on";
    }
  }
  void expectAllRight() {
    EXPECT_EQ(shadow_->mountStatus(), 2U);
    EXPECT_EQ(keyShadow_->mountStatus(), 2U);
    EXPECT_EQ(contentOf(*shadow_), wanted_);
    EXPECT_EQ(contentOf(*keyShadow_), wanted_);
    EXPECT_EQ(contentOf(*reader_), wanted_);
    EXPECT_TRUE(writer_->validate());
    EXPECT_EQ(writer_->fenixId(), fenix_);
  }
  // The clock goes on from the latest that it has shown, past the longest of the store's timers.
  void heal() {
    restless_ = false;
    time_.swingIs(0.0);
    time_.stepIs(kStep);
    time_.nowIs(time_.latest());
    for (unsigned second = 0; second < 130; ++second) {
      time_.nowIs(time_.now() + 1.0);
      turns(20);
    }
  }

  Faults::Time time_{2 * kHour, kStep};
  TemporaryRoot root_;
  std::string path_ = root_.table("t");
  Vex::EpollActivityManager loop_;
  Vex::CurrentActivityManager current_{loop_};
  NumberListener listener_;
  Content wanted_;
  unsigned fenix_ = 0;
  bool restless_ = false;
  std::optional<NumberMap> writer_;
  std::optional<NumberMap> reader_;
  std::optional<NumberMap> shadow_;
  std::optional<NumberMap> keyShadow_;
};

}  // namespace

TEST_P(ClockTest, NothingIsLostWheneverItJumpsAndAllIsRightWhenItHasCaughtUp) {
  for (unsigned jumpAt = 0; jumpAt <= kSteps; ++jumpAt) {
    SCOPED_TRACE("jump ahead of step " + std::to_string(jumpAt));
    for (unsigned number = 0; number < kSteps; ++number) {
      if (number == jumpAt) jump();
      step(number);
      turns(300);
      expectRight(number);
    }
    if (jumpAt == kSteps) jump();
    turns(300);
    expectRight(kSteps);
    heal();
    expectAllRight();
    for (auto* const map : {&shadow_, &keyShadow_, &reader_, &writer_}) map->reset();
    {
      std::optional<NumberMap> last;
      init(last, QuillType::writer);
      EXPECT_EQ(contentOf(*last), wanted_) << "what the next writer finds";
      EXPECT_EQ(last->fenixId(), fenix_);
      last->controlDetach();
      last->cleanup();
    }
    wanted_.clear();
    fenix_ = 0;
  }
  EXPECT_EQ(time_.otherLooks(), 0U) << "at the time of day";
}

INSTANTIATE_TEST_SUITE_P(Jumps, ClockTest, testing::ValuesIn(jumps()),
                         [](const auto& jump) { return std::string(jump.param.name); });

// A writer of which nobody asks more than a socket.
class ClockWriter : public Quill::WriterKickSm {
 public:
  ClockWriter(Sable::Platform::DebugHandler& handler, const Quill::RootPath& root)
      : WriterKickSm(handler, root, false) {}
  unsigned numReaders() const override { return 0; }
  void updateNumReaders() override {}
};

TEST(ClockLines, AClockThatWentBackBeginsAnotherSecondOfLines) {
  Faults::Time time(1'000.0, 0.0);
  const TemporaryRoot root;
  Vex::EpollActivityManager loop;
  const Vex::CurrentActivityManager current(loop);
  Vex::MemorySink log;
  loop.logService().sinkIs(log);
  Sable::Platform::DebugHandler handler("test");
  const Quill::RootPath path(handler, root.table("t"), true);
  ClockWriter sut(handler, path);
  sut.createKickSocket();
  sut.doEnableListen();
  const auto strangers = [&](unsigned count) {
    const std::size_t before = log.texts().size();
    for (unsigned i = 0; i < count; ++i) {
      const KickPeer peer = KickPeer::connected(path.filePath("kick"));
      // Each with a text of its own, which the log's own limit lets through.
      EXPECT_TRUE(peer.send(std::string(i + 1, 'x')));
      for (unsigned turn = 0; turn < 4; ++turn) loop.runTurn(0.0);
      EXPECT_TRUE(peer.closed());
    }
    return log.texts().size() - before;
  };
  EXPECT_EQ(strangers(12), 8U) << "so many in a second";
  time.nowIs(400.0);
  EXPECT_GT(strangers(3), 0U);
  sut.deleteKickSocket();
  loop.logService().sinkDel(log);
}

}  // namespace QuillTest
