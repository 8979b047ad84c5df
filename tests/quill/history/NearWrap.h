// SPDX-License-Identifier: Apache-2.0
//
// Puts the numbers of a table's files that rise by one with each change just below the place where
// they begin again from 0, as if the table had been written for weeks: the versions of links and of
// the queue, the counts in the slots' flags, and the sequences of the queue, which do not wrap but
// go over from 32 bits to 33 and from 63 to 64. Edits the files by the offsets of docs/formats.md.
//
// Each generation is edited once, since no version may come back to a number that a reader still
// holds: that would be the full circle of 2^32 changes, in which nobody can tell an old word from
// an unchanged one.
//
// REQUIRES: the table is at rest and its writer gone. Readers may be attached: to them each edit is
// a change like any other. Before the writer after it goes to work they have all come to rest, so
// that none holds a number of before.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace QuillTest {

class NearWrap {
 public:
  explicit NearWrap(std::string directory) : directory_(std::move(directory)) {}

  // Does nothing to a table that is not sound. One that was edited already is only looked at.
  void put();
  // Versions and counts that were seen to have wrapped.
  std::uint64_t wrapped() const { return wrappedBefore_ + wrappedNow_; }
  // Sequences that have gone over a border.
  std::uint64_t sequencesPassed() const { return sequencesPassed_; }

 private:
  class File;
  void links(bool edited);
  void queue(bool edited);

  const std::string directory_;
  std::uint32_t fenix_ = 0;  // the generation that was edited last
  std::uint64_t edits_ = 0;
  std::uint64_t border_ = 0;  // that its sequences were put below, 0 once it was seen behind them
  std::uint64_t wrappedNow_ = 0;
  std::uint64_t wrappedBefore_ = 0;  // in the generations before
  std::uint64_t sequencesPassed_ = 0;
};

}  // namespace QuillTest
