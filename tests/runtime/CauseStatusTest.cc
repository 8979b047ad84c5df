// SPDX-License-Identifier: Apache-2.0
#include "runtime/errdisable/CauseStatus.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/runtime/PlatformEntities.h"

namespace {

using namespace RuntimeTest;
using Strings = std::vector<std::string>;

struct CauseTeller final : Errdisable::CauseStatus::NotifieeConst, Teller {
  void onIntfStatus(const Portus::IntfId& id) override { tell("intfStatus", id); }
};

TEST(CauseStatus, ListsInterfacesWithTheirTime) {
  const auto sut = Vex::makePtr<Errdisable::CauseStatus>("ringward");
  const auto told = watch<CauseTeller>(sut);
  EXPECT_FALSE(sut->intfStatusHas(intf("eth1")));
  EXPECT_EQ(sut->intfStatus(intf("eth1")), 0.0);
  sut->intfStatusIs(intf("eth1"), 12.5);
  EXPECT_TRUE(sut->intfStatusHas(intf("eth1")));
  EXPECT_EQ(sut->intfStatus(intf("eth1")), 12.5);
  EXPECT_EQ(told->log, Strings{"intfStatus eth1"});
}

TEST(CauseStatus, AnEqualTimeIsSilentAndAnotherOneRepeatsTheRequest) {
  const auto sut = Vex::makePtr<Errdisable::CauseStatus>("ringward");
  const auto told = watch<CauseTeller>(sut);
  sut->intfStatusIs(intf("eth1"), 1.0);
  sut->intfStatusIs(intf("eth1"), 1.0);
  EXPECT_EQ(told->log.size(), 1U);
  sut->intfStatusIs(intf("eth1"), 2.0);
  EXPECT_EQ(told->log.size(), 2U);
}

TEST(CauseStatus, AnInterfaceListedAtTimeZeroIsListed) {
  const auto sut = Vex::makePtr<Errdisable::CauseStatus>("ringward");
  const auto told = watch<CauseTeller>(sut);
  sut->intfStatusIs(intf("eth1"), 0.0);
  EXPECT_TRUE(sut->intfStatusHas(intf("eth1")));
  EXPECT_EQ(told->log.size(), 1U);
}

TEST(CauseStatus, RemovalIsToldOnceAndCanUseTheKeyOfTheIteration) {
  const auto sut = Vex::makePtr<Errdisable::CauseStatus>("ringward");
  for (const char* name : {"eth1", "eth2", "eth3"}) sut->intfStatusIs(intf(name), 1.0);
  const auto told = watch<CauseTeller>(sut);
  for (auto it = sut->intfStatusIteratorConst(); it; ++it) sut->intfStatusDel(it.key());
  sut->intfStatusDel(intf("eth1"));
  EXPECT_EQ(told->log.size(), 3U);
  EXPECT_FALSE(sut->intfStatusIteratorConst());
}

}  // namespace
