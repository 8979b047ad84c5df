// SPDX-License-Identifier: Apache-2.0
//
// Quill::QuillMap: the handle through which a program meets a table, whatever the way in which it
// holds it: as the table's writer, as a reader straight on the files, as a shadow with a copy of
// its own, or as a local table that nobody else sees. It stays valid for the whole life of its
// owner: for whoever reads, the table's writer may come, go and come again, and while there is none
// the handle reads as empty.
//
// Belongs to the activity thread, to the loop that was current at init(), which must outlive it.
// Calling order: construct, notifierIs() if it is to be a shadow, init(), use. A local handle needs
// no loop, and a `reader` without one mounts at init() or not at all. References and addresses that
// an operation returns are valid until the next operation on the handle or turn of the loop.
//
// NOTIFY has notify(const KEY&), called for each key that a shadow learns to have changed or gone.
// REQUIRES: notify() reads the handle at most; above all it does not mount, unmount or destroy it.
//
// Invariants:
//  1. Before the first init() there is no implementation: what needs one raises
//     Sable::RuntimeException. Afterwards there always is, also when init() raised.
//  2. What can be inside a call on the stack is not destroyed before that call has returned:
//     implementations that were mounted are destroyed by a deferred task of the loop.
//  3. A mounting that fails or raises leaves the handle as if it had not been tried; a shadow that
//     could not take up its table again is let go.
//  4. Settings (notifications, times, samples) outlive every mounting.
#pragma once

#include <concepts>
#include <memory>
#include <string>
#include <utility>

#include "quill/ControlBase.h"
#include "quill/Mountable.h"
#include "quill/QuillBase.h"
#include "quill/QuillBaseDummy.h"
#include "quill/ReaderMounter.h"
#include "quill/Retired.h"
#include "quill/WriterMounter.h"
#include "runtime/sable/Platform.h"

namespace Quill {

template <class NOTIFY, class KEY>
concept TableNotifier = requires(NOTIFY& notifier, const KEY& key) {
  notifier.notify(key);
};

template <class KEY, class VALUE, class NOTIFY>
class QuillMap : public ControlBase, private Mountable {
  static_assert(TableValue<VALUE, KEY>);

 public:
  using Base = QuillBase<KEY, VALUE>;
  using ReaderMounter = Quill::ReaderMounter;
  using WriterMounter = Quill::WriterMounter;

  // `fullName` as RootPath takes it; `shortName` stands in the name under which the handle traces.
  QuillMap(std::string fullName, std::string shortName);

  // Who is told of changed keys; not owned, null for nobody. A shadow cannot mount without.
  void notifierIs(NOTIFY* notifier) noexcept { notifier_ = notifier; }
  NOTIFY* notifier() const noexcept { return notifier_; }

  // ControlBase. Where nothing is said, the implementation's operation of that name (QuillBase.h).

  // The counts of the mounter are added.
  Reader::Counters readerCounters() const override;
  Writer::Counters writerCounters() const override;
  // Mounts. `size` is for writers, local or not: the number of entries that the table is made for.
  //  - A local handle is always a writer; its files are no files and its mode only a name.
  //  - A shared writer holds the table when init() returns, or init() raises: the table's writer
  //    lives already, the name or the size cannot be, memory has run out.
  //  - Everybody else returns at once, mounted or not, and is mounted when there is a table.
  // A second init() that asks for the same again changes nothing, as does any for a local table
  // that is local already; one that asks for something else raises
  // Sable::InvalidInitializeException. After one that raised, the handle reads as empty, and
  // init() may be called again; a local table that it was to replace is gone.
  void init(QuillType mode, bool isLocal, unsigned int size) override;
  void cleanup() override;
  std::string rootPath() const override;
  std::string quillName() const override;
  bool validate() override;
  bool validateFiles() override;
  unsigned mountStatus() const override;
  std::uint64_t sequence() const override;
  unsigned fenixId() const override;
  std::string owner() const override;
  void controlDetach() override;
  bool resize() const override;
  unsigned maxSize() const override;
  unsigned capacity() const override;
  // Allowed before init().
  void notifying(bool on) const override;
  // Allowed before init(). Raises a range exception for a number below 0 or no number.
  void yieldTimeIs(double const& seconds) const override;
  // Allowed before init().
  void sampleIs(unsigned int entries) const override;

  // The type whose table this is, for the table's header.
  virtual std::string classType() const { return {}; }

  virtual ~QuillMap();

  // The table. Whoever only reads raises Sable::NoPermissionException for the changes.
  const VALUE& lookup(const KEY& key, bool& found) const { return held().lookup(key, found); }
  // Past a shadow's copy.
  const VALUE& directLookup(const KEY& key, bool& found) const {
    return held().directLookup(key, found);
  }
  bool first(VALUE& value, IterHint& hint) const { return held().first(value, hint); }
  bool next(const KEY& key, VALUE& value, IterHint& hint) const {
    return held().next(key, value, hint);
  }
  unsigned members() const { return held().members(); }
  // The kind of the implementation: `reader` while nothing is mounted. The handle's own is mode().
  QuillType type() const { return held().type(); }
  const VALUE* write(const VALUE& value, bool overwrite = true) {
    return held().write(value, overwrite);
  }
  // What was removed also stays in removed().
  bool remove(const KEY& key, VALUE& old);
  DirectTarget directWrite(const KEY& key) { return held().directWrite(key); }

  // The same, guarded: damage that the operation meets goes to corruptionDetected(). For a reader
  // the lookup then answers a default value and leaves `found` as it stands; a change, which no
  // reader can make, raises Sable::RuntimeException.
  const VALUE& safeLookup(const KEY& key, bool& found) const;
  const VALUE* safeWrite(const VALUE& value, bool overwrite = true);
  // What was removed, or a default value.
  VALUE safeRemove(const KEY& key);
  void directCommit();

  // What the last remove took out; a default value before the first.
  const VALUE& removed() const noexcept { return removeScratch_; }

  // Damage was found: a writer raises CorruptionDetectedException, everybody else lets go of the
  // table, reports it to the writer and waits for the mounter.
  void corruptionDetected(const std::string& message) const;
  // The connection to the writer has ended. Raises Sable::RuntimeException in a handle that has
  // none, and nothing else.
  void handleDisconnect();

  const std::string& fullName() const override { return fullName_; }
  const std::string& shortName() const noexcept { return shortName_; }
  QuillType mode() const override { return mode_; }
  bool isLocal() const noexcept { return isLocal_; }
  bool initialized() const noexcept { return initialized_; }
  bool notifyingOn() const override { return notifying_; }
  // Null for local handles and before init().
  const MounterBase* mounter() const noexcept { return mounter_.get(); }

 protected:
  // The entries for which createDefaultLocalWriter() makes its table.
  static constexpr unsigned kDefaultLocalSize = 100;

  // A local table under fullName(). Raises Sable::RuntimeException if it cannot be initialized.
  std::unique_ptr<Base> createDefaultLocalWriter(Sable::Platform::DebugHandler& handler) const;

  // For whoever derives the names from something that moves. REQUIRES: not initialized().
  void fullNameIs(std::string fullName) { fullName_ = std::move(fullName); }
  void shortNameIs(std::string shortName) { shortName_ = std::move(shortName); }
  // Destroys the implementation and then the handler that were.
  void debugHandlerIs(std::unique_ptr<Sable::Platform::DebugHandler> handler);
  void implementationIs(std::unique_ptr<Base> implementation);
  Sable::Platform::DebugHandler& debugHandler() const noexcept { return *debugHandler_; }

  template <class Format>
  void trace(unsigned level, Format&& format,
             const Vex::TracePlace& where = Vex::TracePlace::current()) const {
    debugHandler_->trace(level, std::forward<Format>(format), where);
  }

 private:
  void attach() override;
  void detach() override { unmount(); }
  // Const, since what is mounted is no part of a handle's value: a lookup that meets damage ends
  // here.
  void unmount() const;

  bool isShadow() const noexcept {
    return mode_ == QuillType::shadow || mode_ == QuillType::keyshadow;
  }
  // What answers. Raises before the first init().
  Base& held() const;
  // The same, with a trace that names the operation.
  Base& traced(const char* operation) const;
  std::unique_ptr<QuillBaseDummy<KEY, VALUE>> newDummy() const;
  std::unique_ptr<Base> newReader();
  void requireSameInit(QuillType mode, bool isLocal, unsigned size) const;
  void mountFirst(unsigned size);
  // Ends a failed attach(): `fallback` answers again.
  void putBack(std::unique_ptr<Base> fallback, bool retry);
  // Destroys `old` when nothing of it can be on the stack any more.
  void retire(std::unique_ptr<Base> old);

  std::string fullName_;
  NOTIFY* notifier_ = nullptr;
  std::unique_ptr<Sable::Platform::DebugHandler> debugHandler_;
  std::string shortName_;
  mutable std::unique_ptr<Base> implementation_;
  std::unique_ptr<Retired<Base>> retired_;
  bool initialized_ = false;
  std::unique_ptr<MounterBase> mounter_;
  ReaderMounter* readerMounter_ = nullptr;  // mounter_, if it is one
  QuillType mode_ = QuillType::writer;
  bool isLocal_ = true;
  mutable bool notifying_ = true;
  mutable double yieldTime_ = 0.05;
  mutable unsigned sample_ = 8;
  VALUE removeScratch_{};
  const VALUE defaultValue_{};
};

}  // namespace Quill

#include "quill/QuillMap-inl.h"
#include "quill/QuillMapMount-inl.h"
