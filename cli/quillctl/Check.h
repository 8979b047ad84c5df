// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::checkTable: whether a table is sound. It asks the store's own writer: that one attaches
// to a private copy of the files, and takes them over or gives them up as it would the table
// itself. While a writer lives the files never stand still, and what a reader can see is checked:
// headers, every chain, each key found again. The table itself is not written.
//
// Belongs to one thread, with its loop current.
#pragma once

#include <cstdint>
#include <string>

#include "cli/quillctl/TableFacts.h"
#include "runtime/sable/Platform.h"

namespace Quillctl {

struct Verdict {
  enum class How {
    locked,    // nobody else could write
    unlocked,  // no writer was there, but none was kept out: the lock file cannot be written
    inUse,     // beside a living writer, as a reader
    headers,   // records of an unknown type
  };

  How how = How::locked;
  std::string finding;  // the first thing that is wrong; empty: sound
  std::uint32_t entries = 0;

  bool sound() const noexcept { return finding.empty(); }
};

// "locked", "unlocked", "in use", "headers only".
const char* howText(Verdict::How how) noexcept;

// Raises Failure(refused) if the check could not be made.
Verdict checkTable(Sable::Platform::DebugHandler& handler, const TableFacts& facts);

}  // namespace Quillctl
