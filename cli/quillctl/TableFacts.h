// SPDX-License-Identifier: Apache-2.0
//
// Quillctl::TableFacts: what a table's directory tells of the table, whatever its record type:
// the headers of its four files, its generation, its owner.
//
// A record of texts and numbers, as read at one moment while a writer may be at work: numbers that
// change together may come from two moments. docs/formats.md gives the files' layout. Belongs to
// one thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "quill/RootPath.h"
#include "runtime/sable/Platform.h"

namespace Quillctl {

// What all four files have in common.
struct FileFacts {
  int error = 0;  // why the file cannot be read; ENOENT: there is none
  std::uint64_t bytes = 0;
  std::string magic;
  std::uint32_t version = 0;
  std::uint32_t fenix = 0;
};

struct SlotsFacts : FileFacts {
  std::string valueType;
  std::string classType;
  std::uint32_t valueSize = 0;
  std::uint32_t slotSize = 0;
  std::uint32_t maxSlots = 0;
  std::uint32_t hash = 0;
  std::uint32_t computedHash = 0;
  std::uint32_t occupiedSlots = 0;
  std::uint32_t freeSlots = 0;
  std::uint32_t growths = 0;
  std::uint32_t numSlots = 0;

  // The type and the size can be believed.
  bool identified() const noexcept;
};

struct BucketsFacts : FileFacts {
  std::uint32_t numBuckets = 0;
  std::uint32_t formattedBy = 0;  // a process id
};

struct QueueFacts : FileFacts {
  std::uint64_t minSeq = 0;
  std::uint32_t numReaders = 0;
  std::uint32_t generation = 0;
  std::uint32_t currentTable = 0;
  std::uint32_t notifications = 0;
  std::uint32_t currentPos = 0;
  std::uint64_t lastSequence = 0;  // of the newest entry, 0 if there is none
};

struct OwnerFacts {
  std::string name;  // of the last writer, empty if nobody is known
  int pid = 0;
  bool known = true;  // false: whether a writer lives could not be found out
  bool alive = false;
};

// Whether a file could not be read for a reason of the system's, and not for what lies there.
bool systemFailed(int error) noexcept;

// Raises Failure(refused), or what the store raises for `fenix`, if a file of the table is there
// and cannot be read.
void requireReadable(Sable::Platform::DebugHandler& handler, const std::string& path);

struct TableFacts {
  // Reads all of it. REQUIRES: this process does not write the table; asking who holds the writer
  // lock would let go of it.
  TableFacts(Sable::Platform::DebugHandler& handler, const std::string& path);

  // There is a file of a table in the directory.
  bool exists() const noexcept;
  // "<name> (process <pid>)".
  std::string ownerText() const;

  std::string path;
  std::string name;  // decoded; that of the directory if it is no table's
  SlotsFacts slots;
  BucketsFacts buckets;
  std::array<QueueFacts, 2> queues;
  unsigned fenix = 0;
  OwnerFacts owner;
  std::string corruptionReport;
};

}  // namespace Quillctl
