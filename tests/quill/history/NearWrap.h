// SPDX-License-Identifier: Apache-2.0
//
// Puts the numbers of a table's files that rise by one with each change just below the place where
// they begin again from 0, as if the table had been written for weeks: the versions of links and of
// the queue, the counts in the slots' flags, and the sequences of the queue, which do not wrap but
// go over from 32 bits to 33 and from 63 to 64. Edits the files by the offsets of docs/formats.md.
//
// REQUIRES: the table is at rest and its writer gone. Readers may be attached: to them each edit is
// a change like any other, since it is one store of one word.
#pragma once

#include <cstdint>
#include <string>

namespace QuillTest {

class NearWrap {
 public:
  explicit NearWrap(std::string directory) : directory_(std::move(directory)) {}

  // Does nothing to a table that is not sound. Counts first what has wrapped since the last time.
  void put();
  // Versions and counts that were seen to have wrapped.
  std::uint64_t wrapped() const { return wrapped_; }
  // Sequences that have gone over a border.
  std::uint64_t sequencesPassed() const { return sequencesPassed_; }

 private:
  class File;
  void links(std::uint32_t fenix);
  void queue();

  const std::string directory_;
  std::uint32_t fenix_ = 0;       // the generation that was edited last
  std::uint64_t lastBorder_ = 0;  // that the sequences were put below
  std::uint64_t wrapped_ = 0;
  std::uint64_t sequencesPassed_ = 0;
};

}  // namespace QuillTest
