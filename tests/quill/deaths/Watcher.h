// SPDX-License-Identifier: Apache-2.0
//
// A process that reads a table whose writers die, and lives on. It keeps its handle all the time;
// when the table is given up under it, the handle's own mounter finds the new generation.
//
// What holds, and is checked:
//  1. Whatever is found is a whole value of the key that was asked for.
//  2. A plain reader finds a key as it was at some moment between the beginning and the end of its
//     look; so does a key shadow what it finds. A shadow is never ahead of what was begun.
//  3. An iteration of a plain reader gives each key once, and misses none that was there all the
//     time.
//  4. Damage is met only in a generation that was given up, and a table is seen empty beside what
//     the board says only while it is given up.
//  5. When the writer rests, all is as on the board, and the shadows have been told of every key
//     that changed since the last rest.
//
// Raises std::logic_error for what is not so.
#pragma once

#include <array>
#include <cstdint>
#include <random>
#include <string>

#include "quill/QuillMap.h"
#include "tests/quill/deaths/Board.h"
#include "tests/quill/history/CheckedRecord.h"
#include "tests/quill/history/StallLoop.h"

namespace QuillTest {

class Watcher {
 public:
  using Map = Quill::QuillMap<Number, CheckedRecord, KeySet>;

  // `number` is the watcher's place on the board.
  Watcher(const std::string& path, Quill::QuillType type, Board& board, unsigned number);

  // Until the board says stop.
  void watch(unsigned seed);

 private:
  using Versions = std::array<std::uint32_t, Board::kKeys>;

  bool isShadow() const { return type_ != Quill::QuillType::reader; }
  void lookAt(unsigned index);
  void iterate();
  // A writer is attaching, or has attached, since `attaches` was read.
  bool attachedSince(std::uint32_t attaches) const {
    return attaches % 2 != 0 || board_.attaches != attaches;
  }
  void requireGivenUp(std::uint32_t fenix, const std::string& what);
  void handleDamage(const Quill::CorruptionDetectedException& damage, std::uint32_t fenix);
  bool followed() const;
  void compare(std::uint32_t round);
  void remount();

  Board& board_;
  const Quill::QuillType type_;
  const unsigned number_;
  const std::string name_;
  StallLoop loop_;
  const Vex::CurrentActivityManager current_;
  KeySet told_;
  Versions compared_{};
  std::uint32_t resyncs_ = 0;
  Map table_;
};

}  // namespace QuillTest
