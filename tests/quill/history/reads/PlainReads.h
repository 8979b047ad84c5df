// SPDX-License-Identifier: Apache-2.0
//
// A plain reader at full speed, each of whose reads is checked. What holds:
//  1. What is found is a whole value of the key that was asked for; nothing is mixed or misplaced.
//  2. It has a version that the table held at some moment between the beginning and the end of the
//     read: a read that began after version n was done finds n or later, or a removal that came
//     after n. What is missed, likewise.
//  3. An iteration gives each key at most once, and every key that was there all the time.
//
// Raises std::logic_error for what is not so, damage included: this table never has any.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "quill/QuillReader.h"
#include "tests/quill/history/reads/BusyWriter.h"
#include "tests/quill/history/reads/ReadBoard.h"
#include "tests/quill/history/reads/ReadRecord.h"

namespace QuillTest {

// Reads of one kind, counted apart from the board and added to it now and then.
struct ReadCount {
  std::uint64_t reads = 0;
  std::uint64_t raced = 0;
  std::uint64_t missed = 0;

  void addTo(ReadBoard& board, ReadBoard::Kind kind) {
    board.reads[kind].fetch_add(reads, std::memory_order_relaxed);
    board.raced[kind].fetch_add(raced, std::memory_order_relaxed);
    board.missed[kind].fetch_add(missed, std::memory_order_relaxed);
    *this = {};
  }
  void add(bool wasRaced, bool wasFound) noexcept {
    ++reads;
    raced += wasRaced ? 1 : 0;
    missed += wasFound ? 0 : 1;
  }
};

[[noreturn]] inline void wrongRead(const char* who, std::uint32_t key, const std::string& seen,
                                   std::uint32_t before, std::uint32_t after) {
  wrong(std::string(who) + ": key " + std::to_string(key) + " " + seen + ", done " +
        std::to_string(before) + ", begun " + std::to_string(after));
}

template <class Record>
inline void requireRead(const char* who, std::uint32_t key, bool found, const Record& value,
                        std::uint32_t before, std::uint32_t after) {
  if (!found) {
    if (!mayBeMissed(key, before, after)) wrongRead(who, key, "is not found", before, after);
    return;
  }
  if (value.key.value != key) {
    wrongRead(who, key, "has the value of key " + std::to_string(value.key.value), before, after);
  }
  if (!value.whole()) wrongRead(who, key, "has a value that is mixed", before, after);
  if (mayBeFound(key, before, after, value.version)) return;
  wrongRead(who, key, "has version " + std::to_string(value.version), before, after);
}

template <class Record>
class PlainReads {
 public:
  PlainReads(const std::string& path, ReadBoard& board, unsigned seed)
      : board_(board), reader_(handler_, path.c_str()), state_(mixed(seed + 1)) {
    if (!reader_.initialize()) wrong("a reader cannot attach");
  }

  void run() {
    for (unsigned round = 0; !board_.over(); ++round) {
      for (unsigned i = 0; i < 2'000; ++i) lookup();
      for (unsigned i = 0; i < 200; ++i) getValue();
      if (round % 4 == 0) iterate();
      lookups_.addTo(board_, ReadBoard::lookups);
      values_.addTo(board_, ReadBoard::values);
      iterations_.addTo(board_, ReadBoard::iterations);
      addCounters();
    }
  }

 private:
  void lookup() {
    const unsigned index = nextIndex(state_, board_.active.load(std::memory_order_relaxed));
    const KeyVersions& versions = board_.keys[index].versions;
    const std::uint32_t key = readKey(index);
    bool found = false;
    const std::uint32_t before = versions.before();
    const Record& value = reader_.lookup({key}, found);
    const std::uint32_t after = versions.after();
    requireRead("lookup", key, found, value, before, after);
    lookups_.add(before != after, found);
  }
  // A slot has a value of some key, which it most likely had when it was looked at last.
  void getValue() {
    const unsigned capacity = reader_.capacity();
    keyOfSlot_.resize(capacity);
    const unsigned slot = nextIndex(state_, capacity) % capacity;
    const std::uint32_t guess = keyOfSlot_[slot];
    const std::uint32_t before = guess == 0 ? 0 : board_.keys[guess - 1].versions.before();
    Record value;
    const bool found = reader_.getValue(slot, value);
    if (!found) return values_.add(false, false);
    const std::uint32_t key = value.key.value;
    if (key == 0 || key > ReadBoard::kKeys) wrong("getValue: nobody wrote this key");
    const std::uint32_t after = board_.keys[key - 1].versions.after();
    const std::uint32_t oldest = key == guess ? before : 0;
    requireRead("getValue", key, true, value, oldest, after);
    values_.add(key == guess && before != after, true);
    keyOfSlot_[slot] = key;
  }
  void iterate() {
    const unsigned active = board_.active;
    before_.resize(ReadBoard::kKeys);
    given_.assign(ReadBoard::kKeys, false);
    for (unsigned index = 0; index < ReadBoard::kKeys; ++index) {
      before_[index] = board_.keys[index].versions.before();
    }
    Record value;
    Quill::IterHint hint;
    for (bool more = reader_.first(0, value, hint); more;
         more = reader_.next(value.key, value, hint)) {
      const std::uint32_t key = value.key.value;
      if (key == 0 || key > ReadBoard::kKeys) wrong("iteration: nobody wrote this key");
      if (given_[key - 1]) wrong("iteration: key " + std::to_string(key) + " comes twice");
      given_[key - 1] = true;
      const std::uint32_t after = board_.keys[key - 1].versions.after();
      requireRead("iteration", key, true, value, before_[key - 1], after);
      iterations_.add(before_[key - 1] != after, true);
    }
    for (unsigned index = 0; index < active; ++index) {
      if (given_[index]) continue;
      const std::uint32_t after = board_.keys[index].versions.after();
      requireRead("iteration", readKey(index), false, value, before_[index], after);
      iterations_.add(before_[index] != after, false);
    }
  }
  // 32-bit counters, which wrap.
  void addCounters() {
    const Quill::Reader::Counters now = reader_.readerCounters();
    board_.retries += static_cast<std::uint32_t>(now.readRetries - last_.readRetries);
    board_.lookasides += static_cast<std::uint32_t>(now.lookasideReads - last_.lookasideReads);
    board_.remaps += static_cast<std::uint32_t>(now.slotResizes - last_.slotResizes);
    last_ = now;
  }

  Sable::Platform::DebugHandler handler_{"reads"};
  ReadBoard& board_;
  Quill::QuillReader<ReadKey, Record> reader_;
  std::uint64_t state_;
  ReadCount lookups_;
  ReadCount values_;
  ReadCount iterations_;
  std::vector<std::uint32_t> keyOfSlot_;  // 0: not known
  std::vector<std::uint32_t> before_;
  std::vector<bool> given_;
  Quill::Reader::Counters last_{};
};

}  // namespace QuillTest
