// SPDX-License-Identifier: Apache-2.0
//
// A handle on a table in a process that only reads, with what it was told of. Its clock is a
// virtual one that it leaps with when it waits, so that no retry of the store takes real time.
//
// Everything raises std::logic_error for what is not so.
#pragma once

#include <sched.h>

#include <cstdint>
#include <random>
#include <string>

#include "quill/QuillMap.h"
#include "tests/quill/history/Journal.h"
#include "tests/quill/history/StallLoop.h"

namespace QuillTest {

class Follower {
 public:
  using Map = Quill::QuillMap<Number, CheckedRecord, KeySet>;

  Follower(const std::string& path, Quill::QuillType type, Journal& journal)
      : journal_(journal), current_(loop_), table_(path, "t") {
    table_.notifierIs(&told_);
    table_.init(type, false, 0);
  }

  // Looks at single keys and iterates, as long as the journal does not say stop; answers how often.
  std::uint64_t look(unsigned seed) {
    std::minstd_rand random(seed);
    std::uint64_t looks = 0;
    for (; !journal_.stop; ++looks) {
      for (unsigned i = 0; i < 100; ++i) {
        lookAt(historyKey(static_cast<unsigned>(random() % Journal::kKeys)));
      }
      try {
        contentsOf(name(), table_);
      } catch (const Quill::CorruptionDetectedException& damage) {
        // As the owner of a handle does: the table under it was given up and made anew.
        table_.corruptionDetected(damage.msg());
      }
      loop_.runTurn();
      loop_.leap(0.01);
      journal_.seen[static_cast<unsigned>(table_.mode())] =
          table_.mountStatus() == 2 ? table_.sequence() : 0;
    }
    return looks;
  }

  // Runs until the handle has all that the writer of the journal wrote, then compares with the
  // journal: contents, and that every key was told of that changed since the last time.
  void compare() {
    const bool isShadow = table_.mode() != Quill::QuillType::reader;
    for (unsigned turns = 0; !followed(isShadow); ++turns) {
      if (turns == 1'000'000) {
        wrong(std::string(name()) + " does not follow, status " +
              std::to_string(table_.mountStatus()) + " sequence " +
              std::to_string(table_.sequence()) + " of " + std::to_string(journal_.sequence));
      }
      if (loop_.runTurn()) continue;
      loop_.leap(0.1);
      sched_yield();  // the writer's turn
    }
    // What is left of a batch or a copy.
    for (unsigned turns = 0; turns < 1'000'000 && loop_.runTurn(); ++turns) {
    }
    const TableModel model = journal_.before();
    requireSame(name(), contentsOf(name(), table_), model);
    if (isShadow) requireTold(name(), changedKeys(compared_, model), told_.keys);
    told_.keys.clear();
    compared_ = model;
  }

 private:
  const char* name() const {
    switch (table_.mode()) {
      case Quill::QuillType::shadow:
        return "the shadow";
      case Quill::QuillType::keyshadow:
        return "the key shadow";
      default:
        return "the reader";
    }
  }
  bool followed(bool isShadow) const {
    if (table_.fenixId() != journal_.fenix) return false;
    return isShadow ? table_.mountStatus() == 2 && table_.sequence() == journal_.sequence
                    : table_.mountStatus() == 1;
  }
  void lookAt(std::uint32_t key) {
    bool found = false;
    const CheckedRecord value = table_.safeLookup({key}, found);
    if (!found) return;
    requireWhole(name(), key, value);
    if (value.counter > journal_.lastCounter) wrong(std::string(name()) + " sees a future value");
  }

  Journal& journal_;
  StallLoop loop_;
  const Vex::CurrentActivityManager current_;
  KeySet told_;
  TableModel compared_;
  Map table_;
};

}  // namespace QuillTest
