// SPDX-License-Identifier: Apache-2.0
//
// Vex::ListRaw<T>: the list of notifiees of an entity, and Vex::SnapshotIterator<T>, a walk over
// the list as it stood when the walk began. Activity thread only.
//
// The list holds plain pointers: a notifiee owns a reference to its notifier and not the other way
// round. It is an array behind a counted block. A walk takes a count on the block instead of
// copying it, so a change that nobody interferes with allocates nothing. A change of the list while
// a walk holds the block moves the list to a new block and leaves the old one to the walk.
//
// T keeps the position at which it stands: `void vexListPositionIs(std::uint32_t) noexcept`,
// `std::uint32_t vexListPosition() const noexcept`, and is a counted object.
//
// Invariants:
//  1. A walk sees exactly the members of its beginning, in order, also those that leave meanwhile:
//     from the first change on, the old block holds a counted reference to each of them.
//  2. Removal costs O(1), amortised: it leaves a hole, and holes are closed once they are the half.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace Vex {

template <class T>
class SnapshotIterator;

template <class T>
class ListRaw {
 public:
  ListRaw() noexcept = default;
  ListRaw(const ListRaw&) = delete;
  ListRaw& operator=(const ListRaw&) = delete;
  ~ListRaw() {
    if (block_ != nullptr) block_->drop();
  }

  std::uint32_t count() const noexcept { return count_; }
  // Counts every change of the list.
  std::uint32_t version() const noexcept { return version_; }

  // REQUIRES: `member` is not in the list.
  void tailIs(T& member) {
    own();
    member.vexListPositionIs(static_cast<std::uint32_t>(block_->slot.size()));
    block_->slot.push_back(&member);
    ++count_;
    ++version_;
  }

  // REQUIRES: `member` is not in the list.
  void headIs(T& member) {
    own();
    block_->slot.insert(block_->slot.begin(), &member);
    renumber();
    ++count_;
    ++version_;
  }

  // REQUIRES: `member` is in the list.
  void memberDel(T& member) {
    own();
    block_->slot[member.vexListPosition()] = nullptr;
    --count_;
    ++version_;
    const auto holes = block_->slot.size() - count_;
    if (holes > 8 && holes > count_) {
      std::erase(block_->slot, nullptr);
      renumber();
    }
  }

 private:
  friend class SnapshotIterator<T>;

  struct Block {
    std::vector<T*> slot;     // null: a hole
    std::uint32_t users = 1;  // the list, while this is its block, and each walk
    bool pinned = false;      // holds a counted reference to each member

    void drop() noexcept {
      if (--users != 0) return;
      if (pinned) {
        for (T* member : slot) {
          if (member != nullptr) member->vexUnref();
        }
      }
      delete this;
    }
  };

  // Makes block_ exist and belong to the list alone.
  void own() {
    if (block_ == nullptr) {
      block_ = new Block;
    } else if (block_->users > 1) {
      auto fresh = std::make_unique<Block>();
      fresh->slot.reserve(count_ + 1U);
      for (T* member : block_->slot) {
        if (member != nullptr) fresh->slot.push_back(member);
      }
      for (T* member : fresh->slot) member->vexRef();
      block_->pinned = true;
      block_->drop();
      block_ = fresh.release();
      renumber();
    }
  }

  void renumber() noexcept {
    for (std::uint32_t i = 0; i < block_->slot.size(); ++i) {
      if (block_->slot[i] != nullptr) block_->slot[i]->vexListPositionIs(i);
    }
  }

  Block* block_ = nullptr;
  std::uint32_t count_ = 0;
  std::uint32_t version_ = 0;
};

// One walk. Copying is not allowed, moving is: a walk may be suspended and finished later.
template <class T>
class SnapshotIterator {
 public:
  explicit SnapshotIterator(const ListRaw<T>& list) noexcept : block_(list.block_) {
    if (block_ != nullptr) ++block_->users;
  }
  SnapshotIterator(SnapshotIterator&& other) noexcept : block_(other.block_), next_(other.next_) {
    other.block_ = nullptr;
  }
  SnapshotIterator& operator=(SnapshotIterator&& other) noexcept {
    std::swap(block_, other.block_);
    std::swap(next_, other.next_);
    return *this;
  }
  ~SnapshotIterator() {
    if (block_ != nullptr) block_->drop();
  }

  // The next member, or null at the end.
  T* next() noexcept {
    if (block_ == nullptr) return nullptr;
    while (next_ < block_->slot.size()) {
      if (T* member = block_->slot[next_++]; member != nullptr) return member;
    }
    return nullptr;
  }

 private:
  typename ListRaw<T>::Block* block_;
  std::uint32_t next_ = 0;
};

}  // namespace Vex
