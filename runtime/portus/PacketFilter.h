// SPDX-License-Identifier: Apache-2.0
//
// Portus::PacketFilter: a program of the classic packet filter machine (struct sock_filter of
// <linux/filter.h>), checked once and then immutable. Packet access gives the instructions to the
// kernel; where there is no kernel socket, accept() runs them with the same result.
//
// A value that owns its copy of the program: copied freely, usable from any thread.
//
// Instructions known, K being the constant: loads of a word, half-word or byte at offset K and of K
// itself into A; K into X; jumps (always, or by A ==, >, >=, & against K); A and, or, +, -, <<, >>
// K; A to X and X to A; return of K or A. The kernel knows more; this subset means the same in
// both.
//
// Invariants:
//  1. 1 to 4,096 instructions (the kernel's own bound), the last one a return.
//  2. Every jump goes forward and stays inside: a run ends after at most instructions().size()
//  steps.
#pragma once

#include <linux/filter.h>

#include <cstdint>
#include <span>
#include <vector>

namespace Portus {

class PacketFilter {
 public:
  // Copy the program; raise RangeException that names the instruction's index and code for anything
  // that breaks the invariants, for codes outside the subset, for shifts of 32 bits and more, and
  // for load offsets from 0x80000000 up (the kernel gives those a meaning outside the frame).
  explicit PacketFilter(std::span<const sock_filter> program);
  explicit PacketFilter(const sock_fprog& program);

  // What the program returns for the frame: the largest number of its bytes to take, which may be
  // more than it has; 0 rejects it. A load that is not wholly inside the frame rejects it.
  std::uint32_t accept(std::span<const std::uint8_t> frame) const noexcept;

  std::span<const sock_filter> instructions() const noexcept { return program_; }

  friend bool operator==(const PacketFilter& a, const PacketFilter& b) noexcept;

 private:
  std::vector<sock_filter> program_;
};

}  // namespace Portus
