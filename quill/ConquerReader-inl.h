// SPDX-License-Identifier: Apache-2.0
//
// Bodies of ConquerReader.h.
#pragma once

#include <algorithm>
#include <string>

#include "quill/ConquerReader.h"
#include "quill/Exceptions.h"
#include "quill/FenixFile.h"
#include "quill/QuillBase.h"
#include "quill/Text.h"
#include "quill/Util.h"
#include "runtime/vex/ActivityManager.h"

namespace Quill {

namespace Detail {

// [O12] Acquire, both halves and the slot: a word of a later use of the table shows the switch away
// from it, so that the next look at the generation tells. Pairs with the releases of the entries in
// ConquerWriter.
inline std::uint64_t sequenceOf(const Conquer::Entry& entry) noexcept {
  const std::uint64_t high = entry.high.load(Mem::acquire);
  return high << 32 | entry.low.load(Mem::acquire);
}
inline std::uint32_t slotOf(const Conquer::Entry& entry) noexcept {
  return entry.slot.load(Mem::acquire);
}

}  // namespace Detail

template <class KEY, class VALUE, class MAP>
ConquerReader<KEY, VALUE, MAP>::ConquerReader(Sable::Platform::DebugHandler& handler,
                                              const RootPath& root, Reader::Counters& counters,
                                              Shadow& shadow)
    : Conquer(handler, root, false),
      ReaderKickSm(handler, root, counters),
      counters_(&counters),
      shadow_(&shadow) {}

// --- attaching

template <class KEY, class VALUE, class MAP>
bool ConquerReader<KEY, VALUE, MAP>::initialize() {
  if (!ready()) {
    raise<Sable::RuntimeException>("ConquerReader::initialize(): ReaderKickSm not initialized");
  }
  if (!attachConquer(primary) || !attachConquer(secondary)) {
    trace(7, [](std::ostream& os) { os << "ConquerReader::initialize() attach failed"; });
    detachConquer();
    return false;
  }
  const std::string path = conquerRoot_->rootPath();
  const std::uint32_t fenix = FenixFile::read(debugHandler(), path);
  if (fenix == 0) {
    trace(7, [&](std::ostream& os) {
      os << "ConquerReader::initialize(): " << path << " failed to read fenix file";
    });
    detachConquer();
    return false;
  }
  for (const ConquerTableId id : {primary, secondary}) {
    std::string reason;
    // By the size of the file: a queue that has grown is longer than the page that is mapped. A
    // file shorter than that page ends where it ends.
    if (headers_[id]->validate(mems_[id].memSize(), fenix, reason)) continue;
    trace(7, [&](std::ostream& os) {
      os << "ConquerReader::initialize(): " << path << " validate failed, reason: " << reason;
    });
    Util::writeCorruptionFile(debugHandler(), path, reason);
    detachConquer();
    return false;
  }
  traceHeader(*headers_[primary]);
  // Relaxed: only a number to differ from; findPosition() looks the table up.
  currentTable_ = {headers_[primary]->currentTable.version(Mem::relaxed) - 1, primary};
  current_ = tables_[primary];
  other_ = tables_[secondary];
  lastSeq_ = 0;
  passed_ = 0;
  missed_ = false;
  doConnect();
  return true;
}

template <class KEY, class VALUE, class MAP>
bool ConquerReader<KEY, VALUE, MAP>::attachConquer(ConquerTableId id) {
  QuillMem& mem = mems_[id];
  regionIs(id, nullptr);
  notifications_[id] = {};
  const std::uint32_t size = mem.memSize();
  if (size == 0) {
    mem.detach();
    trace(7, [&](std::ostream& os) {
      os << "ConquerReader::attach() " << mem.getFilename() << " no shared memory region yet";
    });
    return false;
  }
  void* const base = mem.attach(Mem::pageSize_, Mem::Mode::readOnly);
  if (base == nullptr) {
    trace(7, [&](std::ostream& os) {
      os << "ConquerReader::attach() cannot attach to file " << mem.getFilename()
         << " with size:" << size;
    });
    return false;
  }
  regionIs(id, base);
  notifications_[id] = {tables_[id], ConquerNotifications::kUnmapped};
  return true;
}

template <class KEY, class VALUE, class MAP>
void ConquerReader<KEY, VALUE, MAP>::detachConquer() {
  detachRegions();
  notifications_ = {};
}

template <class KEY, class VALUE, class MAP>
bool ConquerReader<KEY, VALUE, MAP>::doResize() {
  if (current_ == nullptr) return false;
  const auto id = static_cast<ConquerTableId>(currentTable_.value);
  // Relaxed: only decides whether to look closer.
  if (current_->notifications.version(Mem::relaxed) == notifications_[id].version()) return false;
  // [O10] Acquire: the file was long enough before this word was stored. Pairs with the release of
  // `notifications` in ConquerWriter::grow().
  const Mem::VerU32 word = current_->notifications.load(Mem::acquire);
  QuillMem& mem = mems_[id];
  trace(7, [&](std::ostream& os) {
    os << "ConquerReaer::doResize() " << mem.getFilename() << " from "
       << notifications_[id].capacity() << " notifications to " << word.value;
  });
  const std::uint64_t wanted = fileSize(word.value);
  if (const std::uint32_t real = mem.memSize(); real < wanted) {
    raise<CorruptionDetectedException>("ConquerReader::doResize() requesting to map ",
                                       mem.getFilename(), " ", word.value,
                                       " conquer notifications. Requested file resize to ", wanted,
                                       " but real file size is ", real);
  }
  const void* const before = headers_[id];
  // No longer than the file, so it fits 32 bits.
  void* const base = mem.resize(static_cast<std::uint32_t>(wanted));
  if (base == nullptr) {
    if (mem.truncated()) {
      raise<CorruptionDetectedException>("ConquerReader: ", mem.getFilename(),
                                         " became shorter than its mapping");
    }
    raise<Sable::MemoryResourceException>(
        "ConquerReader::doResize() failed to resize shared memory to size ", wanted,
        " - the system may be out of memory.");
  }
  if (base != before) {
    trace(7, [&](std::ostream& os) {
      os << "ConquerReader::doResize() changed base address mapping from " << before << " to "
         << base;
    });
    ++counters_->remaps;
  }
  ++counters_->conquerResizes;
  regionIs(id, base);
  notifications_[id] = {tables_[id], word};
  current_ = tables_[id];
  forgetPosition();
  trace(7, [](std::ostream& os) { os << "ConquerReader::doResize() successful"; });
  return true;
}

template <class KEY, class VALUE, class MAP>
void ConquerReader<KEY, VALUE, MAP>::checkTruncated() const {
  for (const QuillMem& mem : mems_) {
    if (mem.truncated()) [[unlikely]]
      raiseTruncated(mem);
  }
}

template <class KEY, class VALUE, class MAP>
void ConquerReader<KEY, VALUE, MAP>::raiseTruncated(const QuillMem& mem) const {
  raise<CorruptionDetectedException>("ConquerReader: ", mem.getFilename(),
                                     " became shorter than its mapping");
}

// --- the position

template <class KEY, class VALUE, class MAP>
bool ConquerReader<KEY, VALUE, MAP>::swapped() const noexcept {
  // Relaxed: either behind the acquires of [O8] and [O12], whose words show the switch if they come
  // from a later use of the table, or before getTable(), which loads with acquire.
  return headers_[primary]->currentTable.version(Mem::relaxed) != currentTable_.version;
}

template <class KEY, class VALUE, class MAP>
std::uint32_t ConquerReader<KEY, VALUE, MAP>::used() const noexcept {
  // [O8] Acquire: the entries below it are complete, and what they tell of is in its slot. Pairs
  // with the release of currentPos in ConquerWriter::notify() and compact().
  return current_->currentPos.load(Mem::acquire);
}

template <class KEY, class VALUE, class MAP>
bool ConquerReader<KEY, VALUE, MAP>::findPosition() {
  if (headers_[primary] == nullptr) return false;
  while (swapped()) {
    ++counters_->queueSwaps;
    getTable();
    currentPos_ = 0;
    try {
      const std::uint32_t count = used();
      if (count == 0) {
        if (!swapped()) return false;
        continue;
      }
      const bool exact = search(count);
      // Acquire: behind that of currentTable it is at least as new as the switch [O9], and what is
      // loaded after it holds all entries up to it. The newest one first would not do: between the
      // two the writer can append, and raise minSeq above what was the newest.
      const std::uint64_t minSeq = headers_[primary]->minSeq.load(Mem::acquire);
      const std::uint32_t last = used();
      const std::uint64_t newest = last == 0 ? 0 : Detail::sequenceOf(notifications()[last - 1]);
      if (!swapped()) {
        noteMissed(minSeq, newest);
        trace(8, [&](std::ostream& os) {
          os << "ConquerReader::findPosition() " << (exact ? "mid" : "low")
             << " pos:" << currentPos_ << " sequence:" << lastSeq_;
        });
        return true;
      }
    } catch (const CorruptionDetectedException&) {
      if (!swapped()) throw;  // else it was a table that is being rewritten
    }
    trace(8, [](std::ostream& os) { os << "ConquerReader::findPosition() conquerSwapped again"; });
  }
  return true;
}

template <class KEY, class VALUE, class MAP>
void ConquerReader<KEY, VALUE, MAP>::noteMissed(std::uint64_t minSeq,
                                                std::uint64_t newest) noexcept {
  // A minSeq above all sequences is none that a writer stores, and would never be reached.
  if (minSeq > std::max(lastSeq_, passed_) && minSeq <= newest) missed_ = true;
}

template <class KEY, class VALUE, class MAP>
bool ConquerReader<KEY, VALUE, MAP>::search(std::uint32_t count) {
  const ConquerNotifications& table = notifications();
  std::uint32_t low = 0;
  std::uint32_t high = count - 1;
  std::uint64_t lowSeq = Detail::sequenceOf(table[low]);
  std::uint64_t highSeq = Detail::sequenceOf(table[high]);
  // In a table that does not change, low <= high holds by itself.
  while (!swapped() && lowSeq <= lastSeq_ && highSeq >= lastSeq_ && low <= high) {
    ++counters_->searchSteps;
    const std::uint32_t mid = low + (high - low) / 2;
    const std::uint64_t midSeq = Detail::sequenceOf(table[mid]);
    if (midSeq < lastSeq_) {
      low = mid + 1;
      lowSeq = Detail::sequenceOf(table[low]);
      currentPos_ = low;
    } else if (midSeq > lastSeq_) {
      high = mid - 1;
      highSeq = Detail::sequenceOf(table[high]);
      currentPos_ = mid;
    } else {
      currentPos_ = mid + 1;
      return true;
    }
  }
  return false;
}

template <class KEY, class VALUE, class MAP>
std::uint64_t ConquerReader<KEY, VALUE, MAP>::latestSequence() {
  std::uint64_t latest = 0;
  if (headers_[primary] == nullptr) return latest;
  for (;;) {
    try {
      findPosition();
      if (const std::uint32_t count = used(); count != 0) {
        latest = Detail::sequenceOf(notifications()[count - 1]);
      }
    } catch (const CorruptionDetectedException&) {
      if (doResize()) continue;
      checkTruncated();
      throw;
    }
    if (swapped()) continue;
    checkTruncated();
    return latest;
  }
}

// --- following

template <class KEY, class VALUE, class MAP>
bool ConquerReader<KEY, VALUE, MAP>::doConquer(unsigned& consumed) {
  const bool known = findPosition();
  if (missed_) {
    shadow_->resync();
    missed_ = false;  // all that the queue held when it was asked is seen to
    return false;
  }
  if (!known) {
    ++counters_->emptyQueueVisits;
    return false;
  }
  std::uint32_t count = used();
  for (; currentPos_ < count; count = used()) {
    const Entry& entry = notifications()[currentPos_];
    const std::uint64_t sequence = Detail::sequenceOf(entry);
    const std::uint32_t slot = Detail::slotOf(entry);
    if (swapped()) {
      ++counters_->queueSwaps;
      return true;
    }
    if (sequence <= lastSeq_) {
      raise<CorruptionDetectedException>(
          "ConquerReader::doConquer() unexpected sequence in in active queue, lastSeq:", lastSeq_,
          " notifSeq:", sequence, " notifSlot:", slot, " currentPos:", currentPos_,
          " tablePos:", count);
    }
    if (slot != kNoSlot) {
      const std::uint64_t before = counters_->lastConsumedSequence;
      counters_->lastConsumedSequence = sequence;
      try {
        shadow_->store()->doSlot(slot, false);
      } catch (...) {
        // Not consumed: whoever takes up the queue again begins with this entry.
        counters_->lastConsumedSequence = before;
        throw;
      }
      ++counters_->notificationsConsumed;
      ++consumed;
      lastSeq_ = sequence;
      ++currentPos_;
      return true;
    }
    ++counters_->tombstonesSkipped;
    lastSeq_ = sequence;
    ++currentPos_;
  }
  if (swapped()) {
    ++counters_->queueSwaps;
    return true;
  }
  if (currentPos_ > count) {
    raise<CorruptionDetectedException>(
        "ConquerReader::doConquer() unexpected position in active queue, currentPos:", currentPos_,
        " tablePos:", count);
  }
  ++counters_->queueEndVisits;
  return false;
}

template <class KEY, class VALUE, class MAP>
std::uint64_t ConquerReader<KEY, VALUE, MAP>::conquer() {
  // The clock's time and not that of the handler that is running: it passes within a batch.
  const Vex::Clock& clock = *Vex::activityManager().clock();
  unsigned consumed = 0;
  yielded_ = false;
  const double start = clock.now();
  trace(8, [&](std::ostream& os) {
    os << "ConquerReader::conquer() Walking conquer queue, sample:" << shadow_->sample()
       << " yieldTime:" << shadow_->yieldTime() << " currentPos:" << currentPos_
       << " start:" << start;
  });
  // `any`: a time limit below the cost of reading the clock must not stop the queue for ever.
  bool any = false;
  for (std::uint32_t count = 0; !stopFlag_; ++count, any = true) {
    if (const double limit = shadow_->yieldTime();
        limit != 0.0 && shadow_->sample() <= count && any) {
      if (clock.now() - start > limit) {
        yielded_ = true;
        ++counters_->conquerYields;
        break;
      }
      count = 0;
    }
    try {
      if (!doConquer(consumed)) break;
    } catch (const CorruptionDetectedException&) {
      if (!doResize()) {
        checkTruncated();
        throw;
      }
    }
  }
  checkTruncated();
  trace(8, [&](std::ostream& os) {
    os << "ConquerReader::conquer() Consumed " << consumed << " notifications in "
       << clock.now() - start << " seconds until sequence:" << lastSeq_
       << " currentPos:" << currentPos_ << " yield:" << yielded_ << " stop:" << stopFlag_;
  });
  return lastSeq_;
}

template <class KEY, class VALUE, class MAP>
std::uint64_t ConquerReader<KEY, VALUE, MAP>::doProcessNotifications() {
  try {
    return conquer();
  } catch (const CorruptionDetectedException& damage) {
    shadow_->map()->corruptionDetected(damage.msg());
    throw;
  }
}

// --- events

template <class KEY, class VALUE, class MAP>
void ConquerReader<KEY, VALUE, MAP>::handleConnected() {
  if (!connected()) {
    shadow_->map()->handleDisconnect();
    return;
  }
  ++counters_->connections;
  trace(7, [&](std::ostream& os) {
    os << "ConquerReader::handleConnected() connections: " << counters_->connections;
  });
}

template <class KEY, class VALUE, class MAP>
void ConquerReader<KEY, VALUE, MAP>::handleAck() {
  if (headers_[primary] == nullptr) return;
  // [O9] Acquire. Pairs with the release of minSeq in ConquerWriter::compact().
  const std::uint64_t minSeq = headers_[primary]->minSeq.load(Mem::acquire);
  const std::uint64_t sequence = counters_->lastConsumedSequence;
  trace(7, [&](std::ostream& os) {
    os << "ConquerReader::handleAck() minSeq:" << minSeq << " seq:" << sequence;
  });
  if (minSeq > sequence) {
    shadow_->resync();
    return;
  }
  enabled_ = true;
  handleEnabled();
}

template <class KEY, class VALUE, class MAP>
void ConquerReader<KEY, VALUE, MAP>::handleEnabled() {
  if (!enabled_) return;
  // The position goes back to where the copy began. What was followed since is not missed.
  passed_ = std::max(passed_, lastSeq_);
  missed_ = false;
  lastSeq_ = counters_->lastConsumedSequence;
  forgetPosition();
  ReaderKickSm::doConquer();
}

}  // namespace Quill
