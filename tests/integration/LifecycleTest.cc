// SPDX-License-Identifier: Apache-2.0
//
// Enabling, disabling and restarting the engine: in which order things happen, what stays and what
// is made anew, and what becomes of interfaces that are down meanwhile.
#include <functional>
#include <utility>

#include "tests/integration/World.h"

namespace Integration {
namespace {

using Call = std::function<void()>;

class RunningObserver final : public Observer<Ringward::Status::Status> {
 public:
  RunningObserver(const Vex::Ptr<Ringward::Status::Status>& status, Call running, Call intf)
      : Observer(status), running_(std::move(running)), intf_(std::move(intf)) {}
  using NotifieeConst::onIntfStatus;
  void onRunning() override { running_(); }
  void onIntfStatus(const IntfId& /*intfId*/) override { intf_(); }

 private:
  Call running_;
  Call intf_;
};

class CauseObserver final : public Observer<Errdisable::CauseStatus> {
 public:
  CauseObserver(const Vex::Ptr<Errdisable::CauseStatus>& cause, Call call)
      : Observer(cause), call_(std::move(call)) {}
  void onIntfStatus(const IntfId& /*intfId*/) override { call_(); }

 private:
  Call call_;
};

class QueueObserver final : public Observer<Ringward::Status::TransmitStatus> {
 public:
  QueueObserver(const Vex::Ptr<Ringward::Status::TransmitStatus>& queues, Call high, Call regular)
      : Observer(queues), high_(std::move(high)), regular_(std::move(regular)) {}
  using NotifieeConst::onHighPriority;
  using NotifieeConst::onRegularPriority;
  void onHighPriority(std::uint32_t /*index*/) override { high_(); }
  void onRegularPriority(std::uint32_t /*index*/) override { regular_(); }

 private:
  Call high_;
  Call regular_;
};

class Lifecycle : public World {
 protected:
  Lifecycle() {
    sw.newPort("eth1");
    sw.newPort("eth2");
    fabric.wireIs(sw.system.port("eth1"), sw.system.port("eth2"));
  }
  void start() {
    sw.start();
    settle();
  }
  void takeDownEth2() {
    sw.probe("eth1");
    runFor(2 * kDelay);
    ASSERT_TRUE(sw.disabled("eth2"));
  }
  // What the engine has at this moment, as letters.
  std::string standing() const {
    const auto& e = *sw.engine;
    std::string text;
    if (sw.status().running()) text += "R";
    if (e.topoLibState()) text += "s";
    if (e.topoLibSm()) text += "S";
    if (e.topoLibVlanState()) text += "v";
    if (e.topoLibVlanSm()) text += "V";
    if (e.deviceIntfStatusDir()) text += "d";
    if (e.pamDesiredIntfDir()) text += "w";
    if (e.ethDevPamCollection()) text += "c";
    if (e.intfStatusManager()) text += "i";
    if (e.ethDevPamManager()) text += "p";
    if (e.timerWheel()) text += "t";
    if (e.vlanIntfSmManager()) text += "M";
    if (e.transmitSm()) text += "T";
    return text;
  }

  Switch sw{fabric};
  std::vector<std::string> seen;
};

TEST_F(Lifecycle, EngineMadeOverADisabledConfigurationBuildsNothing) {
  sw.system.packetCounter->counterIntfIs({intf("eth1"), 5, 6, 7});
  sw.system.packetCounter->counterVlanIs({VlanIdOrNone(10), 5, 6, 7});
  sw.probe("eth1");
  sw.system.transmitStatus->highPriorityEnq({intf("eth1"), VlanId(10)});
  sw.system.mlagStatus->peerLinkIntfIs(sw.system.intfStatus("eth2"));
  sw.engine = sw.system.newEngine();
  EXPECT_EQ(standing(), "");
  EXPECT_TRUE(sw.system.transmitStatus->regularPriority().empty());
  EXPECT_TRUE(sw.system.transmitStatus->highPriority().empty());
  EXPECT_EQ(sw.counts("eth1").tx, 0U);
  EXPECT_EQ(sw.system.packetCounter->counterVlan(VlanIdOrNone(10)).tx, 0U);
  EXPECT_EQ(sw.status().srcAddr(), EthAddr::parse("02:00:00:00:00:01"));
  EXPECT_TRUE(sw.status().sysIntfExclude(intf("eth2")));
  settle();
  EXPECT_EQ(standing(), "");
}

TEST_F(Lifecycle, EnablingBuildsInOrderAndTheMachinesComeLast) {
  sw.engine = sw.system.newEngine();
  // An interface that is down already makes the manager act while it is built, and a request that
  // waits makes the scheduler act while it is built.
  sw.system.ringwardCause->intfStatusIs(intf("eth2"), 1.0);
  sw.status().intfStatusIs(intf("eth2"))->disabledIs(true);
  sw.system.transmitStatus->highPriorityEnq({intf("eth9"), VlanId(10)});
  const auto status = Vex::makePtr<RunningObserver>(
      sw.system.status, [&] { seen.push_back("running " + standing()); }, [] {});
  const auto cause = Vex::makePtr<CauseObserver>(sw.system.ringwardCause,
                                                 [&] { seen.push_back("cause " + standing()); });
  const auto queues = Vex::makePtr<QueueObserver>(
      sw.system.transmitStatus, [&] { seen.push_back("queue " + standing()); }, [] {});
  runFor(1);
  sw.config().globalEnabledIs(true);
  EXPECT_EQ(seen,
            (std::vector<std::string>{"running R", "cause RsSvVdwcipt", "queue RsSvVdwciptM"}));
  EXPECT_EQ(standing(), "RsSvVdwciptMT");
  const auto& pams = *sw.engine->ethDevPamManager();
  EXPECT_TRUE(pams.active());
  EXPECT_EQ(pams.sockPrio(), 3);
  EXPECT_FALSE(pams.pamConfig().perIntfSocket);
  EXPECT_EQ(pams.pamConfig().destination, EthAddr::broadcast());
  EXPECT_EQ(pams.pamConfig().filter.instructions().size(), 8U);
  const auto& wheel = *sw.engine->timerWheel();
  EXPECT_EQ(wheel.tickMsecs(), 10U);
  EXPECT_EQ(wheel.initialMaxTicks(), 60480000U);
  EXPECT_TRUE(wheel.preserveOrder());
  EXPECT_EQ(wheel.defaultBucketSize(), 1024U);
}

TEST_F(Lifecycle, DisablingTakesDownInOrder) {
  start();
  sw.config().transmitConfig()->rateLimitIs(1);
  // With the window used up, requests of nobody wait in both queues until the end.
  sw.probe("eth9");
  sw.probe("eth9");
  sw.system.transmitStatus->highPriorityEnq({intf("eth9"), VlanId(10)});
  ASSERT_EQ(sw.system.transmitStatus->regularPriority().members(), 1U);
  ASSERT_EQ(sw.system.transmitStatus->highPriority().members(), 1U);
  const auto status = Vex::makePtr<RunningObserver>(
      sw.system.status, [&] { seen.push_back("running " + standing()); },
      [&] { seen.push_back("intf " + standing()); });
  const auto queues = Vex::makePtr<QueueObserver>(
      sw.system.transmitStatus, [&] { seen.push_back("high " + standing()); },
      [&] { seen.push_back("regular " + standing()); });
  sw.config().globalEnabledIs(false);
  EXPECT_EQ(seen, (std::vector<std::string>{"intf RsSvVdwciptMT", "intf RsSvVdwciptMT",
                                            "high Rdwcipt", "regular Rdwcipt", "running dwcip"}));
  EXPECT_EQ(standing(), "dwcip");
}

TEST_F(Lifecycle, DisablingAndEnablingKeepsPacketAccessAndMakesTheRestAnew) {
  start();
  // Held, so that a new object cannot have an old one's address.
  const auto wheel = sw.engine->timerWheel();
  const auto libState = sw.engine->topoLibState();
  const auto libSm = sw.engine->topoLibSm();
  const auto vlanState = sw.engine->topoLibVlanState();
  const auto vlanSm = sw.engine->topoLibVlanSm();
  const auto& e = *sw.engine;
  const std::vector<const void*> kept{e.deviceIntfStatusDir().get(), e.pamDesiredIntfDir().get(),
                                      e.ethDevPamCollection().get(), e.intfStatusManager().get(),
                                      e.ethDevPamManager().get()};
  sw.config().globalEnabledIs(false);
  EXPECT_FALSE(sw.hasPam("eth1"));
  EXPECT_FALSE(sw.intfStatus("eth1"));
  EXPECT_EQ(sw.system.device("eth1").pams(), 0U);
  sw.config().globalEnabledIs(true);
  settle();
  EXPECT_EQ(kept,
            (std::vector<const void*>{e.deviceIntfStatusDir().get(), e.pamDesiredIntfDir().get(),
                                      e.ethDevPamCollection().get(), e.intfStatusManager().get(),
                                      e.ethDevPamManager().get()}));
  EXPECT_NE(e.timerWheel(), wheel);
  EXPECT_NE(e.topoLibState(), libState);
  EXPECT_NE(e.topoLibSm(), libSm);
  EXPECT_NE(e.topoLibVlanState(), vlanState);
  EXPECT_NE(e.topoLibVlanSm(), vlanSm);
  EXPECT_TRUE(sw.transmitter("eth1"));
  // And it works.
  takeDownEth2();
}

TEST_F(Lifecycle, DisabledEngineSendsAndHearsNothing) {
  start();
  sw.config().globalEnabledIs(false);
  Tap tap(fabric);
  runFor(10);
  EXPECT_TRUE(tap.records().empty());
  EXPECT_EQ(manager.wakeUps(), 0U);
}

TEST_F(Lifecycle, DisablingBringsInterfacesBackUpAndLogsIt) {
  start();
  takeDownEth2();
  const auto status = sw.intfStatus("eth2");
  sw.config().globalEnabledIs(false);
  EXPECT_FALSE(status->disabled());
  EXPECT_FALSE(sw.inCause("eth2"));
  EXPECT_FALSE(sw.system.isHeld("eth2"));
  EXPECT_FALSE(sw.intfStatus("eth2"));
  EXPECT_EQ(logTexts(),
            std::vector<std::string>{"Bringing interface eth2 back up after a loop was detected"});
  sw.config().globalEnabledIs(true);
  settle();
  EXPECT_FALSE(sw.disabled("eth2"));
  runFor(60);
  EXPECT_EQ(sw.system.errdisable().history().size() % 2, 1U);  // the loop is still there
}

TEST_F(Lifecycle, DisablingEndsTheCountersOfTheVlansAndInterfaces) {
  start();
  takeDownEth2();
  sw.config().globalEnabledIs(false);
  EXPECT_FALSE(static_cast<bool>(sw.system.packetCounter->counterIntfIteratorConst()));
  EXPECT_FALSE(static_cast<bool>(sw.system.packetCounter->counterVlanIteratorConst()));
}

TEST_F(Lifecycle, AnyChangeOfClearCountersEmptiesBothCollections) {
  start();
  takeDownEth2();
  for (const std::uint32_t request : {1U, 2U, 1U, 0U}) {
    ASSERT_NE(sw.counts("eth1").tx, 0U);
    sw.config().clearCountersIs(request);
    EXPECT_EQ(sw.counts("eth1").tx, 0U);
    EXPECT_FALSE(static_cast<bool>(sw.system.packetCounter->counterVlanIteratorConst()));
    sw.probe("eth1");
  }
  sw.config().clearCountersIs(0);  // an equal value
  EXPECT_NE(sw.counts("eth1").tx, 0U);
}

TEST_F(Lifecycle, DestructionDoesNotRunTheDisablePath) {
  start();
  takeDownEth2();
  sw.engine = nullptr;
  EXPECT_TRUE(sw.status().running());
  EXPECT_TRUE(sw.disabled("eth2"));
  EXPECT_TRUE(sw.inCause("eth2"));
  EXPECT_TRUE(sw.system.isHeld("eth2"));
  EXPECT_EQ(sw.system.device("eth1").pams(), 0U);
  EXPECT_TRUE(logTexts().empty());
  // Nothing of the engine is left that could act.
  Tap tap(fabric);
  runFor(100);
  EXPECT_TRUE(tap.records().empty());
  sw.config().clearCountersIs(77);
  EXPECT_NE(sw.counts("eth1").tx, 0U);
}

TEST_F(Lifecycle, RestartResumesARunningDeadlineAndPublishesTheCauseAnew) {
  start();
  takeDownEth2();
  const double until = sw.intfStatus("eth2")->disabledUntil();
  sw.engine = nullptr;
  runFor(10);
  sw.engine = sw.system.newEngine();
  // At once, without waiting for the topology: the cause lists the interface.
  EXPECT_EQ(sw.intfStatus("eth2")->disabledAt(), now());
  EXPECT_EQ(sw.system.ringwardCause->intfStatus(intf("eth2")), now());
  EXPECT_EQ(sw.intfStatus("eth2")->disabledUntil(), until);
  settle();
  EXPECT_TRUE(sw.disabled("eth2"));
  EXPECT_EQ(sw.transmitter("eth2")->sendPacketTime(), Vex::kNever);
  fabric.wireDel(sw.system.port("eth2"));
  manager.runUntil(until - kTick);
  EXPECT_TRUE(sw.disabled("eth2"));
  manager.runUntil(until + 2 * kTick);
  EXPECT_FALSE(sw.disabled("eth2"));
  EXPECT_FALSE(sw.system.isHeld("eth2"));
  EXPECT_LT(sw.transmitter("eth2")->sendPacketTime(), Vex::kNever);
}

TEST_F(Lifecycle, RestartOverADeadlineThatHasPassedBringsTheInterfaceUpAtTheNextTick) {
  start();
  takeDownEth2();
  sw.engine = nullptr;
  fabric.wireDel(sw.system.port("eth2"));
  runFor(1000);
  sw.engine = sw.system.newEngine();
  settle();
  EXPECT_TRUE(sw.disabled("eth2"));
  runFor(kTick);
  EXPECT_FALSE(sw.disabled("eth2"));
  EXPECT_FALSE(sw.inCause("eth2"));
  EXPECT_EQ(logTexts().size(), 1U);
}

TEST_F(Lifecycle, RestartWithAFreshCauseTakesUpTheDisabledStatusWithTheTopology) {
  start();
  takeDownEth2();
  const double until = sw.intfStatus("eth2")->disabledUntil();
  sw.engine = nullptr;
  sw.system.ringwardCause->intfStatusDel(intf("eth2"));
  ASSERT_FALSE(sw.system.isHeld("eth2"));
  runFor(5);
  sw.engine = sw.system.newEngine();
  EXPECT_FALSE(sw.inCause("eth2"));
  settle();
  EXPECT_TRUE(sw.inCause("eth2"));
  EXPECT_TRUE(sw.system.isHeld("eth2"));
  EXPECT_TRUE(sw.vlanSet("eth2")->vlan(Ringward::VlanSet::kErrdisabled));
  EXPECT_EQ(sw.intfStatus("eth2")->disabledUntil(), until);
  fabric.wireDel(sw.system.port("eth2"));
  manager.runUntil(until + 2 * kTick);
  EXPECT_FALSE(sw.disabled("eth2"));
}

TEST_F(Lifecycle, RestartOverAStatusThatIsDownForGoodLeavesItDown) {
  sw.config().globalIntfConfig()->disabledTimeIs(0);
  start();
  takeDownEth2();
  sw.engine = nullptr;
  sw.engine = sw.system.newEngine();
  sw.config().globalIntfConfig()->transmitIntervalIs(255);
  runFor(8 * 86400.0);
  EXPECT_TRUE(sw.disabled("eth2"));
  EXPECT_TRUE(sw.inCause("eth2"));
}

TEST_F(Lifecycle, RestartEmptiesTheCounters) {
  start();
  takeDownEth2();
  sw.engine = nullptr;
  ASSERT_NE(sw.counts("eth1").tx, 0U);
  sw.engine = sw.system.newEngine();
  EXPECT_EQ(sw.counts("eth1").tx, 0U);
}

TEST_F(Lifecycle, EngineThatIsTurnedOffFromItsOwnReactionEndsCleanly) {
  // Taking an interface down is a reaction of the receive machine that goes with it.
  const auto cause = Vex::makePtr<CauseObserver>(sw.system.ringwardCause,
                                                 [&] { sw.config().globalEnabledIs(false); });
  start();
  sw.probe("eth1");
  runFor(5);
  EXPECT_FALSE(sw.status().running());
  EXPECT_EQ(standing(), "dwcip");
  EXPECT_FALSE(sw.intfStatus("eth2"));
}

}  // namespace
}  // namespace Integration
