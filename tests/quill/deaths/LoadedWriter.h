// SPDX-License-Identifier: Apache-2.0
//
// The writer that is to die: a process that takes a table over from the writer that died before it,
// checks what it found against the board, and changes the table until it is killed.
//
// What holds when it attaches, and is checked:
//  1. A table that is sound by the judge, who knows the store's files and not its code, is kept;
//     any other is given up for a new generation, which is empty.
//  2. A table is unsound only if its writer died in an operation, or in its attach to a table that
//     was unsound before.
//  3. A table that is kept holds each key as it was done last, and the one key whose operation was
//     under way as it was before that or as it is after it.
//
// Raises std::logic_error for what is not so.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <random>
#include <string>

#include "quill/QuillMap.h"
#include "tests/quill/deaths/Board.h"
#include "tests/quill/history/CheckedRecord.h"
#include "tests/quill/history/QueuePeek.h"
#include "tests/quill/history/StallLoop.h"

namespace QuillTest {

class LoadedWriter {
 public:
  using Map = Quill::QuillMap<Number, CheckedRecord, KeySet>;

  static constexpr unsigned kMaxSlots = 16;  // it grows far beyond

  LoadedWriter(std::string path, Board& board, unsigned seed);

  // Attaches and checks.
  void takeOver();
  // One random operation, and a turn of the loop now and then.
  void work();
  // Lets every watcher come to the end and compare.
  void rest();

 private:
  using Found = std::array<std::uint32_t, Board::kKeys>;  // versions; 0 for a key that is not there

  Found contents() const;
  void acceptKept(const Found& found);
  void acceptGivenUp(const Found& found);
  void change(unsigned index);
  void awaitShadows();

  const std::string path_;
  Board& board_;
  StallLoop loop_;
  const Vex::CurrentActivityManager current_;
  std::minstd_rand random_;
  std::unique_ptr<Map> table_;
  std::unique_ptr<QueuePeek> queue_;
  unsigned steps_ = 0;
  unsigned capacity_ = 0;
};

}  // namespace QuillTest
