// SPDX-License-Identifier: Apache-2.0
//
// Fuzz::TableRun: what every run over a Fuzz::QuillTable has: the table, the input that drives it,
// and a loop of its own in virtual time.
#pragma once

#include "fuzz/Input.h"
#include "fuzz/QuillTable.h"
#include "runtime/sable/Platform.h"
#include "runtime/vex/VirtualActivityManager.h"

namespace Fuzz {

class TableRun {
 protected:
  // Turns that a loop may take to come to rest: far above what the longest file that an edit makes
  // can cause.
  static constexpr unsigned kMaxTurns = 2'000;

  TableRun(const QuillTable& table, Input& input) : table_(table), input_(input) {}
  ~TableRun() = default;

  // Takes a shape as the input says and puts its files there.
  const QuillTable::Shape& shapePut() {
    const QuillTable::Shape& shape = table_.shapes()[input_.below(table_.shapes().size())];
    table_.put(shape);
    return shape;
  }
  // Nobody stores while the loop runs, so it comes to rest; and what it raises would end a program.
  void settle() {
    unsigned turns = 0;
    while (loop_.runTurn()) require(++turns < kMaxTurns);
  }

  const QuillTable& table_;
  Input& input_;
  Vex::VirtualActivityManager loop_;
  Vex::CurrentActivityManager current_{loop_};
  Sable::Platform::DebugHandler handler_{"fuzz"};
};

}  // namespace Fuzz
