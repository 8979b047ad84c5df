// SPDX-License-Identifier: Apache-2.0
//
// Quill::QuillBase: what stands behind a handle on a table, one class for each way to hold one: the
// writer, a reader straight on the files, a shadow, or nobody yet. With it the small types that all
// of them share.
//
// An object belongs to one thread, with everything it gives out. A reference or address that an
// operation returns is valid until the next operation on the same object.
//
// Requirements on a table's types, checked here:
//  - KEY: trivially copyable, default-constructible to "none", with hash() of 32 bits, <, == and
//  <<.
//    The hash and the order must be the same in every process.
//  - VALUE: trivially copyable, aligned to at most 8 bytes, begins with its KEY, has == and <<. A
//    default-constructed one has a default key and zeros. Padding bytes go into the file as they
//    are, so give a VALUE none.
#pragma once

#include <concepts>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <ostream>
#include <string>
#include <type_traits>

#include "quill/Counters.h"
#include "quill/Exceptions.h"
#include "runtime/sable/Platform.h"

namespace Quill {

// No slot, everywhere in the store.
inline constexpr std::uint32_t kNoSlot = 0xFFFFFFFFU;

template <class KEY>
concept TableKey = std::is_trivially_copyable_v<KEY> && std::default_initializable<KEY> &&
    requires(const KEY& a, const KEY& b, std::ostream& os) {
  { a.hash() } -> std::convertible_to<std::uint32_t>;
  { a < b } -> std::convertible_to<bool>;
  { a == b } -> std::convertible_to<bool>;
  os << a;
};

template <class VALUE, class KEY>
concept TableValue = TableKey<KEY> && std::is_trivially_copyable_v<VALUE> &&
                         std::default_initializable<VALUE> && sizeof(VALUE) >= sizeof(KEY) &&
                     alignof(VALUE) <= 8 && requires(const VALUE& a, const VALUE& b) {
  { a == b } -> std::convertible_to<bool>;
};

// The key that a value begins with.
template <class KEY, class VALUE>
KEY keyOf(const VALUE& value) noexcept {
  KEY key;
  std::memcpy(static_cast<void*>(&key), static_cast<const void*>(&value), sizeof key);
  return key;
}

// The mode of a handle.
enum class QuillType : std::uint32_t { writer = 0, shadow = 1, reader = 2, keyshadow = 3 };

// Prints the mode's word; any other number as "writer".
std::ostream& operator<<(std::ostream& out, QuillType type);

// Where an iteration stands. A stale hint costs a walk and does no harm.
struct IterHint {
  std::uint32_t slot = kNoSlot;
  std::uint32_t bucket = kNoSlot;

  friend constexpr bool operator==(const IterHint&, const IterHint&) noexcept = default;
};

// Prints "IterHint{ slot <slot>, bucket <bucket> }".
std::ostream& operator<<(std::ostream& out, const IterHint& hint);

// Where the open directWrite() of a writer is to be filled in.
struct DirectTarget {
  // The value in shared memory, its key set and the rest zero. Other processes may be reading these
  // bytes and throwing away what they read: write them with Mem::Atomics::copyIn().
  void* address = nullptr;
  std::uint32_t slot = kNoSlot;
};

// The implementation of Sable::NoPermissionException for the operations of a writer.
[[noreturn]] void throwReadOnly(const char* operation);
[[noreturn]] void throwUnimplemented(const char* operation);

template <class KEY, class VALUE>
class QuillBase : protected Sable::Debuggable {
  static_assert(TableValue<VALUE, KEY>);

 public:
  QuillBase(const QuillBase&) = delete;
  QuillBase& operator=(const QuillBase&) = delete;
  virtual ~QuillBase() = default;

  // Attaches. False for what is ordinary (no files yet); see each class for what it raises.
  virtual bool initialize() = 0;
  virtual void detach() = 0;
  // Follows a growth of the table; true if there was one.
  virtual bool resize() const { return false; }
  // The writer's own: check the whole structure, check the files, remove them. Raise
  // Sable::NoPermissionException for everybody else, as the changes below do.
  virtual bool validate() { throwReadOnly("validate"); }
  virtual bool validateFiles() { throwReadOnly("validateFiles"); }
  virtual void cleanup() { throwReadOnly("cleanup"); }
  // Answers the address of the stored value; with `overwrite` false an existing entry stays as it
  // is.
  virtual const VALUE* write(const VALUE&, bool /*overwrite*/) { throwReadOnly("write"); }
  // False if the key is not there; else `old` is what was.
  virtual bool remove(const KEY&, VALUE& /*old*/) { throwReadOnly("remove"); }
  // The value and `found` true, or a default value and `found` false.
  virtual const VALUE& lookup(const KEY& key, bool& found) const = 0;
  // The first entry, and the entry after `key`, in the order of buckets and then of keys.
  virtual bool first(VALUE& value, IterHint& hint) const = 0;
  virtual bool next(const KEY& key, VALUE& value, IterHint& hint) const = 0;
  // Entries now; the size that the table was made for; entries that fit without growth.
  virtual unsigned members() const = 0;
  virtual unsigned maxSize() const = 0;
  virtual unsigned capacity() const = 0;
  virtual QuillType type() const = 0;
  virtual DirectTarget directWrite(const KEY&) { throwReadOnly("write"); }
  virtual void directCommit() { throwReadOnly("write"); }
  // Past any local copy.
  virtual const VALUE& directLookup(const KEY& key, bool& found) const {
    return lookup(key, found);
  }
  virtual Writer::Counters writerCounters() const { throwUnimplemented("writerCounters()"); }
  virtual Reader::Counters readerCounters() const { throwUnimplemented("readerCounters()"); }
  virtual void notifying(bool) {}
  virtual void yieldTimeIs(const double& /*seconds*/) {}
  virtual void sampleIs(unsigned) {}
  // The newest change that this object knows of.
  virtual std::uint64_t sequence() const { return 0; }
  virtual std::string rootPath() const = 0;
  virtual std::string quillName() const = 0;
  // 0 not mounted, 1 mounted, 2 mounted and connected to the writer.
  virtual unsigned mountStatus() const = 0;
  // The generation, 0 if there is none.
  virtual unsigned fenixId() const { return 0; }

 protected:
  explicit QuillBase(Sable::Platform::DebugHandler& handler) : Debuggable(handler) {}

  bool initialized_ = false;
  VALUE emptyValue_{};  // what lookup() refers to on a miss
};

}  // namespace Quill
