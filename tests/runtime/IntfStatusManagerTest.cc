// SPDX-License-Identifier: Apache-2.0
#include "runtime/interface/IntfStatusManager.h"

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

struct DeviceTeller final : DeviceIntfStatusDir::NotifieeConst, Teller {
  void onDeviceIntfStatus(const Portus::IntfId& id) override { tell("device", id); }
};

class IntfStatusManagerTest : public testing::Test {
 protected:
  Ptr<IntfStatusManager> newSut() {
    return makePtr<IntfStatusManager>(nullptr, all, local, kernel, nullptr, nullptr);
  }
  Strings take() { return std::exchange(told->log, Strings{}); }

  const Portus::IntfId eth1 = intf("eth1");
  const Ptr<AllIntfStatusDir> all = makePtr<AllIntfStatusDir>("all");
  const Ptr<AllIntfStatusLocalDir> local = makePtr<AllIntfStatusLocalDir>("local");
  const Ptr<DeviceIntfStatusDir> kernel = makePtr<DeviceIntfStatusDir>("disd");
  const Ptr<DeviceTeller> told = watch<DeviceTeller>(kernel);
  const Ptr<TestDevice> device = makePtr<TestDevice>();
  const Ptr<IntfStatusLocal> here = makePtr<IntfStatusLocal>(device);
  const Ptr<IntfStatus> status = newIntfStatus(eth1);
};

TEST_F(IntfStatusManagerTest, AnEntryStandsWhileTheInterfaceIsInBothDirectories) {
  const auto sut = newSut();
  all->intfStatusIs(eth1, status);
  EXPECT_EQ(take(), Strings{});
  local->intfStatusLocalIs(eth1, here);
  EXPECT_EQ(take(), Strings{"device eth1"});
  EXPECT_EQ(kernel->deviceIntfStatus(eth1), (DeviceIntfStatus{device, true}));
  all->intfStatusDel(eth1);
  EXPECT_EQ(take(), Strings{"device eth1"});
  EXPECT_EQ(kernel->deviceIntfStatus(eth1), DeviceIntfStatus());
  all->intfStatusIs(eth1, status);
  EXPECT_EQ(take(), Strings{"device eth1"});
  local->intfStatusLocalDel(eth1);
  EXPECT_EQ(take(), Strings{"device eth1"});
  EXPECT_FALSE(kernel->deviceIntfStatusIteratorConst());
}

TEST_F(IntfStatusManagerTest, TakesInWhatStandsWhenItIsMade) {
  const auto eth2 = intf("eth2");
  all->intfStatusIs(eth1, status);
  local->intfStatusLocalIs(eth1, here);
  kernel->deviceIntfStatusIs(eth2, {device, true});  // left by an earlier manager, since gone
  (void)take();
  const auto sut = newSut();
  EXPECT_EQ(kernel->deviceIntfStatus(eth1).device, device);
  EXPECT_EQ(kernel->deviceIntfStatus(eth2).device, nullptr);
  EXPECT_EQ(take().size(), 2U);
}

TEST_F(IntfStatusManagerTest, EnabledFollowsAdminEnabled) {
  const auto sut = newSut();
  all->intfStatusIs(eth1, status);
  local->intfStatusLocalIs(eth1, here);
  (void)take();
  status->intfConfig()->adminEnabledIs(false);
  EXPECT_EQ(take(), Strings{"device eth1"});
  EXPECT_FALSE(kernel->deviceIntfStatus(eth1).enabled);
  status->linkUpIs(true);  // the carrier does not matter
  EXPECT_EQ(take(), Strings{});
  status->intfConfig()->adminEnabledIs(true);
  EXPECT_TRUE(kernel->deviceIntfStatus(eth1).enabled);
  local->intfStatusLocalDel(eth1);
  (void)take();
  status->intfConfig()->adminEnabledIs(false);
  EXPECT_EQ(take(), Strings{});
  EXPECT_EQ(status->intfConfig()->notifieeCount(), 0U);
}

TEST_F(IntfStatusManagerTest, FollowsTheConfigurationOfTheNewStatus) {
  const auto sut = newSut();
  all->intfStatusIs(eth1, status);
  local->intfStatusLocalIs(eth1, here);
  const auto next = newIntfStatus(eth1, false);
  all->intfStatusIs(eth1, next);
  EXPECT_FALSE(kernel->deviceIntfStatus(eth1).enabled);
  (void)take();
  status->intfConfig()->adminEnabledIs(false);
  EXPECT_EQ(take(), Strings{});
  next->intfConfig()->adminEnabledIs(true);
  EXPECT_EQ(take(), Strings{"device eth1"});
}

TEST_F(IntfStatusManagerTest, AnotherDeviceIsToldOnce) {
  const auto sut = newSut();
  all->intfStatusIs(eth1, status);
  local->intfStatusLocalIs(eth1, here);
  (void)take();
  const auto other = makePtr<TestDevice>();
  local->intfStatusLocalIs(eth1, makePtr<IntfStatusLocal>(other));
  EXPECT_EQ(take(), Strings{"device eth1"});
  EXPECT_EQ(kernel->deviceIntfStatus(eth1).device, other);
}

TEST_F(IntfStatusManagerTest, TheInterfaceMayGoWhileItsChangeIsTold) {
  const auto sut = newSut();
  all->intfStatusIs(eth1, status);
  local->intfStatusLocalIs(eth1, here);
  (void)take();
  told->handler = [&] { all->intfStatusDel(eth1); };
  status->intfConfig()->adminEnabledIs(false);
  EXPECT_EQ(take(), (Strings{"device eth1", "device eth1"}));
  EXPECT_FALSE(kernel->deviceIntfStatusIteratorConst());
}

TEST_F(IntfStatusManagerTest, WithNotificationOffItFollowsNothing) {
  const auto sut = newSut();
  all->intfStatusIs(eth1, status);
  local->intfStatusLocalIs(eth1, here);
  (void)take();
  sut->hasNotificationActiveIs(false);
  status->intfConfig()->adminEnabledIs(false);
  local->intfStatusLocalDel(eth1);
  EXPECT_EQ(take(), Strings{});
  local->intfStatusLocalIs(eth1, here);
  sut->hasNotificationActiveIs(true);
  status->intfConfig()->adminEnabledIs(true);
  status->intfConfig()->adminEnabledIs(false);
  EXPECT_FALSE(kernel->deviceIntfStatus(eth1).enabled);
}

TEST_F(IntfStatusManagerTest, AZombieFollowsNothing) {
  const auto sut = newSut();
  all->intfStatusIs(eth1, status);
  local->intfStatusLocalIs(eth1, here);
  (void)take();
  sut->vexDoZombieReactors(true);
  status->intfConfig()->adminEnabledIs(false);
  all->intfStatusDel(eth1);
  EXPECT_EQ(take(), Strings{});
}

TEST_F(IntfStatusManagerTest, LeavesEverythingUnwatchedWhenItGoes) {
  auto sut = newSut();
  all->intfStatusIs(eth1, status);
  local->intfStatusLocalIs(eth1, here);
  sut.reset();
  EXPECT_EQ(all->notifieeCount() + local->notifieeCount(), 0U);
  EXPECT_EQ(status->intfConfig()->notifieeCount(), 0U);
  EXPECT_EQ(kernel->deviceIntfStatus(eth1).device, device);  // the directory stays as it is
}

TEST_F(IntfStatusManagerTest, NeedsItsDirectories) {
  EXPECT_THROW((void)makePtr<IntfStatusManager>(nullptr, nullptr, local, kernel, nullptr, nullptr),
               Vex::RangeException);
  EXPECT_THROW((void)makePtr<IntfStatusManager>(nullptr, all, nullptr, kernel, nullptr, nullptr),
               Vex::RangeException);
  EXPECT_THROW((void)makePtr<IntfStatusManager>(nullptr, all, local, nullptr, nullptr, nullptr),
               Vex::RangeException);
  EXPECT_EQ(all->notifieeCount() + local->notifieeCount(), 0U);
}

}  // namespace
