// SPDX-License-Identifier: Apache-2.0
#include "runtime/interface/EthDevPamManager.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/runtime/PlatformEntities.h"

namespace {

using namespace Interface;
using namespace RuntimeTest;
using Vex::makePtr;
using Vex::Ptr;
using Strings = std::vector<std::string>;

struct PamTeller final : EthDevPamCollection::NotifieeConst, Teller {
  void onIntfPam(const Portus::IntfId& id) override { tell("pam", id); }
};

class EthDevPamManagerTest : public testing::Test {
 protected:
  Strings take() { return std::exchange(told->log, Strings{}); }
  bool open() const { return static_cast<bool>(pams->intfPam(eth1)); }
  void allThere() {
    desired->intfDesiredIs(eth1, true);
    devices->deviceIntfStatusIs(eth1, {device, true});
    sut->activeIs(true);
    (void)take();
  }

  const Portus::IntfId eth1 = intf("eth1");
  const Ptr<PamDesiredIntfDir> desired = makePtr<PamDesiredIntfDir>("pdid");
  const Ptr<EthDevPamCollection> pams = makePtr<EthDevPamCollection>("edpc");
  const Ptr<DeviceIntfStatusDir> devices = makePtr<DeviceIntfStatusDir>("disd");
  const Ptr<PamTeller> told = watch<PamTeller>(pams);
  const Ptr<TestDevice> device = makePtr<TestDevice>();
  Ptr<EthDevPamManager> sut = makePtr<EthDevPamManager>(desired, pams, devices);
};

TEST_F(EthDevPamManagerTest, APamStandsExactlyWhileAllFourConditionsHold) {
  for (unsigned conditions = 0; conditions < 16; ++conditions) {
    // From every other combination, so that each condition is seen to come and to go.
    for (unsigned before = 0; before < 16; ++before) {
      for (const unsigned now : {before, conditions}) {
        desired->intfDesiredIs(eth1, (now & 1U) != 0);
        devices->deviceIntfStatusIs(
            eth1, {(now & 2U) != 0 ? Ptr<Portus::Device>(device) : nullptr, (now & 4U) != 0});
        sut->activeIs((now & 8U) != 0);
        ASSERT_EQ(open(), now == 15) << before << " " << now;
        ASSERT_EQ(device->open, now == 15 ? 1 : 0);
      }
    }
  }
}

TEST_F(EthDevPamManagerTest, AbsentEntriesCountAsNo) {
  allThere();
  EXPECT_TRUE(open());
  desired->intfDesiredDel(eth1);
  EXPECT_FALSE(open());
  desired->intfDesiredIs(eth1, true);
  EXPECT_TRUE(open());
  devices->deviceIntfStatusDel(eth1);
  EXPECT_FALSE(open());
  EXPECT_EQ(take(), (Strings{"pam eth1", "pam eth1", "pam eth1"}));
}

TEST_F(EthDevPamManagerTest, NothingIsOpenedBeforeTheActivation) {
  desired->intfDesiredIs(eth1, true);
  devices->deviceIntfStatusIs(eth1, {device, true});
  EXPECT_EQ(device->asked, 0);
  sut->activeIs(true);
  EXPECT_EQ(take(), Strings{"pam eth1"});
  sut->activeIs(true);
  EXPECT_EQ(device->asked, 1);
}

TEST_F(EthDevPamManagerTest, ActivationWorksOnAllInterfaces) {
  for (const char* name : {"eth1", "eth2", "eth3", "eth4", "eth5"}) {
    desired->intfDesiredIs(intf(name), true);
    devices->deviceIntfStatusIs(intf(name), {device, true});
  }
  sut->activeIs(true);
  EXPECT_EQ(device->open, 5);
  sut->activeIs(false);
  EXPECT_EQ(device->open, 0);
  EXPECT_FALSE(pams->intfPamIteratorConst());
  EXPECT_EQ(take().size(), 10U);
}

TEST_F(EthDevPamManagerTest, AnInterfaceThatReturnsAsAnotherDeviceGetsANewPam) {
  allThere();
  const auto first = pams->intfPam(eth1);
  const auto other = makePtr<TestDevice>();
  devices->deviceIntfStatusIs(eth1, {other, true});
  ASSERT_TRUE(open());
  EXPECT_NE(pams->intfPam(eth1), first);
  EXPECT_EQ(other->open, 1);
  EXPECT_EQ(take(), (Strings{"pam eth1", "pam eth1"}));  // closed, opened
}

TEST_F(EthDevPamManagerTest, AnInputThatLeavesTheAnswerAloneLeavesThePamAlone) {
  allThere();
  const auto pam = pams->intfPam(eth1);
  sut->handleIntf(eth1);
  EXPECT_EQ(pams->intfPam(eth1), pam);
  EXPECT_EQ(device->asked, 1);
  EXPECT_EQ(take(), Strings{});
}

TEST_F(EthDevPamManagerTest, ADeviceThatRefusesIsAskedAgainAtTheNextChange) {
  device->refuses = true;
  allThere();
  EXPECT_EQ(device->asked, 1);
  EXPECT_FALSE(open());
  device->refuses = false;
  devices->deviceIntfStatusIs(eth1, {device, false});
  devices->deviceIntfStatusIs(eth1, {device, true});
  EXPECT_TRUE(open());
  EXPECT_EQ(take(), Strings{"pam eth1"});
}

TEST_F(EthDevPamManagerTest, NothingIsOpenedOnADeviceThatGoesWhileItsPredecessorIsClosed) {
  allThere();
  const auto other = makePtr<TestDevice>();
  told->handler = [&] { devices->deviceIntfStatusDel(eth1); };
  devices->deviceIntfStatusIs(eth1, {other, true});
  EXPECT_FALSE(open());
  EXPECT_EQ(other->asked, 0);
}

TEST_F(EthDevPamManagerTest, NothingIsOpenedIfTheClosingTurnsTheManagerOff) {
  allThere();
  const auto other = makePtr<TestDevice>();
  told->handler = [&] { sut->activeIs(false); };
  devices->deviceIntfStatusIs(eth1, {other, true});
  EXPECT_FALSE(open());
}

TEST_F(EthDevPamManagerTest, AThirdDeviceThatComesWhileTheFirstIsClosedIsTheOneOpened) {
  allThere();
  const auto second = makePtr<TestDevice>();
  const auto third = makePtr<TestDevice>();
  told->handler = [&] { devices->deviceIntfStatusIs(eth1, {third, true}); };
  devices->deviceIntfStatusIs(eth1, {second, true});
  told->handler = nullptr;
  EXPECT_EQ(third->open, 1);
  EXPECT_EQ(second->open, 0);
}

TEST_F(EthDevPamManagerTest, SettingsReachThePamsOpenedAfterThem) {
  static constexpr sock_filter kNone[] = {{BPF_RET | BPF_K, 0, 0, 0}};
  const Portus::PacketFilter filter{std::span(kNone)};
  const auto everybody = Portus::EthAddr::parse("ff:ff:ff:ff:ff:ff");
  sut->sockPrioIs(3);
  sut->packetFilterIs(filter);
  sut->destinationIs(everybody);
  sut->perIntfSocketIs(true);
  allThere();
  EXPECT_EQ(device->lastConfig.sockPrio, 3);
  EXPECT_EQ(device->lastConfig.filter, filter);
  EXPECT_EQ(device->lastConfig.destination, everybody);
  EXPECT_TRUE(device->lastConfig.perIntfSocket);
}

TEST_F(EthDevPamManagerTest, SockPrioIs0To15) {
  EXPECT_EQ(sut->sockPrio(), 0);
  sut->sockPrioIs(15);
  for (const int priority : {16, 255}) {
    try {
      sut->sockPrioIs(static_cast<std::uint8_t>(priority));
      ADD_FAILURE() << "nothing raised";
    } catch (const Vex::RangeException& e) {
      EXPECT_STREQ(e.what(), "EthDevPamManager::sockPrio < 0 or > 15 not allowed");
    }
  }
  EXPECT_EQ(sut->sockPrio(), 15);
}

TEST_F(EthDevPamManagerTest, AManagerThatGoesWatchesNothingAnyMore) {
  allThere();
  sut.reset();
  EXPECT_EQ(desired->notifieeCount() + devices->notifieeCount(), 0U);
  devices->deviceIntfStatusDel(eth1);
  EXPECT_EQ(take(), Strings{});
}

TEST_F(EthDevPamManagerTest, NeedsItsDirectories) {
  EXPECT_THROW((void)makePtr<EthDevPamManager>(nullptr, pams, devices), Vex::RangeException);
  EXPECT_THROW((void)makePtr<EthDevPamManager>(desired, nullptr, devices), Vex::RangeException);
  EXPECT_THROW((void)makePtr<EthDevPamManager>(desired, pams, nullptr), Vex::RangeException);
}

}  // namespace
