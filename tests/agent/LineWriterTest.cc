// SPDX-License-Identifier: Apache-2.0
#include "agent/LineWriter.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <condition_variable>
#include <mutex>
#include <vector>

namespace Agent {
namespace {

using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

// A place to write to that can be stopped. It lives on while a thread is stopped in it.
class Place {
 public:
  LineWriter::Write write() {
    return [state = state_](const LineWriter::Line& line) {
      std::unique_lock lock(state->mutex);
      ++state->begun;
      state->changed.notify_all();
      state->changed.wait(lock, [&] { return state->open; });
      state->texts.push_back(line.text);
      state->severities.push_back(line.severity);
    };
  }
  void openIs(bool open) {
    const std::lock_guard lock(state_->mutex);
    state_->open = open;
    state_->changed.notify_all();
  }
  // Until a write has begun.
  void waitBegun() {
    std::unique_lock lock(state_->mutex);
    state_->changed.wait(lock, [&] { return state_->begun > 0; });
  }
  Texts texts() const {
    const std::lock_guard lock(state_->mutex);
    return state_->texts;
  }
  std::vector<int> severities() const {
    const std::lock_guard lock(state_->mutex);
    return state_->severities;
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    bool open = true;
    int begun = 0;
    Texts texts;
    std::vector<int> severities;
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

LineWriter::Line line(std::size_t number) { return {LOG_INFO, "line " + std::to_string(number)}; }

TEST(LineWriter, AllIsWrittenInOrderBeforeItGoes) {
  Place place;
  {
    LineWriter sut(place.write());
    sut.lineIs({LOG_WARNING, "first"});
    sut.lineIs({LOG_ERR, "second"});
  }
  EXPECT_EQ(place.texts(), (Texts{"first", "second"}));
  EXPECT_EQ(place.severities(), (std::vector<int>{LOG_WARNING, LOG_ERR}));
}

TEST(LineWriter, WhatCannotBeWrittenIsBoundedCountedAndNeverWaitedFor) {
  Place place;
  place.openIs(false);
  constexpr std::size_t kLines = 5000;
  {
    LineWriter sut(place.write());
    sut.lineIs(line(0));
    place.waitBegun();  // so that exactly kMostLines of the rest have room
    for (std::size_t i = 1; i < kLines; ++i) sut.lineIs(line(i));
    EXPECT_EQ(place.texts(), Texts{});
    place.openIs(true);
  }
  const Texts texts = place.texts();
  ASSERT_EQ(texts.size(), 1 + LineWriter::kMostLines + 1);
  for (std::size_t i = 0; i <= LineWriter::kMostLines; ++i) EXPECT_EQ(texts[i], line(i).text);
  EXPECT_EQ(texts.back(),
            "warning: " + std::to_string(kLines - 1 - LineWriter::kMostLines) +
                " lines are missing here: they came faster than they could be written");
  EXPECT_EQ(place.severities().back(), LOG_WARNING);
}

TEST(LineWriter, AWriteThatNeverReturnsDoesNotKeepTheProcess) {
  Place place;
  place.openIs(false);
  {
    LineWriter sut(place.write());
    sut.patienceIs(milliseconds(1));
    sut.lineIs({LOG_INFO, "never"});
    place.waitBegun();
  }
  EXPECT_EQ(place.texts(), Texts{});
  place.openIs(true);  // lets the thread go
}

}  // namespace
}  // namespace Agent
