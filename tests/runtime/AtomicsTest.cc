// SPDX-License-Identifier: Apache-2.0
#include "runtime/mem/Atomics.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <array>
#include <cstring>
#include <sstream>
#include <thread>

namespace {

using Mem::VerU32;

TEST(VerU32, PrintsVersionInHexadecimalAndValueInDecimal) {
  std::ostringstream out;
  out << VerU32{0x1f, 100} << " " << 100;
  EXPECT_EQ(out.str(), "1f:100 100");
}

TEST(VerU32, NextVersionWrapsAt32Bits) {
  EXPECT_EQ((VerU32{0xFFFFFFFF, 5}.next(9)), (VerU32{0, 9}));
}

TEST(VerU32, VersionIsTheLowHalfOfTheWord) {
  const VerU32 word{1, 2};
  std::uint64_t bits;
  std::memcpy(&bits, &word, sizeof bits);
  EXPECT_EQ(bits, 0x0000000200000001U);
}

TEST(Atomics, ThisProcessorIsSupported) { EXPECT_TRUE(Mem::Atomics::checkCpuSupport()); }

// A 64-bit load that is made of a compare-and-exchange writes, and dies here.
TEST(Atomics, A64BitLoadNeedsNoRightToWrite) {
  void* page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  auto* const word = static_cast<Mem::SharedVerU32*>(page);
  word->store({7, 8}, Mem::release);
  ASSERT_EQ(mprotect(page, 4096, PROT_READ), 0);
  EXPECT_EQ(word->load(Mem::acquire), (VerU32{7, 8}));
  EXPECT_EQ(word->load(Mem::relaxed), (VerU32{7, 8}));
  EXPECT_EQ(word->version(Mem::acquire), 7U);
  munmap(page, 4096);
}

// Shows that no load mixes two stores, as often as it is run; not that none ever could.
TEST(Atomics, A64BitWordIsNeverTorn) {
  Mem::SharedVerU32 word;
  word.store({0, 0}, Mem::release);
  std::thread writer([&word] {
    for (std::uint32_t i = 1; i <= 200'000; ++i) word.store({i, ~i}, Mem::release);
  });
  std::uint32_t torn = 0;
  for (VerU32 seen; seen.version != 200'000;) {
    seen = word.load(Mem::acquire);
    if (seen.version != 0 && seen.value != ~seen.version) ++torn;
  }
  writer.join();
  EXPECT_EQ(torn, 0U);
}

// Every size around the word sizes: nothing is left out, nothing behind the end is touched.
TEST(Atomics, CopiesMoveExactlyTheirBytes) {
  for (std::size_t size = 0; size <= 40; ++size) {
    std::array<unsigned char, 64> own{};
    for (std::size_t i = 0; i < own.size(); ++i) own[i] = static_cast<unsigned char>(i + 1);
    Mem::SharedBytes<64> shared;
    shared.clear();
    shared.copyIn(own.data(), size);
    std::array<unsigned char, 64> back{};
    back.fill(0xEE);
    shared.copyOut(back.data(), size);
    std::array<unsigned char, 64> all{};
    shared.copyOut(all.data());
    for (std::size_t i = 0; i < 64; ++i) {
      EXPECT_EQ(back[i], i < size ? i + 1 : 0xEE) << size;
      EXPECT_EQ(all[i], i < size ? i + 1 : 0) << size;
    }
  }
}

}  // namespace
