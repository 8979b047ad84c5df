// SPDX-License-Identifier: Apache-2.0
#include "engine/IntfRxSm.h"

#include <gtest/gtest.h>

#include "engine/EngineLogs.h"
#include "engine/EngineTrace.h"
#include "engine/ProbeFrame.h"
#include "runtime/vex/Exception.h"
#include "tests/engine/World.h"

namespace {

using Strings = std::vector<std::string>;

// Writes down which attribute changed, with the state that its reader finds.
class StatusWatcher final : public Ringward::Status::IntfStatus::NotifieeConst {
 public:
  explicit StatusWatcher(const World& w) : w_(w) {}
  void follow(const Vex::Ptr<Ringward::Status::IntfStatus>& s) {
    status_ = s.get();
    notifierIs(s);
    isRegisteredNotifieeIs(true);
  }
  void onDisabledAt() override { seen.push_back("disabledAt"); }
  void onDisabledUntil() override { seen.push_back("disabledUntil"); }
  void onDisabled() override {
    seen.push_back(std::string("disabled ") + (status_->disabled() ? "1" : "0") + " cause " +
                   (w_.cause->intfStatusHas(status_->intfId()) ? "1" : "0") + " at " +
                   std::to_string(static_cast<int>(status_->disabledAt())) + " until " +
                   std::to_string(static_cast<int>(status_->disabledUntil())));
  }
  Strings seen;

 private:
  const World& w_;
  const Ringward::Status::IntfStatus* status_ = nullptr;
};

class IntfRxSm : public testing::Test {
 protected:
  Vex::Ptr<Ringward::IntfRxSm> make(const Vex::Ptr<Ringward::Status::IntfStatus>& given) {
    auto sm = Ringward::intfRxSmFactory(intf, w.config->globalIntfConfig(),
                                        w.brConfig->switchIntfConfig(intf), w.status, w.wheel,
                                        w.counters, given, w.cause);
    sm->pamIs(pam);
    return sm;
  }
  Frame probe(const Portus::IntfId& sender, int vlan, int native = 1) {
    auto pkt = Portus::globalPktManager()->newPkt();
    Ringward::writeProbe(*pkt, {kSource, vlanOrNone(vlan), sender}, vlanOrNone(native));
    return {pkt->bytes().begin(), pkt->bytes().end()};
  }
  Ringward::Status::CounterIntf ofIntf() { return w.counters->counterIntf(intf); }
  Ringward::Status::CounterVlan ofVlan(int vlan) {
    return w.counters->counterVlan(vlanOrNone(vlan));
  }

  World w;
  Portus::IntfId intf = w.port("eth1", 7);
  Portus::IntfId other = w.port("eth2");
  Vex::Ptr<FakePam> pam = Vex::makePtr<FakePam>(intf);
  Vex::Ptr<Ringward::Status::IntfStatus> own = w.status->intfStatusIs(intf);
};

TEST_F(IntfRxSm, AProbeOfAnUnknownSenderIsCountedAndDisablesNothing) {
  const auto sut = make(own);
  pam->receive(probe(other, 10));
  EXPECT_EQ(ofIntf().rx, 1U);
  EXPECT_EQ(ofVlan(10).rx, 1U);
  EXPECT_FALSE(own->disabled());
  EXPECT_EQ(own->disabledAt(), 0.0);
  EXPECT_FALSE(w.cause->intfStatusHas(intf));
}

TEST_F(IntfRxSm, AProbeOfADisabledSenderIsCountedAndDisablesNothing) {
  const auto sut = make(own);
  w.status->intfStatusIs(other)->disabledIs(true);
  pam->receive(probe(other, 10));
  EXPECT_EQ(ofIntf().rx, 1U);
  EXPECT_FALSE(own->disabled());
}

TEST_F(IntfRxSm, AProbeOfAnEnabledSenderOfThisSystemDisables) {
  const auto sut = make(own);
  w.status->intfStatusIs(other);
  pam->receive(probe(other, 10));
  EXPECT_TRUE(own->disabled());
  EXPECT_EQ(own->disabledAt(), 1000.0);
  EXPECT_EQ(own->disabledUntil(), 1000.0 + 604800.0);
  EXPECT_EQ(sut->bringIntfUpTime(), 1000.0 + 604800.0);
  EXPECT_EQ(w.cause->intfStatus(intf), 1000.0);
  EXPECT_FALSE(w.status->intfStatus(other)->disabled());
}

TEST_F(IntfRxSm, InAggressiveModeAnyValidProbeDisables) {
  w.status->aggressiveDisableIs(true);
  const auto sut = make(own);
  pam->receive(probe(other, 10));  // unknown here
  EXPECT_TRUE(own->disabled());
}

TEST_F(IntfRxSm, InAggressiveModeAProbeOfADisabledSenderDisablesToo) {
  w.status->aggressiveDisableIs(true);
  w.status->intfStatusIs(other)->disabledIs(true);
  const auto sut = make(own);
  pam->receive(probe(other, 10));
  EXPECT_TRUE(own->disabled());
}

TEST_F(IntfRxSm, AProbeThatComesBackToItsOwnInterfaceDisablesIt) {
  const auto sut = make(own);
  pam->receive(probe(intf, 10));
  EXPECT_TRUE(own->disabled());
}

TEST_F(IntfRxSm, TheSourceAddressOfAProbeIsNotJudged) {
  const auto sut = make(own);
  Frame frame = probe(intf, 10);
  frame[11] ^= 0xFF;
  pam->receive(frame);
  EXPECT_TRUE(own->disabled());
}

TEST_F(IntfRxSm, ADisabledTimeOfZeroKeepsTheInterfaceDownForGood) {
  w.config->globalIntfConfig()->disabledTimeIs(0);
  const auto sut = make(own);
  pam->receive(probe(intf, 10));
  EXPECT_TRUE(own->disabled());
  EXPECT_EQ(own->disabledUntil(), 0.0);
  EXPECT_EQ(sut->bringIntfUpTime(), kNever);
  w.manager.runFor(30.0 * 86400);
  EXPECT_TRUE(own->disabled());
  EXPECT_TRUE(w.cause->intfStatusHas(intf));
}

TEST_F(IntfRxSm, ALaterProbeMovesDisabledAtAndNotTheDeadline) {
  w.status->aggressiveDisableIs(true);
  w.config->globalIntfConfig()->disabledTimeIs(30);
  const auto sut = make(own);
  pam->receive(probe(other, 10));
  w.manager.runFor(10.0);
  pam->receive(probe(other, 10));
  EXPECT_EQ(own->disabledAt(), 1010.0);
  EXPECT_EQ(own->disabledUntil(), 1030.0);
  EXPECT_EQ(sut->bringIntfUpTime(), 1030.0);
  EXPECT_EQ(w.cause->intfStatus(intf), 1010.0);  // published anew
}

TEST_F(IntfRxSm, AChangedDisabledTimeDoesNotMoveARunningDeadline) {
  w.config->globalIntfConfig()->disabledTimeIs(30);
  const auto sut = make(own);
  pam->receive(probe(intf, 10));
  w.config->globalIntfConfig()->disabledTimeIs(5);
  EXPECT_EQ(own->disabledUntil(), 1030.0);
  w.manager.runUntil(1029.9);
  EXPECT_TRUE(own->disabled());
  w.manager.runUntil(1030.0);
  EXPECT_FALSE(own->disabled());
}

TEST_F(IntfRxSm, TheInterfaceComesBackAtTheDeadlineWithEverythingCleared) {
  w.config->globalIntfConfig()->disabledTimeIs(30);
  const auto sut = make(own);
  pam->receive(probe(intf, 10));
  w.manager.runUntil(1030.0);
  EXPECT_FALSE(own->disabled());
  EXPECT_EQ(own->disabledAt(), 0.0);
  EXPECT_EQ(own->disabledUntil(), 0.0);
  EXPECT_FALSE(w.cause->intfStatusHas(intf));
  EXPECT_EQ(sut->bringIntfUpTime(), kNever);
  EXPECT_EQ(w.logTexts(), Strings{"Bringing interface eth1 back up after a loop was detected"});
}

TEST_F(IntfRxSm, DisablingSetsTheTimesAndPublishesTheCauseBeforeTheFlag) {
  w.config->globalIntfConfig()->disabledTimeIs(30);
  const auto sut = make(own);
  const auto watcher = Vex::makePtr<StatusWatcher>(w);
  watcher->follow(own);
  pam->receive(probe(intf, 10));
  EXPECT_EQ(watcher->seen,
            (Strings{"disabledAt", "disabledUntil", "disabled 1 cause 1 at 1000 until 1030"}));
  watcher->isRegisteredNotifieeIs(false);
}

TEST_F(IntfRxSm, BringingUpWithdrawsTheCauseAndClearsTheTimesBeforeTheFlag) {
  w.config->globalIntfConfig()->disabledTimeIs(30);
  const auto sut = make(own);
  pam->receive(probe(intf, 10));
  const auto watcher = Vex::makePtr<StatusWatcher>(w);
  watcher->follow(own);
  w.manager.runUntil(1030.0);
  EXPECT_EQ(watcher->seen,
            (Strings{"disabledUntil", "disabledAt", "disabled 0 cause 0 at 0 until 0"}));
  watcher->isRegisteredNotifieeIs(false);
}

TEST_F(IntfRxSm, TheTimerOfAnInterfaceThatIsUpDoesNothing) {
  const auto sut = make(own);
  sut->handleBringIntfUp();
  EXPECT_TRUE(w.log.entries().empty());
  pam->receive(probe(intf, 10));
  sut->handleBringIntfUp();
  sut->handleBringIntfUp();
  EXPECT_EQ(w.manager.logService().counts(Ringward::RINGWARD_INTF_UP).written, 1U);
}

TEST_F(IntfRxSm, RemovalOfADisabledMachineBringsTheInterfaceUpBeforeItsCountersGo) {
  class CauseWatcher final : public Errdisable::CauseStatus::NotifieeConst {
   public:
    explicit CauseWatcher(World& w) : w_(w) {}
    void onIntfStatus(const Portus::IntfId& intfId) override {
      rx.push_back(w_.counters->counterIntf(intfId).rx);
    }
    std::vector<std::uint32_t> rx;

   private:
    World& w_;
  };
  const auto sut = make(own);
  EXPECT_TRUE(sut->initialized());
  pam->receive(probe(intf, 10));
  const auto watcher = Vex::makePtr<CauseWatcher>(w);
  watcher->notifierIs(w.cause);
  watcher->isRegisteredNotifieeIs(true);
  sut->doPrepareToDie();
  EXPECT_EQ(watcher->rx, std::vector<std::uint32_t>{1});
  EXPECT_FALSE(sut->initialized());
  EXPECT_EQ(w.logIds(), Strings{"RINGWARD_INTF_UP"});
  EXPECT_FALSE(w.cause->intfStatusHas(intf));
  EXPECT_FALSE(own->disabled());
  EXPECT_EQ(ofIntf(), Ringward::Status::CounterIntf());
  EXPECT_EQ(ofVlan(10).rx, 1U);  // the VLAN's record stays
  watcher->isRegisteredNotifieeIs(false);
}

TEST_F(IntfRxSm, RemovalOfAMachineThatIsUpOnlyRemovesItsCounters) {
  const auto sut = make(own);
  pam->receive(probe(other, 10));
  sut->doPrepareToDie();
  EXPECT_TRUE(w.log.entries().empty());
  EXPECT_EQ(ofIntf(), Ringward::Status::CounterIntf());
}

TEST_F(IntfRxSm, AFrameThatIsNoProbeIsCountedForItsVlanAndLogged) {
  const auto sut = make(own);
  Frame frame = probe(intf, 10);
  frame[18] ^= 0xFF;
  pam->receive(frame);
  EXPECT_EQ(ofIntf().rxOther, 1U);
  EXPECT_EQ(ofVlan(10).rxOther, 1U);
  EXPECT_FALSE(own->disabled());
  ASSERT_EQ(w.logIds(), Strings{"RINGWARD_RX_OTHER"});
  EXPECT_EQ(w.logTexts(), Strings{"Received a malformed Ringward packet on interface eth1"});
}

TEST_F(IntfRxSm, AFrameOfTooFewBytesIsCountedForNoVlan) {
  const auto sut = make(own);
  Frame frame = probe(intf, 10);
  frame.resize(27);
  pam->receive(frame);
  EXPECT_EQ(ofIntf().rxOther, 1U);
  EXPECT_EQ(ofVlan(0).rxOther, 1U);
  EXPECT_EQ(ofVlan(10).rxOther, 0U);
}

TEST_F(IntfRxSm, AnUntaggedFrameBelongsToTheNativeVlanOfItsReceiver) {
  const auto sut = make(own);
  pam->receive(probe(other, 3, 3));
  EXPECT_EQ(ofVlan(7).rx, 1U);
}

TEST_F(IntfRxSm, AnUntaggedFrameOnAnInterfaceThatIsNoPortBelongsToNoVlan) {
  w.brConfig->switchIntfConfigDel(intf);
  const auto sut = make(own);
  pam->receive(probe(other, 3, 3));
  EXPECT_EQ(ofVlan(0).rx, 1U);
}

TEST_F(IntfRxSm, AFrameOfVlan4095IsNeitherCountedNorLogged) {
  const auto sut = make(own);
  Frame frame = probe(intf, 10);
  frame[14] = 0xEF;
  frame[15] = 0xFF;
  pam->receive(frame);  // the walk catches what the handler raises
  EXPECT_EQ(ofIntf(), Ringward::Status::CounterIntf());
  EXPECT_TRUE(w.log.entries().empty());
  EXPECT_EQ(pam->waiting(), 0U);
  pam->receive(probe(other, 10));
  EXPECT_EQ(ofIntf().rx, 1U);
}

TEST_F(IntfRxSm, AnAnnouncementWithoutAFrameIsTracedAndNothingElse) {
  const auto sut = make(own);
  Ringward::ringwardSmTrace.enabledIs(true);
  Ringward::ringwardSmTrace.levelIs(8, true);
  TraceLines traces;
  pam->announce();
  Ringward::ringwardSmTrace.levelIs(8, false);
  Ringward::ringwardSmTrace.enabledIs(false);
  EXPECT_EQ(traces.ending("handleRx but no pkt"), 1) << testing::PrintToString(traces.lines);
  EXPECT_EQ(ofIntf(), Ringward::Status::CounterIntf());
}

TEST_F(IntfRxSm, EachNotificationTakesOneFrame) {
  const auto sut = make(own);
  sut->pamDel();
  for (int i = 0; i < 3; ++i) pam->receive(probe(other, 10));
  sut->pamIs(pam);
  EXPECT_EQ(pam->waiting(), 3U);
  pam->announce();
  EXPECT_EQ(pam->waiting(), 2U);
  EXPECT_EQ(ofIntf().rx, 1U);
}

TEST_F(IntfRxSm, ADisabledInterfaceKeepsReadingFrames) {
  const auto sut = make(own);
  pam->receive(probe(intf, 10));
  pam->receive(probe(intf, 10));
  EXPECT_EQ(ofIntf().rx, 2U);
}

TEST_F(IntfRxSm, OverADisabledStatusTheMachineTakesUpTheDeadlineAndPublishesTheCauseAnew) {
  own->disabledIs(true);
  own->disabledAtIs(5.0);
  own->disabledUntilIs(1020.0);
  const auto sut = make(own);
  EXPECT_EQ(own->disabledAt(), 1000.0);
  EXPECT_EQ(own->disabledUntil(), 1020.0);
  EXPECT_EQ(w.cause->intfStatus(intf), 1000.0);
  EXPECT_TRUE(own->disabled());
  w.manager.runUntil(1020.0);
  EXPECT_FALSE(own->disabled());
}

TEST_F(IntfRxSm, OverAPastDeadlineTheInterfaceComesBackAtTheNextTurnOfTheWheel) {
  own->disabledIs(true);
  own->disabledUntilIs(900.0);
  const auto sut = make(own);
  EXPECT_TRUE(own->disabled());
  w.manager.runFor(0.01);
  EXPECT_FALSE(own->disabled());
}

TEST_F(IntfRxSm, OverAStatusDisabledForGoodNoTimerIsSet) {
  own->disabledIs(true);
  const auto sut = make(own);
  EXPECT_EQ(sut->bringIntfUpTime(), kNever);
  EXPECT_TRUE(w.cause->intfStatusHas(intf));
}

TEST_F(IntfRxSm, OverAStatusThatIsUpNothingIsPublished) {
  const auto sut = make(own);
  EXPECT_TRUE(sut->initialized());
  EXPECT_EQ(own->disabledAt(), 0.0);
  EXPECT_FALSE(w.cause->intfStatusHas(intf));
}

TEST_F(IntfRxSm, WithoutAStatusEntryTheMachineTakesTheOneThatTheRootMakesLater) {
  w.status->intfStatusDel(intf);
  const auto sut = make(nullptr);
  pam->receive(probe(intf, 10));
  EXPECT_EQ(ofIntf().rx, 1U);
  EXPECT_FALSE(w.cause->intfStatusHas(intf));
  const auto made = w.status->intfStatusIs(intf);
  pam->receive(probe(intf, 10));
  EXPECT_TRUE(made->disabled());
  sut->doPrepareToDie();
  EXPECT_FALSE(made->disabled());
}

TEST_F(IntfRxSm, AfterThePamIsGoneItsFramesAreNotRead) {
  const auto sut = make(own);
  sut->pamDel();
  pam->receive(probe(intf, 10));
  EXPECT_EQ(pam->waiting(), 1U);
  EXPECT_EQ(sut->pam(), nullptr);
}

TEST_F(IntfRxSm, AnotherPamTakesThePlaceOfTheFirst) {
  const auto sut = make(own);
  const auto second = Vex::makePtr<FakePam>(intf);
  sut->pamIs(second);
  pam->receive(probe(other, 10));
  EXPECT_EQ(ofIntf().rx, 0U);
  second->receive(probe(other, 10));
  EXPECT_EQ(ofIntf().rx, 1U);
}

TEST_F(IntfRxSm, AZombieReadsNothing) {
  const auto sut = make(own);
  sut->vexDoZombieReactors(true);
  pam->receive(probe(intf, 10));
  EXPECT_EQ(pam->waiting(), 1U);
}

}  // namespace
