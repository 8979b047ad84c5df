// SPDX-License-Identifier: Apache-2.0
//
// Bridging::VlanBitmap: a set of numbers 0 to 4095, one bit each. The VLANs are 1 to 4094; the two
// numbers at the ends are no VLANs and are free for the owner of a set to give a meaning of his
// own.
//
// A value of 512 bytes: copied freely, usable from any thread, never allocates. Reading and
// changing a member is constant time; the set operations take 64 word operations.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <type_traits>

#include "runtime/bridging/VlanId.h"

namespace Bridging {

class VlanBitmap {
 public:
  static constexpr std::uint32_t kBits = 4096;
  static constexpr std::size_t kWords = kBits / 64;
  using Words = std::array<std::uint64_t, kWords>;  // bit n is bit n % 64 of word n / 64

  constexpr VlanBitmap() noexcept = default;

  // Reads a list such as "1,10-20": numbers and ranges "low-high" of 1 to 4094, joined by commas,
  // in any order, overlapping or not, with blanks and tabs anywhere but inside a number. Text that
  // is empty or blank gives the empty set. Raises RangeException that names the wrong item, its
  // place in the list and the range allowed.
  static VlanBitmap parse(std::string_view text);

  // The one shortest list of ascending numbers and ranges: runs of two and more are ranges. parse()
  // reads it back if neither 0 nor 4095 is in the set.
  std::string toText() const;

  // A number above 4095 is in no set; adding one raises RangeException, removing one does nothing.
  constexpr bool test(std::uint32_t number) const noexcept {
    return number < kBits && (words_[number / 64] & bitOf(number)) != 0;
  }
  constexpr bool test(VlanIdOrNone vlanId) const noexcept {
    return test(std::uint32_t{vlanId.value()});
  }

  constexpr void set(std::uint32_t number) {
    if (number >= kBits) Vex::throwRangeException("VlanBitmap::number > 4095 not allowed");
    words_[number / 64] |= bitOf(number);
  }
  constexpr void set(VlanIdOrNone vlanId) { set(std::uint32_t{vlanId.value()}); }

  constexpr void clear(std::uint32_t number) noexcept {
    if (number < kBits) words_[number / 64] &= ~bitOf(number);
  }
  constexpr void clear(VlanIdOrNone vlanId) noexcept { clear(std::uint32_t{vlanId.value()}); }

  // Adds low to high, both included. REQUIRES: low <= high; raises RangeException if high > 4095.
  void setRange(std::uint32_t low, std::uint32_t high);

  constexpr std::uint32_t count() const noexcept {
    int total = 0;
    for (const std::uint64_t word : words_) total += std::popcount(word);
    return static_cast<std::uint32_t>(total);
  }
  constexpr bool empty() const noexcept { return *this == VlanBitmap(); }
  constexpr explicit operator bool() const noexcept { return !empty(); }

  // The smallest member that is not below `from`; kBits if there is none.
  constexpr std::uint32_t next(std::uint32_t from) const noexcept {
    if (from >= kBits) return kBits;
    std::size_t at = from / 64;
    std::uint64_t word = words_[at] & (~std::uint64_t{0} << (from % 64));
    while (word == 0) {
      if (++at == kWords) return kBits;
      word = words_[at];
    }
    return static_cast<std::uint32_t>(at) * 64 + static_cast<std::uint32_t>(std::countr_zero(word));
  }

  // Calls visit(std::uint16_t) for each member in ascending order. The visitor may change the set:
  // members that it adds above the present one are visited, members that it removes are not.
  template <class Visitor>
  constexpr void forEach(Visitor&& visit) const {
    for (std::uint32_t n = next(0); n < kBits; n = next(n + 1)) {
      visit(static_cast<std::uint16_t>(n));
    }
  }

  constexpr VlanBitmap& operator|=(const VlanBitmap& other) noexcept {
    for (std::size_t i = 0; i < kWords; ++i) words_[i] |= other.words_[i];
    return *this;
  }
  constexpr VlanBitmap& operator&=(const VlanBitmap& other) noexcept {
    for (std::size_t i = 0; i < kWords; ++i) words_[i] &= other.words_[i];
    return *this;
  }
  constexpr VlanBitmap& operator-=(const VlanBitmap& other) noexcept {
    for (std::size_t i = 0; i < kWords; ++i) words_[i] &= ~other.words_[i];
    return *this;
  }
  friend constexpr VlanBitmap operator|(VlanBitmap a, const VlanBitmap& b) noexcept {
    return a |= b;
  }
  friend constexpr VlanBitmap operator&(VlanBitmap a, const VlanBitmap& b) noexcept {
    return a &= b;
  }
  // The members of `a` that are not in `b`; the same as a & ~b.
  friend constexpr VlanBitmap operator-(VlanBitmap a, const VlanBitmap& b) noexcept {
    return a -= b;
  }
  // All of 0 to 4095 that are not in the set.
  constexpr VlanBitmap operator~() const noexcept {
    VlanBitmap result;
    for (std::size_t i = 0; i < kWords; ++i) result.words_[i] = ~words_[i];
    return result;
  }

  friend constexpr bool operator==(const VlanBitmap&, const VlanBitmap&) noexcept = default;

  constexpr const Words& words() const noexcept { return words_; }

 private:
  static constexpr std::uint64_t bitOf(std::uint32_t number) noexcept {
    return std::uint64_t{1} << (number % 64);
  }

  Words words_{};
};

static_assert(sizeof(VlanBitmap) == 512);
static_assert(std::is_trivially_copyable_v<VlanBitmap> && std::is_standard_layout_v<VlanBitmap>);

// Prints toText().
std::ostream& operator<<(std::ostream& out, const VlanBitmap& set);

}  // namespace Bridging
