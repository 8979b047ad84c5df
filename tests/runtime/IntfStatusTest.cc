// SPDX-License-Identifier: Apache-2.0
#include "runtime/interface/IntfStatus.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/runtime/PlatformEntities.h"

namespace {

using namespace Interface;
using namespace RuntimeTest;
using Vex::makePtr;
using Strings = std::vector<std::string>;

struct ConfigTeller final : IntfConfig::NotifieeConst, Teller {
  void onAdminEnabled() override { tell("adminEnabled"); }
};
struct StatusTeller final : IntfStatus::NotifieeConst, Teller {
  void onLinkUp() override { tell("linkUp"); }
};
struct AllTeller final : AllIntfStatusDir::NotifieeConst, Teller {
  void onIntfStatus(const Portus::IntfId& id) override { tell("intfStatus", id); }
};
struct LocalTeller final : AllIntfStatusLocalDir::NotifieeConst, Teller {
  void onIntfStatusLocal(const Portus::IntfId& id) override { tell("intfStatusLocal", id); }
};
struct EthTeller final : EthIntfStatusDir::NotifieeConst, Teller {
  void onEthIntfStatus(const Portus::IntfId& id) override { tell("ethIntfStatus", id); }
};

TEST(IntfConfig, StartsDisabledAndTellsOncePerChange) {
  const auto sut = makePtr<IntfConfig>(intf("eth1"));
  const auto told = watch<ConfigTeller>(sut);
  EXPECT_FALSE(sut->adminEnabled());
  EXPECT_EQ(sut->intfId(), intf("eth1"));
  EXPECT_EQ(sut->name(), "eth1");
  sut->adminEnabledIs(true);
  sut->adminEnabledIs(true);
  EXPECT_TRUE(sut->adminEnabled());
  EXPECT_EQ(told->log, Strings{"adminEnabled"});
}

TEST(IntfStatus, CarriesItsConfigurationAndTellsOfTheCarrier) {
  const auto sut = newIntfStatus(intf("eth1"));
  const auto told = watch<StatusTeller>(sut);
  EXPECT_EQ(sut->intfConfig()->intfId(), intf("eth1"));
  EXPECT_FALSE(sut->linkUp());
  sut->linkUpIs(true);
  sut->linkUpIs(true);
  EXPECT_EQ(told->log, Strings{"linkUp"});
}

TEST(IntfStatus, NeedsAConfiguration) {
  try {
    (void)makePtr<IntfStatus>(intf("eth1"), nullptr);
    FAIL() << "nothing raised";
  } catch (const Vex::RangeException& e) {
    EXPECT_STREQ(e.what(), "null ValidPtr");
  }
}

TEST(IntfDirectories, TellOfEachInterfaceThatComesChangesAndGoes) {
  const auto status = newIntfStatus(intf("eth1"));
  const auto other = newIntfStatus(intf("eth1"));
  const auto all = makePtr<AllIntfStatusDir>("all");
  const auto allTold = watch<AllTeller>(all);
  all->intfStatusIs(intf("eth1"), status);
  all->intfStatusIs(intf("eth1"), status);
  EXPECT_EQ(all->intfStatus(intf("eth1")), status);
  all->intfStatusIs(intf("eth1"), other);
  all->intfStatusDel(intf("eth1"));
  all->intfStatusDel(intf("eth1"));
  EXPECT_EQ(all->intfStatus(intf("eth1")), nullptr);
  EXPECT_EQ(allTold->log, (Strings{"intfStatus eth1", "intfStatus eth1", "intfStatus eth1"}));

  const auto eth = makePtr<EthIntfStatusDir>("eth");
  const auto ethTold = watch<EthTeller>(eth);
  eth->ethIntfStatusIs(intf("eth2"), status);
  eth->ethIntfStatusDel(intf("eth2"));
  EXPECT_EQ(ethTold->log, (Strings{"ethIntfStatus eth2", "ethIntfStatus eth2"}));

  const auto device = makePtr<TestDevice>();
  const auto local = makePtr<AllIntfStatusLocalDir>("local");
  const auto localTold = watch<LocalTeller>(local);
  local->intfStatusLocalIs(intf("eth3"), makePtr<IntfStatusLocal>(device));
  EXPECT_EQ(local->intfStatusLocal(intf("eth3"))->device(), device);
  local->intfStatusLocalDel(intf("eth3"));
  EXPECT_EQ(localTold->log, (Strings{"intfStatusLocal eth3", "intfStatusLocal eth3"}));
}

TEST(IntfDirectories, AMemberCanBeRemovedByTheKeyThatGoesWithIt) {
  const auto all = makePtr<AllIntfStatusDir>("all");
  const auto told = watch<AllTeller>(all);
  {
    auto status = newIntfStatus(intf("eth1"));
    all->intfStatusIs(intf("eth1"), status);
  }
  told->log.clear();
  // The only reference to the status, and so to the key, is the directory's own.
  all->intfStatusDel(all->intfStatus(intf("eth1")).get()->intfId());
  EXPECT_EQ(told->log, Strings{"intfStatus eth1"});
}

TEST(IntfDirectories, NameTheirAttributes) {
  EXPECT_EQ(makePtr<AllIntfStatusDir>("a")->attributeString(258), "intfStatus");
  EXPECT_EQ(makePtr<AllIntfStatusLocalDir>("a")->attributeString(258), "intfStatusLocal");
  EXPECT_EQ(makePtr<EthIntfStatusDir>("a")->attributeString(258), "ethIntfStatus");
  EXPECT_EQ(makePtr<DeviceIntfStatusDir>("a")->attributeString(258), "deviceIntfStatus");
  EXPECT_EQ(makePtr<PamDesiredIntfDir>("a")->attributeString(258), "intfDesired");
  EXPECT_EQ(makePtr<EthDevPamCollection>("a")->attributeString(258), "intfPam");
  EXPECT_EQ(makePtr<AllIntfStatusDir>("a")->attributeString(259), "unknown");
}

}  // namespace
