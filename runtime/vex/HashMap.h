// SPDX-License-Identifier: Apache-2.0
//
// Vex::HashMap<Value, Key>: a hash map of counted members that carry their own key and link, and
// its iterators. Activity thread only.
//
// Value derives from Vex::VFPtrInterface and Vex::HashMapLink and has `fwkKey()`, which returns its
// Key (by value or const reference) and never changes. A Key has operator==, operator<, and a hash:
// fwkHash(key) below, by default key.hash().
//
// The map holds a counted reference to each member. Iteration goes in the order of the bit-reversed
// hash, then of the key, independent of the history of the map. An iterator holds a counted
// reference to its current member; any change of the map during an iteration is safe, deleting the
// current member included: the iteration goes on with the member that follows it in that order. An
// iterator must not outlive its map.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>

#include "runtime/vex/HashMapGeneric.h"
#include "runtime/vex/Ptr.h"

namespace Vex {

template <class Key>
std::uint32_t fwkHash(const Key& key) noexcept {
  if constexpr (std::is_integral_v<Key>) {
    static_assert(sizeof(Key) <= 4);
    return static_cast<std::uint32_t>(key);
  } else {
    return key.hash();
  }
}

template <class Value, class Key>
class HashMap : private HashMapGeneric {
 public:
  HashMap() noexcept = default;
  ~HashMap() { memberDelAll(); }

  using HashMapGeneric::buckets;
  using HashMapGeneric::empty;
  using HashMapGeneric::members;
  using HashMapGeneric::version;

  // The member under `key`, null for none. The pointer is good until the map changes.
  Value* member(const Key& key) const noexcept {
    HashMapLink* at = *bucketG(bitReverse(fwkHash(key)));
    while (at != nullptr && !(cast(at)->fwkKey() == key)) at = at->fwkHmNext();
    return cast(at);
  }
  bool has(const Key& key) const noexcept { return member(key) != nullptr; }

  // The member behind `key` in the order of iteration, whether `key` is there or not; the first one
  // for null; null at the end. The pointer is good until the map changes.
  Value* memberAfter(const Key* key) const noexcept {
    return cast(key != nullptr ? findNextG(vtable(), fwkHash(*key), key) : firstG());
  }

  // Whether `a` stands before `b` in the order of iteration; neither need be in the map.
  static bool isBefore(const Key& a, const Key& b) noexcept {
    const std::uint32_t reversedA = bitReverse(fwkHash(a));
    const std::uint32_t reversedB = bitReverse(fwkHash(b));
    return reversedA != reversedB ? reversedA < reversedB : a < b;
  }

  // Adds a member under its own key. REQUIRES: the key is free, and the member is in no map
  // (asserted where it shows).
  Value& memberIs(Ptr<Value> value) {
    Value* member = value.release();
    insertG(vtable(), place(member->fwkKey()), *member);
    return *member;
  }

  // Takes the member under `key` out of the map; null if there is none.
  Ptr<Value> memberDel(const Key& key) noexcept {
    HashMapLink** at = bucketG(bitReverse(fwkHash(key)));
    while (*at != nullptr && !(cast(*at)->fwkKey() == key)) at = nextG(**at);
    return *at != nullptr ? Ptr<Value>::adopt(cast(deleteMemberG(at))) : nullptr;
  }

  // Takes all members out, then lets them go in map order.
  void memberDelAll() noexcept {
    for (HashMapLink* link = emptyAllBucketsG(); link != nullptr;) {
      const auto member = Ptr<Value>::adopt(cast(link));
      link = detachG(*link);
    }
  }

  template <bool IsConst>
  class BasicIterator {
   public:
    using Member = std::conditional_t<IsConst, const Value, Value>;

    BasicIterator() noexcept = default;
    explicit BasicIterator(const HashMap& map) noexcept
        : map_(&map), current_(cast(map.firstG())), version_(map.version()) {}

    explicit operator bool() const noexcept { return static_cast<bool>(current_); }
    Member& operator*() const noexcept { return *current_; }
    Member* operator->() const noexcept { return current_.get(); }
    Ptr<Member> ptr() const noexcept { return current_; }
    decltype(auto) key() const noexcept { return current_->fwkKey(); }

    // REQUIRES: not at the end.
    BasicIterator& operator++() noexcept {
      if (version_ == map_->version()) {
        current_ = Ptr<Value>(cast(map_->successorG(vtable(), *current_)));
      } else {
        const Key key = current_->fwkKey();
        // Ahead of the step: letting the old member go may change the map once more.
        version_ = map_->version();
        current_ = Ptr<Value>(cast(map_->findNextG(vtable(), fwkHash(key), &key)));
      }
      return *this;
    }

   private:
    const HashMap* map_ = nullptr;
    Ptr<Value> current_;
    std::uint32_t version_ = 0;
  };
  using Iterator = BasicIterator<false>;
  using IteratorConst = BasicIterator<true>;

  Iterator iterator() noexcept { return Iterator(*this); }
  IteratorConst iteratorConst() const noexcept { return IteratorConst(*this); }

 private:
  struct Table final : HashMapVTable {
    std::uint32_t hash(const HashMapLink& m) const override {
      return fwkHash(static_cast<const Value&>(m).fwkKey());
    }
    bool keyEquals(const HashMapLink& m, const void* key) const override {
      return static_cast<const Value&>(m).fwkKey() == *static_cast<const Key*>(key);
    }
    bool keyLessThan(const HashMapLink& m, const void* key) const override {
      return static_cast<const Value&>(m).fwkKey() < *static_cast<const Key*>(key);
    }
    const void* key(const HashMapLink& m) const override {
      static_assert(std::is_same_v<decltype(std::declval<const Value&>().fwkKey()), const Key&>,
                    "fwkKey() returns a reference to the key that the member holds");
      return &static_cast<const Value&>(m).fwkKey();
    }
  };
  // Where in the map's order a member with this key belongs.
  HashMapLink** place(const Key& key) noexcept {
    const std::uint32_t reversed = bitReverse(fwkHash(key));
    HashMapLink** at = bucketG(reversed);
    for (; *at != nullptr; at = nextG(**at)) {
      const Key& other = cast(*at)->fwkKey();
      const std::uint32_t otherReversed = bitReverse(fwkHash(other));
      if (otherReversed > reversed || (otherReversed == reversed && !(other < key))) break;
    }
    return at;
  }
  static const HashMapVTable& vtable() noexcept {
    static constexpr Table table;
    return table;
  }
  static Value* cast(HashMapLink* link) noexcept { return static_cast<Value*>(link); }
};

}  // namespace Vex
