// SPDX-License-Identifier: Apache-2.0
//
// Quill::SlotCounters: how the slots in use are spread over a table, counted by powers of two.
// Gives a bound on the highest slot in use for the cost of a bit scan, where the slots themselves
// would have to be walked.
//
// Belongs to one thread.
//
// Invariants:
//  1. Counter 0 counts the slots below 2^shift(), counter k those from 2^(shift() + k - 1) up to
//     2^(shift() + k) - 1.
//  2. Bit k of nonZeroCounters() is set if and only if counter k is not 0.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <limits>
#include <ostream>

#include "quill/SlotTable.h"
#include "runtime/mem/Region.h"
#include "runtime/sable/Platform.h"
#include "runtime/vex/Exception.h"

namespace Quill {

template <class VALUE>
class SlotCounters : private Sable::Debuggable {
 public:
  static constexpr unsigned kCounters = 32;

  explicit SlotCounters(Sable::Platform::DebugHandler& handler)
      : Debuggable(handler), shift_(shiftFor(Mem::pageSize_)) {}
  SlotCounters(const SlotCounters&) = delete;
  SlotCounters& operator=(const SlotCounters&) = delete;
  virtual ~SlotCounters() = default;

  // Half the slots that one page of the file holds, as a power of two: a shadow of one page is not
  // worth a finer division. 0 for a page that holds fewer than two slots.
  static constexpr unsigned shiftFor(unsigned pageSize) noexcept {
    using Table = SlotTable<VALUE>;
    if (pageSize <= Table::kHeaderSize) return 0;
    const unsigned slots = (pageSize - Table::kHeaderSize) / Table::kSlotSize;
    return slots < 2 ? 0 : static_cast<unsigned>(std::bit_width(slots)) - 2;
  }

  unsigned shift() const noexcept { return shift_; }
  std::uint32_t nonZeroCounters() const noexcept { return nonZeroCounters_; }
  unsigned counter(unsigned index) const { return counters_.at(index); }

  // Counts a slot. REQUIRES: it is not counted.
  void slotIs(unsigned slotIndex) noexcept {
    const unsigned k = counterOf(slotIndex);
    ++counters_[k];
    nonZeroCounters_ |= std::uint32_t{1} << k;
  }
  // Forgets a slot. REQUIRES: it is counted (asserted where it shows).
  void slotDel(unsigned slotIndex) noexcept {
    const unsigned k = counterOf(slotIndex);
    VEX_ASSERT(counters_[k] != 0);
    if (--counters_[k] == 0) nonZeroCounters_ &= ~(std::uint32_t{1} << k);
  }

  // A power of two that is above every slot counted; 0 if there is none.
  unsigned largestOccupied() const {
    trace(8, [&](std::ostream& os) {
      os << "SlotCounters::largestOccupied() nonZeroCounters_:0x" << std::hex << nonZeroCounters_;
    });
    unsigned msb = 0;
    std::uint64_t newNumSlots = 0;
    if (nonZeroCounters_ != 0) {
      msb = static_cast<unsigned>(std::bit_width(nonZeroCounters_)) - 1;
      newNumSlots = std::min<std::uint64_t>(std::uint64_t{1} << (shift_ + msb),
                                            std::numeric_limits<unsigned>::max());
    }
    trace(8, [&](std::ostream& os) {
      os << "SlotCounters::largestOccupied() shrinkable to newNumSlots:" << newNumSlots
         << " msb:" << msb;
    });
    return static_cast<unsigned>(newNumSlots);
  }

 private:
  unsigned counterOf(unsigned slotIndex) const noexcept {
    // bit_width(0) is 0. The limit matters for pages that hold fewer than four slots only.
    return std::min(static_cast<unsigned>(std::bit_width(slotIndex >> shift_)), kCounters - 1);
  }

  const unsigned shift_;
  std::array<unsigned, kCounters> counters_{};
  std::uint32_t nonZeroCounters_ = 0;
};

}  // namespace Quill
