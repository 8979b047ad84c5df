// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/PacketTotals.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "runtime/vex/VirtualActivityManager.h"

namespace Platform::Linux {
namespace {

using Portus::IntfId;
using Ringward::Status::IntfTotals;

class PacketTotalsTest : public testing::Test {
 protected:
  std::unique_ptr<PacketTotals> newTotals() {
    return std::make_unique<PacketTotals>(dir_, [this] { return socket_; });
  }

  Vex::VirtualActivityManager loop_{1000.0};
  Vex::CurrentActivityManager current_{loop_};
  const Vex::Ptr<Ringward::Status::IntfTotalsDir> dir_ =
      Vex::makePtr<Ringward::Status::IntfTotalsDir>("packetAccess");
  PacketSocket::Statistics socket_;
  const IntfId eth1 = IntfId::fromName("eth1");
  const IntfId eth2 = IntfId::fromName("eth2");
};

TEST_F(PacketTotalsTest, CountsAreWrittenTogetherASecondAfterTheFirst) {
  const auto sut = newTotals();
  auto& first = sut->countsIs(eth1);
  auto& second = sut->countsIs(eth2);
  for (int i = 0; i < 1000; ++i) sut->sent(first);
  sut->received(second, true);
  sut->received(second, false);
  loop_.runFor(0.99);
  EXPECT_EQ(dir_->intfTotals(eth1), IntfTotals());
  sut->sent(first);
  loop_.runFor(0.01);
  EXPECT_EQ(dir_->intfTotals(eth1), (IntfTotals{eth1, 1001, 0, 0, 0, 0, 0}));
  EXPECT_EQ(dir_->intfTotals(eth2), (IntfTotals{eth2, 0, 0, 1, 0, 1, 0}));
}

TEST_F(PacketTotalsTest, AnIdleSystemWritesNothing) {
  const auto sut = newTotals();
  sut->sent(sut->countsIs(eth1));
  loop_.runFor(1.0);
  dir_->intfTotalsDel(eth1);
  dir_->intfTotalsDel(IntfId());
  loop_.runFor(100.0);
  EXPECT_EQ(dir_->intfTotalsMap().members(), 0U);
}

TEST_F(PacketTotalsTest, AFailedSendIsAnErrorInPlaceOfAProbe) {
  const auto sut = newTotals();
  auto& counts = sut->countsIs(eth1);
  sut->sent(counts);
  sut->sent(counts);
  sut->sendFailed(eth1);
  sut->sendFailed(eth2);
  sut->write();
  EXPECT_EQ(dir_->intfTotals(eth1), (IntfTotals{eth1, 1, 1, 0, 0, 0, 0}));
  EXPECT_EQ(dir_->intfTotals(eth2), IntfTotals());
}

TEST_F(PacketTotalsTest, WhatTheSocketAloneKnowsStandsUnderNoInterface) {
  const auto sut = newTotals();
  socket_.foreign = 7;
  socket_.kernelDrops = 8;
  socket_.rejectedByRule = 9;
  sut->sent(sut->countsIs(eth1));
  sut->write();
  EXPECT_EQ(dir_->intfTotals(IntfId()), (IntfTotals{IntfId(), 0, 0, 0, 7, 9, 8}));
  EXPECT_EQ(dir_->intfTotals(eth1).foreignProbes, 0U);
}

TEST_F(PacketTotalsTest, GoesOnFromWhatTheFirstTableSaysAndFromNoOther) {
  dir_->intfTotalsIs({eth1, 100, 0, 0, 0, 0, 0});
  dir_->intfTotalsIs({IntfId(), 0, 0, 0, 10, 0, 0});
  const auto sut = newTotals();
  auto& counts = sut->countsIs(eth1);
  sut->sent(counts);
  socket_.foreign = 1;
  sut->handleTableMounted();
  EXPECT_EQ(dir_->intfTotals(eth1).probesSent, 101U);
  EXPECT_EQ(dir_->intfTotals(IntfId()).foreignProbes, 11U);
  dir_->intfTotalsIs({eth1, 5000, 0, 0, 0, 0, 0});
  dir_->intfTotalsDel(IntfId());
  sut->handleTableMounted();
  EXPECT_EQ(dir_->intfTotals(eth1).probesSent, 101U);
  EXPECT_EQ(dir_->intfTotals(IntfId()).foreignProbes, 11U);
}

TEST_F(PacketTotalsTest, InterfacesThatHaveGoneMakeRoomForNewOnes) {
  const auto sut = newTotals();
  sut->mostInterfacesIs(2);
  auto& first = sut->countsIs(eth1);
  auto& second = sut->countsIs(eth2);
  sut->sent(first);
  sut->sent(second);
  sut->write();
  sut->countsDel(first);
  auto& third = sut->countsIs(IntfId::fromName("eth3"));
  sut->sent(third);
  sut->write();
  EXPECT_EQ(dir_->intfTotals(eth1), IntfTotals());
  EXPECT_EQ(dir_->intfTotals(eth2).probesSent, 1U);
  EXPECT_EQ(dir_->intfTotalsMap().members(), 3U);  // with that of no interface
}

TEST_F(PacketTotalsTest, AFullTableOfAnEarlierRunLosesOneRecordToEachNewName) {
  for (const char* const name : {"eth1", "eth2", "eth3"}) {
    dir_->intfTotalsIs({IntfId::fromName(name), 100, 0, 0, 0, 0, 0});
  }
  const auto sut = newTotals();
  sut->mostInterfacesIs(3);
  sut->handleTableMounted();
  std::vector<IntfId> adopted;
  for (auto at = dir_->intfTotalsIteratorConst(); at; ++at) {
    if (at.key()) adopted.push_back(at.key());
  }
  ASSERT_EQ(adopted.size(), 3U);
  sut->sent(sut->countsIs(IntfId::fromName("new1")));
  for (std::size_t i = 0; i < 2; ++i) sut->sent(sut->countsIs(adopted[i]));
  sut->write();
  EXPECT_EQ(dir_->intfTotals(IntfId::fromName("new1")).probesSent, 1U);
  EXPECT_EQ(dir_->intfTotals(adopted[0]).probesSent, 101U);
  EXPECT_EQ(dir_->intfTotals(adopted[1]).probesSent, 101U);
  EXPECT_EQ(dir_->intfTotals(adopted[2]), IntfTotals()) << "the last that was adopted";
  EXPECT_EQ(dir_->intfTotalsMap().members(), 4U);  // with that of no interface
}

TEST_F(PacketTotalsTest, ATableThatHoldsMoreThanTheLimitIsAdoptedWhole) {
  const std::vector<IntfId> names{eth1, eth2, IntfId::fromName("eth3")};
  for (const IntfId& name : names) dir_->intfTotalsIs({name, 100, 0, 0, 0, 0, 0});
  const auto sut = newTotals();
  sut->mostInterfacesIs(2);
  sut->handleTableMounted();
  for (const IntfId& name : names) sut->sent(sut->countsIs(name));
  sut->write();
  for (const IntfId& name : names) EXPECT_EQ(dir_->intfTotals(name).probesSent, 101U) << name;
}

TEST_F(PacketTotalsTest, WhatHasNoRoomWhenItIsAdoptedGoesWithItsRecord) {
  const auto sut = newTotals();
  sut->mostInterfacesIs(2);
  sut->sent(sut->countsIs(IntfId::fromName("new1")));
  sut->sent(sut->countsIs(IntfId::fromName("new2")));
  dir_->intfTotalsIs({eth1, 100, 0, 0, 0, 0, 0});
  sut->handleTableMounted();
  EXPECT_EQ(dir_->intfTotals(eth1), IntfTotals()) << "there is no room for it";
  EXPECT_EQ(dir_->intfTotalsMap().members(), 3U);
  sut->mostInterfacesIs(3);
  sut->sent(sut->countsIs(eth1));
  sut->write();
  EXPECT_EQ(dir_->intfTotals(eth1).probesSent, 1U);
}

TEST_F(PacketTotalsTest, NamesOfEarlierRunsGoBeforeThoseOfThisOneAndTheseByTheirEnd) {
  dir_->intfTotalsIs({eth1, 100, 0, 0, 0, 0, 0});
  const auto sut = newTotals();
  sut->mostInterfacesIs(3);
  sut->handleTableMounted();
  auto& first = sut->countsIs(eth2);
  auto& second = sut->countsIs(IntfId::fromName("eth3"));
  sut->sent(first);
  sut->sent(second);
  sut->write();
  sut->countsDel(second);
  sut->countsDel(first);
  sut->countsIs(IntfId::fromName("new1"));
  EXPECT_EQ(dir_->intfTotals(eth1), IntfTotals());
  EXPECT_EQ(dir_->intfTotals(IntfId::fromName("eth3")).probesSent, 1U);
  sut->countsIs(IntfId::fromName("new2"));
  EXPECT_EQ(dir_->intfTotals(IntfId::fromName("eth3")), IntfTotals());
  EXPECT_EQ(dir_->intfTotals(eth2).probesSent, 1U);
}

TEST_F(PacketTotalsTest, AnInterfaceThatComesBackGoesOnCounting) {
  const auto sut = newTotals();
  auto& counts = sut->countsIs(eth1);
  sut->sent(counts);
  sut->countsDel(counts);
  sut->sent(sut->countsIs(eth1));
  sut->write();
  EXPECT_EQ(dir_->intfTotals(eth1).probesSent, 2U);
}

TEST_F(PacketTotalsTest, WritesWhatIsLeftWhenItEnds) {
  auto sut = newTotals();
  sut->sent(sut->countsIs(eth1));
  sut.reset();
  EXPECT_EQ(dir_->intfTotals(eth1).probesSent, 1U);
}

TEST_F(PacketTotalsTest, WhatTheSocketHasCountedSinceTheLastProbeIsWrittenWhenItEnds) {
  auto sut = newTotals();
  socket_.foreign = 7;
  sut->sent(sut->countsIs(eth1));
  loop_.runFor(1.0);
  socket_.foreign = 8;
  loop_.runFor(100.0);
  EXPECT_EQ(dir_->intfTotals(IntfId()).foreignProbes, 7U) << "nobody is woken for it";
  sut.reset();
  EXPECT_EQ(dir_->intfTotals(IntfId()).foreignProbes, 8U);
}

TEST_F(PacketTotalsTest, WithNothingNewItsEndWritesNothing) {
  auto sut = newTotals();
  socket_.foreign = 7;
  sut->write();
  dir_->intfTotalsDel(IntfId());
  sut.reset();
  EXPECT_EQ(dir_->intfTotalsMap().members(), 0U);
  newTotals().reset();  // 7 again, which this one has not written
  EXPECT_EQ(dir_->intfTotals(IntfId()).foreignProbes, 7U);
}

TEST(IntfTotalsRecord, PrintsEveryCountByName) {
  std::ostringstream text;
  text << IntfTotals{IntfId::fromName("eth1"), 1, 2, 3, 4, 5, 6};
  EXPECT_EQ(text.str(),
            "eth1: probesSent 1, sendErrors 2, probesReceived 3, foreignProbes 4, malformed 5, "
            "kernelDrops 6");
}

}  // namespace
}  // namespace Platform::Linux
