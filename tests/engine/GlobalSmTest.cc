// SPDX-License-Identifier: Apache-2.0
//
// The root of the engine over real entities: what it builds and takes down and in which order, the
// source address, the peer link, the counters, rebinding, null arguments and its end.
#include "engine/GlobalSm.h"

#include <gtest/gtest.h>

#include <functional>

#include "engine/RingwardIntfFilter.h"
#include "runtime/vex/Exception.h"
#include "tests/engine/World.h"

namespace {

using Mlag::MlagState;
using Portus::EthAddr;
using Strings = std::vector<std::string>;

constexpr EthAddr kBridge(2, 0, 0, 0, 0, 1);
constexpr EthAddr kSystemId(2, 0, 0, 0, 0, 2);

class StatusWatcher final : public Ringward::Status::Status::NotifieeConst {
 public:
  void onRunning() override { call(); }
  std::function<void()> call;
};

class QueueWatcher final : public Ringward::Status::TransmitStatus::NotifieeConst {
 public:
  using NotifieeConst::onHighPriority;
  using NotifieeConst::onRegularPriority;
  void onHighPriority(std::uint32_t /*index*/) override { high(); }
  void onRegularPriority(std::uint32_t /*index*/) override { regular(); }
  std::function<void()> high;
  std::function<void()> regular;
};

class GlobalSm : public testing::Test {
 protected:
  GlobalSm() {
    brConfig->bridgeMacAddrIs(kBridge);
    mlag->systemIdIs(kSystemId);
    w.status->srcAddrIs(EthAddr());
    w.counters->counterIntfIs({intfOf("eth1"), 1, 2, 3});
    w.counters->counterVlanIs({vlanOrNone(10), 1, 2, 3});
  }
  void start() {
    sut = Ringward::globalSmFactory(w.config, w.status, mlag, w.queues, topoConfig, topoStatus,
                                    brConfig, ethDir, w.allIntfStatusDir, localDir, w.cause,
                                    w.counters);
  }
  void startEnabled() {
    w.config->globalEnabledIs(true);
    start();
  }
  bool countersEmpty() const {
    return !w.counters->counterIntfIteratorConst() && !w.counters->counterVlanIteratorConst();
  }
  void fillCounters() {
    w.counters->counterIntfIs({intfOf("eth1"), 1, 2, 3});
    w.counters->counterVlanIs({vlanOrNone(10), 1, 2, 3});
  }
  Vex::Ptr<Interface::IntfStatus> newPeer(std::string_view name) {
    const auto intfId = intfOf(name);
    return Vex::makePtr<Interface::IntfStatus>(intfId, Vex::makePtr<Interface::IntfConfig>(intfId));
  }
  // What stands at this moment: the objects that go with the enable, then those that stay.
  std::string standing() const {
    std::string text;
    const auto add = [&](const auto& object, char letter) {
      if (object) text += letter;
    };
    add(sut->topoLibState(), 's');
    add(sut->topoLibSm(), 'S');
    add(sut->topoLibVlanState(), 'v');
    add(sut->topoLibVlanSm(), 'V');
    add(sut->timerWheel(), 't');
    add(sut->vlanIntfSmManager(), 'M');
    add(sut->transmitSm(), 'T');
    text += '/';
    add(sut->deviceIntfStatusDir(), 'd');
    add(sut->pamDesiredIntfDir(), 'w');
    add(sut->ethDevPamCollection(), 'c');
    add(sut->intfStatusManager(), 'i');
    add(sut->ethDevPamManager(), 'p');
    return text;
  }

  World w;
  Vex::Ptr<Mlag::Status> mlag = Vex::makePtr<Mlag::Status>("mlag");
  Vex::Ptr<Bridging::Topology::Config> topoConfig =
      Vex::makePtr<Bridging::Topology::Config>("topoConfig");
  Vex::Ptr<Bridging::Topology::Status> topoStatus =
      Vex::makePtr<Bridging::Topology::Status>("topoStatus");
  Vex::Ptr<Bridging::Config> brConfig = w.brConfig;
  Vex::Ptr<Interface::EthIntfStatusDir> ethDir = Vex::makePtr<Interface::EthIntfStatusDir>("eth");
  Vex::Ptr<Interface::AllIntfStatusLocalDir> localDir =
      Vex::makePtr<Interface::AllIntfStatusLocalDir>("local");
  Vex::Ptr<Ringward::GlobalSm> sut;
};

TEST_F(GlobalSm, MadeWhileDisabledItBuildsNothingAndDoesTheRestOfItsWork) {
  w.status->runningIs(true);
  w.queues->highPriorityEnq(pairOf("eth1", 10));
  w.queues->regularPriorityEnq(pairOf("eth1", 10));
  mlag->mlagStateIs(MlagState::secondary);
  mlag->peerLinkIntfIs(newPeer("po1"));
  start();
  EXPECT_FALSE(w.status->running());
  EXPECT_TRUE(w.queues->highPriority().empty());
  EXPECT_TRUE(w.queues->regularPriority().empty());
  EXPECT_EQ(standing(), "/");
  EXPECT_TRUE(countersEmpty());
  EXPECT_EQ(w.status->srcAddr(), kSystemId);
  EXPECT_TRUE(w.status->aggressiveDisable());
  EXPECT_TRUE(w.status->sysIntfExclude(intfOf("po1")));
  EXPECT_TRUE(sut->hasNotificationActive());
}

TEST_F(GlobalSm, MadeWhileEnabledItBuildsAllAndEmptiesTheCounters) {
  startEnabled();
  EXPECT_EQ(standing(), "sSvVtMT/dwcip");
  EXPECT_TRUE(w.status->running());
  EXPECT_TRUE(countersEmpty());
}

TEST_F(GlobalSm, WhatItBuildsHasItsNamesAndSettings) {
  startEnabled();
  EXPECT_EQ(sut->topoLibState()->name(), Vex::Name("topoLibState"));
  EXPECT_EQ(sut->topoLibVlanState()->name(), Vex::Name("libVlanState"));
  EXPECT_EQ(sut->deviceIntfStatusDir()->name(), Vex::Name("disd"));
  EXPECT_EQ(sut->pamDesiredIntfDir()->name(), Vex::Name("pdid"));
  EXPECT_EQ(sut->ethDevPamCollection()->name(), Vex::Name("edpc"));
  const auto& topo = *sut->topoLibSm();
  EXPECT_EQ(topo.name(), Vex::Name("topoLibSm"));
  EXPECT_EQ(topo.config(), topoConfig.get());
  EXPECT_EQ(topo.status(), topoStatus.get());
  EXPECT_EQ(topo.statusInst(), nullptr);
  EXPECT_EQ(topo.libSmMode(), 1U);
  EXPECT_FALSE(topo.ignoreInternalVlan());
  EXPECT_TRUE(topo.deferProcessing());
  EXPECT_EQ(topo.validIntfPtr(),
            reinterpret_cast<std::uintptr_t>(
                static_cast<Topology::Library::FilterIntf*>(Topology::Library::topoLibIntfFilter)));
  const auto& pams = *sut->ethDevPamManager();
  EXPECT_EQ(pams.sockPrio(), 3);
  EXPECT_EQ(pams.pamConfig().destination, EthAddr::broadcast());
  EXPECT_FALSE(pams.pamConfig().perIntfSocket);
  EXPECT_TRUE(pams.active());
  const auto& wheel = *sut->timerWheel();
  EXPECT_EQ(wheel.tickMsecs(), 10U);
  EXPECT_EQ(wheel.initialMaxTicks(), 60480000U);
  EXPECT_TRUE(wheel.preserveOrder());
  EXPECT_EQ(wheel.defaultBucketSize(), 1024U);
}

TEST_F(GlobalSm, TheSocketFilterIsTheseEightInstructions) {
  startEnabled();
  constexpr sock_filter kWanted[] = {
      {0x28, 0, 0, 12}, {0x15, 4, 0, 0x88B7}, {0x15, 1, 0, 0x8100}, {0x15, 0, 3, 0x9100},
      {0x28, 0, 0, 16}, {0x15, 0, 1, 0x88B7}, {0x06, 0, 0, 0xFFFF}, {0x06, 0, 0, 0}};
  const auto instructions = sut->ethDevPamManager()->pamConfig().filter.instructions();
  ASSERT_EQ(instructions.size(), std::size(kWanted));
  for (std::size_t i = 0; i < instructions.size(); ++i) {
    EXPECT_EQ(instructions[i].code, kWanted[i].code) << i;
    EXPECT_EQ(instructions[i].jt, kWanted[i].jt) << i;
    EXPECT_EQ(instructions[i].jf, kWanted[i].jf) << i;
    EXPECT_EQ(instructions[i].k, kWanted[i].k) << i;
  }
}

TEST_F(GlobalSm, TheSocketFilterPassesProbesBareOrBehindOneTag) {
  startEnabled();
  const auto& filter = sut->ethDevPamManager()->pamConfig().filter;
  // Types at bytes 12, 16 and 20.
  const auto accepts = [&](int first, int second, int third) {
    Frame frame(64);
    const int types[] = {first, second, third};
    for (std::size_t i = 0; i < 3; ++i) {
      frame[12 + 4 * i] = static_cast<std::uint8_t>(types[i] >> 8);
      frame[13 + 4 * i] = static_cast<std::uint8_t>(types[i] & 0xFF);
    }
    return filter.accept(frame);
  };
  EXPECT_EQ(accepts(0x88B7, 0, 0), 0xFFFFU);
  EXPECT_EQ(accepts(0x8100, 0x88B7, 0), 0xFFFFU);
  EXPECT_EQ(accepts(0x9100, 0x88B7, 0), 0xFFFFU);
  EXPECT_EQ(accepts(0x8100, 0x88B7, 0x88B7), 0xFFFFU);
  // A second tag stands where the type is looked for.
  EXPECT_EQ(accepts(0x8100, 0x8100, 0x88B7), 0U);
  EXPECT_EQ(accepts(0x9100, 0x8100, 0x88B7), 0U);
  EXPECT_EQ(accepts(0x8100, 0x9100, 0x88B7), 0U);
  EXPECT_EQ(accepts(0x88A8, 0x88B7, 0), 0U);
  EXPECT_EQ(accepts(0x8100, 0x0800, 0), 0U);
  EXPECT_EQ(accepts(0x0800, 0x88B7, 0), 0U);
}

TEST_F(GlobalSm, RunningIsTrueAheadOfEverythingThatIsBuiltAndFalseBehindAllThatGoes) {
  start();
  Strings seen;
  const auto watcher = Vex::makePtr<StatusWatcher>();
  watcher->call = [&] { seen.push_back((w.status->running() ? "on " : "off ") + standing()); };
  watcher->notifierIs(w.status);
  watcher->isRegisteredNotifieeIs(true);
  w.config->globalEnabledIs(true);
  w.config->globalEnabledIs(false);
  EXPECT_EQ(seen, (Strings{"on /", "off /dwcip"}));
}

TEST_F(GlobalSm, TheQueuesAreEmptiedBehindTheMachinesAndAheadOfTheWheelAndOfRunning) {
  startEnabled();
  w.config->transmitConfig()->rateLimitIs(1);
  for (int i = 0; i < 2; ++i) w.queues->regularPriorityEnq(pairOf("eth9", 10));
  w.queues->highPriorityEnq(pairOf("eth9", 10));
  ASSERT_EQ(w.queues->regularPriority().members(), 1U);
  ASSERT_EQ(w.queues->highPriority().members(), 1U);
  Strings seen;
  const auto see = [&](const std::string& what) {
    seen.push_back(what + (w.status->running() ? " running " : " ended ") + standing());
  };
  const auto queues = Vex::makePtr<QueueWatcher>();
  queues->high = [&] { see("high"); };
  queues->regular = [&] { see("regular"); };
  queues->notifierIs(w.queues);
  queues->isRegisteredNotifieeIs(true);
  w.config->globalEnabledIs(false);
  EXPECT_EQ(seen, (Strings{"high running t/dwcip", "regular running t/dwcip"}));
  EXPECT_EQ(standing(), "/dwcip");
}

TEST_F(GlobalSm, PacketAccessStaysAcrossADisableAndTheRestIsMadeAnew) {
  startEnabled();
  const auto disd = sut->deviceIntfStatusDir();
  const auto pdid = sut->pamDesiredIntfDir();
  const auto edpc = sut->ethDevPamCollection();
  const auto intfs = sut->intfStatusManager();
  const auto pams = sut->ethDevPamManager();
  const auto topoState = sut->topoLibState();
  const auto topoSm = sut->topoLibSm();
  const auto vlanState = sut->topoLibVlanState();
  const auto vlanSm = sut->topoLibVlanSm();
  const auto wheel = sut->timerWheel();
  const auto vlanIntfs = sut->vlanIntfSmManager();
  const auto scheduler = sut->transmitSm();
  const auto* filter = Topology::Library::topoLibIntfFilter;
  w.config->globalEnabledIs(false);
  w.config->globalEnabledIs(true);
  EXPECT_EQ(sut->deviceIntfStatusDir(), disd);
  EXPECT_EQ(sut->pamDesiredIntfDir(), pdid);
  EXPECT_EQ(sut->ethDevPamCollection(), edpc);
  EXPECT_EQ(sut->intfStatusManager(), intfs);
  EXPECT_EQ(sut->ethDevPamManager(), pams);
  EXPECT_NE(sut->topoLibState(), topoState);
  EXPECT_NE(sut->topoLibSm(), topoSm);
  EXPECT_NE(sut->topoLibVlanState(), vlanState);
  EXPECT_NE(sut->topoLibVlanSm(), vlanSm);
  EXPECT_NE(sut->timerWheel(), wheel);
  EXPECT_NE(sut->vlanIntfSmManager(), vlanIntfs);
  EXPECT_NE(sut->transmitSm(), scheduler);
  EXPECT_NE(Topology::Library::topoLibIntfFilter, filter);
  EXPECT_EQ(standing(), "sSvVtMT/dwcip");
}

TEST_F(GlobalSm, EnablingAgainWhileEnabledKeepsTheTree) {
  startEnabled();
  const auto topoState = sut->topoLibState();
  const auto wheel = sut->timerWheel();
  const auto vlanIntfs = sut->vlanIntfSmManager();
  const auto scheduler = sut->transmitSm();
  const auto pams = sut->ethDevPamManager();
  sut->handleGlobalEnabled();
  EXPECT_EQ(sut->topoLibState(), topoState);
  EXPECT_EQ(sut->timerWheel(), wheel);
  EXPECT_EQ(sut->vlanIntfSmManager(), vlanIntfs);
  EXPECT_EQ(sut->transmitSm(), scheduler);
  EXPECT_EQ(sut->ethDevPamManager(), pams);
}

TEST_F(GlobalSm, StatesThreeAndFourShareTheAddressAndFourAloneIsAggressive) {
  start();
  for (int state = 0; state < 8; ++state) {
    mlag->mlagStateIs(static_cast<MlagState>(state));
    EXPECT_EQ(w.status->srcAddr(), state == 3 || state == 4 ? kSystemId : kBridge) << state;
    EXPECT_EQ(w.status->aggressiveDisable(), state == 4) << state;
  }
}

TEST_F(GlobalSm, EachOfTheTwoAddressesIsFollowedWhileItCounts) {
  start();
  constexpr EthAddr kOther(2, 0, 0, 0, 0, 9);
  brConfig->bridgeMacAddrIs(kOther);
  EXPECT_EQ(w.status->srcAddr(), kOther);
  mlag->systemIdIs(EthAddr(2, 0, 0, 0, 0, 8));
  EXPECT_EQ(w.status->srcAddr(), kOther);
  mlag->mlagStateIs(MlagState::primary);
  EXPECT_EQ(w.status->srcAddr(), EthAddr(2, 0, 0, 0, 0, 8));
  mlag->systemIdIs(EthAddr(2, 0, 0, 0, 0, 7));
  EXPECT_EQ(w.status->srcAddr(), EthAddr(2, 0, 0, 0, 0, 7));
}

TEST_F(GlobalSm, APeerLinkThatMovesTakesTheExclusionWithIt) {
  mlag->peerLinkIntfIs(newPeer("po1"));
  start();
  EXPECT_EQ(sut->oldPeer(), intfOf("po1"));
  mlag->peerLinkIntfIs(newPeer("po2"));
  EXPECT_FALSE(w.status->sysIntfExcludeHas(intfOf("po1")));
  EXPECT_TRUE(w.status->sysIntfExclude(intfOf("po2")));
  EXPECT_EQ(sut->oldPeer(), intfOf("po2"));
}

TEST_F(GlobalSm, APeerLinkThatVanishesIsRemembered) {
  mlag->peerLinkIntfIs(newPeer("po1"));
  start();
  mlag->peerLinkIntfIs(nullptr);
  EXPECT_FALSE(w.status->sysIntfExcludeHas(intfOf("po1")));
  EXPECT_EQ(sut->oldPeer(), intfOf("po1"));
  mlag->peerLinkIntfIs(newPeer("po1"));
  EXPECT_TRUE(w.status->sysIntfExclude(intfOf("po1")));
}

TEST_F(GlobalSm, AnyChangeOfClearCountersEmptiesBothCollectionsAndAnEqualValueDoesNot) {
  start();
  for (const std::uint32_t request : {1U, 0U, 7U, 1U}) {
    fillCounters();
    w.config->clearCountersIs(request);
    EXPECT_TRUE(countersEmpty()) << request;
  }
  fillCounters();
  w.config->clearCountersIs(1);
  EXPECT_FALSE(countersEmpty());
}

TEST_F(GlobalSm, AnotherConfigurationIsReplayed) {
  startEnabled();
  fillCounters();
  const auto other = Ringward::Config::configFactory("other");
  sut->configIs(other);
  EXPECT_FALSE(w.status->running());
  EXPECT_TRUE(countersEmpty());
  w.config->globalEnabledIs(false);
  w.config->globalEnabledIs(true);  // nobody listens any more
  EXPECT_FALSE(w.status->running());
  other->transmitConfigIs("transmitConfig");
  other->globalIntfConfigIs("globalIntfConfig");
  other->globalEnabledIs(true);
  EXPECT_TRUE(w.status->running());
}

TEST_F(GlobalSm, TheSameConfigurationIsNotReplayed) {
  start();
  fillCounters();
  sut->configIs(w.config);
  EXPECT_FALSE(countersEmpty());
}

TEST_F(GlobalSm, AnotherMlagStatusIsReplayed) {
  mlag->peerLinkIntfIs(newPeer("po1"));
  start();
  const auto other = Vex::makePtr<Mlag::Status>("other");
  other->systemIdIs(EthAddr(2, 0, 0, 0, 0, 5));
  other->mlagStateIs(MlagState::secondary);
  other->peerLinkIntfIs(newPeer("po2"));
  sut->mlagStatusIs(other);
  EXPECT_EQ(w.status->srcAddr(), EthAddr(2, 0, 0, 0, 0, 5));
  EXPECT_TRUE(w.status->aggressiveDisable());
  EXPECT_FALSE(w.status->sysIntfExcludeHas(intfOf("po1")));
  EXPECT_TRUE(w.status->sysIntfExclude(intfOf("po2")));
  mlag->mlagStateIs(MlagState::primary);
  EXPECT_TRUE(w.status->aggressiveDisable());
}

TEST_F(GlobalSm, AnotherBridgeConfigurationIsReplayed) {
  start();
  const auto other = Vex::makePtr<Bridging::Config>("other");
  other->bridgeMacAddrIs(EthAddr(2, 0, 0, 0, 0, 6));
  sut->brConfigIs(other);
  EXPECT_EQ(w.status->srcAddr(), EthAddr(2, 0, 0, 0, 0, 6));
  other->bridgeMacAddrIs(EthAddr(2, 0, 0, 0, 0, 4));
  EXPECT_EQ(w.status->srcAddr(), EthAddr(2, 0, 0, 0, 0, 4));
}

TEST_F(GlobalSm, ANullConfigurationDropsTheReactorAndALaterOneIsFollowedWithoutAReplay) {
  start();
  sut->configIs(nullptr);
  EXPECT_EQ(w.config->notifieeCount(), 0U);
  w.config->globalEnabledIs(true);
  EXPECT_FALSE(w.status->running());
  sut->configIs(w.config);
  EXPECT_FALSE(w.status->running());
  w.config->clearCountersIs(1);
  w.config->globalEnabledIs(false);
  w.config->globalEnabledIs(true);
  EXPECT_TRUE(w.status->running());
}

TEST_F(GlobalSm, ANullWhereAHandlerNeedsAnObjectIsARangeException) {
  const auto madeWith = [&](int absent) {
    return textOf<Vex::RangeException>([&] {
      const auto made = Ringward::globalSmFactory(
          absent == 0 ? nullptr : w.config, absent == 1 ? nullptr : w.status,
          absent == 2 ? nullptr : mlag, absent == 3 ? nullptr : w.queues, topoConfig, topoStatus,
          absent == 4 ? nullptr : brConfig, ethDir, w.allIntfStatusDir, localDir, w.cause,
          absent == 5 ? nullptr : w.counters);
    });
  };
  for (int absent = 0; absent < 6; ++absent) EXPECT_EQ(madeWith(absent), "null ValidPtr") << absent;
  EXPECT_EQ(madeWith(6), "(nothing was raised)");
}

TEST_F(GlobalSm, ItsEndDoesNotRunTheDisablePath) {
  startEnabled();
  w.status->intfStatusIs(intfOf("eth1"));
  fillCounters();
  sut = nullptr;
  EXPECT_TRUE(w.status->running());
  EXPECT_NE(w.status->intfStatus(intfOf("eth1")), nullptr);
  EXPECT_FALSE(countersEmpty());
  EXPECT_EQ(w.config->notifieeCount(), 0U);
  EXPECT_EQ(w.status->notifieeCount(), 0U);
  EXPECT_EQ(mlag->notifieeCount(), 0U);
  EXPECT_EQ(w.queues->notifieeCount(), 0U);
  EXPECT_EQ(brConfig->notifieeCount(), 0U);
  w.config->globalEnabledIs(false);
  EXPECT_TRUE(w.status->running());
}

TEST_F(GlobalSm, AZombieFollowsNothing) {
  start();
  fillCounters();
  sut->vexDoZombieReactors(true);
  w.config->globalEnabledIs(true);
  w.config->clearCountersIs(1);
  mlag->mlagStateIs(MlagState::secondary);
  EXPECT_FALSE(w.status->running());
  EXPECT_FALSE(countersEmpty());
  EXPECT_FALSE(w.status->aggressiveDisable());
}

TEST_F(GlobalSm, NotificationOffAndOnIsPassedDownTheTree) {
  startEnabled();
  sut->hasNotificationActiveIs(false);
  EXPECT_FALSE(sut->timerWheel()->hasNotificationActive());
  EXPECT_FALSE(sut->vlanIntfSmManager()->hasNotificationActive());
  EXPECT_FALSE(sut->transmitSm()->hasNotificationActive());
  w.config->globalEnabledIs(false);
  EXPECT_TRUE(w.status->running());
  sut->hasNotificationActiveIs(true);
  EXPECT_TRUE(sut->transmitSm()->hasNotificationActive());
  w.config->clearCountersIs(1);
  EXPECT_TRUE(countersEmpty());
}

}  // namespace
