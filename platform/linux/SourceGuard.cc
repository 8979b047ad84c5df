// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/SourceGuard.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace Platform::Linux {
namespace {

// Offset of the source address in an Ethernet frame, and of its last two bytes.
constexpr std::uint32_t kSourceOffset = 6;
constexpr std::uint32_t kSourceTailOffset = kSourceOffset + 4;
constexpr std::uint32_t kCountLength = 1;

constexpr sock_filter load(std::uint16_t size, std::uint32_t offset) {
  return {static_cast<std::uint16_t>(BPF_LD | size | BPF_ABS), 0, 0, offset};
}

constexpr sock_filter jumpIfEqual(std::uint32_t value, std::uint8_t ifTrue, std::uint8_t ifFalse) {
  return {BPF_JMP | BPF_JEQ | BPF_K, ifTrue, ifFalse, value};
}

constexpr sock_filter kReject{BPF_RET | BPF_K, 0, 0, 0};
constexpr sock_filter kAccumulatorZero{BPF_LD | BPF_IMM, 0, 0, 0};

enum class Keep { kSame, kOthers };

std::vector<sock_filter> guarded(Keep keep, const Portus::EthAddr& source,
                                 std::span<const sock_filter> program) {
  if (program.empty()) {
    return {};
  }
  const auto& bytes = source.bytes();
  const std::uint32_t head = std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
                             std::uint32_t{bytes[2]} << 8 | std::uint32_t{bytes[3]};
  const std::uint32_t tail = std::uint32_t{bytes[4]} << 8 | std::uint32_t{bytes[5]};
  // Position 4 rejects, position 5 leads into the program. The tail is loaded first: a load past
  // the end of the frame rejects, so a frame that ends inside its source address is nobody's.
  const std::array<sock_filter, kSourceGuardLength> same{{
      load(BPF_H, kSourceTailOffset),
      jumpIfEqual(tail, 0, 2),
      load(BPF_W, kSourceOffset),
      jumpIfEqual(head, 1, 0),
      kReject,
      kAccumulatorZero,
  }};
  const std::array<sock_filter, kSourceGuardLength> others{{
      load(BPF_H, kSourceTailOffset),
      jumpIfEqual(tail, 0, 3),
      load(BPF_W, kSourceOffset),
      jumpIfEqual(head, 0, 1),
      kReject,
      kAccumulatorZero,
  }};
  const auto& guard = keep == Keep::kSame ? same : others;
  std::vector<sock_filter> result;
  result.reserve(guard.size() + program.size());
  result.insert(result.end(), guard.begin(), guard.end());
  result.insert(result.end(), program.begin(), program.end());
  return result;
}

}  // namespace

std::vector<sock_filter> onlyFrom(const Portus::EthAddr& source,
                                  std::span<const sock_filter> program) {
  return guarded(Keep::kSame, source, program);
}

std::vector<sock_filter> exceptFrom(const Portus::EthAddr& source,
                                    std::span<const sock_filter> program) {
  std::vector<sock_filter> result = guarded(Keep::kOthers, source, program);
  for (sock_filter& instruction : result) {
    if (instruction.code == (BPF_RET | BPF_K)) {
      instruction.k = std::min(instruction.k, kCountLength);
    }
  }
  return result;
}

}  // namespace Platform::Linux
