// SPDX-License-Identifier: Apache-2.0
#include "engine/TransmitSm.h"

#include <gtest/gtest.h>

#include <bit>

#include "engine/EngineLogs.h"
#include "engine/EngineTrace.h"
#include "runtime/vex/Exception.h"
#include "tests/engine/World.h"

namespace {

using Ringward::RINGWARD_THROTTLE;

class TransmitSm : public testing::Test {
 protected:
  Vex::Ptr<Ringward::TransmitSm> make() {
    return Ringward::transmitSmFactory(w.wheel, w.config->transmitConfig(), w.queues, w.pams,
                                       w.counters, w.status, w.topoLibState, w.brConfig, nullptr);
  }
  void limitIs(std::uint32_t limit) { w.config->transmitConfig()->rateLimitIs(limit); }
  std::uint64_t throttleAttempts() {
    return w.manager.logService().counts(RINGWARD_THROTTLE).attempts;
  }
  std::uint64_t throttleEntries() {
    return w.manager.logService().counts(RINGWARD_THROTTLE).written;
  }

  World w;
  Vex::Ptr<FakePam> pam = w.portWithPam("eth1");
};

TEST_F(TransmitSm, WithoutALimitTheTimerIsAtNeverAndEveryAppendSendsAtOnce) {
  limitIs(0);
  const auto sut = make();
  EXPECT_EQ(sut->throttleTime(), kNever);
  for (int i = 1; i <= 3000; ++i) {
    w.queues->regularPriorityEnq(pairOf("eth1", 10));
    ASSERT_EQ(pam->sent.size(), static_cast<std::size_t>(2 * i - 1));
    w.queues->highPriorityEnq(pairOf("eth1", 11));
    ASSERT_EQ(pam->sent.size(), static_cast<std::size_t>(2 * i));
  }
  EXPECT_TRUE(w.queues->regularPriority().empty());
  EXPECT_EQ(throttleAttempts(), 0U);
  EXPECT_EQ(sut->throttleTime(), kNever);
  EXPECT_EQ(sut->transmitCount(), 6000U);  // grows and is read by nobody
}

TEST_F(TransmitSm, WithALimitOfOneTheSecondHighRequestWaitsAndRegularOnesBehindIt) {
  limitIs(1);
  w.queues->highPriorityEnq(pairOf("eth1", 10));
  w.queues->highPriorityEnq(pairOf("eth1", 11));
  w.queues->regularPriorityEnq(pairOf("eth1", 12));
  const auto sut = make();
  EXPECT_EQ(pam->sent.size(), 1U);
  EXPECT_EQ(w.queues->highPriority().members(), 1U);
  EXPECT_EQ(w.queues->regularPriority().members(), 1U);
  w.manager.runFor(1.0);
  EXPECT_EQ(pam->sent.size(), 2U);
  EXPECT_TRUE(w.queues->highPriority().empty());
  EXPECT_EQ(w.queues->regularPriority().members(), 1U);
  w.manager.runFor(1.0);
  EXPECT_EQ(pam->sent.size(), 3U);
  EXPECT_TRUE(w.queues->regularPriority().empty());
}

TEST_F(TransmitSm, ExactlyTheLimitIsSentWithoutAThrottleEntry) {
  limitIs(5);
  const auto sut = make();
  for (int i = 0; i < 5; ++i) w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_EQ(pam->sent.size(), 5U);
  EXPECT_EQ(throttleAttempts(), 0U);
  EXPECT_EQ(sut->transmitCount(), 5U);
}

TEST_F(TransmitSm, OneMoreThanTheLimitStaysQueuedAndWritesTheEntry) {
  limitIs(5);
  const auto sut = make();
  for (int i = 0; i < 6; ++i) w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_EQ(pam->sent.size(), 5U);
  EXPECT_EQ(w.queues->regularPriority().members(), 1U);
  ASSERT_EQ(w.log.entries().size(), 1U);
  EXPECT_EQ(w.log.entries()[0].handle, &RINGWARD_THROTTLE);
  EXPECT_EQ(w.log.entries()[0].text, "Too many Ringward packet transmits in a second. Throttling.");
}

TEST_F(TransmitSm, AWindowIsCountedFromTheTimerSoTwoBurstsCanReachTwiceTheLimit) {
  limitIs(5);
  const auto sut = make();  // windows end at 1001, 1002, ...
  w.manager.runUntil(1000.99);
  for (int i = 0; i < 5; ++i) w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_EQ(pam->sent.size(), 5U);
  w.manager.runUntil(1001.01);
  for (int i = 0; i < 6; ++i) w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_EQ(pam->sent.size(), 10U);
}

TEST_F(TransmitSm, EachWindowResetsTheCountAndArmsTheNextOneSecondOn) {
  limitIs(5);
  const auto sut = make();
  EXPECT_EQ(sut->throttleTime(), 1001.0);
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_EQ(sut->transmitCount(), 1U);
  w.manager.runUntil(1001.0);
  EXPECT_EQ(sut->transmitCount(), 0U);
  EXPECT_EQ(sut->throttleTime(), 1002.0);
}

TEST_F(TransmitSm, ALimitSetWhereThereWasNoneRestartsTheCountAndTheWindowRunsFromTheChange) {
  limitIs(0);
  const auto sut = make();
  for (int i = 0; i < 10; ++i) w.queues->regularPriorityEnq(pairOf("eth1", 10));
  w.manager.runUntil(1007.5);
  limitIs(3);
  EXPECT_EQ(sut->transmitCount(), 0U);
  EXPECT_EQ(sut->throttleTime(), 1008.5);
}

TEST_F(TransmitSm, TakingTheLimitAwayReleasesTheQueuesAtOnceAndStopsTheTimer) {
  limitIs(1);
  const auto sut = make();
  for (int i = 0; i < 4; ++i) w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_EQ(pam->sent.size(), 1U);
  limitIs(0);
  EXPECT_EQ(pam->sent.size(), 4U);
  EXPECT_EQ(sut->throttleTime(), kNever);
}

TEST_F(TransmitSm, AnyChangeOfTheLimitBeginsANewWindowAtOnce) {
  limitIs(2);
  const auto sut = make();
  for (int i = 0; i < 5; ++i) w.queues->regularPriorityEnq(pairOf("eth1", 10));
  w.manager.runUntil(1000.5);
  limitIs(1);  // lower, and yet one more goes
  EXPECT_EQ(pam->sent.size(), 3U);
  EXPECT_EQ(sut->throttleTime(), 1001.5);
  limitIs(1);  // no change, nothing
  EXPECT_EQ(pam->sent.size(), 3U);
}

TEST_F(TransmitSm, ARequestForAnInterfaceWithoutPacketAccessUsesUpOneUnitAndCountsNothing) {
  limitIs(2);
  const auto sut = make();
  w.queues->regularPriorityEnq(pairOf("eth9", 10));
  EXPECT_EQ(sut->transmitCount(), 1U);
  EXPECT_EQ(w.counters->counterIntf(intfOf("eth9")).tx, 0U);
  EXPECT_EQ(w.counters->counterVlan(vlanOrNone(10)).tx, 0U);
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_EQ(pam->sent.size(), 1U);
}

TEST_F(TransmitSm, EachLevelOfADrainThatLeavesWorkMakesItsOwnAttemptAtTheEntry) {
  limitIs(3);
  for (int i = 0; i < 5; ++i) w.queues->regularPriorityEnq(pairOf("eth1", 10 + i));
  const auto sut = make();
  EXPECT_EQ(pam->sent.size(), 3U);
  EXPECT_EQ(throttleAttempts(), 4U);  // the level that found the limit, and the three above it
  EXPECT_EQ(throttleEntries(), 1U);
}

TEST_F(TransmitSm, OneDrainSendsInTheReverseOfTheQueueOrder) {
  limitIs(0);
  for (int i = 0; i < 3; ++i) w.queues->highPriorityEnq(pairOf("eth1", 10 + i));
  const auto sut = make();
  ASSERT_EQ(pam->sent.size(), 3U);
  EXPECT_EQ(pam->sent[0][15], 12);
  EXPECT_EQ(pam->sent[1][15], 11);
  EXPECT_EQ(pam->sent[2][15], 10);
}

TEST_F(TransmitSm, HandlersTellWhetherTheyLeftTheirQueuesEmpty) {
  limitIs(1);
  const auto sut = make();
  EXPECT_TRUE(sut->handleHighPriority());
  EXPECT_TRUE(sut->handleRegularPriority());
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  w.queues->regularPriorityEnq(pairOf("eth1", 11));
  EXPECT_TRUE(sut->handleHighPriority());
  EXPECT_FALSE(sut->handleRegularPriority());
  w.queues->highPriorityEnq(pairOf("eth1", 12));
  EXPECT_FALSE(sut->handleHighPriority());
  EXPECT_FALSE(sut->handleRegularPriority());
}

TEST_F(TransmitSm, ARegularRequestIsNotServedWhileAHighOneWaitsForTheWindow) {
  limitIs(2);
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  w.queues->highPriorityEnq(pairOf("eth1", 11));
  w.queues->highPriorityEnq(pairOf("eth1", 12));
  w.queues->highPriorityEnq(pairOf("eth1", 13));
  const auto sut = make();
  w.manager.runFor(1.0);
  ASSERT_EQ(pam->sent.size(), 4U);
  EXPECT_EQ(pam->sent[2][15], 13);
  EXPECT_EQ(pam->sent[3][15], 10);
}

TEST_F(TransmitSm, TheAttemptIsCountedAfterThePacketWasHandedOver) {
  const auto sut = make();
  std::uint32_t countedBefore = 99;
  pam->onTx = [&] { countedBefore = w.counters->counterIntf(intfOf("eth1")).tx; };
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_EQ(countedBefore, 0U);
  EXPECT_EQ(w.counters->counterIntf(intfOf("eth1")).tx, 1U);
  EXPECT_EQ(w.counters->counterVlan(vlanOrNone(10)).tx, 1U);
}

TEST_F(TransmitSm, TheWindowIsChargedBeforeTheRequestIsTakenOff) {
  limitIs(1);
  class Watcher final : public Ringward::Status::TransmitStatus::NotifieeConst {
   public:
    using NotifieeConst::onRegularPriority;
    void onRegularPriority(std::uint32_t /*index*/) override {
      seen.push_back((*sut)->transmitCount());
    }
    const Vex::Ptr<Ringward::TransmitSm>* sut = nullptr;
    std::vector<std::uint32_t> seen;
  };
  Vex::Ptr<Ringward::TransmitSm> sut;
  const auto watcher = Vex::makePtr<Watcher>();
  watcher->sut = &sut;
  sut = make();
  watcher->notifierIs(w.queues);
  watcher->isRegisteredNotifieeIs(true);
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  // The dequeue's notification comes first, from inside the append's.
  EXPECT_EQ(watcher->seen, (std::vector<std::uint32_t>{1, 1}));
  watcher->isRegisteredNotifieeIs(false);
}

TEST_F(TransmitSm, WithoutAPacketBufferTheNullPacketIsHandedOverAndCounted) {
  const auto sut = make();
  Ringward::ringwardSmTrace.enabledIs(true);
  Ringward::ringwardSmTrace.levelIs(7, true);
  TraceLines traces;
  const std::size_t before = Portus::globalPktManager()->maxOutstanding();
  Portus::globalPktManager()->maxOutstandingIs(0);
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  Portus::globalPktManager()->maxOutstandingIs(before);
  Ringward::ringwardSmTrace.levelIs(7, false);
  Ringward::ringwardSmTrace.enabledIs(false);
  EXPECT_EQ(pam->nullPackets, 1);
  EXPECT_EQ(w.counters->counterIntf(intfOf("eth1")).tx, 1U);
  EXPECT_EQ(traces.ending("Packet allocation failed for pktInfo: "
                          "Value('Ringward::PacketEncapsulation', ** {'mac': 02:11:22:33:44:55, "
                          "'vlanId': 10, 'senderIntfId': eth1})"),
            1)
      << testing::PrintToString(traces.lines);
}

TEST_F(TransmitSm, AVlanAbove4094RaisesAndTheRequestIsLost) {
  const auto sut = make();
  const Ringward::Status::IntfAndVlan request{intfOf("eth1"),
                                              std::bit_cast<Bridging::VlanId>(std::uint16_t{4095})};
  EXPECT_EQ(textOf<Vex::RangeException>([&] { sut->sendPacket(request); }),
            "VlanIdOrNone::value > 4094 not allowed");
  w.queues->regularPriorityEnq(request);  // the walk catches it
  EXPECT_TRUE(w.queues->regularPriority().empty());
  EXPECT_EQ(sut->transmitCount(), 1U);
  EXPECT_TRUE(pam->sent.empty());
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_EQ(pam->sent.size(), 1U);
}

TEST_F(TransmitSm, TheVlanIsJudgedBeforeThePacketAccessIsLookedUp) {
  const auto sut = make();
  EXPECT_THROW(
      sut->sendPacket({intfOf("eth9"), std::bit_cast<Bridging::VlanId>(std::uint16_t{4095})}),
      Vex::RangeException);
}

TEST_F(TransmitSm, AnInterfaceThatIsNoSwitchPortRaisesAndIsNotCounted) {
  const auto sut = make();
  const auto other = w.openPam(intfOf("eth7"));
  EXPECT_EQ(textOf<Vex::RangeException>([&] { sut->sendPacket(pairOf("eth7", 10)); }),
            "null ValidPtr");
  EXPECT_EQ(w.counters->counterIntf(intfOf("eth7")).tx, 0U);
  EXPECT_EQ(other->nullPackets, 0);
}

TEST_F(TransmitSm, SendingBeforeTheTopologyIsReadEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto sut = make();
  EXPECT_DEATH(
      {
        w.topoLibState->initDoneIs(false);
        w.queues->regularPriorityEnq(pairOf("eth1", 10));
      },
      "topoLibState\\(\\)->initDone\\(\\)");
}

TEST_F(TransmitSm, WithoutPacketAccessTheTopologyIsNotAskedFor) {
  const auto sut = make();
  w.topoLibState->initDoneIs(false);
  sut->sendPacket(pairOf("eth9", 10));
  EXPECT_EQ(w.counters->counterIntf(intfOf("eth9")).tx, 0U);
}

TEST_F(TransmitSm, TheFactoryServesWhatTheQueuesHoldAndEndsInitialized) {
  w.queues->highPriorityEnq(pairOf("eth1", 10));
  w.queues->regularPriorityEnq(pairOf("eth1", 11));
  const auto sut = make();
  EXPECT_EQ(pam->sent.size(), 2U);
  EXPECT_TRUE(sut->initialized());
  EXPECT_TRUE(sut->hasNotificationActive());
}

TEST_F(TransmitSm, TheQueuesSurviveTheMachineAndNobodyServesThem) {
  make();
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_EQ(w.queues->regularPriority().members(), 1U);
  w.manager.runFor(10.0);
  EXPECT_TRUE(pam->sent.empty());
}

TEST_F(TransmitSm, AZombieDoesNotServe) {
  limitIs(1);
  const auto sut = make();
  sut->vexDoZombieReactors(true);
  w.queues->highPriorityEnq(pairOf("eth1", 10));
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  limitIs(0);
  w.manager.runFor(5.0);
  EXPECT_TRUE(pam->sent.empty());
}

TEST_F(TransmitSm, WithNotificationOffNothingIsServedAndWithItOnAgainAppendsAre) {
  const auto sut = make();
  sut->hasNotificationActiveIs(false);
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  EXPECT_TRUE(pam->sent.empty());
  sut->hasNotificationActiveIs(true);
  w.queues->regularPriorityEnq(pairOf("eth1", 11));
  EXPECT_EQ(pam->sent.size(), 2U);
}

TEST_F(TransmitSm, AnInterfaceOnItsNativeVlanIsProbedUntaggedAndOnAnyOtherTagged) {
  const auto sut = make();
  w.queues->regularPriorityEnq(pairOf("eth1", 1));
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  ASSERT_EQ(pam->sent.size(), 2U);
  EXPECT_EQ(pam->sent[0].size(), 28U);
  EXPECT_EQ(pam->sent[1].size(), 32U);
}

TEST_F(TransmitSm, TheMissingArgumentIsNamedAsANullValidPtr) {
  EXPECT_EQ(textOf<Vex::RangeException>([&] {
              Ringward::transmitSmFactory(w.wheel, nullptr, w.queues, w.pams, w.counters, w.status,
                                          w.topoLibState, w.brConfig, nullptr);
            }),
            "null ValidPtr");
}

}  // namespace
