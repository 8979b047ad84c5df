// SPDX-License-Identifier: Apache-2.0
#include "runtime/topology/LibSm.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "runtime/vex/VirtualActivityManager.h"
#include "tests/runtime/PlatformEntities.h"

namespace {

using namespace RuntimeTest;
using Bridging::VlanBitmap;
using Topology::Library::LibSm;
using Topology::Library::LibState;
using Vex::makePtr;
using Vex::Ptr;
using Strings = std::vector<std::string>;

struct StateTeller final : LibState::NotifieeConst, Teller {
  void onVlans() override { tell("vlans"); }
  void onIntfVlans(const Portus::IntfId& id) override { tell("port", id); }
  void onInitDone() override { tell("initDone"); }
};

class OnlySome final : public Topology::Library::FilterIntf {
 public:
  bool isValidIntf(Portus::IntfId intfId) const override { return admitted.contains(intfId); }
  std::set<Portus::IntfId> admitted;
};

class LibSmTest : public testing::Test {
 protected:
  Ptr<LibSm> newSut(bool defer = true, std::uint32_t mode = 1, bool ignoreInternal = false,
                    const Topology::Library::FilterIntf* filter = nullptr) {
    auto sut =
        makePtr<LibSm>("topoLibSm", config, status, nullptr, nullptr, state, mode, ignoreInternal,
                       defer, static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(filter)));
    sut->ethIntfStatusDirIs(dir);
    return sut;
  }
  Ptr<Interface::IntfStatus> port(const char* name, const char* vlans, bool enabled = true) {
    auto intfStatus = newIntfStatus(intf(name), enabled);
    dir->ethIntfStatusIs(intf(name), intfStatus);
    status->intfVlansIs(intf(name), VlanBitmap::parse(vlans));
    return intfStatus;
  }
  // What one turn of the loop publishes.
  Strings turn() {
    manager.runTurn();
    return std::exchange(told->log, Strings{});
  }
  std::string vlansOf(const char* name) const {
    const VlanBitmap* vlans = state->intfVlans(intf(name));
    return vlans != nullptr ? vlans->toText() : "no port";
  }

  Vex::VirtualActivityManager manager;
  const Vex::CurrentActivityManager current{manager};
  const Ptr<Bridging::Topology::Config> config = makePtr<Bridging::Topology::Config>("config");
  const Ptr<Bridging::Topology::Status> status = makePtr<Bridging::Topology::Status>("status");
  const Ptr<Interface::EthIntfStatusDir> dir = makePtr<Interface::EthIntfStatusDir>("eth");
  const Ptr<LibState> state = makePtr<LibState>("topoLibState");
  const Ptr<StateTeller> told = watch<StateTeller>(state);
};

TEST_F(LibSmTest, PublishesNothingBeforeTheNextTurnAndThenPortsVlansAndInitDone) {
  config->vlansIs(VlanBitmap::parse("1-3"));
  port("eth2", "1");
  port("eth1", "2-3");
  const auto sut = newSut();
  EXPECT_EQ(told->log, Strings{});
  EXPECT_FALSE(state->initDone());
  EXPECT_EQ(turn(), (Strings{"port eth1", "port eth2", "vlans", "initDone"}));
  EXPECT_EQ(vlansOf("eth1"), "2-3");
  EXPECT_EQ(state->vlans(), VlanBitmap::parse("1-3"));
  EXPECT_EQ(turn(), Strings{});
}

TEST_F(LibSmTest, InitDoneComesOnceAlsoWhenThereIsNothing) {
  const auto sut = newSut();
  EXPECT_EQ(turn(), Strings{"initDone"});
  config->vlansIs(VlanBitmap::parse("1"));
  EXPECT_EQ(turn(), Strings{"vlans"});
  EXPECT_TRUE(state->initDone());
}

TEST_F(LibSmTest, LaterChangesWaitForTheNextTurnToo) {
  const auto sut = newSut();
  turn();
  config->vlansIs(VlanBitmap::parse("7"));
  port("eth1", "7");
  EXPECT_EQ(told->log, Strings{});
  EXPECT_EQ(turn(), (Strings{"port eth1", "vlans"}));
}

TEST_F(LibSmTest, ManyChangesOfOneTurnAreToldOnce) {
  const auto sut = newSut();
  turn();
  for (int vlan = 1; vlan < 50; ++vlan) {
    config->vlansIs(VlanBitmap::parse(std::to_string(vlan)));
    port("eth1", std::to_string(vlan).c_str());
  }
  EXPECT_EQ(turn(), (Strings{"port eth1", "vlans"}));
  EXPECT_EQ(vlansOf("eth1"), "49");
}

TEST_F(LibSmTest, VlansThatVanishAndReturnWithinOneTurnAreSilent) {
  config->vlansIs(VlanBitmap::parse("1-3"));
  port("eth1", "1-3");
  const auto sut = newSut();
  turn();
  config->vlansIs(VlanBitmap());
  status->intfVlansIs(intf("eth1"), VlanBitmap());
  status->intfVlansIs(intf("eth1"), VlanBitmap::parse("1-3"));
  config->vlansIs(VlanBitmap::parse("1-3"));
  EXPECT_EQ(turn(), Strings{});
}

TEST_F(LibSmTest, APortThatCeasesIsToldAtOnceAndItsReturnWithinTheTurnAtTheNext) {
  config->vlansIs(VlanBitmap::parse("1-3"));
  const auto eth1 = port("eth1", "1-3");
  const auto sut = newSut();
  turn();
  eth1->intfConfig()->adminEnabledIs(false);
  EXPECT_EQ(state->intfVlans(intf("eth1")), nullptr);
  eth1->intfConfig()->adminEnabledIs(true);
  EXPECT_EQ(state->intfVlans(intf("eth1")), nullptr);
  EXPECT_EQ(turn(), (Strings{"port eth1", "port eth1"}));
  EXPECT_EQ(vlansOf("eth1"), "1-3");
  // Another entity under the same name is another interface.
  dir->ethIntfStatusDel(intf("eth1"));
  dir->ethIntfStatusIs(intf("eth1"), newIntfStatus(intf("eth1")));
  EXPECT_EQ(turn(), (Strings{"port eth1", "port eth1"}));
  status->intfVlansDel(intf("eth1"));
  EXPECT_EQ(state->intfVlans(intf("eth1")), nullptr);
}

TEST_F(LibSmTest, APortNeedsMembershipDirectoryAndAdminEnabled) {
  const auto sut = newSut();
  turn();
  status->intfVlansIs(intf("eth1"), VlanBitmap::parse("5"));
  EXPECT_EQ(turn(), Strings{});
  const auto eth1 = newIntfStatus(intf("eth1"), false);
  dir->ethIntfStatusIs(intf("eth1"), eth1);
  EXPECT_EQ(turn(), Strings{});
  eth1->intfConfig()->adminEnabledIs(true);
  EXPECT_EQ(turn(), Strings{"port eth1"});
  EXPECT_EQ(vlansOf("eth1"), "5");
  eth1->intfConfig()->adminEnabledIs(false);
  EXPECT_EQ(turn(), Strings{"port eth1"});
  EXPECT_EQ(vlansOf("eth1"), "no port");
  eth1->intfConfig()->adminEnabledIs(true);
  turn();
  dir->ethIntfStatusDel(intf("eth1"));
  EXPECT_EQ(turn(), Strings{"port eth1"});
  EXPECT_EQ(vlansOf("eth1"), "no port");
  dir->ethIntfStatusIs(intf("eth1"), eth1);
  turn();
  status->intfVlansDel(intf("eth1"));
  EXPECT_EQ(turn(), Strings{"port eth1"});
  EXPECT_EQ(vlansOf("eth1"), "no port");
}

TEST_F(LibSmTest, APortWithoutVlansIsAPort) {
  port("eth1", "");
  const auto sut = newSut();
  turn();
  EXPECT_EQ(vlansOf("eth1"), "");
}

TEST_F(LibSmTest, TheFilterDecidesWhichInterfacesCount) {
  OnlySome filter;
  filter.admitted.insert(intf("eth2"));
  port("eth1", "5");
  port("eth2", "5");
  const auto sut = newSut(true, 1, false, &filter);
  EXPECT_EQ(turn(), (Strings{"port eth2", "initDone"}));
  EXPECT_EQ(vlansOf("eth1"), "no port");
}

TEST_F(LibSmTest, InternalVlansAreLeftOutOnlyIfAskedFor) {
  config->vlansIs(VlanBitmap::parse("1-10"));
  config->internalVlansIs(VlanBitmap::parse("3-4"));
  {
    const auto sut = newSut(true, 1, false);
    turn();
    EXPECT_EQ(state->vlans(), VlanBitmap::parse("1-10"));
  }
  const auto sut = newSut(true, 1, true);
  EXPECT_EQ(turn(), Strings{"vlans"});
  EXPECT_EQ(state->vlans(), VlanBitmap::parse("1-2,5-10"));
  config->internalVlansIs(VlanBitmap::parse("5"));
  EXPECT_EQ(turn(), Strings{"vlans"});
  EXPECT_EQ(state->vlans(), VlanBitmap::parse("1-4,6-10"));
}

TEST_F(LibSmTest, NumbersThatAreNoVlansAreNotPublished) {
  VlanBitmap everything = ~VlanBitmap();
  config->vlansIs(everything);
  port("eth1", "1");
  status->intfVlansIs(intf("eth1"), everything);
  const auto sut = newSut();
  turn();
  EXPECT_EQ(state->vlans(), VlanBitmap::parse("1-4094"));
  EXPECT_EQ(vlansOf("eth1"), "1-4094");
}

TEST_F(LibSmTest, TheModeForPortsOnlyPublishesNoVlans) {
  config->vlansIs(VlanBitmap::parse("1-10"));
  port("eth1", "1");
  const auto sut = newSut(true, 0);
  EXPECT_EQ(turn(), (Strings{"port eth1", "initDone"}));
  EXPECT_TRUE(state->vlans().empty());
}

TEST_F(LibSmTest, AnUnknownModeIsRefused) {
  try {
    (void)newSut(true, 2);
    FAIL() << "nothing raised";
  } catch (const Vex::RangeException& e) {
    EXPECT_STREQ(e.what(), "LibSm::libSmMode > 1 not allowed");
  }
  EXPECT_EQ(config->notifieeCount() + status->notifieeCount(), 0U);
  EXPECT_EQ(turn(), Strings{});
}

TEST_F(LibSmTest, WithoutDeferringEveryChangeIsPublishedAtOnce) {
  const auto sut = newSut(false);
  EXPECT_EQ(std::exchange(told->log, Strings{}), Strings{"initDone"});
  config->vlansIs(VlanBitmap::parse("1"));
  port("eth1", "1");
  EXPECT_EQ(told->log, (Strings{"vlans", "port eth1"}));
}

TEST_F(LibSmTest, AnotherDirectoryIsFollowedInPlaceOfTheFirst) {
  port("eth1", "1");
  port("eth2", "1");
  const auto sut = newSut();
  turn();
  const auto other = makePtr<Interface::EthIntfStatusDir>("other");
  other->ethIntfStatusIs(intf("eth2"), newIntfStatus(intf("eth2")));
  sut->ethIntfStatusDirIs(other);
  EXPECT_EQ(turn(), Strings{"port eth1"});
  EXPECT_EQ(vlansOf("eth1"), "no port");
  EXPECT_EQ(dir->notifieeCount(), 0U);
  sut->ethIntfStatusDirIs(nullptr);
  EXPECT_EQ(turn(), Strings{"port eth2"});
}

TEST_F(LibSmTest, ChangesMadeWhileItPublishesComeInTheTurnAfter) {
  port("eth1", "1");
  const auto sut = newSut();
  told->handler = [&] { config->vlansIs(VlanBitmap::parse("9")); };
  EXPECT_EQ(turn(), (Strings{"port eth1", "vlans", "initDone"}));  // vlans are read after ports
  EXPECT_EQ(turn(), Strings{});
  told->handler = [&] { port("eth0", "9"); };
  config->vlansIs(VlanBitmap::parse("8"));
  EXPECT_EQ(turn(), Strings{"vlans"});
  EXPECT_EQ(turn(), Strings{"port eth0"});
}

TEST_F(LibSmTest, AMachineThatGoesTakesItsPendingWorkAlong) {
  const auto eth1 = port("eth1", "1");
  auto sut = newSut();
  turn();
  config->vlansIs(VlanBitmap::parse("9"));
  sut.reset();
  EXPECT_EQ(turn(), Strings{});
  EXPECT_EQ(config->notifieeCount() + status->notifieeCount() + dir->notifieeCount() +
                eth1->intfConfig()->notifieeCount(),
            0U);
}

TEST_F(LibSmTest, MayEndWhileItPublishes) {
  port("eth1", "1");
  port("eth2", "1");
  auto sut = newSut();
  told->handler = [&] { sut.reset(); };
  EXPECT_EQ(turn(), (Strings{"port eth1", "port eth2", "initDone"}));
  EXPECT_EQ(status->notifieeCount(), 0U);
}

TEST_F(LibSmTest, WithNotificationOffItFollowsNothing) {
  const auto eth1 = port("eth1", "1");
  const auto sut = newSut();
  turn();
  sut->hasNotificationActiveIs(false);
  eth1->intfConfig()->adminEnabledIs(false);
  dir->ethIntfStatusDel(intf("eth1"));
  config->vlansIs(VlanBitmap::parse("9"));
  EXPECT_EQ(turn(), Strings{});
  sut->hasNotificationActiveIs(true);
  dir->ethIntfStatusIs(intf("eth1"), eth1);
  EXPECT_EQ(turn(), (Strings{"port eth1", "vlans"}));
}

TEST_F(LibSmTest, AZombieFollowsNothing) {
  const auto eth1 = port("eth1", "1");
  const auto sut = newSut();
  turn();
  sut->vexDoZombieReactors(true);
  eth1->intfConfig()->adminEnabledIs(false);
  dir->ethIntfStatusDel(intf("eth1"));
  EXPECT_EQ(turn(), Strings{});
}

}  // namespace
