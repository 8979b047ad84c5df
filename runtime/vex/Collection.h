// SPDX-License-Identifier: Apache-2.0
//
// Vex::ValueCollection<Key, Value>: the storage of an entity's collection of plain values, a
// HashMap whose members hold one key and one value. The entity owns it and does the notifying.
// Activity thread only.
#pragma once

#include <utility>

#include "runtime/vex/HashMap.h"
#include "runtime/vex/PtrInterface.h"

namespace Vex {

template <class Key, class Value>
class ValueMember final : public VFPtrInterface, public HashMapLink {
 public:
  ValueMember(const Key& key, Value value) : key_(key), value_(std::move(value)) {}
  const Key& fwkKey() const noexcept { return key_; }
  const Value& value() const noexcept { return value_; }
  void valueIs(const Value& value) { value_ = value; }

 private:
  const Key key_;
  Value value_;
};

template <class Key, class Value>
class ValueCollection {
 public:
  using Member = ValueMember<Key, Value>;
  using Map = HashMap<Member, Key>;
  using IteratorConst = typename Map::IteratorConst;

  // The value under `key`, null for none; good until the collection changes.
  const Value* find(const Key& key) const noexcept {
    const Member* member = map_.member(key);
    return member != nullptr ? &member->value() : nullptr;
  }
  // The value under `key`, the type's default for none.
  Value valueOr(const Key& key) const {
    const Value* value = find(key);
    return value != nullptr ? *value : Value();
  }
  // The member under `key`, null for none; good until the collection changes.
  const Member* member(const Key& key) const noexcept { return map_.member(key); }
  // The member behind `key` in the order of iteration, whether `key` is there or not; the first one
  // for null; null at the end.
  const Member* memberAfter(const Key* key) const noexcept { return map_.memberAfter(key); }
  std::uint32_t members() const noexcept { return map_.members(); }
  bool empty() const noexcept { return map_.empty(); }

  // Updates or inserts; false if the value was there already.
  bool valueIs(const Key& key, const Value& value) {
    if (Member* member = map_.member(key); member != nullptr) {
      if (member->value() == value) return false;
      member->valueIs(value);
      return true;
    }
    map_.memberIs(makePtr<Member>(key, value));
    return true;
  }
  // False if there was none.
  bool valueDel(const Key& key) noexcept { return static_cast<bool>(map_.memberDel(key)); }

  IteratorConst iteratorConst() const noexcept { return map_.iteratorConst(); }

 private:
  Map map_;
};

}  // namespace Vex
