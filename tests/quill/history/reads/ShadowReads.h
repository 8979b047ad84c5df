// SPDX-License-Identifier: Apache-2.0
//
// A shadow or key shadow that follows a busy writer, each of whose reads is checked. What holds:
//  1. What is found is a whole value of the key that was asked for, never ahead of what was begun.
//  2. A shadow that has passed the notification of a write, version n, holds n or later, if the key
//     has not been changed since. (A later change makes that notification a tombstone: the shadow
//     may be past it and still hold less, since the later notification is ahead of it. That of a
//     removal becomes a tombstone as soon as another key takes the slot, so nothing follows from
//     it.)
//  3. What a key shadow finds is as fresh as what a plain reader finds.
//
// Where the queue dropped news of it (QueueWatch.h) it begins anew, as its owner would have to.
//
// Raises std::logic_error for what is not so.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/quill/history/reads/BusyWriter.h"
#include "tests/quill/history/reads/PlainReads.h"

namespace QuillTest {

template <class Record>
class ShadowReads {
 public:
  using Map = typename BusyWriter<Record>::Map;

  ShadowReads(const std::string& path, bool keyOnly, ReadBoard& board, unsigned seed)
      : board_(board),
        keyOnly_(keyOnly),
        current_(loop_),
        table_(path, "t"),
        floors_(ReadBoard::kKeys),
        state_(mixed(seed + 1)) {
    table_.notifierIs(&nobody_);
    table_.init(mode(), false, 0);
  }

  void run() {
    const ReadBoard::Kind kind = keyOnly_ ? ReadBoard::keyShadows : ReadBoard::shadows;
    while (!board_.over()) {
      if (const std::uint64_t lost = board_.newsLost; lost != lost_) beginAnew(lost);
      for (unsigned i = 0; i < 32; ++i) note(nextIndex(state_, board_.active));
      loop_.runTurn();
      loop_.leap(0.01);
      if (table_.mountStatus() != 0) {
        raiseFloors();
        for (unsigned i = 0; i < 2'000; ++i) lookup();
      }
      count_.addTo(board_, kind);
      const Quill::Reader::Counters now = table_.readerCounters();
      board_.swaps += static_cast<std::uint32_t>(now.queueSwaps - swaps_);
      swaps_ = now.queueSwaps;
    }
  }

 private:
  // A version that is done, and a sequence behind its notification.
  struct Done {
    unsigned index;
    std::uint32_t version;
    std::uint64_t sequence;
  };

  Quill::QuillType mode() const {
    return keyOnly_ ? Quill::QuillType::keyshadow : Quill::QuillType::shadow;
  }
  void beginAnew(std::uint64_t lost) {
    lost_ = lost;
    table_.controlDetach();
    table_.init(mode(), false, 0);
    resyncs_ = 0;  // the counters of the new shadow begin with nothing
    swaps_ = 0;
    forget();
  }
  void forget() {
    pending_.clear();
    std::fill(floors_.begin(), floors_.end(), 0);
  }
  void note(unsigned index) {
    if (pending_.size() >= 10'000) return;
    const ReadBoard::Key& key = board_.keys[index];
    const std::uint32_t version = key.versions.before();
    pending_.push_back({index, version, key.sequence.load(std::memory_order_acquire)});
  }
  // While a shadow copies all slots anew it follows the queue as well: it may be past news that
  // were dropped, which is the reason for the copy, and not yet at their slots.
  bool copying() {
    const Quill::Reader::Counters now = table_.readerCounters();
    if (now.resyncs != resyncs_) {
      resyncs_ = now.resyncs;
      copiedBefore_ = now.syncedSequence;
      forget();
    }
    return resyncs_ != 0 && now.syncedSequence == copiedBefore_;
  }
  void raiseFloors() {
    if (copying()) return;
    const std::uint64_t consumed = table_.sequence();
    std::erase_if(pending_, [&](const Done& done) {
      if (done.sequence > consumed) return false;
      if (board_.keys[done.index].versions.after() != done.version) return true;
      if (isRemoval(readKey(done.index), done.version)) return true;
      floors_[done.index] = std::max(floors_[done.index], done.version);
      return true;
    });
  }
  void lookup() {
    const unsigned index = nextIndex(state_, board_.active.load(std::memory_order_relaxed));
    const KeyVersions& versions = board_.keys[index].versions;
    const std::uint32_t key = readKey(index);
    bool found = false;
    const std::uint32_t before = versions.before();
    const Record& value = table_.lookup({key}, found);
    const std::uint32_t after = versions.after();
    // The writer may have said since that news are lost: then nothing follows from a sequence.
    const std::uint32_t oldest = keyOnly_ && found ? before : floors_[index];
    if (board_.newsLost.load(std::memory_order_acquire) == lost_ || (keyOnly_ && found)) {
      requireRead(keyOnly_ ? "key shadow" : "shadow", key, found, value, oldest, after);
    } else if (found) {
      requireRead("shadow", key, found, value, 0, after);
    }
    count_.add(before != after, found);
  }

  ReadBoard& board_;
  const bool keyOnly_;
  StallLoop loop_;
  const Vex::CurrentActivityManager current_;
  NobodyTold nobody_;
  Map table_;
  std::vector<std::uint32_t> floors_;  // versions that the shadow has passed, by keys
  std::vector<Done> pending_;
  std::uint64_t state_;
  std::uint64_t lost_ = 0;
  std::uint32_t resyncs_ = 0;
  std::uint64_t copiedBefore_ = 0;  // syncedSequence when the copy that is under way began
  std::uint32_t swaps_ = 0;
  ReadCount count_;
};

}  // namespace QuillTest
