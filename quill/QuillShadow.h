// SPDX-License-Identifier: Apache-2.0
//
// Quill::QuillShadow: the implementation behind a handle that follows a table: a reader on shared
// memory, a reader of the notification queue, a store with a private copy, and the Syncer that
// fills it. It keeps the copy equal to the table and tells the map's notifier of every key that
// changed, whatever happens in between.
//
// How: it notes the newest sequence of the queue, then copies every slot, then follows the queue
// from the noted sequence. What changes during the copy is in the queue behind that sequence and is
// read again, which does no harm, since a slot is always read as it is now.
//
// Belongs to the activity thread. Never waits for the writer. References that lookup() returns are
// valid until the next turn of the loop and the next operation. The map must outlive it.
//
// Of MAP it uses: notifier(), a pointer, null for nobody, to something with notify(const KEY&);
// corruptionDetected(text), which detaches this object and keeps it alive until the stack has
// unwound; and handleDisconnect().
//
// A listener, called in the middle of all this, may read, turn notifications off and on, and detach
// this object. It must not destroy it (asserted). An initialize() from inside initialize() or
// detach() answers true and does nothing: the caller outside decides.
//
// Invariants:
//  1. What listeners were told of and not told the end of is what the store holds: a removal is
//     notified for each key of a shadow that is detached, also in the middle of its first copy.
//  2. After detach() nothing is read from shared memory, followed or copied.
//  3. Damage never leaves initialize(), resync() or a turn of the loop as an exception.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "quill/ConquerReader.h"
#include "quill/QuillBase.h"
#include "quill/QuillReader.h"
#include "quill/ShadowStore.h"
#include "quill/Syncer.h"

namespace Quill {

// Owns the handler before the base that refers to it.
class ShadowNotifierHandler {
 protected:
  ShadowNotifierHandler()
      : handler_(Sable::Platform::getDebugHandler("Quill-DummyShadowNotifier")) {}
  std::unique_ptr<Sable::Platform::DebugHandler> handler_;
};

// Traces under a name of its own; notifies nobody.
template <class KEY, class VALUE>
class DummyShadowNotifier : private ShadowNotifierHandler, public Sable::Debuggable {
 public:
  DummyShadowNotifier() : Debuggable(*handler_) {}
};

template <class KEY, class VALUE, class MAP>
class QuillShadow final : public QuillBase<KEY, VALUE> {
 public:
  using Store = ShadowStoreBase<KEY, VALUE>;

  // Records only. `keyOnly` not 0: the copy holds the keys and reads fetch the values. Works on the
  // loop that is current now; raises an internal exception if none is.
  QuillShadow(Sable::Platform::DebugHandler& handler, const char* fullName, MAP* map,
              unsigned keyOnly);

  // Attaches, and copies the table, notifying every key. Once initialized: tries to connect if the
  // connection was lost. False if there is no table, if it is damaged (which went to the map), and
  // if a listener detached this object meanwhile. Raises Sable::RuntimeException for a table with a
  // history and no slots, and Sable::MemoryResourceException.
  bool initialize() override;
  void detach() override;
  // Missed changes: notes the newest sequence and goes over all slots, so that listeners hear of
  // what differs. Returns before that is complete if the time limit says so.
  void resync();
  // The copy is as new as the noted sequence: from now on the queue is followed.
  void syncComplete();

  bool resize() const override { return reader_.resize(); }
  const VALUE& lookup(const KEY& key, bool& found) const override;
  bool first(VALUE& value, IterHint& hint) const override;
  bool next(const KEY& key, VALUE& value, IterHint& hint) const override;
  // Reads the table itself.
  const VALUE& directLookup(const KEY& key, bool& found) const override {
    return reader_.lookup(key, found);
  }
  // Entries of the copy; the other two are the table's.
  unsigned members() const override { return reader_.counters().occupied; }
  unsigned maxSize() const override { return reader_.maxSize(); }
  unsigned capacity() const override { return reader_.capacity(); }
  // For both forms.
  QuillType type() const override { return QuillType::shadow; }
  Reader::Counters readerCounters() const override { return reader_.readerCounters(); }
  // Off: the copy stays as it is, and nothing is notified. On: catches up.
  void notifying(bool on) override;
  void yieldTimeIs(const double& seconds) override;
  void sampleIs(unsigned sample) override;
  std::uint64_t sequence() const override { return reader_.counters().lastConsumedSequence; }
  std::string rootPath() const override { return root_.rootPath(); }
  std::string quillName() const override { return root_.quillName(); }
  unsigned mountStatus() const override;
  unsigned fenixId() const override { return reader_.fenixId(); }

  // For the members that work for this object.
  Store* store() const noexcept { return store_.get(); }
  MAP* map() const noexcept { return map_; }
  bool initialized() const noexcept { return this->initialized_; }
  double yieldTime() const noexcept { return yieldTime_; }
  std::uint32_t sample() const noexcept { return sample_; }

 private:
  enum class Attach : std::uint8_t { done, failed, detached };

  bool doInitialize();
  Attach doAttach();
  bool reconnect();
  std::unique_ptr<Store> newStore();
  void noteLatest();
  // Lets go of shared memory and the connection.
  void release();

  RootPath root_;
  QuillReader<KEY, VALUE> reader_;
  Syncer<QuillShadow> syncer_;
  ConquerReader<KEY, VALUE, MAP> conquer_;
  DummyShadowNotifier<KEY, VALUE> dummyNotifier_;
  MAP* map_;
  std::unique_ptr<Store> store_;
  bool keyOnly_;
  bool notifying_ = true;
  double yieldTime_ = 0.05;  // seconds
  std::uint32_t sample_ = 8;
  std::uint64_t latestSeq_ = 0;
  bool attached_ = false;  // there is something for detach() to do
  bool busy_ = false;      // inside initialize() or detach()
};

}  // namespace Quill

#include "quill/QuillShadow-inl.h"
