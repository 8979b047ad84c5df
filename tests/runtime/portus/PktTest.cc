// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/Pkt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "runtime/portus/EthHdr.h"
#include "runtime/vex/Exception.h"

namespace Portus {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes counting(std::size_t n, std::uint8_t from = 1) {
  Bytes bytes(n);
  std::iota(bytes.begin(), bytes.end(), from);
  return bytes;
}

Bytes allOf(const Pkt& pkt) {
  Bytes bytes(pkt.totalLength());
  EXPECT_EQ(pkt.copyTo(bytes), bytes.size());
  return bytes;
}

Bytes currentOf(const Pkt& pkt) {
  const auto bytes = pkt.bytes();
  return {bytes.begin(), bytes.end()};
}

class PktTest : public testing::Test {
 protected:
  Vex::Ptr<Pkt::Manager> manager_ = Vex::makePtr<Pkt::Manager>();
};

TEST_F(PktTest, NewPacketIsEmpty) {
  const auto sut = manager_->newPkt();
  ASSERT_TRUE(sut);
  EXPECT_EQ(sut->totalLength(), 0U);
  EXPECT_EQ(sut->fragmentLength(), 0U);
  EXPECT_EQ(sut->fragments(), 1U);
  EXPECT_TRUE(sut->bytes().empty());
}

TEST_F(PktTest, ReservedBytesAreZeroAndWritable) {
  const auto sut = manager_->newPkt();
  std::uint8_t* const at = sut->headReserve(28);
  EXPECT_EQ(at, sut->data());
  EXPECT_EQ(sut->totalLength(), 28U);
  EXPECT_EQ(currentOf(*sut), Bytes(28));
  EthHdr::at(at)->typeOrLenIs(0x88B7);
  EXPECT_EQ(sut->bytes()[12], 0x88);
}

TEST_F(PktTest, ReserveGoesBeforeTheBytesThatAreThere) {
  const auto sut = manager_->newPkt();
  sut->bytesIs(counting(3));
  sut->headReserve(2)[0] = 0xEE;
  EXPECT_EQ(allOf(*sut), (Bytes{0xEE, 0, 1, 2, 3}));
  EXPECT_EQ(sut->fragmentLength(), 5U);
}

TEST_F(PktTest, ReserveTakesTheWholeBufferInAnyNumberOfSteps) {
  const auto sut = manager_->newPkt();
  sut->headReserve(2000);
  sut->headReserve(0);
  sut->headReserve(48);
  EXPECT_EQ(sut->totalLength(), Pkt::kInlineCapacity);
}

TEST_F(PktTest, ReserveBeyondTheBufferEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto sut = manager_->newPkt();
  EXPECT_DEATH(sut->headReserve(2049), "ASSERTION FAILED: sharedBuffer_ != 0");
  sut->headReserve(2048);
  EXPECT_DEATH(sut->headReserve(1), "ASSERTION FAILED: sharedBuffer_ != 0");
  EXPECT_DEATH(sut->headReserve(~std::size_t{0}), "ASSERTION FAILED: sharedBuffer_ != 0");
}

TEST_F(PktTest, LargeBufferIsGivenUpOnReturnToThePool) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto sut = manager_->newPkt();
  const Pkt* const address = sut.get();
  sut->bytesIs(Bytes(9000, 0xAA));
  sut.reset();
  sut = manager_->newPkt();
  ASSERT_EQ(sut.get(), address);
  EXPECT_DEATH(sut->headReserve(2049), "ASSERTION FAILED: sharedBuffer_ != 0");
}

TEST_F(PktTest, BytesAreACopy) {
  const auto sut = manager_->newPkt();
  Bytes source = counting(60);
  sut->bytesIs(source);
  std::fill(source.begin(), source.end(), std::uint8_t{0});
  EXPECT_EQ(currentOf(*sut), counting(60));
}

TEST_F(PktTest, TwoFragmentsCountFromTheCurrentOne) {
  const auto sut = manager_->newPkt();
  sut->bytesIs(counting(18), counting(14, 100));
  EXPECT_EQ(sut->fragments(), 2U);
  EXPECT_EQ(sut->fragmentLength(), 18U);
  EXPECT_EQ(sut->totalLength(), 32U);
  EXPECT_EQ(currentOf(*sut), counting(18));
  sut->currentFragmentIs(1);
  EXPECT_EQ(sut->fragmentLength(), 14U);
  EXPECT_EQ(sut->totalLength(), 14U);
  EXPECT_EQ(currentOf(*sut), counting(14, 100));
  EXPECT_EQ(allOf(*sut), counting(14, 100));
}

TEST_F(PktTest, CopyGathersBothFragments) {
  const auto sut = manager_->newPkt();
  sut->bytesIs(counting(10), counting(22, 11));
  EXPECT_EQ(allOf(*sut), counting(32));
  Bytes room(12);
  EXPECT_EQ(sut->copyTo(room), 12U);
  EXPECT_EQ(room, counting(12));
  Bytes large(40, 0xAA);
  EXPECT_EQ(sut->copyTo(large), 32U);
  EXPECT_EQ(large[31], 32);
  EXPECT_EQ(large[32], 0xAA);
}

TEST_F(PktTest, FragmentsLieSideBySideSoThatAHeaderMayCrossThem) {
  const auto sut = manager_->newPkt();
  sut->bytesIs(counting(13), counting(19, 14));
  EXPECT_EQ(EthHdr::at(sut->data())->typeOrLen(), 0x0D0E);
}

TEST_F(PktTest, CurrentFragmentMustExist) {
  const auto sut = manager_->newPkt();
  sut->bytesIs(counting(5));
  EXPECT_THROW(sut->currentFragmentIs(1), Vex::RangeException);
  sut->bytesIs(counting(5), counting(5));
  EXPECT_THROW(sut->currentFragmentIs(2), Vex::RangeException);
  sut->currentFragmentIs(1);
  sut->currentFragmentIs(0);
  EXPECT_EQ(sut->totalLength(), 10U);
}

TEST_F(PktTest, EveryChangeMakesTheFirstFragmentCurrent) {
  const auto sut = manager_->newPkt();
  sut->bytesIs(counting(5), counting(6));
  sut->currentFragmentIs(1);
  sut->headReserve(4);
  EXPECT_EQ(sut->totalLength(), 15U);
  EXPECT_EQ(sut->fragmentLength(), 9U);
  sut->currentFragmentIs(1);
  sut->bytesIs(counting(7), counting(8));
  EXPECT_EQ(sut->totalLength(), 15U);
  EXPECT_EQ(sut->fragmentLength(), 7U);
}

TEST_F(PktTest, EmptyFirstFragmentLeavesOneFragment) {
  const auto sut = manager_->newPkt();
  sut->bytesIs({}, counting(4));
  EXPECT_EQ(sut->fragments(), 1U);
  EXPECT_EQ(currentOf(*sut), counting(4));
}

TEST_F(PktTest, LargeFramesKeepHeadroomAndTheirBytes) {
  const auto sut = manager_->newPkt();
  for (const std::size_t size :
       {std::size_t{2048}, std::size_t{2049}, std::size_t{9018}, Pkt::kMaxLength}) {
    sut->bytesIs(counting(size));
    EXPECT_EQ(allOf(*sut), counting(size));
  }
  sut->headReserve(Pkt::kHeadroom);
  EXPECT_EQ(sut->totalLength(), Pkt::kMaxLength + Pkt::kHeadroom);
  sut->bytesIs(counting(28));
  EXPECT_EQ(allOf(*sut), counting(28));
}

TEST_F(PktTest, RefusesMoreThanTheLongestFrameAndStaysAsItWas) {
  const auto sut = manager_->newPkt();
  sut->bytesIs(counting(28));
  const Bytes tooLong(Pkt::kMaxLength + 1);
  EXPECT_THROW(sut->bytesIs(tooLong), Vex::RangeException);
  EXPECT_THROW(sut->bytesIs(Bytes(1), Bytes(Pkt::kMaxLength)), Vex::RangeException);
  EXPECT_EQ(allOf(*sut), counting(28));
}

TEST_F(PktTest, CanBeCutToAPartOfItself) {
  const auto sut = manager_->newPkt();
  sut->bytesIs(counting(100));
  // Swapped halves overlap their targets from both sides.
  sut->bytesIs(sut->bytes().subspan(50), sut->bytes().first(50));
  Bytes expected = counting(50, 51);
  const Bytes second = counting(50);
  expected.insert(expected.end(), second.begin(), second.end());
  EXPECT_EQ(allOf(*sut), expected);
}

TEST_F(PktTest, LastReferenceReturnsThePacketToThePool) {
  auto first = manager_->newPkt();
  auto second = first;
  first.reset();
  EXPECT_EQ(manager_->outstanding(), 1U);
  EXPECT_EQ(manager_->idle(), 0U);
  second.reset();
  EXPECT_EQ(manager_->outstanding(), 0U);
  EXPECT_EQ(manager_->idle(), 1U);
}

TEST_F(PktTest, SteadyFlowUsesTheSamePacketsAgain) {
  std::set<const Pkt*> made;
  for (int burst = 0; burst < 100; ++burst) {
    std::vector<Vex::Ptr<Pkt>> pkts;
    for (int i = 0; i < 32; ++i) {
      pkts.push_back(manager_->newPkt());
      made.insert(pkts.back().get());
    }
  }
  EXPECT_EQ(made.size(), 32U);
  EXPECT_EQ(manager_->idle(), 32U);
}

TEST_F(PktTest, RecycledPacketIsAsGoodAsNew) {
  auto sut = manager_->newPkt();
  const Pkt* const address = sut.get();
  sut->bytesIs(Bytes(5000, 0xAA), Bytes(100, 0xBB));
  sut->currentFragmentIs(1);
  sut->vexMarkedForDeletionIs(true);
  sut.reset();
  sut = manager_->newPkt();
  ASSERT_EQ(sut.get(), address);
  EXPECT_EQ(sut->references(), 1U);
  EXPECT_FALSE(sut->isZombie());
  EXPECT_EQ(sut->totalLength(), 0U);
  EXPECT_EQ(sut->fragments(), 1U);
  sut->headReserve(Pkt::kInlineCapacity);
  EXPECT_EQ(currentOf(*sut), Bytes(Pkt::kInlineCapacity));
}

TEST_F(PktTest, ReserveShowsNothingOfAnEarlierUse) {
  auto sut = manager_->newPkt();
  sut->bytesIs(Bytes(Pkt::kInlineCapacity, 0xAA));
  sut.reset();
  sut = manager_->newPkt();
  sut->headReserve(32);
  EXPECT_EQ(currentOf(*sut), Bytes(32));
}

TEST_F(PktTest, NoPacketBeyondTheLimit) {
  manager_->maxOutstandingIs(2);
  auto first = manager_->newPkt();
  auto second = manager_->newPkt();
  EXPECT_FALSE(manager_->newPkt());
  first.reset();
  EXPECT_TRUE(manager_->newPkt());
  manager_->maxOutstandingIs(1);
  EXPECT_FALSE(manager_->newPkt());
  second.reset();
  EXPECT_TRUE(manager_->newPkt());
  manager_->maxOutstandingIs(0);
  EXPECT_FALSE(manager_->newPkt());
}

TEST_F(PktTest, LimitIs65536Unasked) { EXPECT_EQ(manager_->maxOutstanding(), 65536U); }

TEST_F(PktTest, BurstsMemoryIsGivenBack) {
  std::vector<Vex::Ptr<Pkt>> pkts;
  for (std::size_t i = 0; i < Pkt::Manager::kMaxIdle + 10; ++i) pkts.push_back(manager_->newPkt());
  pkts.clear();
  EXPECT_EQ(manager_->outstanding(), 0U);
  EXPECT_EQ(manager_->idle(), Pkt::Manager::kMaxIdle);
}

TEST_F(PktTest, PacketsMayOutliveTheirManager) {
  auto first = manager_->newPkt();
  auto second = manager_->newPkt();
  first->bytesIs(counting(28));
  manager_.reset();
  second.reset();
  EXPECT_EQ(allOf(*first), counting(28));
}

TEST(GlobalPktManager, IsOneForTheProcess) {
  EXPECT_EQ(globalPktManager().get(), globalPktManager().get());
  EXPECT_TRUE(globalPktManager()->newPkt());
}

// With thread-safe pointers on, packets are made on any thread and dropped on any other.
TEST_F(PktTest, PoolSurvivesSeveralThreads) {
  Vex::enableThreadSafePointers = true;
  {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([this] {
        for (int i = 0; i < 2000; ++i) {
          auto pkt = manager_->newPkt();
          pkt->headReserve(28);
          const auto copy = pkt;
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
  Vex::enableThreadSafePointers = false;
  EXPECT_EQ(manager_->outstanding(), 0U);
  EXPECT_LE(manager_->idle(), 4U);
  EXPECT_EQ(manager_->references(), 1U);
}

}  // namespace
}  // namespace Portus
