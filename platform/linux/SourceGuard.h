// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::SourceGuard: puts a test of the source address in front of a classic BPF
// program, so that the kernel drops what others sent before it costs a wake-up.
//
// Pure functions, callable from any thread. Invariants:
//   1. The given program follows unchanged behind the test: jumps are relative, and the accumulator
//      is set back to the zero that a program may rely on (net/core/filter.c).
//   2. For every frame of 12 bytes or more, exactly one of the two programs made from P and A
//   accepts
//      if P accepts, and none if P rejects. A frame too short to have a source is accepted by none.
//   3. The source address lies in front of any VLAN tag, so removal of a tag by the kernel does not
//      move it.
#pragma once

#include <linux/filter.h>

#include <span>
#include <vector>

#include "runtime/portus/EthAddr.h"

namespace Platform::Linux {

// Instructions that the test adds; the kernel takes BPF_MAXINSNS (4096) in all.
inline constexpr unsigned kSourceGuardLength = 6;

// Accepts what `program` accepts, with its length, if the source address is `source`.
// REQUIRES: `program` ends in return instructions on every path; an empty one stays empty.
std::vector<sock_filter> onlyFrom(const Portus::EthAddr& source,
                                  std::span<const sock_filter> program);

// Accepts what `program` accepts if the source address is any other than `source`. For counting: a
// constant return of `program` is cut to a length of 1 byte, so a queued frame costs little.
std::vector<sock_filter> exceptFrom(const Portus::EthAddr& source,
                                    std::span<const sock_filter> program);

}  // namespace Platform::Linux
