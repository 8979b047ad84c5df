// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/deaths/LoadedWriter.h"

#include <utility>

#include "runtime/mem/Atomics.h"
#include "tests/quill/history/QueueWatch.h"
#include "tests/quill/history/TableJudge.h"

namespace QuillTest {

namespace {

constexpr unsigned kMaxTurns = 400'000;

unsigned indexOf(std::uint32_t key) { return (key % 1000 - 1) * 3 + key / 1000; }

}  // namespace

LoadedWriter::LoadedWriter(std::string path, Board& board, unsigned seed)
    : path_(std::move(path)), board_(board), current_(loop_), random_(seed) {}

LoadedWriter::Found LoadedWriter::contents() const {
  Found found{};
  for (const auto& [key, version] : contentsOf("the new writer", *table_)) {
    const unsigned index = indexOf(key);
    if (index >= Board::kKeys) wrong("nobody ever wrote key " + std::to_string(key));
    if (isRemoval(key, version)) wrong("a removal was found as a value");
    found[index] = version;
  }
  return found;
}

void LoadedWriter::takeOver() {
  const Verdict verdict = judgeTable(path_);
  const bool first = board_.fenix == 0;
  if (!first && !verdict.sound) {
    if (board_.inOperation == 0 && !board_.unsound) {
      wrong("a writer that died between two operations left a table that is not sound: " +
            verdict.reason);
    }
    board_.unsound = true;
    board_.stateSeen(verdict.reason);
  }
  table_ = std::make_unique<Map>(path_, "t");
  table_->init(Quill::QuillType::writer, false, kMaxSlots);
  const std::uint32_t fenix = table_->fenixId();
  if (!first && verdict.sound != (fenix == verdict.fenix)) {
    wrong(verdict.sound ? "a sound table was given up"
                        : "a table was kept that is not sound: " + verdict.reason);
  }
  const Found found = contents();
  if (fenix == board_.fenix) {
    acceptKept(found);
  } else {
    acceptGivenUp(found);
  }
  board_.fenix = fenix;
  board_.unsound = false;
  board_.inOperation = 0;
  if (board_.movingQueue) {
    board_.newsLost = true;
    board_.movingQueue = false;
  }
  if (!table_->validate()) wrong("the table does not stand the writer's check");
  capacity_ = table_->capacity();
  queue_ = std::make_unique<QueuePeek>(path_);
  if (board_.attaches % 2 != 0) ++board_.attaches;
}

void LoadedWriter::acceptKept(const Found& found) {
  ++board_.kept;
  const unsigned open = board_.inOperation;
  if (open != 0) {
    ++board_.diedInOperation;
    board_.again = open;
  }
  for (unsigned index = 0; index < Board::kKeys; ++index) {
    KeyVersions& key = board_.keys[index];
    const std::uint32_t number = historyKey(index);
    const std::uint32_t done = key.done;
    const std::uint32_t begun = key.begun;
    const auto held = [number](std::uint32_t version) {
      return isRemoval(number, version) ? 0 : version;
    };
    if (begun != done) {
      if (index + 1 != open || begun != done + 1) wrong("the board does not add up");
      // Before and after may look the same: a removal of what was not there.
      if (found[index] == held(begun)) {
        ++board_.keptAfter;
        key.end(begun);
        continue;
      }
      if (found[index] == held(done)) {
        ++board_.keptBefore;
        key.begin(done);
        continue;
      }
    } else if (found[index] == held(done)) {
      continue;
    }
    wrong("key " + std::to_string(number) + " was kept as " + std::to_string(found[index]) +
          ", begun " + std::to_string(begun) + ", done " + std::to_string(done));
  }
}

void LoadedWriter::acceptGivenUp(const Found& found) {
  ++board_.givenUp;
  board_.again = 0;
  for (unsigned index = 0; index < Board::kKeys; ++index) {
    if (found[index] != 0) wrong("a new generation is not empty");
    KeyVersions& key = board_.keys[index];
    std::uint32_t version = key.begun;
    while (!isRemoval(historyKey(index), version)) ++version;
    key.begin(version);
    key.end(version);
  }
}

void LoadedWriter::change(unsigned index) {
  const std::uint32_t number = historyKey(index);
  KeyVersions& key = board_.keys[index];
  const std::uint32_t version = key.next();
  std::unique_ptr<QueueWatch> watch;
  if (queue_->full()) {
    if (board_.gentle) awaitShadows();
    watch = std::make_unique<QueueWatch>(path_);
    board_.movingQueue = true;
  }
  board_.inOperation = index + 1;
  key.begin(version);
  if (isRemoval(number, version)) {
    CheckedRecord old;
    table_->remove({number}, old);
  } else {
    const CheckedRecord record = checkedRecord(number, version);
    if (random_() / 64 % 8 == 0) {
      Mem::Atomics::copyIn(table_->directWrite({number}).address, &record, sizeof record);
      table_->directCommit();
    } else {
      table_->write(record);
    }
  }
  key.end(version);
  board_.inOperation = 0;
  ++board_.operations;
  if (watch == nullptr) return;
  if (!queue_->full()) ++board_.moves;
  if (watch->droppedTooEarly(board_.consumedByAll())) board_.newsLost = true;
  board_.movingQueue = false;
}

// Not for ever: a shadow that has no connection waits for the next writer.
void LoadedWriter::awaitShadows() {
  const std::uint64_t sequence = table_->sequence();
  for (unsigned turns = 0; turns < 20 && board_.consumedByAll() < sequence; ++turns) {
    if (!loop_.runTurn()) loop_.await(50);
  }
}

void LoadedWriter::work() {
  if (const unsigned again = board_.again; again != 0) {
    // Up to a write: a removal of what is not there tells nobody anything.
    const std::uint32_t number = historyKey(again - 1);
    const std::uint32_t version = board_.keys[again - 1].next();
    change(again - 1);
    if (!isRemoval(number, version)) board_.again = 0;
  } else {
    change(static_cast<unsigned>(random_() / 8 % Board::kKeys));
  }
  if (table_->capacity() != capacity_) {
    capacity_ = table_->capacity();
    ++board_.growths;
  }
  if (++steps_ % 16 != 0) return;
  if (board_.leap.exchange(false)) loop_.leap(100);
  loop_.runTurn();
}

void LoadedWriter::rest() {
  while (board_.again != 0) work();
  board_.sequence = table_->sequence();
  const std::uint32_t round = ++board_.quiet;
  const auto compared = [this, round] {
    for (const auto& each : board_.compared) {
      if (each != round) return false;
    }
    return true;
  };
  for (unsigned turns = 0; !compared() && !board_.failed; ++turns) {
    if (turns == kMaxTurns) wrong("the watchers do not come to the end");
    if (!loop_.runTurn()) loop_.await(200);
  }
  if (board_.newsLost) ++board_.lostNews;
  board_.newsLost = false;
}

}  // namespace QuillTest
