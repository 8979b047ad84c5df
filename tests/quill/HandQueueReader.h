// SPDX-License-Identifier: Apache-2.0
//
// A queue reader on a queue that the test changes by hand.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "quill/ConquerReader.h"
#include "tests/quill/HandQueue.h"
#include "tests/quill/TestTable.h"

namespace QuillTest {

class ConquerReader : public testing::Test {
 protected:
  using Reader = Quill::ConquerReader<HookKey, HookValue, QueueMap>;

  class Sut : public Reader {
   public:
    using Reader::connected_;
    using Reader::Reader;
    using Reader::stopFlag_;
    using Reader::yielded_;
  };

  // Follows from `sequence` on, without a batch.
  void attach(std::uint64_t sequence = 0) {
    ASSERT_TRUE(sut.initialize());
    from(sequence);
  }
  void from(std::uint64_t sequence) {
    counters_.lastConsumedSequence = sequence;
    sut.notifying(false);
    sut.enabledIs(true);
    sut.handleEnabled();
    sut.stopFlag_ = false;
  }
  // Puts entries 10, 20, 30 ... into a table, in the slots 1, 2, 3 ...
  void fill(std::uint32_t id, std::uint32_t count) {
    for (std::uint32_t i = 1; i <= count; ++i) queue_.append(id, std::uint64_t{i} * 10, i);
  }
  bool take() { return sut.doConquer(consumed_); }
  const std::vector<unsigned>& slots() const { return shadow_.store_.slots; }

  TemporaryRoot root_;
  LookingLoop loop_;
  Vex::CurrentActivityManager current_{loop_};
  Sable::Platform::DebugHandler handler_{"test"};
  HandQueue queue_{handler_, root_.table("t")};
  Quill::RootPath path_{handler_, root_.table("t"), true};
  Quill::Reader::Counters counters_;
  Sut::Shadow shadow_;
  Sut sut{handler_, path_, counters_, shadow_};
  unsigned consumed_ = 0;
};

}  // namespace QuillTest
