// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/Errdisable.h"

#include <gtest/gtest.h>

#include "runtime/vex/VirtualActivityManager.h"
#include "tests/platform/FakeLinks.h"

namespace Platform::Linux {
namespace {

using Texts = std::vector<std::string>;

class Recorder final : public Errdisable::Listener {
 public:
  void held(const Portus::IntfId& intfId, int ifindex, ErrdisableAction action,
            std::error_code error) override {
    events.push_back("held " + intfId.name() + " " + std::to_string(ifindex) + " " +
                     std::string(errdisableActionName(action)) + (error ? " failed" : ""));
  }
  void released(const Portus::IntfId& intfId, std::error_code error) override {
    events.push_back("released " + intfId.name() + (error ? " failed" : ""));
  }
  Texts events;
};

class ErrdisableTest : public testing::Test {
 protected:
  void make(ErrdisableAction action) {
    sut = Vex::makePtr<Errdisable>(Vex::Ptr<::Errdisable::CauseStatus const>(cause), kernel, kernel,
                                   recorder, action);
  }
  // As LinkDirectory does: the intent is asked for before the link is handled.
  bool tell(const LinkInfo& link) {
    const bool enabled = sut->adminEnabled(eth1, link);
    sut->handleLink(eth1, link);
    return enabled;
  }

  Vex::VirtualActivityManager manager;
  Vex::CurrentActivityManager current{manager};
  Vex::MemorySink sink;
  Vex::Ptr<::Errdisable::CauseStatus> cause =
      Vex::makePtr<::Errdisable::CauseStatus>(Vex::Name("ringward"));
  FakeKernel kernel;
  Recorder recorder;
  Vex::Ptr<Errdisable> sut;
  const Portus::IntfId eth1 = Portus::IntfId::fromName("eth1");
};

TEST_F(ErrdisableTest, AutomaticDisablesThePortStateOfABridgePortAndForwardsAgainAtTheEnd) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  cause->intfStatusIs(eth1, 2.0);  // another looped probe
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, (Texts{"state 0 7", "state 3 7"}));
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 bridge-port", "released eth1"}));
}

TEST_F(ErrdisableTest, AutomaticShutsAnInterfaceThatIsInNoBridge) {
  kernel.links[7] = ethernetLink(7, "eth1");
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, (Texts{"down 7", "up 7"}));
}

TEST_F(ErrdisableTest, AutomaticShutsABridgePortWhoseStateTheKernelRefusesToSet) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  kernel.portError = std::make_error_code(std::errc::device_or_resource_busy);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  EXPECT_EQ(kernel.requests, (Texts{"state 0 7", "down 7"}));
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 admin-down"}));
}

TEST_F(ErrdisableTest, MonitorTouchesNothingAndReports) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  make(ErrdisableAction::monitor);
  cause->intfStatusIs(eth1, 1.0);
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, Texts{});
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 monitor", "released eth1"}));
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

TEST_F(ErrdisableTest, AnInterfaceThatIsNotHeldIsNeverRaised) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  kernel.portError = kernel.adminError = std::make_error_code(std::errc::operation_not_permitted);
  make(ErrdisableAction::automatic);
  cause->intfStatusIs(eth1, 1.0);
  kernel.requests.clear();
  cause->intfStatusDel(eth1);
  EXPECT_EQ(kernel.requests, Texts{});
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 admin-down failed"}));
}

TEST_F(ErrdisableTest, AFailedActionIsTriedAgainWithTheNextLoopedProbe) {
  kernel.links[7] = ethernetLink(7, "eth1");
  kernel.adminError = std::make_error_code(std::errc::no_buffer_space);
  make(ErrdisableAction::adminDown);
  cause->intfStatusIs(eth1, 1.0);
  kernel.adminError.clear();
  cause->intfStatusIs(eth1, 2.0);
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 admin-down failed", "held eth1 7 admin-down"}));
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
  kernel.links[7].flags = IFF_UP;
  tell(kernel.links[7]);
  EXPECT_FALSE(sut->holds(eth1));
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
  EXPECT_EQ(recorder.events, (Texts{"held eth1 7 bridge-port", "released eth1"}));
}

TEST_F(ErrdisableTest, InterfacesThatAreListedAtTheStartAreTakenDown) {
  kernel.links[7] = bridgePort(7, "eth1", 3);
  cause->intfStatusIs(eth1, 1.0);
  make(ErrdisableAction::automatic);
  EXPECT_EQ(kernel.requests, (Texts{"state 0 7"}));
}

}  // namespace
}  // namespace Platform::Linux
