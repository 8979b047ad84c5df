// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/SourceGuard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>

#include "runtime/portus/PacketFilter.h"

namespace Platform::Linux {
namespace {

using Frame = std::vector<std::uint8_t>;
using Portus::EthAddr;
using Portus::PacketFilter;

constexpr EthAddr kOurs(0x02, 0x00, 0x5E, 0xA0, 0x00, 0x01);

// The probe filter: type 0x88B7 without a tag or behind one of type 0x8100 or 0x9100.
constexpr std::array<sock_filter, 8> kProbes{{{0x28, 0, 0, 12},
                                              {0x15, 4, 0, 0x88B7},
                                              {0x15, 1, 0, 0x8100},
                                              {0x15, 0, 3, 0x9100},
                                              {0x28, 0, 0, 16},
                                              {0x15, 0, 1, 0x88B7},
                                              {0x06, 0, 0, 0xFFFF},
                                              {0x06, 0, 0, 0}}};

// Relies on the accumulator being 0 at the start.
constexpr std::array<sock_filter, 3> kTrustsZero{
    {{BPF_JMP | BPF_JEQ | BPF_K, 0, 1, 0}, {0x06, 0, 0, 77}, {0x06, 0, 0, 0}}};

constexpr std::array<sock_filter, 1> kEverything{{{0x06, 0, 0, 0xFFFF}}};

Frame frameFrom(const EthAddr& source, const Frame& rest) {
  Frame frame(6, 0xFF);
  frame.insert(frame.end(), source.bytes().begin(), source.bytes().end());
  frame.insert(frame.end(), rest.begin(), rest.end());
  return frame;
}

// Every source that differs from ours in one bit, and ours.
std::vector<EthAddr> sources() {
  std::vector<EthAddr> result{kOurs};
  for (unsigned bit = 0; bit < 48; ++bit) {
    EthAddr::Bytes bytes = kOurs.bytes();
    bytes[bit / 8] = static_cast<std::uint8_t>(bytes[bit / 8] ^ (1U << bit % 8));
    result.emplace_back(bytes);
  }
  return result;
}

const std::vector<Frame> kRests{{0x88, 0xB7},
                                {0x88, 0xB7, 0x0A, 0x1B, 0x2C},
                                {0x81, 0x00, 0xE0, 0x64, 0x88, 0xB7},
                                {0x91, 0x00, 0xE0, 0x64, 0x88, 0xB7, 0},
                                {0x81, 0x00, 0xE0, 0x64, 0x08, 0x00},
                                {0x81, 0x00, 0xE0, 0x64, 0x88},
                                {0x88, 0xA8, 0x00, 0x01, 0x88, 0xB7},
                                {0x08, 0x00, 0x45},
                                {0x88},
                                {}};

template <class Program>
void expectPartition(const Program& program) {
  const PacketFilter plain{std::span<const sock_filter>(program)};
  const PacketFilter ours{onlyFrom(kOurs, program)};
  const PacketFilter others{exceptFrom(kOurs, program)};
  for (const EthAddr& source : sources()) {
    for (const Frame& rest : kRests) {
      const Frame frame = frameFrom(source, rest);
      const std::uint32_t accepted = plain.accept(frame);
      const bool isOurs = source == kOurs;
      EXPECT_EQ(ours.accept(frame), isOurs ? accepted : 0) << source;
      EXPECT_EQ(others.accept(frame), !isOurs && accepted != 0 ? 1U : 0U) << source;
    }
  }
}

TEST(SourceGuard, EachAcceptedFrameGoesToExactlyOneOfTheTwoPrograms) {
  expectPartition(kProbes);
  expectPartition(kEverything);
}

TEST(SourceGuard, ProgramFindsTheAccumulatorAtZero) { expectPartition(kTrustsZero); }

TEST(SourceGuard, FrameThatEndsInsideItsSourceIsNobodys) {
  const PacketFilter ours{onlyFrom(kOurs, kEverything)};
  const PacketFilter others{exceptFrom(kOurs, kEverything)};
  for (const EthAddr& source : sources()) {
    const Frame whole = frameFrom(source, {});
    for (std::size_t size = 0; size < whole.size(); ++size) {
      const std::span<const std::uint8_t> part = std::span(whole).first(size);
      EXPECT_EQ(ours.accept(part), 0U) << size;
      EXPECT_EQ(others.accept(part), 0U) << size;
    }
  }
}

TEST(SourceGuard, DestinationIsNotTakenForTheSource) {
  Frame frame(kOurs.bytes().begin(), kOurs.bytes().end());
  frame.insert(frame.end(), {2, 9, 9, 9, 9, 9, 0x88, 0xB7});
  EXPECT_EQ(PacketFilter{onlyFrom(kOurs, kProbes)}.accept(frame), 0U);
  EXPECT_EQ(PacketFilter{exceptFrom(kOurs, kProbes)}.accept(frame), 1U);
}

TEST(SourceGuard, GivenProgramFollowsUnchanged) {
  const std::vector<sock_filter> program = onlyFrom(kOurs, kProbes);
  ASSERT_EQ(program.size(), kSourceGuardLength + kProbes.size());
  for (std::size_t i = 0; i < kProbes.size(); ++i) {
    const sock_filter& copy = program[kSourceGuardLength + i];
    EXPECT_EQ(copy.code, kProbes[i].code) << i;
    EXPECT_EQ(copy.jt, kProbes[i].jt) << i;
    EXPECT_EQ(copy.jf, kProbes[i].jf) << i;
    EXPECT_EQ(copy.k, kProbes[i].k) << i;
  }
}

TEST(SourceGuard, EmptyProgramStaysEmpty) {
  EXPECT_TRUE(onlyFrom(kOurs, {}).empty());
  EXPECT_TRUE(exceptFrom(kOurs, {}).empty());
}

}  // namespace
}  // namespace Platform::Linux
