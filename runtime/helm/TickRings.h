// SPDX-License-Identifier: Apache-2.0
//
// Helm::TickRings: things to be done at whole ticks, kept in rings of slots, from slots one tick
// wide to slots of years. It knows ticks and nodes only; times and reactors are TimerWheel's
// business. Activity thread only.
//
// Nodes belong to their owners and are linked in place: nothing here allocates after construction.
// A slot's list starts at an anchor inside the fixed array of slots.
//
// Level 0 has `slots` slots of one tick; each ring above it has 64 slots, each as wide as the whole
// ring below. A node stands on the lowest level whose ring reaches from the position to its tick.
//
// Invariants:
//  1. A node's tick is not before the position.
//  2. Above level 0 the slot that holds the position is empty: it is spread over the levels below
//     when the position enters it.
//  3. Of nodes with one tick, those on a higher level were inserted before those on a lower one,
//  and
//     within a slot they stand in the order of their insertion. (For a fixed tick the level can
//     only fall as the position grows; slots are spread to the front of lists, lowest level first.)
#pragma once

#include <cstdint>
#include <vector>

namespace Helm {

struct TickLink {
  TickLink* tickPrev = nullptr;  // null: not linked
  TickLink* tickNext = nullptr;
};

class TickNode : private TickLink {
 public:
  TickNode() noexcept : tick_(0), level_(0), mark_(0) {}
  TickNode(const TickNode&) = delete;
  TickNode& operator=(const TickNode&) = delete;

  bool linked() const noexcept { return tickNext != nullptr; }
  // A bit for the owner, kept here because there is room.
  bool mark() const noexcept { return mark_ != 0; }
  void markIs(bool flag) noexcept { mark_ = flag ? 1 : 0; }

 protected:
  ~TickNode() = default;

 private:
  friend class TickRings;
  std::uint64_t tick_ : 58;
  std::uint64_t level_ : 5;
  std::uint64_t mark_ : 1;
};

class TickRings {
 public:
  static constexpr std::uint64_t kMaxTick = (std::uint64_t{1} << 58) - 1;
  static constexpr std::uint64_t kNoTick = ~std::uint64_t{0};

  // `slots` is rounded up to a power of two from 64 to 4096; it matters for speed alone.
  explicit TickRings(std::uint32_t slots);

  std::uint64_t position() const noexcept { return position_; }

  // REQUIRES: `node` is not linked and position() < tick <= kMaxTick.
  void insert(TickNode& node, std::uint64_t tick) noexcept;
  // REQUIRES: `node` is linked here.
  void remove(TickNode& node) noexcept;

  // The earliest tick of all nodes, kNoTick if there is none. Walks a slot above level 0 if that
  // slot may hold the earliest node and lost its earliest since the last walk.
  std::uint64_t earliest() noexcept;

  // Moves the position to the first tick up to `target` that has a node and says true; without one,
  // moves it to `target` (never back) and says false.
  bool advance(std::uint64_t target) noexcept;
  // Unlinks and returns the first node of the position's tick; null if there is none.
  TickNode* pop() noexcept;

 private:
  static constexpr unsigned kRingBits = 6;
  static constexpr std::uint64_t kRingSlots = std::uint64_t{1} << kRingBits;
  static constexpr unsigned kMaxLevels = 10;

  unsigned shiftOf(unsigned level) const noexcept {
    return level == 0 ? 0 : firstBits_ + (level - 1) * kRingBits;
  }
  std::uint64_t slotsOf(unsigned level) const noexcept {
    return level == 0 ? std::uint64_t{1} << firstBits_ : kRingSlots;
  }
  // Which anchor stands for a tick on a level.
  std::uint32_t anchorOf(unsigned level, std::uint64_t tick) const noexcept {
    const std::uint64_t slot = (tick >> shiftOf(level)) & (slotsOf(level) - 1);
    const std::uint64_t before =
        level == 0 ? 0 : (std::uint64_t{1} << firstBits_) + (level - 1) * kRingSlots;
    return static_cast<std::uint32_t>(before + slot);
  }
  unsigned levelFor(std::uint64_t tick) const noexcept;
  void place(TickNode& node, bool atFront) noexcept;
  void occupiedIs(unsigned level, std::uint64_t tick, bool flag) noexcept;
  // The first tick with nodes on level 0, and the start of the first occupied slot above it.
  std::uint64_t firstTick() const noexcept;
  std::uint64_t firstSlotStart(unsigned level) const noexcept;
  std::uint64_t earliestOfSlot(unsigned level, std::uint64_t start) noexcept;
  void spread(unsigned level) noexcept;

  unsigned firstBits_;
  unsigned levels_;
  std::uint64_t position_ = 0;
  std::vector<TickLink> anchors_;  // level by level; a list without nodes is its anchor alone
  // Occupied slots: a bit for each slot of a level above 0; for level 0, `words_` and a summary.
  std::uint64_t occupied_[kMaxLevels] = {};
  std::vector<std::uint64_t> words_;
  // The earliest tick of each slot above level 0; kNoTick: empty, kUnknown: to be found by a walk.
  static constexpr std::uint64_t kUnknown = kNoTick - 1;
  std::vector<std::uint64_t> earliest_;
};

}  // namespace Helm
