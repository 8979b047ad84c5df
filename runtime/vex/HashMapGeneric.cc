// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/HashMapGeneric.h"

#include <utility>

#include "runtime/vex/Exception.h"

namespace Vex {

namespace {
// Beyond this the table stops growing and chains lengthen.
constexpr std::uint8_t kMaxLog2Buckets = 28;
}  // namespace

HashMapLink* const* HashMapGeneric::placeG(const HashMapVTable& v, std::uint32_t hash,
                                           const void* key) const noexcept {
  const std::uint32_t reversed = bitReverse(hash);
  HashMapLink* const* at = bucketG(reversed);
  for (; *at != nullptr; at = &(*at)->next_) {
    const std::uint32_t other = bitReverse(v.hash(**at));
    if (other > reversed || (other == reversed && !v.keyLessThan(**at, key))) break;
  }
  return at;
}

void HashMapGeneric::insertG(const HashMapVTable& v, HashMapLink** place, HashMapLink& member) {
  const HashMapLink* t = &member;
  VEX_ASSERT_TEXT(t->fwkHmNext() == nullptr, "t->fwkHmNext() == 0");
  member.next_ = *place;
  *place = &member;
  ++members_;
  ++version_;
  maybeGrowG(v);
}

HashMapLink* HashMapGeneric::deleteMemberG(HashMapLink** place) noexcept {
  HashMapLink* member = *place;
  *place = std::exchange(member->next_, nullptr);
  --members_;
  ++version_;
  return member;
}

HashMapLink* HashMapGeneric::successorG(const HashMapVTable& v,
                                        const HashMapLink& member) const noexcept {
  if (member.next_ != nullptr) return member.next_;
  return findNextBucketG(bucketOf(bitReverse(v.hash(member))) + 1);
}

HashMapLink* HashMapGeneric::findNextG(const HashMapVTable& v, std::uint32_t hash,
                                       const void* key) const noexcept {
  HashMapLink* at = *placeG(v, hash, key);
  if (at != nullptr && v.keyEquals(*at, key)) at = at->next_;
  return at != nullptr ? at : findNextBucketG(bucketOf(bitReverse(hash)) + 1);
}

HashMapLink* HashMapGeneric::findNextBucketG(std::uint32_t bucket) const noexcept {
  if (members_ == 0) return nullptr;
  for (; bucket < buckets(); ++bucket) {
    if (HashMapLink* first = table()[bucket]; first != nullptr) return first;
  }
  return nullptr;
}

HashMapLink* HashMapGeneric::emptyAllBucketsG() noexcept {
  HashMapLink* head = nullptr;
  HashMapLink** tail = &head;
  for (std::uint32_t b = 0; b < buckets(); ++b) {
    *tail = std::exchange(table()[b], nullptr);
    while (*tail != nullptr) tail = &(*tail)->next_;
  }
  members_ = 0;
  ++version_;
  return head;
}

HashMapLink* HashMapGeneric::detachG(HashMapLink& member) noexcept {
  return std::exchange(member.next_, nullptr);
}

void HashMapGeneric::maybeGrowG(const HashMapVTable& v) {
  if (members_ <= buckets() || log2Buckets_ >= kMaxLog2Buckets) return;
  const std::uint32_t before = buckets();
  const auto log2 = static_cast<std::uint8_t>(log2Buckets_ + 1);
  auto grown = std::make_unique<HashMapLink*[]>(std::size_t{1} << log2);
  for (std::uint32_t b = 0; b < before; ++b) {
    // The bit that now joins the bucket number is the highest not yet used of the reversed hash, by
    // which the chain is sorted: the chain's head goes to bucket 2b and its rest to 2b + 1.
    HashMapLink* chain = table()[b];
    grown[2 * std::size_t{b}] = chain;
    HashMapLink** at = &grown[2 * std::size_t{b}];
    while (*at != nullptr && (bitReverse(v.hash(**at)) >> (32U - log2)) == 2 * b) {
      at = &(*at)->next_;
    }
    grown[2 * std::size_t{b} + 1] = std::exchange(*at, nullptr);
  }
  buckets_ = std::move(grown);
  single_ = nullptr;
  log2Buckets_ = log2;
}

}  // namespace Vex
