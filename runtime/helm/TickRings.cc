// SPDX-License-Identifier: Apache-2.0
#include "runtime/helm/TickRings.h"

#include <algorithm>
#include <bit>

namespace Helm {

namespace {

constexpr std::uint32_t kMinSlots = 64;
constexpr std::uint32_t kMaxSlots = 4096;  // 64 words, whose summary is one word

// Positions within a ring fit a std::size_t on every machine.
std::size_t at(std::uint64_t index) noexcept { return static_cast<std::size_t>(index); }

std::uint64_t bit(std::uint64_t index) noexcept { return std::uint64_t{1} << (index & 63); }

}  // namespace

TickRings::TickRings(std::uint32_t slots)
    : firstBits_(static_cast<unsigned>(
          std::countr_zero(std::bit_ceil(std::clamp(slots, kMinSlots, kMaxSlots))))),
      levels_(1) {
  // Up to the level on which 64 slots reach over all ticks.
  while (shiftOf(levels_ - 1) + kRingBits < 58) ++levels_;
  anchors_.resize(at(slotsOf(0) + (levels_ - 1) * kRingSlots));
  for (TickLink& anchor : anchors_) anchor = {&anchor, &anchor};
  words_.resize(at(slotsOf(0) / 64));
  earliest_.assign(anchors_.size(), kNoTick);
}

unsigned TickRings::levelFor(std::uint64_t tick) const noexcept {
  unsigned level = 0;
  while ((tick >> shiftOf(level)) - (position_ >> shiftOf(level)) >= slotsOf(level)) ++level;
  return level;
}

void TickRings::occupiedIs(unsigned level, std::uint64_t tick, bool flag) noexcept {
  const std::uint64_t slot = (tick >> shiftOf(level)) & (slotsOf(level) - 1);
  std::uint64_t summarised = slot;
  if (level == 0) {
    std::uint64_t& word = words_[at(slot / 64)];
    word = flag ? word | bit(slot) : word & ~bit(slot);
    flag = word != 0;
    summarised = slot / 64;
  }
  std::uint64_t& summary = occupied_[level];
  summary = flag ? summary | bit(summarised) : summary & ~bit(summarised);
}

void TickRings::place(TickNode& node, bool atFront) noexcept {
  const std::uint64_t tick = node.tick_;
  const unsigned level = levelFor(tick);
  const std::uint32_t index = anchorOf(level, tick);
  TickLink& anchor = anchors_[index];
  node.level_ = level & 31U;
  if (anchor.tickNext == &anchor) occupiedIs(level, tick, true);
  if (level != 0 && earliest_[index] != kUnknown) {
    earliest_[index] = std::min(earliest_[index], tick);
  }
  TickLink& link = node;
  link.tickPrev = atFront ? &anchor : anchor.tickPrev;
  link.tickNext = link.tickPrev->tickNext;
  link.tickPrev->tickNext = &link;
  link.tickNext->tickPrev = &link;
}

void TickRings::insert(TickNode& node, std::uint64_t tick) noexcept {
  node.tick_ = tick & kMaxTick;
  place(node, false);
}

void TickRings::remove(TickNode& node) noexcept {
  const std::uint64_t tick = node.tick_;
  const unsigned level = node.level_;
  node.tickPrev->tickNext = node.tickNext;
  node.tickNext->tickPrev = node.tickPrev;
  node.tickPrev = node.tickNext = nullptr;
  const std::uint32_t index = anchorOf(level, tick);
  if (anchors_[index].tickNext == &anchors_[index]) {
    occupiedIs(level, tick, false);
    earliest_[index] = kNoTick;
  } else if (level != 0 && earliest_[index] == tick) {
    earliest_[index] = kUnknown;
  }
}

std::uint64_t TickRings::firstTick() const noexcept {
  const std::uint64_t summary = occupied_[0];
  if (summary == 0) return kNoTick;
  // From the position's slot to the end of the ring, then from its beginning.
  const std::uint64_t mask = slotsOf(0) - 1;
  const std::uint64_t from = position_ & mask;
  std::uint64_t word = from / 64;
  std::uint64_t bits = words_[at(word)] & (~std::uint64_t{0} << (from & 63));
  if (bits == 0) {
    const std::uint64_t behind = word == 63 ? 0 : summary & (~std::uint64_t{0} << (word + 1));
    word = static_cast<std::uint64_t>(std::countr_zero(behind != 0 ? behind : summary));
    bits = words_[at(word)];
  }
  const std::uint64_t slot = word * 64 + static_cast<std::uint64_t>(std::countr_zero(bits));
  return position_ + ((slot - from) & mask);
}

std::uint64_t TickRings::firstSlotStart(unsigned level) const noexcept {
  if (occupied_[level] == 0) return kNoTick;
  const std::uint64_t here = position_ >> shiftOf(level);
  const std::uint64_t turned = std::rotr(occupied_[level], static_cast<int>(here & 63));
  return (here + static_cast<std::uint64_t>(std::countr_zero(turned))) << shiftOf(level);
}

std::uint64_t TickRings::earliestOfSlot(unsigned level, std::uint64_t start) noexcept {
  const std::uint32_t index = anchorOf(level, start);
  if (earliest_[index] == kUnknown) {
    std::uint64_t found = kNoTick;
    const TickLink* anchor = &anchors_[index];
    for (const TickLink* link = anchor->tickNext; link != anchor; link = link->tickNext) {
      const std::uint64_t tick = static_cast<const TickNode*>(link)->tick_;
      found = std::min(found, tick);
    }
    earliest_[index] = found;
  }
  return earliest_[index];
}

std::uint64_t TickRings::earliest() noexcept {
  std::uint64_t found = firstTick();
  for (unsigned level = 1; level < levels_; ++level) {
    const std::uint64_t start = firstSlotStart(level);
    // Later slots of the level begin after all of this one's ticks.
    if (start < found) found = std::min(found, earliestOfSlot(level, start));
  }
  return found;
}

void TickRings::spread(unsigned level) noexcept {
  const std::uint32_t index = anchorOf(level, position_);
  TickLink& anchor = anchors_[index];
  if (anchor.tickNext == &anchor) return;
  TickLink* link = anchor.tickPrev;
  anchor.tickPrev = anchor.tickNext = &anchor;
  occupiedIs(level, position_, false);
  earliest_[index] = kNoTick;
  while (link != &anchor) {  // from the last to the first, each to the front: the order stays
    TickLink* before = link->tickPrev;
    place(static_cast<TickNode&>(*link), true);
    link = before;
  }
}

bool TickRings::advance(std::uint64_t target) noexcept {
  for (;;) {
    std::uint64_t stop = firstTick();
    for (unsigned level = 1; level < levels_; ++level) {
      stop = std::min(stop, firstSlotStart(level));
    }
    if (stop > target) {
      position_ = std::max(position_, target);
      return false;
    }
    position_ = stop;
    for (unsigned level = 1; level < levels_; ++level) spread(level);
    const TickLink& anchor = anchors_[anchorOf(0, position_)];
    if (anchor.tickNext != &anchor) return true;
  }
}

TickNode* TickRings::pop() noexcept {
  TickLink& anchor = anchors_[anchorOf(0, position_)];
  if (anchor.tickNext == &anchor) return nullptr;
  auto* node = static_cast<TickNode*>(anchor.tickNext);
  remove(*node);
  return node;
}

}  // namespace Helm
