// SPDX-License-Identifier: Apache-2.0
#include "model/status/Status.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Ringward::Status::statusFactory;
using Strings = std::vector<std::string>;

Portus::IntfId intfOf(const char* name) { return Portus::IntfId::fromName(name); }
const Portus::EthAddr kAddress(2, 0, 0, 0, 0, 1);

class Watcher final : public Ringward::Status::Status::NotifieeConst {
 public:
  using NotifieeConst::onIntfStatus;
  using NotifieeConst::onSysIntfExclude;
  void onIntfStatus(const Portus::IntfId& i) override {
    seen.push_back("intfStatus " + i.name() + (of().intfStatus(i) ? " there" : " gone"));
  }
  void onSrcAddr() override { seen.push_back("srcAddr"); }
  void onAggressiveDisable() override { seen.push_back("aggressiveDisable"); }
  void onSysIntfExclude(const Portus::IntfId& i) override {
    seen.push_back("sysIntfExclude " + i.name() + (of().sysIntfExcludeHas(i) ? " there" : " gone"));
  }
  void onRunning() override { seen.push_back("running"); }
  Strings seen;

 private:
  const Ringward::Status::Status& of() const {
    return static_cast<const Ringward::Status::Status&>(*notifier());
  }
};

class Status : public testing::Test {
 protected:
  Status() {
    watcher->notifierIs(sut);
    watcher->isRegisteredNotifieeIs(true);
  }
  ~Status() override { watcher->isRegisteredNotifieeIs(false); }
  Vex::Ptr<Ringward::Status::Status> sut = statusFactory("status");
  Vex::Ptr<Watcher> watcher = Vex::makePtr<Watcher>();
};

TEST_F(Status, AFreshRootIsEmptyAndNotRunning) {
  EXPECT_EQ(sut->name(), "status");
  EXPECT_FALSE(sut->intfStatusIteratorConst());
  EXPECT_FALSE(sut->srcAddr());
  EXPECT_FALSE(sut->aggressiveDisable());
  EXPECT_FALSE(sut->sysIntfExcludeIteratorConst());
  EXPECT_FALSE(sut->running());
}

TEST_F(Status, PlainAttributesTellOfChangesAndAreSilentForEqualValues) {
  sut->srcAddrIs({});
  sut->aggressiveDisableIs(false);
  sut->runningIs(false);
  EXPECT_TRUE(watcher->seen.empty());
  for (int i = 0; i < 2; ++i) {
    sut->srcAddrIs(kAddress);
    sut->aggressiveDisableIs(true);
    sut->runningIs(true);
  }
  EXPECT_EQ(watcher->seen, (Strings{"srcAddr", "aggressiveDisable", "running"}));
  EXPECT_EQ(sut->srcAddr(), kAddress);
  EXPECT_TRUE(sut->aggressiveDisable());
  EXPECT_TRUE(sut->running());
}

TEST_F(Status, AnEntryIsMadeOnceAndToldOf) {
  const auto entry = sut->intfStatusIs(intfOf("eth1"));
  EXPECT_EQ(sut->intfStatusIs(intfOf("eth1")), entry);
  EXPECT_EQ(sut->intfStatus(intfOf("eth1")), entry);
  EXPECT_EQ(watcher->seen, Strings{"intfStatus eth1 there"});
  EXPECT_EQ(entry->name(), "");
  EXPECT_EQ(entry->parent(), sut.get());
  EXPECT_EQ(entry->parentAttr(), "intfStatus");
  EXPECT_EQ(entry->fullName(), "status/intfStatus[eth1]");
  EXPECT_EQ(entry->fwkKey(), intfOf("eth1"));
}

TEST_F(Status, RemovingAnAbsentEntryIsSilentAndAPresentOneIsTold) {
  sut->intfStatusDel(intfOf("eth1"));
  EXPECT_TRUE(watcher->seen.empty());
  const auto entry = sut->intfStatusIs(intfOf("eth1"));
  sut->intfStatusDel(entry->intfId());
  EXPECT_EQ(watcher->seen, (Strings{"intfStatus eth1 there", "intfStatus eth1 gone"}));
  EXPECT_EQ(entry->parent(), nullptr);
}

TEST_F(Status, DelAllTellsOfEachEntry) {
  for (const char* i : {"eth1", "eth2", "eth3"}) sut->intfStatusIs(intfOf(i));
  for (const char* i : {"eth1", "eth2"}) sut->sysIntfExcludeIs(intfOf(i), true);
  watcher->seen.clear();
  sut->intfStatusDelAll();
  EXPECT_EQ(watcher->seen.size(), 3U);
  EXPECT_FALSE(sut->intfStatusIteratorConst());
  sut->sysIntfExcludeDelAll();
  EXPECT_EQ(watcher->seen.size(), 5U);
  EXPECT_FALSE(sut->sysIntfExcludeIteratorConst());
}

TEST_F(Status, ExclusionsBehaveAsACollectionOfValues) {
  sut->sysIntfExcludeIs(intfOf("po1"), false);
  sut->sysIntfExcludeIs(intfOf("po1"), false);
  EXPECT_TRUE(sut->sysIntfExcludeHas(intfOf("po1")));
  EXPECT_FALSE(sut->sysIntfExclude(intfOf("po1")));
  sut->sysIntfExcludeIs(intfOf("po1"), true);
  EXPECT_TRUE(sut->sysIntfExclude(intfOf("po1")));
  sut->sysIntfExcludeDel(intfOf("po2"));
  sut->sysIntfExcludeDel(intfOf("po1"));
  EXPECT_EQ(watcher->seen, (Strings{"sysIntfExclude po1 there", "sysIntfExclude po1 there",
                                    "sysIntfExclude po1 gone"}));
}

TEST_F(Status, AnEntryOutlivesItsRootWithoutAParent) {
  const auto entry = sut->intfStatusIs(intfOf("eth1"));
  watcher->notifierIs(nullptr);
  sut = nullptr;
  EXPECT_EQ(entry->parent(), nullptr);
}

TEST_F(Status, AnEntryTellsOfItsAttributesAndIsSilentForEqualValues) {
  class EntryWatcher final : public Ringward::Status::IntfStatus::NotifieeConst {
   public:
    void onDisabled() override { seen.push_back("disabled"); }
    void onDisabledAt() override { seen.push_back("disabledAt"); }
    void onDisabledUntil() override { seen.push_back("disabledUntil"); }
    Strings seen;
  };
  const auto entry = Ringward::Status::intfStatusFactory(intfOf("eth1"));
  EXPECT_FALSE(entry->disabled());
  EXPECT_EQ(entry->disabledAt(), 0.0);
  EXPECT_EQ(entry->disabledUntil(), 0.0);
  const auto w = Vex::makePtr<EntryWatcher>();
  w->notifierIs(entry);
  w->isRegisteredNotifieeIs(true);
  entry->disabledIs(false);
  entry->disabledAtIs(0.0);
  entry->disabledUntilIs(0.0);
  EXPECT_TRUE(w->seen.empty());
  for (int i = 0; i < 2; ++i) {
    entry->disabledUntilIs(2.5);
    entry->disabledAtIs(1.5);
    entry->disabledIs(true);
  }
  EXPECT_EQ(w->seen, (Strings{"disabledUntil", "disabledAt", "disabled"}));
  w->isRegisteredNotifieeIs(false);
}

TEST_F(Status, AttributesHaveTheirNumbersAndNames) {
  const Strings names{"intfStatus",     "srcAddr", "aggressiveDisable",
                      "sysIntfExclude", "running", "unknown"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(sut->attributeString(static_cast<Vex::AttributeId>(258 + i)), names[i]);
  }
  const auto entry = sut->intfStatusIs(intfOf("eth1"));
  const Strings own{"intfId", "disabled", "disabledAt", "disabledUntil", "unknown"};
  for (std::size_t i = 0; i < own.size(); ++i) {
    EXPECT_EQ(entry->attributeString(static_cast<Vex::AttributeId>(258 + i)), own[i]);
  }
}

}  // namespace
