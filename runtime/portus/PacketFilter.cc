// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/PacketFilter.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "runtime/vex/Exception.h"

namespace Portus {
namespace {

constexpr std::size_t kMaxInstructions = BPF_MAXINSNS;
// Parts that are 0 are left out of these two codes.
constexpr std::uint16_t kLoadImmediate = BPF_LD;
constexpr std::uint16_t kAddConstant = BPF_ALU;
static_assert(BPF_LD == 0 && BPF_IMM == 0 && BPF_ADD == 0 && BPF_K == 0);

constexpr std::uint32_t kLargestOffset = 0x7FFFFFFF;
constexpr std::uint32_t kWordBits = 32;

std::string hex(std::uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%02x", static_cast<unsigned>(value));
  return text;
}

[[noreturn]] void throwBad(std::size_t index, const sock_filter& instruction,
                           const std::string& why) {
  Vex::throwRangeException("packet filter instruction " + std::to_string(index) + " (code " +
                           hex(instruction.code) + "): " + why);
}

void checkTarget(std::size_t index, const sock_filter& instruction, std::uint32_t distance,
                 std::size_t size) {
  const std::size_t furthest = size - 1 - index;  // what a distance has to stay below
  if (distance < furthest) return;
  throwBad(index, instruction,
           "a jump over " + std::to_string(distance) + " instructions leaves the program of " +
               std::to_string(size));
}

void checkInstruction(std::span<const sock_filter> program, std::size_t index) {
  const sock_filter& instruction = program[index];
  switch (instruction.code) {
    case BPF_LD | BPF_W | BPF_ABS:
    case BPF_LD | BPF_H | BPF_ABS:
    case BPF_LD | BPF_B | BPF_ABS:
      if (instruction.k > kLargestOffset) {
        throwBad(index, instruction,
                 "load offset " + hex(instruction.k) + " outside 0 to 0x7fffffff");
      }
      return;
    case BPF_ALU | BPF_LSH | BPF_K:
    case BPF_ALU | BPF_RSH | BPF_K:
      if (instruction.k >= kWordBits) {
        throwBad(index, instruction,
                 "shift by " + std::to_string(instruction.k) + " outside 0 to 31");
      }
      return;
    case BPF_JMP | BPF_JA:
      checkTarget(index, instruction, instruction.k, program.size());
      return;
    case BPF_JMP | BPF_JEQ | BPF_K:
    case BPF_JMP | BPF_JGT | BPF_K:
    case BPF_JMP | BPF_JGE | BPF_K:
    case BPF_JMP | BPF_JSET | BPF_K:
      checkTarget(index, instruction, instruction.jt, program.size());
      checkTarget(index, instruction, instruction.jf, program.size());
      return;
    case kLoadImmediate:
    case BPF_LDX | BPF_IMM:
    case BPF_ALU | BPF_AND | BPF_K:
    case BPF_ALU | BPF_OR | BPF_K:
    case kAddConstant:
    case BPF_ALU | BPF_SUB | BPF_K:
    case BPF_RET | BPF_K:
    case BPF_RET | BPF_A:
    case BPF_MISC | BPF_TAX:
    case BPF_MISC | BPF_TXA:
      return;
    default:
      throwBad(index, instruction, "unknown code");
  }
}

void check(std::span<const sock_filter> program) {
  if (program.empty() || program.size() > kMaxInstructions) {
    Vex::throwRangeException("packet filter has " + std::to_string(program.size()) +
                             " instructions: 1 to 4096 allowed");
  }
  for (std::size_t i = 0; i < program.size(); ++i) checkInstruction(program, i);
  const std::size_t last = program.size() - 1;
  if (BPF_CLASS(program[last].code) != BPF_RET) {
    throwBad(last, program[last], "the last instruction must be a return");
  }
}

std::span<const sock_filter> programOf(const sock_fprog& program) {
  if (program.filter == nullptr && program.len != 0) {
    Vex::throwRangeException("packet filter has " + std::to_string(program.len) +
                             " instructions at a null address");
  }
  return {program.filter, program.len};
}

// Loads `size` bytes in network order; false if they are not wholly inside the frame.
bool load(std::span<const std::uint8_t> frame, std::uint32_t offset, std::uint32_t size,
          std::uint32_t& value) noexcept {
  if (offset > frame.size() || frame.size() - offset < size) return false;
  value = 0;
  for (const std::uint8_t byte : frame.subspan(offset, size)) value = value << 8 | byte;
  return true;
}

}  // namespace

PacketFilter::PacketFilter(std::span<const sock_filter> program) {
  check(program);
  program_.assign(program.begin(), program.end());
}

PacketFilter::PacketFilter(const sock_fprog& program) : PacketFilter(programOf(program)) {}

std::uint32_t PacketFilter::accept(std::span<const std::uint8_t> frame) const noexcept {
  std::uint32_t a = 0;
  std::uint32_t x = 0;
  for (std::size_t i = 0; i < program_.size(); ++i) {
    const sock_filter& instruction = program_[i];
    const std::uint32_t k = instruction.k;
    bool taken = false;
    switch (instruction.code) {
      case BPF_LD | BPF_W | BPF_ABS:
        if (!load(frame, k, 4, a)) return 0;
        continue;
      case BPF_LD | BPF_H | BPF_ABS:
        if (!load(frame, k, 2, a)) return 0;
        continue;
      case BPF_LD | BPF_B | BPF_ABS:
        if (!load(frame, k, 1, a)) return 0;
        continue;
      case kLoadImmediate:
        a = k;
        continue;
      case BPF_LDX | BPF_IMM:
        x = k;
        continue;
      case BPF_ALU | BPF_AND | BPF_K:
        a &= k;
        continue;
      case BPF_ALU | BPF_OR | BPF_K:
        a |= k;
        continue;
      case BPF_ALU | BPF_LSH | BPF_K:
        a <<= k;
        continue;
      case BPF_ALU | BPF_RSH | BPF_K:
        a >>= k;
        continue;
      case kAddConstant:
        a += k;
        continue;
      case BPF_ALU | BPF_SUB | BPF_K:
        a -= k;
        continue;
      case BPF_MISC | BPF_TAX:
        x = a;
        continue;
      case BPF_MISC | BPF_TXA:
        a = x;
        continue;
      case BPF_RET | BPF_K:
        return k;
      case BPF_RET | BPF_A:
        return a;
      case BPF_JMP | BPF_JA:
        i += k;
        continue;
      case BPF_JMP | BPF_JEQ | BPF_K:
        taken = a == k;
        break;
      case BPF_JMP | BPF_JGT | BPF_K:
        taken = a > k;
        break;
      case BPF_JMP | BPF_JGE | BPF_K:
        taken = a >= k;
        break;
      case BPF_JMP | BPF_JSET | BPF_K:
        taken = (a & k) != 0;
        break;
      default:
        return 0;  // the constructor admits no other code
    }
    i += taken ? instruction.jt : instruction.jf;
  }
  return 0;
}

bool operator==(const PacketFilter& a, const PacketFilter& b) noexcept {
  return std::equal(a.program_.begin(), a.program_.end(), b.program_.begin(), b.program_.end(),
                    [](const sock_filter& left, const sock_filter& right) {
                      return left.code == right.code && left.jt == right.jt &&
                             left.jf == right.jf && left.k == right.k;
                    });
}

}  // namespace Portus
