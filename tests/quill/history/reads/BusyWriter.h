// SPDX-License-Identifier: Apache-2.0
//
// The writer of a table that is read: changes it without a pause, by inserts, updates, removals and
// direct writes, while the number of keys rises and the table grows with it. Some few keys are
// changed far more often than others.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>

#include "quill/QuillMap.h"
#include "runtime/mem/Atomics.h"
#include "tests/quill/history/QueuePeek.h"
#include "tests/quill/history/QueueWatch.h"
#include "tests/quill/history/StallLoop.h"
#include "tests/quill/history/reads/ReadBoard.h"
#include "tests/quill/history/reads/ReadRecord.h"

namespace QuillTest {

struct NobodyTold {
  void notify(const ReadKey&) {}
};

constexpr unsigned kHotKeys = 8;

// Which key comes next, of a writer or a reader.
inline unsigned nextIndex(std::uint64_t& state, unsigned active) noexcept {
  state ^= state << 13;  // xorshift
  state ^= state >> 7;
  state ^= state << 17;
  const auto number = static_cast<std::uint32_t>(state >> 32);
  return number % 4 == 0 ? (number >> 2) % kHotKeys : (number >> 2) % active;
}
inline std::uint32_t readKey(unsigned index) noexcept { return index + 1; }

template <class Record>
class BusyWriter {
 public:
  using Map = Quill::QuillMap<ReadKey, Record, NobodyTold>;

  static constexpr unsigned kFirstKeys = 64;

  BusyWriter(const std::string& path, ReadBoard& board, unsigned seed)
      : path_(path), board_(board), current_(loop_), table_(path, "t"), state_(mixed(seed + 1)) {
    table_.init(Quill::QuillType::writer, false, 16);
    queue_ = std::make_unique<QueuePeek>(path);
    board_.active = kFirstKeys;
    capacity_ = table_.capacity();
  }

  void serve() { loop_.runTurn(); }
  // `operations` changes, over which the number of keys rises to all.
  void run(std::uint64_t operations) {
    for (std::uint64_t done = 0; done < operations && !board_.over(); ++done) {
      if (done % 256 == 0) {
        const auto more =
            static_cast<unsigned>((ReadBoard::kKeys - kFirstKeys) * done / operations);
        board_.active = kFirstKeys + more;
      }
      change(nextIndex(state_, board_.active));
      if (done % 32 == 0) loop_.runTurn();
    }
    if (!table_.validate()) wrong("the table does not stand the writer's check");
  }

 private:
  void change(unsigned index) {
    ReadBoard::Key& key = board_.keys[index];
    const std::uint32_t number = readKey(index);
    const std::uint32_t version = key.versions.next();
    std::unique_ptr<QueueWatch> watch;
    if (queue_->full()) watch = std::make_unique<QueueWatch>(path_);
    key.versions.begin(version);
    if (isRemoval(number, version)) {
      Record old;
      table_.remove({number}, old);
    } else {
      const Record record = Record::of(number, version);
      if ((state_ >> 16) % 8 == 0) {
        Mem::Atomics::copyIn(table_.directWrite({number}).address, &record, sizeof record);
        table_.directCommit();
      } else {
        table_.write(record);
      }
    }
    key.sequence.store(table_.sequence(), std::memory_order_release);
    key.versions.end(version);
    board_.operations.fetch_add(1, std::memory_order_relaxed);
    if (table_.capacity() != capacity_) {
      capacity_ = table_.capacity();
      ++board_.growths;
    }
    if (watch == nullptr) return;
    if (watch->droppedTooEarly()) ++board_.newsLost;
    if (!queue_->full()) ++board_.moves;
  }

  const std::string path_;
  ReadBoard& board_;
  StallLoop loop_;
  const Vex::CurrentActivityManager current_;
  Map table_;
  std::unique_ptr<QueuePeek> queue_;
  std::uint64_t state_;
  unsigned capacity_ = 0;
};

}  // namespace QuillTest
