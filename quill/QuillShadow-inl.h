// SPDX-License-Identifier: Apache-2.0
//
// Bodies of QuillShadow.h.
#pragma once

#include "quill/Exceptions.h"
#include "quill/KeyShadowStore.h"
#include "quill/QuillShadow.h"
#include "quill/Text.h"

namespace Quill {

template <class KEY, class VALUE, class MAP>
QuillShadow<KEY, VALUE, MAP>::QuillShadow(Sable::Platform::DebugHandler& handler,
                                          const char* fullName, MAP* map, unsigned keyOnly)
    : QuillBase<KEY, VALUE>(handler),
      root_(handler, fullName, true),
      reader_(handler, fullName),
      syncer_(handler, this, reader_.counters()),
      conquer_(handler, root_, reader_.counters(), *this),
      map_(map),
      keyOnly_(keyOnly != 0) {}

// --- attaching

template <class KEY, class VALUE, class MAP>
bool QuillShadow<KEY, VALUE, MAP>::initialize() {
  try {
    return doInitialize();
  } catch (const CorruptionDetectedException& damage) {
    busy_ = false;
    this->trace(7, [&](std::ostream& os) {
      os << "QuillShadow::initialize() corruption detected: " << damage.msg();
    });
    map_->corruptionDetected(damage.msg());
    return false;
  } catch (...) {
    busy_ = false;
    if (attached_ && !this->initialized_) detach();  // nobody will come back to a half of a copy
    throw;
  }
}

template <class KEY, class VALUE, class MAP>
bool QuillShadow<KEY, VALUE, MAP>::doInitialize() {
  if (busy_) {
    this->trace(7, [](std::ostream& os) { os << "QuillShadow::doInitialize() under way"; });
    return true;
  }
  if (this->initialized_) return reconnect();
  busy_ = true;
  const Attach result = doAttach();
  busy_ = false;
  if (result == Attach::failed) {
    // Nothing was copied: the next try begins with the files as they are then.
    attached_ = false;
    release();
  } else if (result == Attach::detached && attached_) {
    detach();  // the map has not done it
  }
  return result == Attach::done;
}

template <class KEY, class VALUE, class MAP>
typename QuillShadow<KEY, VALUE, MAP>::Attach QuillShadow<KEY, VALUE, MAP>::doAttach() {
  attached_ = true;
  // Of a table that was attached before, and may be of another generation now.
  reader_.counters().syncedSequence = 0;
  reader_.counters().lastConsumedSequence = 0;
  if (!reader_.initialize()) {
    this->trace(
        7, [](std::ostream& os) { os << "QuillShadow::initialize() quill.initialize() Failed"; });
    return Attach::failed;
  }
  store_ = newStore();
  if (!store_->initialize()) return Attach::failed;
  if (!conquer_.initialize()) {
    this->trace(7, [](std::ostream& os) {
      os << "QuillShadow::initialize() conquer_.initialize() Failed";
    });
    return Attach::failed;
  }
  noteLatest();
  // From now on the writer prunes nothing that is needed after the copy.
  if (conquer_.connected()) conquer_.sendSequence(latestSeq_);
  this->trace(7, [&](std::ostream& os) {
    os << "QuillShadow::initialize() Synchronizing into local shadow. latestSeq:" << latestSeq_
       << " numSlots:" << reader_.capacity() << " connected:" << conquer_.connected();
  });
  // Sequence 0: nothing has ever been written.
  const unsigned slots = latestSeq_ == 0 ? 0 : reader_.capacity();
  if (latestSeq_ != 0 && slots == 0) {
    raise<Sable::RuntimeException>(
        "QuillShadow::initialized() slot capacity must be greater than 0");
  }
  // The first batch runs in there too, and with it what may detach this object.
  if (!syncer_.sync(slots, false) || !attached_) return Attach::detached;
  this->initialized_ = true;
  return Attach::done;
}

template <class KEY, class VALUE, class MAP>
bool QuillShadow<KEY, VALUE, MAP>::reconnect() {
  if (conquer_.connected()) return true;
  conquer_.doConnect();
  // The copy stays in use, and the mounter tries again.
  if (!conquer_.connected()) return true;
  const std::uint64_t seq = sequence();
  const std::uint64_t latest = conquer_.latestSequence();
  if (latest < seq) {
    raise<CorruptionDetectedException>("QuillShadow::doInitialize() bad reader sequence:", seq,
                                       " writer sequence:", latest);
  }
  // The writer's answer says whether anything was missed: ConquerReader::handleAck().
  conquer_.sendSequence(seq);
  this->trace(7, [&](std::ostream& os) {
    os << "QuillShadow::doInitialize() now connected, seq:" << seq << " latestSeq:" << latest;
  });
  return true;
}

template <class KEY, class VALUE, class MAP>
std::unique_ptr<ShadowStoreBase<KEY, VALUE>> QuillShadow<KEY, VALUE, MAP>::newStore() {
  using ValueStore = ShadowStore<KEY, VALUE, ValueShadowSlot<KEY, VALUE, MAP>, MAP>;
  using KeyStore = KeyShadowStore<KEY, VALUE, MAP>;
  auto& handler = this->debugHandler();
  if (keyOnly_) {
    return std::make_unique<KeyStore>(handler, root_, reader_, reader_.counters(), map_);
  }
  return std::make_unique<ValueStore>(handler, root_, reader_, reader_.counters(), map_);
}

template <class KEY, class VALUE, class MAP>
void QuillShadow<KEY, VALUE, MAP>::noteLatest() {
  // Sequence and number of slots go together: a slot beyond the number has its news behind the
  // sequence.
  do {
    latestSeq_ = conquer_.latestSequence();
  } while (reader_.resize());
}

template <class KEY, class VALUE, class MAP>
void QuillShadow<KEY, VALUE, MAP>::detach() {
  if (!attached_) {
    this->trace(7, [](std::ostream& os) { os << "QuillShadow::detach() already detached"; });
    return;
  }
  attached_ = false;  // a listener may come here again
  const bool outer = !busy_;
  busy_ = true;
  release();
  if (store_ != nullptr) store_->flush();
  this->initialized_ = false;
  if (outer) busy_ = false;
  this->trace(7, [](std::ostream& os) { os << "QuillShadow::detach() detached"; });
}

template <class KEY, class VALUE, class MAP>
void QuillShadow<KEY, VALUE, MAP>::release() {
  syncer_.notifying(false);
  syncer_.abandon();
  if (conquer_.connected()) conquer_.doCloseWriterConnection(true);
  conquer_.notifying(false);
  conquer_.enabledIs(false);
  conquer_.detachConquer();
  reader_.detach();
}

// --- keeping the copy

template <class KEY, class VALUE, class MAP>
void QuillShadow<KEY, VALUE, MAP>::resync() {
  if (!attached_) return;
  try {
    noteLatest();
  } catch (const CorruptionDetectedException& damage) {
    // Called from the loop, where nobody would take it.
    map_->corruptionDetected(damage.msg());
    return;
  }
  ++reader_.counters().resyncs;
  this->trace(7, [&](std::ostream& os) {
    os << "QuillShadow::resync() Out-of-sync, re-synchronizing local shadow "
       << " latestSeq:" << latestSeq_ << " numSlots:" << reader_.capacity()
       << " connected:" << conquer_.connected();
  });
  static_cast<void>(syncer_.sync(reader_.capacity(), true));
}

template <class KEY, class VALUE, class MAP>
void QuillShadow<KEY, VALUE, MAP>::syncComplete() {
  reader_.counters().syncedSequence = latestSeq_;
  reader_.counters().lastConsumedSequence = latestSeq_;
  this->trace(7, [](std::ostream& os) {
    os << "QuillShadow::syncComplete() Synchronizing into local shadow. done";
  });
  conquer_.enabledIs(true);
  conquer_.handleEnabled();
}

// --- reading

template <class KEY, class VALUE, class MAP>
const VALUE& QuillShadow<KEY, VALUE, MAP>::lookup(const KEY& key, bool& found) const {
  if (store_ != nullptr) return store_->lookup(key, found);
  found = false;
  return this->emptyValue_;
}

template <class KEY, class VALUE, class MAP>
bool QuillShadow<KEY, VALUE, MAP>::first(VALUE& value, IterHint& hint) const {
  if (store_ != nullptr) return store_->first(0, value, hint);
  value = this->emptyValue_;
  return false;
}

template <class KEY, class VALUE, class MAP>
bool QuillShadow<KEY, VALUE, MAP>::next(const KEY& key, VALUE& value, IterHint& hint) const {
  if (store_ != nullptr) return store_->next(key, value, hint);
  value = this->emptyValue_;
  return false;
}

template <class KEY, class VALUE, class MAP>
unsigned QuillShadow<KEY, VALUE, MAP>::mountStatus() const {
  const unsigned status = conquer_.connected() ? 2 : (this->initialized_ ? 1 : 0);
  this->trace(8, [&](std::ostream& os) { os << "QuillShadow::mountStatus(): " << status; });
  return status;
}

// --- settings

template <class KEY, class VALUE, class MAP>
void QuillShadow<KEY, VALUE, MAP>::notifying(bool on) {
  notifying_ = on;
  this->trace(7, [&](std::ostream& os) { os << "QuillShadow()::notifying() notifying: " << on; });
  syncer_.notifying(on);
  conquer_.notifying(on);
}

template <class KEY, class VALUE, class MAP>
void QuillShadow<KEY, VALUE, MAP>::yieldTimeIs(const double& seconds) {
  yieldTime_ = seconds;
  this->trace(
      7, [&](std::ostream& os) { os << "QuillShadow()::yieldTimeIs() yieldTime: " << yieldTime_; });
}

template <class KEY, class VALUE, class MAP>
void QuillShadow<KEY, VALUE, MAP>::sampleIs(unsigned sample) {
  sample_ = sample;
  this->trace(7, [&](std::ostream& os) { os << "QuillShadow()::sampleIs() sample: " << sample_; });
}

}  // namespace Quill
