// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/PacketFilter.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

#include "runtime/vex/Exception.h"

namespace Portus {
namespace {

using Program = std::vector<sock_filter>;
using Frame = std::vector<std::uint8_t>;

constexpr sock_filter kReject = {0x06, 0, 0, 0};
constexpr sock_filter kAccept = {0x06, 0, 0, 0xFFFF};

// Ether type 0x88B7 untagged, or behind one tag.
const Program kProbes = {{0x28, 0, 0, 12},     {0x15, 4, 0, 0x88B7}, {0x15, 1, 0, 0x8100},
                         {0x15, 0, 3, 0x9100}, {0x28, 0, 0, 16},     {0x15, 0, 1, 0x88B7},
                         {0x06, 0, 0, 0xFFFF}, {0x06, 0, 0, 0}};

// A frame of `size` bytes with these 16-bit words from offset 12 on, one after the other.
Frame frameOf(std::initializer_list<unsigned> words, std::size_t size = 32) {
  Frame frame(12, 0xFF);
  for (const unsigned word : words) {
    frame.push_back(static_cast<std::uint8_t>(word >> 8));
    frame.push_back(static_cast<std::uint8_t>(word & 0xFF));
  }
  frame.resize(size);
  return frame;
}

std::string rangeErrorOf(const Program& program) {
  try {
    PacketFilter filter(program);
  } catch (const Vex::RangeException& e) {
    return e.text();
  }
  return "no exception";
}

std::uint32_t run(const Program& program, const Frame& frame = {}) {
  return PacketFilter(std::span(program)).accept(frame);
}

TEST(PacketFilter, ProbesPassUntaggedAndBehindOneTag) {
  const PacketFilter sut(kProbes);
  EXPECT_EQ(sut.accept(frameOf({0x88B7})), 0xFFFFU);
  EXPECT_EQ(sut.accept(frameOf({0x8100, 0xE001, 0x88B7})), 0xFFFFU);
  EXPECT_EQ(sut.accept(frameOf({0x9100, 0xE001, 0x88B7})), 0xFFFFU);
}

TEST(PacketFilter, EverythingElseIsRejected) {
  const PacketFilter sut(kProbes);
  EXPECT_EQ(sut.accept(frameOf({0x0800})), 0U);
  EXPECT_EQ(sut.accept(frameOf({0x88B8})), 0U);
  EXPECT_EQ(sut.accept(frameOf({0xB788})), 0U);
  EXPECT_EQ(sut.accept(frameOf({0x0800, 0, 0x88B7})), 0U);
  EXPECT_EQ(sut.accept(frameOf({0x88A8, 1, 0x88B7})), 0U);
  EXPECT_EQ(sut.accept(frameOf({0x8100, 1, 0x0800})), 0U);
  EXPECT_EQ(sut.accept(frameOf({0x8100, 0x88B7, 0x0800})), 0U);
}

TEST(PacketFilter, DoubleTaggedProbesAreRejected) {
  const PacketFilter sut(kProbes);
  for (const unsigned outer : {0x8100U, 0x9100U}) {
    for (const unsigned inner : {0x8100U, 0x9100U}) {
      EXPECT_EQ(sut.accept(frameOf({outer, 1, inner, 2, 0x88B7})), 0U);
    }
  }
}

TEST(PacketFilter, FramesThatEndBeforeTheTypeAreRejected) {
  const PacketFilter sut(kProbes);
  for (std::size_t size = 0; size < 14; ++size) {
    EXPECT_EQ(sut.accept(frameOf({0x88B7}, size)), 0U) << size;
  }
  EXPECT_EQ(sut.accept(frameOf({0x88B7}, 14)), 0xFFFFU);
  for (std::size_t size = 14; size < 18; ++size) {
    EXPECT_EQ(sut.accept(frameOf({0x8100, 1, 0x88B7}, size)), 0U) << size;
  }
  EXPECT_EQ(sut.accept(frameOf({0x8100, 1, 0x88B7}, 18)), 0xFFFFU);
}

TEST(PacketFilter, LoadsAreBigEndianAndInsideTheFrame) {
  const Frame frame = {0x01, 0x82, 0x03, 0x84, 0x05};
  EXPECT_EQ(run({{0x20, 0, 0, 1}, {0x16, 0, 0, 0}}, frame), 0x82038405U);
  EXPECT_EQ(run({{0x28, 0, 0, 3}, {0x16, 0, 0, 0}}, frame), 0x8405U);
  EXPECT_EQ(run({{0x30, 0, 0, 4}, {0x16, 0, 0, 0}}, frame), 0x05U);
  for (const sock_filter load :
       {sock_filter{0x20, 0, 0, 2}, sock_filter{0x28, 0, 0, 4}, sock_filter{0x30, 0, 0, 5},
        sock_filter{0x30, 0, 0, 0x7FFFFFFF}, sock_filter{0x20, 0, 0, 0x7FFFFFFF}}) {
    EXPECT_EQ(run({load, kAccept}, frame), 0U) << load.code << ' ' << load.k;
  }
}

TEST(PacketFilter, ArithmeticIsOf32Bits) {
  const auto result = [](std::uint32_t a, std::uint16_t code, std::uint32_t k) {
    return run({{0x00, 0, 0, a}, {code, 0, 0, k}, {0x16, 0, 0, 0}});
  };
  EXPECT_EQ(result(0xF0F0, 0x54, 0x0FF0), 0x00F0U);
  EXPECT_EQ(result(0xF0F0, 0x44, 0x0FF0), 0xFFF0U);
  EXPECT_EQ(result(0x80000001, 0x64, 1), 2U);
  EXPECT_EQ(result(0x80000001, 0x74, 31), 1U);
  EXPECT_EQ(result(0xFFFFFFFF, 0x04, 3), 2U);
  EXPECT_EQ(result(1, 0x14, 3), 0xFFFFFFFEU);
}

TEST(PacketFilter, RegistersStartAtZeroAndMoveBothWays) {
  EXPECT_EQ(run({{0x16, 0, 0, 0}}), 0U);
  EXPECT_EQ(run({{0x00, 0, 0, 9}, {0x87, 0, 0, 0}, {0x16, 0, 0, 0}}), 0U);
  EXPECT_EQ(run({{0x01, 0, 0, 7}, {0x87, 0, 0, 0}, {0x16, 0, 0, 0}}), 7U);
  EXPECT_EQ(
      run({{0x00, 0, 0, 9}, {0x07, 0, 0, 0}, {0x00, 0, 0, 1}, {0x87, 0, 0, 0}, {0x16, 0, 0, 0}}),
      9U);
}

TEST(PacketFilter, JumpsCompareWithoutSign) {
  const auto taken = [](std::uint32_t a, std::uint16_t code, std::uint32_t k) {
    return run({{0x00, 0, 0, a}, {code, 0, 1, k}, {0x06, 0, 0, 1}, kReject}) == 1;
  };
  EXPECT_TRUE(taken(5, 0x15, 5));
  EXPECT_FALSE(taken(5, 0x15, 6));
  EXPECT_TRUE(taken(0x80000000, 0x25, 1));
  EXPECT_FALSE(taken(5, 0x25, 5));
  EXPECT_TRUE(taken(5, 0x35, 5));
  EXPECT_FALSE(taken(4, 0x35, 5));
  EXPECT_TRUE(taken(6, 0x45, 3));
  EXPECT_FALSE(taken(4, 0x45, 3));
  EXPECT_EQ(run({{0x05, 0, 0, 1}, kReject, {0x06, 0, 0, 2}}), 2U);
}

TEST(PacketFilter, RefusesAnEmptyOrTooLongProgram) {
  EXPECT_EQ(rangeErrorOf({}), "packet filter has 0 instructions: 1 to 4096 allowed");
  EXPECT_EQ(rangeErrorOf(Program(4097, kReject)),
            "packet filter has 4097 instructions: 1 to 4096 allowed");
  EXPECT_EQ(rangeErrorOf(Program(4096, kReject)), "no exception");
}

TEST(PacketFilter, RefusesWhatIsWrongWithIndexAndCode) {
  EXPECT_EQ(rangeErrorOf({{0x28, 0, 0, 12}, {0x99, 0, 0, 0}, kReject}),
            "packet filter instruction 1 (code 0x99): unknown code");
  EXPECT_EQ(rangeErrorOf({{0x15, 1, 0, 0}, kReject}),
            "packet filter instruction 0 (code 0x15): a jump over 1 instructions leaves the "
            "program of 2");
  EXPECT_EQ(rangeErrorOf({{0x15, 0, 1, 0}, kReject}),
            "packet filter instruction 0 (code 0x15): a jump over 1 instructions leaves the "
            "program of 2");
  EXPECT_EQ(rangeErrorOf({{0x05, 0, 0, 0xFFFFFFFF}, kReject}),
            "packet filter instruction 0 (code 0x05): a jump over 4294967295 instructions leaves "
            "the program of 2");
  EXPECT_EQ(rangeErrorOf({kReject, {0x28, 0, 0, 12}}),
            "packet filter instruction 1 (code 0x28): the last instruction must be a return");
  EXPECT_EQ(rangeErrorOf({{0x64, 0, 0, 32}, kReject}),
            "packet filter instruction 0 (code 0x64): shift by 32 outside 0 to 31");
  EXPECT_EQ(rangeErrorOf({{0x28, 0, 0, 0xFFFFF000}, kReject}),
            "packet filter instruction 0 (code 0x28): load offset 0xfffff000 outside 0 to "
            "0x7fffffff");
}

TEST(PacketFilter, RefusesANullProgram) {
  EXPECT_THROW(PacketFilter(sock_fprog{8, nullptr}), Vex::RangeException);
  EXPECT_THROW(PacketFilter(sock_fprog{0, nullptr}), Vex::RangeException);
}

TEST(PacketFilter, OwnsItsCopyOfTheProgram) {
  Program program = kProbes;
  const PacketFilter sut(sock_fprog{static_cast<unsigned short>(program.size()), program.data()});
  program.assign(program.size(), kReject);
  EXPECT_EQ(sut.accept(frameOf({0x88B7})), 0xFFFFU);
  ASSERT_EQ(sut.instructions().size(), 8U);
  EXPECT_EQ(sut.instructions()[1].k, 0x88B7U);
}

TEST(PacketFilter, EqualWhenAllFieldsOfAllInstructionsAre) {
  const PacketFilter sut(kProbes);
  EXPECT_TRUE(sut == PacketFilter(kProbes));
  for (std::size_t field = 0; field < 4; ++field) {
    Program other = kProbes;
    sock_filter& changed = other[1];
    if (field == 0) changed.code = 0x25;
    if (field == 1) changed.jt = 3;
    if (field == 2) changed.jf = 1;
    if (field == 3) changed.k = 0x88B6;
    EXPECT_FALSE(sut == PacketFilter(other)) << field;
  }
  EXPECT_FALSE(sut == PacketFilter(Program{kAccept}));
}

// A pair of datagram sockets whose receiving end carries the program: the kernel's own judgement.
class KernelFilter {
 public:
  KernelFilter() { open_ = socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends_) == 0; }
  ~KernelFilter() {
    if (!open_) return;
    close(ends_[0]);
    close(ends_[1]);
  }
  KernelFilter(const KernelFilter&) = delete;
  KernelFilter& operator=(const KernelFilter&) = delete;

  bool isOpen() const { return open_; }
  bool attach(Program& program) {
    const sock_fprog fprog{static_cast<unsigned short>(program.size()), program.data()};
    return setsockopt(ends_[1], SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog) == 0;
  }
  // How many bytes of the frame come through; -1 if it does not.
  ssize_t through(const Frame& frame) {
    if (send(ends_[0], frame.data(), frame.size(), 0) < 0) return -2;
    std::array<std::uint8_t, 256> room{};
    return recv(ends_[1], room.data(), room.size(), MSG_DONTWAIT);
  }

 private:
  int ends_[2] = {-1, -1};
  bool open_ = false;
};

TEST(PacketFilter, AgreesWithTheKernelOnRandomProgramsAndFrames) {
  constexpr std::uint32_t kSeed = 90125;
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  std::mt19937 generator(kSeed);
  const auto random = [&generator] { return static_cast<std::uint32_t>(generator()); };
  const std::array<std::uint16_t, 18> codes = {0x20, 0x28, 0x30, 0x00, 0x01, 0x05,
                                               0x15, 0x25, 0x35, 0x45, 0x54, 0x44,
                                               0x64, 0x74, 0x04, 0x14, 0x07, 0x87};
  KernelFilter kernel;
  ASSERT_TRUE(kernel.isOpen());
  int valid = 0;
  int accepted = 0;
  for (int round = 0; round < 4000; ++round) {
    Program program;
    for (std::uint32_t n = random() % 8; n > 0; --n) {
      const std::uint32_t small = random() % 40;
      program.push_back({codes[random() % codes.size()], static_cast<std::uint8_t>(random() % 4),
                         static_cast<std::uint8_t>(random() % 4), small});
    }
    if (random() % 16 != 0) program.push_back({0x06, 0, 0, random() % 3 * 20});
    if (random() % 2 != 0) program.push_back({0x16, 0, 0, 0});
    const bool expected = rangeErrorOf(program) == "no exception";
    ASSERT_EQ(kernel.attach(program), expected) << round << ' ' << rangeErrorOf(program);
    if (!expected) continue;
    ++valid;
    const PacketFilter sut(program);
    for (int i = 0; i < 4; ++i) {
      Frame frame(1 + random() % 48);
      for (std::uint8_t& byte : frame) byte = static_cast<std::uint8_t>(random() % 50);
      const std::uint32_t result = sut.accept(frame);
      const ssize_t through =
          result == 0 ? -1 : static_cast<ssize_t>(std::min<std::size_t>(result, frame.size()));
      ASSERT_EQ(kernel.through(frame), through) << "round " << round;
      if (result != 0) ++accepted;
    }
  }
  EXPECT_GT(valid, 500);
  EXPECT_GT(accepted, 500);
}

TEST(PacketFilter, AgreesWithTheKernelOnTheProbeFilter) {
  KernelFilter kernel;
  ASSERT_TRUE(kernel.isOpen());
  Program program = kProbes;
  ASSERT_TRUE(kernel.attach(program));
  const PacketFilter sut(kProbes);
  for (const unsigned outer : {0x88B7U, 0x8100U, 0x9100U, 0x88A8U, 0x0800U}) {
    for (const unsigned inner : {0x88B7U, 0x8100U, 0x9100U, 0x0800U}) {
      for (std::size_t size = 1; size < 33; ++size) {
        const Frame frame = frameOf({outer, 1, inner, 2, 0x88B7}, size);
        EXPECT_EQ(kernel.through(frame) > 0, sut.accept(frame) != 0)
            << outer << ' ' << inner << ' ' << size;
      }
    }
  }
}

}  // namespace
}  // namespace Portus
