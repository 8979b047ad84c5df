// SPDX-License-Identifier: Apache-2.0
//
// Vex::LinkQueue<Value>: a queue whose members have an index that only grows. The storage of an
// entity's queue; the entity owns it and does the notifying. Activity thread only.
//
// Members stand in the order of their indexes. Beside the chain there are two hash maps, by index
// and by value, so that a member is found and taken out wherever it stands without walking the
// queue, and the members of one value are found without looking at others. A queue that never gets
// longer than kUnindexed, as one that is served at once, does without them: walking so few members
// costs less than keeping the maps.
//
// Value has ==, < and hash().
//
// Indexes are 32 bits wide and go round: a queue that takes a thousand members a second passes the
// end in fifty days. "Larger" therefore means later in serial-number arithmetic (RFC 1982).
//
// Invariants:
//  1. An append takes an index larger than every index that the queue has had so far.
//  2. headIndex is the index of the oldest member; in an empty queue it equals nextIndex.
//  3. nextIndex may lag behind the tail's index plus 1 after an append; a removal brings it up.
//  4. The chain holds a counted reference to each member. The maps hold all members (indexed_) or
//     none.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

#include "runtime/vex/HashMap.h"
#include "runtime/vex/PtrInterface.h"

namespace Vex {

// The published position of a queue.
struct LinkQueueMetadata {
  std::uint32_t headIndex = 0;  // the oldest member
  std::uint32_t nextIndex = 0;  // the next append takes this, or the tail's index plus 1 if larger
  bool operator==(const LinkQueueMetadata&) const = default;
};

template <class Value>
class LinkQueue {
 public:
  class Member final : public VFPtrInterface, public HashMapLink {
   public:
    Member(std::uint32_t index, Value value) : vexIndex_(index), value_(std::move(value)) {}
    std::uint32_t vex_index() const noexcept { return vexIndex_; }
    const Value& value() const noexcept { return value_; }
    const std::uint32_t& fwkKey() const noexcept { return vexIndex_; }

   private:
    friend class LinkQueue;
    const std::uint32_t vexIndex_;
    Value value_;
    Member* previous_ = nullptr;
    Member* next_ = nullptr;
    Member* previousOfValue_ = nullptr;
    Member* nextOfValue_ = nullptr;
  };

  // Members up to which a queue that has been empty does without the maps.
  static constexpr std::uint32_t kUnindexed = 16;

  LinkQueue() noexcept = default;
  ~LinkQueue() {
    while (head_ != nullptr) take(*head_);
  }
  LinkQueue(const LinkQueue&) = delete;
  LinkQueue& operator=(const LinkQueue&) = delete;

  bool empty() const noexcept { return head_ == nullptr; }
  std::uint32_t members() const noexcept { return members_; }
  std::uint64_t dequeues() const noexcept { return dequeues_; }
  const LinkQueueMetadata& metadata() const noexcept { return metadata_; }
  std::uint32_t headIndex() const noexcept { return metadata_.headIndex; }
  std::uint32_t nextIndex() const noexcept { return metadata_.nextIndex; }
  void metadataIs(const LinkQueueMetadata& metadata) noexcept { metadata_ = metadata; }

  const Member* head() const noexcept { return head_; }
  const Member* tail() const noexcept { return tail_; }
  const Member* member(std::uint32_t index) const noexcept {
    if (indexed_) return byIndex_.member(index);
    const Member* at = head_;
    while (at != nullptr && at->vexIndex_ != index) at = at->next_;
    return at;
  }
  // The first member behind `index` in queue order, null for none and for an index that does not
  // stand before the tail's. O(1) while a member with this index exists, and for an index outside
  // of the queue: a walk whose place was served meanwhile goes on at the head. Only an index whose
  // member was taken out from between others costs the members before it.
  const Member* memberAfter(std::uint32_t index) const noexcept {
    if (const Member* at = member(index); at != nullptr) return at->next_;
    if (tail_ == nullptr || !isBefore(index, tail_->vexIndex_)) return nullptr;
    const Member* at = head_;
    while (at != nullptr && !larger(at->vexIndex_, index)) at = at->next_;
    return at;
  }

  // Whether index `a` stands before `b` in the order of the queue; neither need be in it.
  static bool isBefore(std::uint32_t a, std::uint32_t b) noexcept { return larger(b, a); }

  // The first member of this value; with `after`, the first one with a larger index. Costs the
  // number of members of the value.
  const Member* memberOf(const Value& value,
                         std::optional<std::uint32_t> after = std::nullopt) const noexcept {
    if (!indexed_) {
      const Member* at = head_;
      while (at != nullptr && !(at->value_ == value && (!after || larger(at->vexIndex_, *after)))) {
        at = at->next_;
      }
      return at;
    }
    const Chain* chain = byValue_.member(value);
    const Member* at = chain != nullptr ? chain->head : nullptr;
    while (at != nullptr && after && !larger(at->vexIndex_, *after)) at = at->nextOfValue_;
    return at;
  }

  // Appends and returns the new index: the larger of nextIndex and the tail's index plus 1.
  std::uint32_t enq(const Value& value) {
    std::uint32_t index = following();
    // Indexes given to doMemberIs() may lie so far apart that "larger" says nothing any more.
    while (member(index) != nullptr) ++index;
    insertBefore(nullptr, index, value);
    if (head_ == tail_) metadata_.headIndex = index;
    metadata_.nextIndex = index;
    return index;
  }

  // As enq(); the generic append, which refuses to run into the head: the range exception
  // "linkqueue index space full".
  std::uint32_t memberNew(const Value& value) {
    if (metadata_.nextIndex + 1 == metadata_.headIndex) {
      throwRangeException("linkqueue index space full");
    }
    return enq(value);
  }

  // Takes the head out. Null for an empty queue.
  Ptr<Member> deq() noexcept {
    if (head_ == nullptr) return nullptr;
    ++dequeues_;
    return take(*head_);
  }

  // Inserts a member under a given index, or gives the existing one another value; false if it has
  // this value already. The index need not be the largest.
  bool doMemberIs(std::uint32_t index, const Value& value) {
    if (Member* at = mutableMember(index); at != nullptr) {
      if (at->value_ == value) return false;
      if (indexed_) unchain(*at);
      at->value_ = value;
      if (indexed_) chain(*at);
      return true;
    }
    Member* at = tail_ != nullptr && larger(tail_->vexIndex_, index) ? head_ : nullptr;
    while (at != nullptr && larger(index, at->vexIndex_)) at = at->next_;
    insertBefore(at, index, value);
    metadata_.headIndex = head_->vexIndex_;
    return true;
  }

  // Takes the member with this index out; null for none.
  Ptr<Member> memberDel(std::uint32_t index) noexcept {
    Member* at = mutableMember(index);
    return at != nullptr ? take(*at) : Ptr<Member>();
  }

 private:
  // The members of one value, oldest first.
  struct Chain final : VFPtrInterface, HashMapLink {
    explicit Chain(const Value& v) : value(v) {}
    const Value& fwkKey() const noexcept { return value; }
    const Value value;
    Member* head = nullptr;
    Member* tail = nullptr;
  };

  static bool larger(std::uint32_t a, std::uint32_t b) noexcept {
    return static_cast<std::int32_t>(a - b) > 0;
  }
  // The larger of nextIndex and the tail's index plus 1.
  std::uint32_t following() const noexcept {
    if (tail_ == nullptr) return metadata_.nextIndex;
    const std::uint32_t behindTail = tail_->vexIndex_ + 1;
    return larger(behindTail, metadata_.nextIndex) ? behindTail : metadata_.nextIndex;
  }

  Member* mutableMember(std::uint32_t index) noexcept {
    return const_cast<Member*>(std::as_const(*this).member(index));
  }

  void insertBefore(Member* next, std::uint32_t index, const Value& value) {
    Member& member = *makePtr<Member>(index, value).release();
    member.next_ = next;
    member.previous_ = next != nullptr ? next->previous_ : tail_;
    (member.previous_ != nullptr ? member.previous_->next_ : head_) = &member;
    (next != nullptr ? next->previous_ : tail_) = &member;
    ++members_;
    if (indexed_) {
      mapIs(member);
    } else if (members_ > kUnindexed) {
      indexed_ = true;
      for (Member* at = head_; at != nullptr; at = at->next_) mapIs(*at);
    }
  }

  void mapIs(Member& member) {
    byIndex_.memberIs(Ptr<Member>(&member));
    chain(member);
  }

  void chain(Member& member) {
    Chain* chain = byValue_.member(member.value_);
    if (chain == nullptr) chain = &byValue_.memberIs(makePtr<Chain>(member.value_));
    Member* before = chain->tail;
    while (before != nullptr && larger(before->vexIndex_, member.vexIndex_)) {
      before = before->previousOfValue_;
    }
    Member* after = before != nullptr ? before->nextOfValue_ : chain->head;
    member.previousOfValue_ = before;
    member.nextOfValue_ = after;
    (before != nullptr ? before->nextOfValue_ : chain->head) = &member;
    (after != nullptr ? after->previousOfValue_ : chain->tail) = &member;
  }

  void unchain(Member& member) noexcept {
    Chain* chain = byValue_.member(member.value_);
    Member* before = std::exchange(member.previousOfValue_, nullptr);
    Member* after = std::exchange(member.nextOfValue_, nullptr);
    (before != nullptr ? before->nextOfValue_ : chain->head) = after;
    (after != nullptr ? after->previousOfValue_ : chain->tail) = before;
    if (chain->head == nullptr) byValue_.memberDel(member.value_);
  }

  // Brings the next index up to the tail's plus 1 where it lags, takes `member` out and moves the
  // head index.
  Ptr<Member> take(Member& member) noexcept {
    metadata_.nextIndex = following();
    if (indexed_) {
      unchain(member);
      byIndex_.memberDel(member.vexIndex_);
      indexed_ = members_ > 1;
    }
    --members_;
    Member* before = std::exchange(member.previous_, nullptr);
    Member* after = std::exchange(member.next_, nullptr);
    (before != nullptr ? before->next_ : head_) = after;
    (after != nullptr ? after->previous_ : tail_) = before;
    metadata_.headIndex = head_ != nullptr ? head_->vexIndex_ : metadata_.nextIndex;
    return Ptr<Member>::adopt(&member);
  }

  HashMap<Member, std::uint32_t> byIndex_;
  HashMap<Chain, Value> byValue_;
  Member* head_ = nullptr;
  Member* tail_ = nullptr;
  std::uint32_t members_ = 0;
  bool indexed_ = false;
  LinkQueueMetadata metadata_;
  std::uint64_t dequeues_ = 0;
};

}  // namespace Vex
