// SPDX-License-Identifier: Apache-2.0
#include "tests/quill/deaths/Watcher.h"

#include <poll.h>
#include <sched.h>
#include <time.h>

#include <set>
#include <utility>

namespace QuillTest {

namespace {

constexpr unsigned kMaxTurns = 200'000;

void giveWay() {
  const timespec limit{0, 150'000};
  static_cast<void>(ppoll(nullptr, 0, &limit, nullptr));
}

std::string text(std::uint32_t number) { return std::to_string(number); }

}  // namespace

Watcher::Watcher(const std::string& path, Quill::QuillType type, Board& board, unsigned number)
    : board_(board),
      type_(type),
      number_(number),
      name_("watcher " + text(number)),
      current_(loop_),
      table_(path, "t") {
  table_.notifierIs(&told_);
  table_.init(type, false, 0);
}

void Watcher::watch(unsigned seed) {
  std::minstd_rand random(seed);
  for (unsigned round = 0; !board_.stop && !board_.failed; ++round) {
    for (unsigned i = 0; i < 50; ++i) {
      lookAt(static_cast<unsigned>(random() / 8 % Board::kKeys));
    }
    if (round % 4 == 0) iterate();
    loop_.runTurn();
    loop_.leap(0.01);
    if (const std::uint32_t quiet = board_.quiet; quiet != board_.compared[number_]) {
      compare(quiet);
    } else {
      giveWay();  // whoever reads all the time leaves no processor to the writer
    }
    if (isShadow()) {
      const bool mounted = table_.mountStatus() != 0;
      board_.consumedIs(number_, mounted ? table_.fenixId() : 0, table_.sequence());
    }
    // A handle that mounts anew begins to count anew.
    const std::uint32_t resyncs = table_.readerCounters().resyncs;
    if (resyncs > resyncs_) board_.resyncs[number_] += resyncs - resyncs_;
    resyncs_ = resyncs;
  }
}

void Watcher::requireGivenUp(std::uint32_t fenix, const std::string& what) {
  for (unsigned turns = 0; board_.attaches % 2 != 0; ++turns) {
    if (board_.stop || board_.failed || turns == 100 * kMaxTurns) return;
    sched_yield();
  }
  if (board_.fenix == fenix) wrong(name_ + " " + what + " in a generation that lives");
}

void Watcher::handleDamage(const Quill::CorruptionDetectedException& damage, std::uint32_t fenix) {
  ++board_.damages[number_];
  requireGivenUp(fenix, "met damage: " + damage.msg());
  table_.corruptionDetected(damage.msg());  // as the owner of a handle does
}

void Watcher::lookAt(unsigned index) {
  if (table_.mountStatus() == 0) return;
  const std::uint32_t key = historyKey(index);
  const KeyVersions& versions = board_.keys[index];
  const std::uint32_t fenix = table_.fenixId();
  const std::uint32_t attaches = board_.attaches;
  const std::uint32_t before = versions.before();
  bool found = false;
  CheckedRecord value;
  try {
    value = table_.lookup({key}, found);
  } catch (const Quill::CorruptionDetectedException& damage) {
    handleDamage(damage, fenix);
    return;
  }
  const std::uint32_t after = versions.after();
  ++board_.looks[number_];
  if (after != before) ++board_.raced[number_];
  if (found) {
    requireWhole(name_, key, value);
    const std::uint32_t oldest = type_ == Quill::QuillType::shadow ? 0 : before;
    if (mayBeFound(key, oldest, after, value.counter)) return;
    wrong(name_ + " finds key " + text(key) + " at " + text(value.counter) + ", done " +
          text(before) + ", begun " + text(after));
  }
  if (isShadow() || mayBeMissed(key, before, after)) return;
  const std::string what = "misses key " + text(key) + ", done " + text(before);
  if (!attachedSince(attaches)) wrong(name_ + " " + what + ", begun " + text(after));
  requireGivenUp(fenix, what);
}

void Watcher::iterate() {
  if (table_.mountStatus() == 0) return;
  const std::uint32_t fenix = table_.fenixId();
  const std::uint32_t attaches = board_.attaches;
  Versions before;
  for (unsigned index = 0; index < Board::kKeys; ++index) {
    before[index] = board_.keys[index].before();
  }
  TableModel seen;
  try {
    seen = contentsOf(name_, table_);
  } catch (const Quill::CorruptionDetectedException& damage) {
    handleDamage(damage, fenix);
    return;
  }
  for (unsigned index = 0; index < Board::kKeys; ++index) {
    const std::uint32_t key = historyKey(index);
    const std::uint32_t after = board_.keys[index].after();
    const auto entry = seen.find(key);
    ++board_.looks[number_];
    if (entry != seen.end()) {
      const std::uint32_t oldest = type_ == Quill::QuillType::shadow ? 0 : before[index];
      if (mayBeFound(key, oldest, after, entry->second)) continue;
      wrong(name_ + " iterates over key " + text(key) + " at " + text(entry->second) + ", done " +
            text(before[index]) + ", begun " + text(after));
    }
    if (isShadow() || mayBeMissed(key, before[index], after)) continue;
    const std::string what = "iterates past key " + text(key) + ", done " + text(before[index]);
    if (!attachedSince(attaches)) wrong(name_ + " " + what + ", begun " + text(after));
    requireGivenUp(fenix, what);
  }
}

bool Watcher::followed() const {
  if (table_.fenixId() != board_.fenix) return false;
  if (!isShadow()) return table_.mountStatus() == 1;
  return table_.mountStatus() == 2 && table_.sequence() == board_.sequence;
}

void Watcher::remount() {
  table_.controlDetach();
  table_.init(type_, false, 0);
}

void Watcher::compare(std::uint32_t round) {
  if (isShadow() && board_.newsLost) remount();
  for (unsigned turns = 0; !followed(); ++turns) {
    if (board_.stop || board_.failed) return;
    if (turns == kMaxTurns) {
      wrong(name_ + " does not follow: status " + text(table_.mountStatus()) + ", generation " +
            text(table_.fenixId()) + " of " + text(board_.fenix) + ", sequence " +
            std::to_string(table_.sequence()) + " of " + std::to_string(board_.sequence));
    }
    if (loop_.runTurn()) continue;
    loop_.leap(0.1);
    loop_.await(100);
  }
  for (unsigned turns = 0; turns < kMaxTurns && loop_.runTurn(); ++turns) {
  }
  const TableModel seen = contentsOf(name_, table_);
  TableModel model;
  for (unsigned index = 0; index < Board::kKeys; ++index) {
    const std::uint32_t version = board_.keys[index].before();
    if (!isRemoval(historyKey(index), version)) model[historyKey(index)] = version;
  }
  requireSame(name_, seen, model);
  for (unsigned index = 0; index < Board::kKeys; ++index) {
    const std::uint32_t key = historyKey(index);
    const std::uint32_t version = board_.keys[index].before();
    const std::uint32_t last = std::exchange(compared_[index], version);
    if (!isShadow() || last == version || told_.keys.contains(key)) continue;
    // Neither then nor now: what was between may have come and gone unseen.
    if (isRemoval(key, last) && isRemoval(key, version)) continue;
    wrong(name_ + " was not told of key " + text(key) + ", " + text(version) + " after " +
          text(last));
  }
  told_.keys.clear();
  board_.compared[number_] = round;
}

}  // namespace QuillTest
