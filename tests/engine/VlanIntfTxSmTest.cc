// SPDX-License-Identifier: Apache-2.0
#include "engine/VlanIntfTxSm.h"

#include <gtest/gtest.h>

#include <bit>

#include "engine/TransmitSm.h"
#include "runtime/vex/Exception.h"
#include "tests/engine/World.h"

namespace {

class VlanIntfTxSm : public testing::Test {
 protected:
  Vex::Ptr<Ringward::VlanIntfTxSm> make(int vlan = 10) {
    return Ringward::vlanIntfTxSmFactory(intf, vlanOf(vlan), w.config->globalIntfConfig(), w.wheel,
                                         intfStatus, w.queues);
  }
  // Past the random first delay.
  void runToTheFirstExpiry(const Ringward::VlanIntfTxSm& sm) {
    w.manager.runUntil(sm.sendPacketTime() + 0.02);
  }
  std::uint32_t regular() const { return w.queues->regularPriority().members(); }
  std::uint32_t high() const { return w.queues->highPriority().members(); }

  World w;
  Portus::IntfId intf = w.port("eth1");
  Vex::Ptr<Ringward::Status::IntfStatus> intfStatus = w.status->intfStatusIs(intf);
};

TEST_F(VlanIntfTxSm, TheFirstProbeIsSpreadOverTheIntervalAndQueuesNothingYet) {
  double least = 1e9;
  double most = 0;
  for (int i = 0; i < 200; ++i) {
    const auto sut = make();
    EXPECT_TRUE(sut->initialized());
    const double delay = sut->sendPacketTime() - w.now();
    ASSERT_GE(delay, 0.0);
    ASSERT_LT(delay, 5.0);
    least = std::min(least, delay);
    most = std::max(most, delay);
  }
  EXPECT_LT(least, 1.0);
  EXPECT_GT(most, 4.0);
  EXPECT_EQ(regular() + high(), 0U);
}

TEST_F(VlanIntfTxSm, AfterTheFirstOneAProbeIsAskedForEachInterval) {
  const auto sut = make();
  runToTheFirstExpiry(*sut);
  EXPECT_EQ(regular(), 1U);
  const double next = sut->sendPacketTime();
  EXPECT_NEAR(next, w.now() + 5.0, 0.03);
  w.queues->regularPriorityDeq();
  sut->packetInQueueIs(false);
  w.manager.runUntil(next - 0.02);
  EXPECT_EQ(regular(), 0U);
  w.manager.runUntil(next + 0.02);
  EXPECT_EQ(regular(), 1U);
}

TEST_F(VlanIntfTxSm, AChangedIntervalCountsFromTheNextExpiry) {
  const auto sut = make();
  runToTheFirstExpiry(*sut);
  const double next = sut->sendPacketTime();
  w.config->globalIntfConfig()->transmitIntervalIs(60);
  EXPECT_EQ(sut->sendPacketTime(), next);
  w.manager.runUntil(next + 0.02);
  EXPECT_NEAR(sut->sendPacketTime(), next + 60.0, 0.03);
}

TEST_F(VlanIntfTxSm, AnIntervalOfZeroProbesOnEveryTurnOfTheWheel) {
  w.config->globalIntfConfig()->transmitIntervalIs(0);
  const auto pam = w.openPam(intf);
  const auto scheduler =
      Ringward::transmitSmFactory(w.wheel, w.config->transmitConfig(), w.queues, w.pams, w.counters,
                                  w.status, w.topoLibState, w.brConfig, nullptr);
  const auto sut = make();
  const double start = w.manager.now();
  for (int i = 1; i <= 10; ++i) {
    w.manager.runUntil(start + i * 0.01 + 0.005);  // between two ticks
    sut->packetInQueueIs(false);                   // as the whole engine does on each dequeue
  }
  EXPECT_EQ(pam->sent.size(), 10U);
}

TEST_F(VlanIntfTxSm, TheDefaultIntervalIsFiveSeconds) {
  EXPECT_EQ(w.config->globalIntfConfig()->transmitInterval(), 5);
}

TEST_F(VlanIntfTxSm, AnExpiryWhileTheRequestStillWaitsQueuesNothingAndRearms) {
  const auto sut = make();
  runToTheFirstExpiry(*sut);
  const double next = sut->sendPacketTime();
  w.manager.runUntil(next + 0.02);
  EXPECT_EQ(regular(), 1U);
  EXPECT_NEAR(sut->sendPacketTime(), next + 5.0, 0.03);
}

TEST_F(VlanIntfTxSm, TheFlagIsSetBeforeTheAppend) {
  class Watcher final : public Ringward::Status::TransmitStatus::NotifieeConst {
   public:
    using NotifieeConst::onRegularPriority;
    void onRegularPriority(std::uint32_t /*index*/) override {
      seen.push_back(sm->packetInQueue());
      sm->packetInQueueIs(false);  // what the scheduler does when it takes the request at once
    }
    Ringward::VlanIntfTxSm* sm = nullptr;
    std::vector<bool> seen;
  };
  const auto sut = make();
  const auto watcher = Vex::makePtr<Watcher>();
  watcher->sm = sut.get();
  watcher->notifierIs(w.queues);
  watcher->isRegisteredNotifieeIs(true);
  sut->handleSendPacket();
  EXPECT_EQ(watcher->seen, std::vector<bool>{true});
  EXPECT_FALSE(sut->packetInQueue());  // and not set again behind it
  watcher->isRegisteredNotifieeIs(false);
}

TEST_F(VlanIntfTxSm, BecomingDisabledSilencesTheTimerAndEmptiesBothQueuesOfThePair) {
  const auto sut = make();
  w.queues->highPriorityEnq(pairOf("eth1", 10));
  w.queues->highPriorityEnq(pairOf("eth1", 11));
  w.queues->highPriorityEnq(pairOf("eth1", 10));
  w.queues->regularPriorityEnq(pairOf("eth2", 10));
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  sut->packetInQueueIs(true);
  intfStatus->disabledIs(true);
  EXPECT_EQ(sut->sendPacketTime(), kNever);
  ASSERT_EQ(high(), 1U);
  EXPECT_EQ(w.queues->highPriority().head()->value(), pairOf("eth1", 11));
  ASSERT_EQ(regular(), 1U);
  EXPECT_EQ(w.queues->regularPriority().head()->value(), pairOf("eth2", 10));
  EXPECT_FALSE(sut->packetInQueue());
  w.manager.runFor(100.0);
  EXPECT_EQ(regular(), 1U);
}

TEST_F(VlanIntfTxSm, BecomingEnabledProbesAtOnceWithHighPriorityAndPacesFromThere) {
  intfStatus->disabledIs(true);
  const auto sut = make();
  w.manager.runFor(100.0);
  intfStatus->disabledIs(false);
  ASSERT_EQ(high(), 1U);
  EXPECT_EQ(w.queues->highPriority().head()->value(), pairOf("eth1", 10));
  EXPECT_EQ(sut->sendPacketTime(), w.now() + 5.0);
  EXPECT_FALSE(sut->packetInQueue());
  EXPECT_EQ(regular(), 0U);
}

TEST_F(VlanIntfTxSm, TheTimerIsArmedBeforeTheHighRequestIsQueued) {
  class Watcher final : public Ringward::Status::TransmitStatus::NotifieeConst {
   public:
    using NotifieeConst::onHighPriority;
    void onHighPriority(std::uint32_t /*index*/) override { time = sm->sendPacketTime(); }
    Ringward::VlanIntfTxSm* sm = nullptr;
    double time = 0;
  };
  intfStatus->disabledIs(true);
  const auto sut = make();
  const auto watcher = Vex::makePtr<Watcher>();
  watcher->sm = sut.get();
  watcher->notifierIs(w.queues);
  watcher->isRegisteredNotifieeIs(true);
  intfStatus->disabledIs(false);
  EXPECT_EQ(watcher->time, w.now() + 5.0);
  watcher->isRegisteredNotifieeIs(false);
}

TEST_F(VlanIntfTxSm, AMachineMadeOverADisabledInterfaceIsSilent) {
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  intfStatus->disabledIs(true);
  const auto sut = make();
  EXPECT_EQ(sut->sendPacketTime(), kNever);
  EXPECT_EQ(regular(), 0U);
  EXPECT_EQ(high(), 0U);
}

TEST_F(VlanIntfTxSm, AnExpiryWhileDisabledNeitherQueuesNorRearms) {
  const auto sut = make();
  sut->hasNotificationActiveIs(false);
  intfStatus->disabledIs(true);  // unseen
  const double before = sut->sendPacketTime();
  sut->handleSendPacket();
  EXPECT_EQ(regular(), 0U);
  EXPECT_EQ(sut->sendPacketTime(), before);
}

TEST_F(VlanIntfTxSm, TheHighRequestOfAReenablingStaysUntilAFurtherDisable) {
  const auto sut = make();
  intfStatus->disabledIs(true);
  intfStatus->disabledIs(false);
  EXPECT_EQ(high(), 1U);
  runToTheFirstExpiry(*sut);  // a regular request beside it, the high one not counted as queued
  EXPECT_EQ(high(), 1U);
  EXPECT_EQ(regular(), 1U);
  intfStatus->disabledIs(true);
  EXPECT_EQ(high() + regular(), 0U);
}

TEST_F(VlanIntfTxSm, RemovingTheMachineDeletesItsWaitingRequest) {
  auto sut = make();
  runToTheFirstExpiry(*sut);
  EXPECT_EQ(regular(), 1U);
  sut->doPrepareToDie();
  EXPECT_EQ(regular(), 0U);
  EXPECT_FALSE(sut->packetInQueue());
  sut = nullptr;
  w.manager.runFor(100.0);
  EXPECT_EQ(regular(), 0U);
}

TEST_F(VlanIntfTxSm, ARequestOfAPairWhoseMachineIsGoneIsStillSent) {
  auto sut = make();
  runToTheFirstExpiry(*sut);
  sut = nullptr;  // without doPrepareToDie
  EXPECT_EQ(regular(), 1U);
  const auto pam = w.openPam(intf);
  const auto scheduler =
      Ringward::transmitSmFactory(w.wheel, w.config->transmitConfig(), w.queues, w.pams, w.counters,
                                  w.status, w.topoLibState, w.brConfig, nullptr);
  EXPECT_EQ(pam->sent.size(), 1U);
}

TEST_F(VlanIntfTxSm, RemovalVisitsHighThenRegularEachFromHeadToTail) {
  class Watcher final : public Ringward::Status::TransmitStatus::NotifieeConst {
   public:
    using NotifieeConst::onHighPriority;
    using NotifieeConst::onRegularPriority;
    void onHighPriority(std::uint32_t index) override { seen.push_back({'h', index}); }
    void onRegularPriority(std::uint32_t index) override { seen.push_back({'r', index}); }
    std::vector<std::pair<char, std::uint32_t>> seen;
  };
  const auto sut = make();
  for (const int vlan : {10, 11, 10, 12, 10}) {
    w.queues->regularPriorityEnq(pairOf("eth1", vlan));
    w.queues->highPriorityEnq(pairOf("eth1", vlan));
  }
  const auto watcher = Vex::makePtr<Watcher>();
  watcher->notifierIs(w.queues);
  watcher->isRegisteredNotifieeIs(true);
  sut->removeFromTransmitQueues();
  using Seen = std::vector<std::pair<char, std::uint32_t>>;
  EXPECT_EQ(watcher->seen, (Seen{{'h', 0}, {'h', 2}, {'h', 4}, {'r', 0}, {'r', 2}, {'r', 4}}));
  watcher->isRegisteredNotifieeIs(false);
}

TEST_F(VlanIntfTxSm, RemovalFindsMatchesThatAReactionToTheFirstOneAppends) {
  class Watcher final : public Ringward::Status::TransmitStatus::NotifieeConst {
   public:
    using NotifieeConst::onRegularPriority;
    void onRegularPriority(std::uint32_t /*index*/) override {
      if (budget-- > 0) queues->regularPriorityEnq(pairOf("eth1", 10));
    }
    Ringward::Status::TransmitStatus* queues = nullptr;
    int budget = 1;
  };
  const auto sut = make();
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  const auto watcher = Vex::makePtr<Watcher>();
  watcher->queues = w.queues.get();
  watcher->notifierIs(w.queues);
  watcher->isRegisteredNotifieeIs(true);
  sut->removeFromTransmitQueues();
  EXPECT_EQ(regular(), 0U);
  watcher->isRegisteredNotifieeIs(false);
}

TEST_F(VlanIntfTxSm, AZombieFollowsNeitherItsTimerNorItsInterface) {
  const auto sut = make();
  sut->vexDoZombieReactors(true);
  w.manager.runFor(20.0);
  intfStatus->disabledIs(true);
  intfStatus->disabledIs(false);
  EXPECT_EQ(regular() + high(), 0U);
}

TEST_F(VlanIntfTxSm, AMissingArgumentIsANullValidPtr) {
  EXPECT_EQ(textOf<Vex::RangeException>([&] {
              Ringward::vlanIntfTxSmFactory(intf, vlanOf(1), w.config->globalIntfConfig(), w.wheel,
                                            nullptr, w.queues);
            }),
            "null ValidPtr");
}

}  // namespace
