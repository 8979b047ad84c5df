// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/Errdisable.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "runtime/vex/VirtualActivityManager.h"
#include "tests/platform/FakeLinks.h"

namespace Platform::Linux {
namespace {

using Texts = std::vector<std::string>;

using Hold = Errdisable::Hold;

class Recorder final : public Errdisable::Listener {
 public:
  void held(const Portus::IntfId& intfId, const Hold& hold) override {
    record("held", intfId, hold);
  }
  void heldAtLast(const Portus::IntfId& intfId, const Hold& hold) override {
    record("held at last", intfId, hold);
  }
  void released(const Portus::IntfId& intfId, const Hold& hold) override {
    record("released", intfId, hold);
  }
  void releasedAtLast(const Portus::IntfId& intfId, const Hold& hold) override {
    record("released at last", intfId, hold);
  }
  Texts events;

 private:
  void record(const std::string& what, const Portus::IntfId& intfId, const Hold& hold) {
    events.push_back(what + " " + intfId.name() + " " + std::to_string(hold.ifindex) + " " +
                     std::string(errdisableActionName(hold.action)) +
                     (hold.error ? " failed" : ""));
  }
};

class ErrdisableTest : public testing::Test {
 protected:
  void make(ErrdisableAction action) {
    sut = Vex::makePtr<Errdisable>(Vex::Ptr<::Errdisable::CauseStatus const>(cause), wheel, kernel,
                                   kernel, recorder, action);
  }
  // As LinkDirectory does: the intent is asked for before the link is handled.
  bool tell(const LinkInfo& link) {
    const bool enabled = sut->adminEnabled(eth1, link);
    raised = sut->handleLink(eth1, link);
    return enabled;
  }
  Hold hold() const { return sut->holds().at(eth1); }

  Vex::VirtualActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  Vex::MemorySink sink;
  Vex::Ptr<Helm::TimerWheel> wheel = Vex::makePtr<Helm::TimerWheel>(
      Vex::Ptr<Vex::ActivityConfig>(), Vex::Ptr<Vex::Clock const>(), 10U, 64U, true, 64U);
  Vex::Ptr<::Errdisable::CauseStatus> cause =
      Vex::makePtr<::Errdisable::CauseStatus>(Vex::Name("ringward"));
  FakeKernel kernel;
  Recorder recorder;
  Vex::Ptr<Errdisable> sut;
  bool raised = false;  // what handleLink said last
  const Portus::IntfId eth1 = Portus::IntfId::fromName("eth1");
  const std::error_code notPermitted{EPERM, std::system_category()};
};

TEST_F(ErrdisableTest, AutomaticDisablesThePortStateOfABridgePortAndForwardsAgainAtTheEnd) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  cause->intfStatusIs(eth1, 2.0);  // another looped probe
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, (Texts{"state 0 7", "state 3 7"}));
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 bridge-port", "released eth1 7 bridge-port"}));
}

TEST_F(ErrdisableTest, AutomaticTakesTheCarrierAwayWhereTheDriverCan) {
  kernel.links[7] = ethernetLink(7, "eth1");
  kernel.protoError.clear();
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, (Texts{"protodown 7", "protoup 7"}));
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 protodown", "released eth1 7 protodown"}));
}

TEST_F(ErrdisableTest, TheWayBackIsThatOfTheActionWhateverIsConfiguredByThen) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  sut->actionIs(ErrdisableAction::adminDown);
  kernel.links[7].bridgePortState = std::uint8_t{3};  // a link flap
  tell(kernel.links[7]);
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, (Texts{"state 0 7", "state 0 7", "state 3 7"}));
  cause->intfStatusIs(eth1, 2.0);
  EXPECT_EQ(kernel.requests.back(), "down 7");
}

TEST_F(ErrdisableTest, ALinkThatOthersHoldDownByProtocolStaysDownWithoutAnError) {
  kernel.links[7] = ethernetLink(7, "eth1");
  kernel.protoError.clear();
  make(ErrdisableAction::protoDown);
  cause->intfStatusIs(eth1, 1.0);
  kernel.protoError = std::make_error_code(std::errc::device_or_resource_busy);
  cause->intfStatusDel(eth1);
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 protodown", "released eth1 7 protodown"}));
  EXPECT_TRUE(sut->holds().empty());
}

TEST_F(ErrdisableTest, AutomaticShutsAnInterfaceThatIsInNoBridge) {
  kernel.links[7] = ethernetLink(7, "eth1");
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, (Texts{"protodown 7", "down 7", "up 7"}));
}

TEST_F(ErrdisableTest, AutomaticShutsABridgePortWhoseStateTheKernelRefusesToSet) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  kernel.portError = std::make_error_code(std::errc::device_or_resource_busy);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  EXPECT_EQ(kernel.requests, (Texts{"state 0 7", "protodown 7", "down 7"}));
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 admin-down"}));
}

TEST_F(ErrdisableTest, MonitorTouchesNothingAndReports) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::monitor);
  cause->intfStatusIs(eth1, 1.0);
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, Texts{});
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 monitor", "released eth1 7 monitor"}));
}

TEST_F(ErrdisableTest, APortThatWasOutOfServiceBeforeIsNotPutBack) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  kernel.links[7].bridgePortState = std::uint8_t{0};
  make(ErrdisableAction::bridgePort);
  cause->intfStatusIs(eth1, 1.0);
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, Texts{});
  kernel.links[8] = ethernetLink(8, "eth2");
  kernel.links[8].flags = 0;
  const auto eth2 = Portus::IntfId::fromName("eth2");
  make(ErrdisableAction::adminDown);
  cause->intfStatusIs(eth2, 1.0);
  cause->intfStatusDel(eth2);
  EXPECT_EQ(kernel.requests, Texts{});
}

// Each question costs a system call, in which the kernel may work off a part of the storm.
TEST_F(ErrdisableTest, ABridgePortIsCutBeforeTheKernelIsAsked) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  EXPECT_EQ(kernel.requests, Texts{"state 0 7"});
  EXPECT_EQ(kernel.readsBefore, 0U);
  EXPECT_EQ(kernel.reads, 1U) << "verified";
}

TEST_F(ErrdisableTest, APortThatTheOperatorHasShutAMomentAgoIsNotOurs) {
  kernel.links[7] = ethernetLink(7, "eth1");
  kernel.told = kernel.links[7];
  kernel.links[7].flags = 0;  // the message is still on its way
  make(ErrdisableAction::adminDown);
  cause->intfStatusIs(eth1, 1.0);
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, Texts{}) << "it stays shut";
}

TEST_F(ErrdisableTest, APortThatOnlySeemsToBeOutOfServiceIsCut) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  kernel.told = kernel.links[7];
  kernel.told->bridgePortState = std::uint8_t{0};  // before its carrier came
  make(ErrdisableAction::bridgePort);
  cause->intfStatusIs(eth1, 1.0);
  EXPECT_EQ(kernel.requests, Texts{"state 0 7"});
}

TEST_F(ErrdisableTest, AnInterfaceThatIsNotHeldIsNeverRaised) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  kernel.portError = kernel.adminError = std::make_error_code(std::errc::operation_not_permitted);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  kernel.requests.clear();
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, Texts{});
  EXPECT_EQ(recorder.events,
            (Texts{"held eth1 7 admin-down failed", "released eth1 7 admin-down"}));
}

TEST_F(ErrdisableTest, AFailedActionIsTriedAgainWithGrowingPausesAndToldTwice) {
  kernel.links[7] = ethernetLink(7, "eth1");
  kernel.adminError = notPermitted;
  make(ErrdisableAction::adminDown);
  cause->intfStatusIs(eth1, 1.0);
  for (int probe = 0; probe < 1000; ++probe) cause->intfStatusIs(eth1, 2.0 + probe);  // a storm
  EXPECT_EQ(kernel.requests.size(), 1U) << "looped probes cause no attempts";
  EXPECT_EQ(hold().state, Hold::State::failing);
  EXPECT_EQ(hold().error, notPermitted);
  std::vector<double> at;
  const double begin = manager.now();
  while (at.size() < 12) {
    const std::size_t before = kernel.requests.size();
    manager.runFor(0.01);
    if (kernel.requests.size() != before) at.push_back(manager.now() - begin);
  }
  double expected = 0;
  double pause = Errdisable::kFirstPause;
  for (const double when : at) {
    expected += pause;
    EXPECT_NEAR(when, expected, 0.2);
    pause = std::min(2 * pause, Errdisable::kLongestPause);
  }
  EXPECT_EQ(pause, Errdisable::kLongestPause);
  EXPECT_EQ(hold().attempts, 13U);
  kernel.adminError.clear();
  manager.runFor(Errdisable::kLongestPause + 0.1);
  EXPECT_EQ(recorder.events,
            (Texts{"held eth1 7 admin-down failed", "held at last eth1 7 admin-down"}));
  const std::size_t requests = kernel.requests.size();
  manager.runFor(1000);
  EXPECT_EQ(kernel.requests.size(), requests) << "no attempt after the success";
}

TEST_F(ErrdisableTest, AnActionThatTheKernelTakesButDoesNotDoIsAFailure) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  kernel.takesRequestsOnly = true;
  make(ErrdisableAction::bridgePort);
  cause->intfStatusIs(eth1, 1.0);
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 bridge-port failed"}));
  EXPECT_EQ(hold().error.message(), "the kernel took the request, but the port has not changed");
  kernel.takesRequestsOnly = false;
  manager.runFor(1);
  EXPECT_EQ(recorder.events.back(), "held at last eth1 7 bridge-port");
  EXPECT_EQ(kernel.links[7].bridgePortState, std::uint8_t{0});
}

TEST_F(ErrdisableTest, APortThatCannotBePutBackIsTriedAgainUntilItIs) {
  kernel.links[7] = ethernetLink(7, "eth1");
  make(ErrdisableAction::adminDown);
  cause->intfStatusIs(eth1, 1.0);
  kernel.adminError = notPermitted;
  cause->intfStatusDel(eth1);
  EXPECT_EQ(hold().state, Hold::State::releasing);
  EXPECT_TRUE(sut->adminEnabled(eth1, kernel.links[7])) << "down by our hand, not the operator's";
  manager.runFor(0.5);
  kernel.adminError.clear();
  manager.runFor(1);
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 admin-down", "released eth1 7 admin-down failed",
                                    "released at last eth1 7 admin-down"}));
  EXPECT_TRUE(kernel.links[7].adminUp());
  EXPECT_TRUE(sut->holds().empty());
}

TEST_F(ErrdisableTest, ALoopThatReturnsWhileThePortCannotBePutBackKeepsTheWayBack) {
  kernel.links[7] = ethernetLink(7, "eth1");
  make(ErrdisableAction::adminDown);
  cause->intfStatusIs(eth1, 1.0);
  kernel.adminError = notPermitted;
  cause->intfStatusDel(eth1);
  cause->intfStatusIs(eth1, 2.0);
  kernel.adminError.clear();
  EXPECT_TRUE(sut->holds(eth1));
  cause->intfStatusDel(eth1);
  EXPECT_TRUE(kernel.links[7].adminUp()) << "it was shut here, not by the operator";
}

TEST_F(ErrdisableTest, AnActionThatIsGoneWithoutAMessageIsFoundAndMadeAgain) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  EXPECT_TRUE(sut->verify().empty());
  kernel.links[7].bridgePortState = std::uint8_t{3};
  EXPECT_EQ(sut->verify(), std::vector{eth1});
  EXPECT_EQ(kernel.links[7].bridgePortState, std::uint8_t{0});
  EXPECT_TRUE(sut->verify().empty());
}

TEST_F(ErrdisableTest, APortThatLeavesItsBridgeWhileItIsListedIsHeldByAnotherAction) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  kernel.links[7] = ethernetLink(7, "eth1");
  kernel.portError = std::error_code(EOPNOTSUPP, std::system_category());
  tell(kernel.links[7]);
  EXPECT_EQ(hold().action, ErrdisableAction::adminDown);
  EXPECT_FALSE(kernel.links[7].adminUp());
  cause->intfStatusDel(eth1);
  EXPECT_TRUE(kernel.links[7].adminUp());
}

TEST_F(ErrdisableTest, ALinkThatIsRenamedWhileItIsHeldIsPutBack) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  kernel.links[7].name = "eth9";
  sut->handleLinkGone(eth1);
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, (Texts{"state 0 7", "state 3 7"}));
}

TEST_F(ErrdisableTest, WhatAnEarlierRunHoldsIsPutBackInItsTurn) {
  kernel.links[7] = ethernetLink(7, "eth1");
  kernel.links[7].flags = 0;
  make(ErrdisableAction::automatic);
  sut->holdIs(eth1, 7, ErrdisableAction::adminDown);
  EXPECT_TRUE(sut->adminEnabled(eth1, kernel.links[7]));
  cause->intfStatusIs(eth1, 1.0);
  EXPECT_EQ(kernel.requests, Texts{});
  sut->strayDel(eth1);  // listed: nothing
  EXPECT_TRUE(sut->holds(eth1));
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, (Texts{"up 7"}));
}

TEST_F(ErrdisableTest, WhatAnEarlierRunHoldsAndNobodyTakesUpIsPutBackAtOnce) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  kernel.links[7].bridgePortState = std::uint8_t{0};
  make(ErrdisableAction::automatic);
  sut->holdIs(eth1, 7, ErrdisableAction::bridgePort);
  sut->strayDel(eth1);
  EXPECT_EQ(kernel.requests, (Texts{"state 3 7"}));
  EXPECT_TRUE(sut->holds().empty());
}

TEST_F(ErrdisableTest, TheStateIsMadeAgainWhenTheKernelResetsIt) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::bridgePort);
  cause->intfStatusIs(eth1, 1.0);
  kernel.links[7].bridgePortState = std::uint8_t{3};  // a link flap
  kernel.requests.clear();
  tell(kernel.links[7]);
  EXPECT_EQ(kernel.requests, (Texts{"state 0 7"}));
}

TEST_F(ErrdisableTest, AMessageOlderThanTheActionCausesNoSecondOne) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  const LinkInfo before = kernel.links[7];
  make(ErrdisableAction::bridgePort);
  cause->intfStatusIs(eth1, 1.0);
  kernel.requests.clear();
  tell(before);  // still says "forwarding"
  EXPECT_EQ(kernel.requests, Texts{});
}

TEST_F(ErrdisableTest, WhatItShutsDoesNotCountAsTheOperatorsShutdown) {
  kernel.links[7] = ethernetLink(7, "eth1");
  make(ErrdisableAction::adminDown);
  EXPECT_TRUE(tell(kernel.links[7]));
  cause->intfStatusIs(eth1, 1.0);
  EXPECT_TRUE(tell(kernel.links[7])) << "held down";
  const LinkInfo shut = kernel.links[7];
  cause->intfStatusDel(eth1);
  EXPECT_TRUE(tell(shut)) << "the message of the shutdown arrives after the raising";
  EXPECT_TRUE(tell(kernel.links[7]));
  kernel.links[7].flags = 0;
  EXPECT_FALSE(tell(kernel.links[7])) << "now it is the operator's";
}

TEST_F(ErrdisableTest, AnOperatorWhoRaisesAHeldInterfaceIsObeyedUntilTheNextLoopedProbe) {
  manager.logService().sinkIs(sink);
  kernel.links[7] = ethernetLink(7, "eth1");
  const LinkInfo before = kernel.links[7];
  make(ErrdisableAction::adminDown);
  cause->intfStatusIs(eth1, 1.0);
  tell(before);  // an old message is not the operator
  EXPECT_TRUE(sut->holds(eth1));
  EXPECT_FALSE(raised);
  kernel.links[7].flags = IFF_UP;
  tell(kernel.links[7]);
  EXPECT_TRUE(raised);
  EXPECT_FALSE(sut->holds(eth1));
  kernel.links[7].mtu = 1400;  // whatever else changes
  tell(kernel.links[7]);
  EXPECT_FALSE(raised);
  manager.runFor(100);
  EXPECT_TRUE(kernel.links[7].adminUp());
  EXPECT_EQ(sink.texts(),
            (Texts{"Interface eth1 was raised by the operator while a loop holds it down"}));
  cause->intfStatusIs(eth1, 2.0);
  EXPECT_EQ(kernel.requests, (Texts{"down 7", "down 7"}));
}

TEST_F(ErrdisableTest, AListedInterfaceThatComesBackAsAnotherDeviceIsTakenDownAgain) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  kernel.links.erase(7);
  sut->handleLinkGone(eth1);
  kernel.links[9] = bridgePort(9, "eth1", 3);
  tell(kernel.links[9]);
  EXPECT_EQ(kernel.requests, (Texts{"state 0 7", "state 0 9"}));
}

TEST_F(ErrdisableTest, ABridgePortThatLostItsCarrierIsReleasedWithoutAnError) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::bridgePort);
  cause->intfStatusIs(eth1, 1.0);
  kernel.portError = std::error_code(ENETDOWN, std::system_category());
  cause->intfStatusDel(eth1);
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 bridge-port", "released eth1 7 bridge-port"}));
}

TEST_F(ErrdisableTest, InterfacesThatAreListedAtTheStartAreTakenDown) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  cause->intfStatusIs(eth1, 1.0);
  make(ErrdisableAction::automatic);
  EXPECT_EQ(kernel.requests, (Texts{"state 0 7"}));
}

}  // namespace
}  // namespace Platform::Linux
