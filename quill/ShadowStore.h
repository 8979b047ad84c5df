// SPDX-License-Identifier: Apache-2.0
//
// Quill::ShadowStore: a private copy of a table in a reader's own memory, slot for slot. It serves
// reads without touching shared memory, and by comparing what it holds with what the table holds it
// knows which keys have changed, and calls the notifier once for each.
//
// Shadow slot i is the image of slot i of the table. The hash chains are the store's own: pointers,
// in the order of the keys, bucket i for bucket i of the table.
//
// One thread, that of the reader. Everything here is private memory, so nothing is atomic. A
// reference or hint that an operation returns holds until the store changes: until the next
// doSlot() or flush().
//
// The notifier is called from inside doSlot() and flush(). A listener may read, and may detach the
// handle, which comes back here as flush(): doSlot() then leaves the store as flush() left it. It
// must not destroy the handle, initialize it again, or run the activity loop: a store that ends or
// is fed while its notifier is running is a broken invariant (asserted).
//
// Invariants:
//  1. No two slots on chains have the same key.
//  2. When the notifier is called for a key, the change of the chain that it tells of is complete.
//  3. Counters::occupied is the number of slots on chains, and SlotCounters counts exactly these.
//  4. An exception from the reader leaves the store as it was.
#pragma once

#include <cstdint>

#include "quill/Counters.h"
#include "quill/QuillBase.h"
#include "quill/QuillMem.h"
#include "quill/ShadowSlot.h"
#include "quill/SlotCounters.h"
#include "runtime/sable/Platform.h"

namespace Quill {

template <class KEY, class VALUE>
class QuillReader;

template <class KEY, class VALUE>
class ShadowStoreBase {
 public:
  ShadowStoreBase() = default;
  ShadowStoreBase(const ShadowStoreBase&) = delete;
  ShadowStoreBase& operator=(const ShadowStoreBase&) = delete;
  virtual ~ShadowStoreBase() = default;

  // Sets up an empty store. Once, with the reader attached. False if there is no memory.
  virtual bool initialize() = 0;
  // Removes and notifies every key. Touches no shared memory. The memory stays.
  virtual void flush() = 0;
  // Makes the image of one slot equal to the slot as it is now, and notifies what that changed.
  // `compare`: a slot whose value is equal is left alone and not notified; without it, a slot in
  // use is always notified. A slot beyond what the table is known to have is passed over.
  // Raises what the reader raises, Sable::RuntimeException if the table shrank, and
  // Sable::MemoryResourceException.
  virtual void doSlot(unsigned slotIndex, bool compare) = 0;

  // As in QuillBase. Nothing at all is found before initialize().
  virtual const VALUE& lookup(const KEY& key, bool& found) const = 0;
  // The first entry at or after a bucket.
  virtual bool first(unsigned bucket, VALUE& value, IterHint& hint) const = 0;
  virtual bool next(const KEY& key, VALUE& value, IterHint& hint) const = 0;
};

// SLOT is one of quill/ShadowSlot.h. MAP has notifier(): a pointer, null for nobody, to something
// with notify(const KEY&). READER has the named operations of QuillReader that stand in
// ShadowStore-inl.h; it is a parameter for the sake of tests.
template <class KEY, class VALUE, class SLOT, class MAP, class READER = QuillReader<KEY, VALUE>>
class ShadowStore : public ShadowStoreBase<KEY, VALUE>, protected Sable::Debuggable {
 public:
  // All of these must outlive the store.
  ShadowStore(Sable::Platform::DebugHandler& handler, const RootPath& root, READER& reader,
              Reader::Counters& counters, MAP* map);
  ~ShadowStore() override;

  bool initialize() override;
  void flush() override;
  void doSlot(unsigned slotIndex, bool compare) override;

  // The form that holds keys alone fetches the value from the table, into a scratch value that
  // stays until the next read, and raises what the reader raises. An entry whose slot does not hold
  // the key any more is passed over.
  const VALUE& lookup(const KEY& key, bool& found) const override;
  bool first(unsigned bucket, VALUE& value, IterHint& hint) const override;
  bool next(const KEY& key, VALUE& value, IterHint& hint) const override;

  // Slots that there is memory for.
  unsigned numSlots() const noexcept { return numSlots_; }
  const SlotCounters<VALUE>& slotCounters() const noexcept { return slotCounters_; }

 private:
  using Content = typename SLOT::Content;
  class Notification;

  // Calls the notifier. False if the store was flushed by a listener: the caller must not go on.
  // The key by value: a listener may change where it lies.
  [[nodiscard]] bool notify(KEY key);
  // Makes sure that there is a slot with this index; false if it is to be passed over.
  bool reach(unsigned slotIndex);
  // Puts a slot on the chain of its key; true if its key is to be notified.
  bool write(unsigned slotIndex, bool updated);
  // Takes a slot off its chain; false if it is on none. Its content stays.
  bool remove(SLOT& slot);
  bool grow(unsigned slotIndex);
  void shrink(unsigned newNumSlots);
  void tryShrink();
  // Points every chain at the slots where they are now. `oldBase` is only compared and subtracted.
  void patch(const SLOT* oldBase);

  void resizeSlots(const char* caller, unsigned count);
  void linkIn(SLOT& slot, SLOT** link);
  void replace(SLOT& old, SLOT& slot);
  unsigned bucketOf(const KEY& key) const { return key.hash() % numBuckets_; }
  unsigned indexOf(const SLOT* slot) const noexcept {
    return slot == nullptr ? kNoSlot : static_cast<unsigned>(slot - slots_);
  }
  // The slot with the least key that is not less (`orEqual`) or that is greater.
  const SLOT* find(const KEY& key, bool orEqual) const;
  // The value of a slot on a chain, null if the table does not have it any more.
  const VALUE* valueOf(const SLOT& slot) const;
  // The first entry that can be read, from `slot` on to the last bucket.
  bool from(const SLOT* slot, unsigned bucket, VALUE& value, IterHint& hint) const;

  const VALUE emptyValue_{};      // the answer of a lookup that fails
  mutable VALUE scratchValue_{};  // keys alone: what the last read fetched
  READER& reader_;
  Reader::Counters* counters_;
  SlotCounters<VALUE> slotCounters_;
  MAP* map_;
  unsigned numBuckets_ = 0;
  SLOT** heads_ = nullptr;  // numBuckets_ of them, in bucketsMem_
  QuillMem bucketsMem_;
  unsigned numSlots_ = 0;
  SLOT* slots_ = nullptr;  // numSlots_ of them, in slotsMem_; null while that is 0
  QuillMem slotsMem_;
  unsigned notifications_ = 0;  // calls of the notifier on the stack
  unsigned flushes_ = 0;
};

}  // namespace Quill

#include "quill/ShadowStore-inl.h"
