// SPDX-License-Identifier: Apache-2.0
//
// The untyped half of Vex::HashMap: an intrusive hash map of counted members. Code of the system
// uses HashMap.h; this half exists so that growth and iteration are compiled once. Finding a place
// is the typed half's business, since a probe needs a dozen lookups and a virtual call for each
// comparison would be most of their cost. Activity thread only.
//
// With 2^k buckets a key belongs to bucket bitReverse(hash) >> (32 - k), bucket 0 for k = 0. A
// chain is sorted by the bit-reversed hash and, among equals, by key.
//
// Invariants:
//  1. Walking the buckets in order and each chain to its end visits all members in the order of
//     (bit-reversed hash, key), whatever k is. So growth cuts each chain in two and reorders
//     nothing, and an iteration that lost its place finds it again by key.
//  2. The map holds one counted reference to each member.
//  3. A member that is in no map has a null next pointer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Vex {

// Reverses the order of the 32 bits.
constexpr std::uint32_t bitReverse(std::uint32_t v) noexcept {
  v = ((v >> 1) & 0x55555555U) | ((v & 0x55555555U) << 1);
  v = ((v >> 2) & 0x33333333U) | ((v & 0x33333333U) << 2);
  v = ((v >> 4) & 0x0F0F0F0FU) | ((v & 0x0F0F0F0FU) << 4);
  v = ((v >> 8) & 0x00FF00FFU) | ((v & 0x00FF00FFU) << 8);
  return (v >> 16) | (v << 16);
}

// What a class adds to be a member of a HashMap: the next pointer. One map at a time.
class HashMapLink {
 public:
  HashMapLink() noexcept = default;
  HashMapLink(const HashMapLink&) = delete;
  HashMapLink& operator=(const HashMapLink&) = delete;
  HashMapLink* fwkHmNext() const noexcept { return next_; }

 protected:
  ~HashMapLink() = default;

 private:
  friend class HashMapGeneric;
  HashMapLink* next_ = nullptr;
};

// What the untyped half has to know of the members. Keys are passed by address.
class HashMapVTable {
 public:
  virtual std::uint32_t hash(const HashMapLink& member) const = 0;
  virtual bool keyEquals(const HashMapLink& member, const void* key) const = 0;
  virtual bool keyLessThan(const HashMapLink& member, const void* key) const = 0;
  virtual const void* key(const HashMapLink& member) const = 0;

 protected:
  ~HashMapVTable() = default;
};

class HashMapGeneric {
 public:
  HashMapGeneric(const HashMapGeneric&) = delete;
  HashMapGeneric& operator=(const HashMapGeneric&) = delete;

  std::uint32_t members() const noexcept { return members_; }
  bool empty() const noexcept { return members_ == 0; }
  std::uint32_t buckets() const noexcept { return std::uint32_t{1} << log2Buckets_; }
  // Counts every insertion and removal.
  std::uint32_t version() const noexcept { return version_; }

 protected:
  HashMapGeneric() noexcept = default;
  ~HashMapGeneric() = default;

  // The bucket of a bit-reversed hash, and the way along its chain: each is the place of a member,
  // null at the end.
  HashMapLink** bucketG(std::uint32_t reversed) noexcept { return &table()[bucketOf(reversed)]; }
  HashMapLink* const* bucketG(std::uint32_t reversed) const noexcept {
    return &table()[bucketOf(reversed)];
  }
  static HashMapLink** nextG(HashMapLink& member) noexcept { return &member.next_; }

  // Puts the member where it belongs in the order. REQUIRES: no member with its key; `member` is in
  // no map (asserted). Grows the map if needed.
  void insertG(const HashMapVTable& v, HashMapLink** place, HashMapLink& member);
  // Unlinks and returns the member that stands at this place. REQUIRES: there is one.
  HashMapLink* deleteMemberG(HashMapLink** place) noexcept;
  HashMapLink* firstG() const noexcept { return findNextBucketG(0); }
  // The member after `member`, which is in the map.
  HashMapLink* successorG(const HashMapVTable& v, const HashMapLink& member) const noexcept;
  // The first member behind a place that may be empty by now.
  HashMapLink* findNextG(const HashMapVTable& v, std::uint32_t hash,
                         const void* key) const noexcept;
  // Unlinks all members as one chain in map order and returns its head.
  HashMapLink* emptyAllBucketsG() noexcept;
  // Steps through such a chain, clearing the link behind it.
  static HashMapLink* detachG(HashMapLink& member) noexcept;

 private:
  HashMapLink* const* table() const noexcept { return buckets_ ? buckets_.get() : &single_; }
  HashMapLink** table() noexcept { return buckets_ ? buckets_.get() : &single_; }
  std::uint32_t bucketOf(std::uint32_t reversed) const noexcept {
    return log2Buckets_ == 0 ? 0 : reversed >> (32U - log2Buckets_);
  }
  // The place where a member with this hash and key stands or would stand.
  HashMapLink* const* placeG(const HashMapVTable& v, std::uint32_t hash,
                             const void* key) const noexcept;
  HashMapLink* findNextBucketG(std::uint32_t bucket) const noexcept;
  void maybeGrowG(const HashMapVTable& v);

  // A map of one bucket owns no memory.
  HashMapLink* single_ = nullptr;
  std::unique_ptr<HashMapLink*[]> buckets_;
  std::uint32_t members_ = 0;
  std::uint32_t version_ = 0;
  std::uint8_t log2Buckets_ = 0;
};

}  // namespace Vex
