// SPDX-License-Identifier: Apache-2.0
//
// A table, four watchers that live on, and writers that come and are killed: what the tests of
// deaths have in common. Everything happens in processes; this object belongs to the test's, the
// only one that starts and ends others.
#pragma once

#include <array>
#include <memory>
#include <random>
#include <string>

#include "tests/quill/TestTable.h"
#include "tests/quill/deaths/Board.h"
#include "tests/quill/deaths/LoadedWriter.h"
#include "tests/quill/history/Child.h"

namespace QuillTest {

// Some hundred thousand steps are some hundred microseconds.
inline void busyWait(unsigned steps) {
  for (volatile unsigned left = steps; left > 0;) left = left - 1;
}

class Field {
 public:
  static constexpr std::array<Quill::QuillType, Board::kWatchers> kTypes = {
      Quill::QuillType::reader, Quill::QuillType::reader, Quill::QuillType::shadow,
      Quill::QuillType::keyshadow};

  // Makes the table and starts the watchers.
  explicit Field(unsigned seed);
  Field(const Field&) = delete;
  Field& operator=(const Field&) = delete;
  ~Field();

  // A writer that attaches and changes the table until it is killed. It says when it is at work:
  // at once, or after the watchers have compared. Raises what it found wrong.
  std::unique_ptr<Child> newWriter(bool rest);
  // Waits until it is at work.
  void awaitWork(const Child& writer);
  void kill(Child& writer);
  // Raises what anybody found wrong.
  void requireSound();
  // All end by themselves, after a last comparison.
  void end();

  Child& watcher(unsigned number) { return *watchers_[number]; }
  Board& board() { return *board_; }
  const std::string& path() const { return path_; }
  unsigned random() { return static_cast<unsigned>(random_() / 8); }

 private:
  TemporaryRoot root_;
  const std::string path_ = root_.table("t");
  Board* const board_;
  std::minstd_rand random_;
  std::array<std::unique_ptr<Child>, Board::kWatchers> watchers_;
};

}  // namespace QuillTest
