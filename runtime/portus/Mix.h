// SPDX-License-Identifier: Apache-2.0
//
// Portus::mix64: spreads the bits of a 64-bit word, for the hashes of the value types.
//
// A pure function; any thread. Part of the interface identifier and of the placement of keys in
// tables on disk (docs/formats.md): never change it.
//
// Invariants:
//  1. It is a bijection: different words stay different, and only 0 gives 0.
#pragma once

#include <cstdint>

namespace Portus {

// Two rounds of xor-shift and multiplication by an odd constant, then a last xor-shift: each is a
// bijection, and every input bit changes every output bit in about half of all words.
constexpr std::uint64_t mix64(std::uint64_t x) noexcept {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdU;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53U;
  x ^= x >> 33;
  return x;
}

}  // namespace Portus
