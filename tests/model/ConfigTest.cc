// SPDX-License-Identifier: Apache-2.0
#include "model/config/Config.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/vex/Exception.h"

namespace {

using Ringward::Config::configFactory;
using Strings = std::vector<std::string>;

Portus::IntfId intfOf(const char* name) { return Portus::IntfId::fromName(name); }
Bridging::VlanId vlanOf(int number) { return Bridging::VlanId(number); }

// Writes down what it is told, with the value that it then finds.
class Watcher final : public Ringward::Config::Config::NotifieeConst {
 public:
  using NotifieeConst::onIntfExclude;
  using NotifieeConst::onVlanEnabled;
  void onParent() override { seen.push_back("parent"); }
  void onGlobalEnabled() override { add("globalEnabled", of().globalEnabled()); }
  void onVlanEnabled(const Bridging::VlanId& v) override {
    add("vlanEnabled " + std::to_string(v.value()),
        of().vlanEnabledHas(v) ? of().vlanEnabled(v) : 9);
  }
  void onIntfExclude(const Portus::IntfId& i) override {
    add("intfExclude " + i.name(), of().intfExcludeHas(i) ? of().intfExclude(i) : 9);
  }
  void onTransmitConfig() override { add("transmitConfig", of().transmitConfig() != nullptr); }
  void onGlobalIntfConfig() override {
    add("globalIntfConfig", of().globalIntfConfig() != nullptr);
  }
  void onClearCounters() override { add("clearCounters", static_cast<int>(of().clearCounters())); }
  Strings seen;

 private:
  const Ringward::Config::Config& of() const {
    return static_cast<const Ringward::Config::Config&>(*notifier());
  }
  void add(std::string text, int value) {
    seen.push_back(std::move(text) + ' ' + std::to_string(value));
  }
};

class Config : public testing::Test {
 protected:
  Config() {
    watcher->notifierIs(sut);
    watcher->isRegisteredNotifieeIs(true);
  }
  ~Config() override { watcher->isRegisteredNotifieeIs(false); }
  Vex::Ptr<Ringward::Config::Config> sut = configFactory("ringward");
  Vex::Ptr<Watcher> watcher = Vex::makePtr<Watcher>();
};

TEST_F(Config, AFreshRootMeansOff) {
  EXPECT_EQ(sut->name(), "ringward");
  EXPECT_FALSE(sut->globalEnabled());
  EXPECT_FALSE(sut->vlanEnabledIteratorConst());
  EXPECT_FALSE(sut->intfExcludeIteratorConst());
  EXPECT_EQ(sut->transmitConfig(), nullptr);
  EXPECT_EQ(sut->globalIntfConfig(), nullptr);
  EXPECT_EQ(sut->clearCounters(), 0U);
}

TEST_F(Config, FreshChildrenHaveTheirDefaults) {
  EXPECT_EQ(Ringward::Config::transmitConfigFactory("t")->rateLimit(), 1000U);
  EXPECT_EQ(Ringward::Config::globalIntfConfigFactory("g")->transmitInterval(), 5);
  EXPECT_EQ(Ringward::Config::globalIntfConfigFactory("g")->disabledTime(), 604800U);
}

TEST_F(Config, PlainAttributesTellOfChangesAndAreSilentForEqualValues) {
  sut->globalEnabledIs(false);
  sut->clearCountersIs(0);
  EXPECT_TRUE(watcher->seen.empty());
  sut->globalEnabledIs(true);
  sut->globalEnabledIs(true);
  sut->clearCountersIs(7);
  sut->clearCountersIs(7);
  sut->clearCountersIs(6);
  EXPECT_EQ(watcher->seen, (Strings{"globalEnabled 1", "clearCounters 7", "clearCounters 6"}));
}

TEST_F(Config, AVlanSetToFalseIsAnEntryAndIsTold) {
  sut->vlanEnabledIs(vlanOf(10), false);
  EXPECT_TRUE(sut->vlanEnabledHas(vlanOf(10)));
  EXPECT_FALSE(sut->vlanEnabled(vlanOf(10)));
  sut->vlanEnabledIs(vlanOf(10), false);
  sut->vlanEnabledIs(vlanOf(10), true);
  sut->vlanEnabledDel(vlanOf(11));
  sut->vlanEnabledDel(vlanOf(10));
  EXPECT_EQ(watcher->seen, (Strings{"vlanEnabled 10 0", "vlanEnabled 10 1", "vlanEnabled 10 9"}));
}

TEST_F(Config, AnInterfaceSetToFalseIsAnEntryAndIsTold) {
  sut->intfExcludeIs(intfOf("eth1"), false);
  EXPECT_TRUE(sut->intfExcludeHas(intfOf("eth1")));
  EXPECT_FALSE(sut->intfExclude(intfOf("eth1")));
  EXPECT_FALSE(sut->intfExclude(intfOf("eth2")));
  sut->intfExcludeIs(intfOf("eth1"), false);
  sut->intfExcludeIs(intfOf("eth1"), true);
  sut->intfExcludeDel(intfOf("eth2"));
  sut->intfExcludeDel(intfOf("eth1"));
  EXPECT_EQ(watcher->seen,
            (Strings{"intfExclude eth1 0", "intfExclude eth1 1", "intfExclude eth1 9"}));
}

TEST_F(Config, DelAllTakesKeyByKeyAndTellsOfEach) {
  for (const int v : {30, 10, 20}) sut->vlanEnabledIs(vlanOf(v), true);
  for (const char* i : {"eth1", "eth2"}) sut->intfExcludeIs(intfOf(i), true);
  watcher->seen.clear();
  sut->vlanEnabledDelAll();
  EXPECT_EQ(watcher->seen.size(), 3U);
  EXPECT_FALSE(sut->vlanEnabledIteratorConst());
  sut->intfExcludeDelAll();
  EXPECT_EQ(watcher->seen.size(), 5U);
  EXPECT_FALSE(sut->intfExcludeIteratorConst());
}

TEST_F(Config, IteratingAndDeletingVisitsEveryKeyOnce) {
  for (int v = 1; v <= 100; ++v) sut->vlanEnabledIs(vlanOf(v), v % 2 == 0);
  std::vector<bool> visited(101);
  for (auto it = sut->vlanEnabledIteratorConst(); it; ++it) {
    ASSERT_FALSE(visited[it.key().value()]);
    visited[it.key().value()] = true;
    EXPECT_EQ(it->value(), it.key().value() % 2 == 0);
    sut->vlanEnabledDel(it.key());
  }
  EXPECT_EQ(std::count(visited.begin(), visited.end(), true), 100);
  EXPECT_FALSE(sut->vlanEnabledIteratorConst());
}

TEST_F(Config, AChildIsMadeOnceForItsNameAndReplacedForAnother) {
  const auto first = sut->transmitConfigIs("a");
  EXPECT_EQ(sut->transmitConfig(), first);
  EXPECT_EQ(first->parent(), sut.get());
  EXPECT_EQ(first->parentAttr(), "transmitConfig");
  EXPECT_EQ(first->parentAttrId(), 261U);
  EXPECT_EQ(first->fullName(), "ringward/a");
  EXPECT_EQ(sut->transmitConfigIs("a"), first);
  EXPECT_EQ(watcher->seen, Strings{"transmitConfig 1"});
  const auto second = sut->transmitConfigIs("b");
  EXPECT_NE(second, first);
  EXPECT_EQ(first->parent(), nullptr);
  EXPECT_EQ(second->parent(), sut.get());
  sut->transmitConfigDel();
  EXPECT_EQ(second->parent(), nullptr);
  sut->transmitConfigDel();
  EXPECT_EQ(watcher->seen, (Strings{"transmitConfig 1", "transmitConfig 1", "transmitConfig 0"}));
}

TEST_F(Config, TheOtherChildBehavesAlike) {
  const auto first = sut->globalIntfConfigIs("a");
  EXPECT_EQ(first->parentAttr(), "globalIntfConfig");
  EXPECT_EQ(first->uriPath(), "/ringward/a");
  EXPECT_EQ(sut->globalIntfConfigIs("a"), first);
  sut->globalIntfConfigIs("b");
  sut->globalIntfConfigDel();
  EXPECT_EQ(watcher->seen,
            (Strings{"globalIntfConfig 1", "globalIntfConfig 1", "globalIntfConfig 0"}));
}

TEST_F(Config, AChildOutlivesItsRootWithoutAParent) {
  const auto child = sut->transmitConfigIs("a");
  watcher->notifierIs(nullptr);
  sut = nullptr;
  EXPECT_EQ(child->parent(), nullptr);
  EXPECT_EQ(child->fullName(), "a");
}

TEST_F(Config, AChildThatAReactionTakesAwayAgainIsANullValidPtr) {
  class Remover final : public Ringward::Config::Config::NotifieeConst {
   public:
    explicit Remover(Ringward::Config::Config& config) : config_(config) {}
    void onTransmitConfig() override { config_.transmitConfigDel(); }

   private:
    Ringward::Config::Config& config_;
  };
  const auto remover = Vex::makePtr<Remover>(*sut);
  remover->notifierIs(sut);
  remover->isRegisteredNotifieeIs(true);
  try {
    sut->transmitConfigIs("a");
    FAIL();
  } catch (const Vex::RangeException& e) {
    EXPECT_STREQ(e.what(), "null ValidPtr");
  }
  remover->isRegisteredNotifieeIs(false);
}

TEST_F(Config, ChildrenTellOfTheirOwnAttributes) {
  class TransmitWatcher final : public Ringward::Config::TransmitConfig::NotifieeConst {
   public:
    void onRateLimit() override { ++count; }
    int count = 0;
  };
  class IntfWatcher final : public Ringward::Config::GlobalIntfConfig::NotifieeConst {
   public:
    void onTransmitInterval() override { seen.push_back("interval"); }
    void onDisabledTime() override { seen.push_back("time"); }
    Strings seen;
  };
  const auto transmit = Ringward::Config::transmitConfigFactory("t");
  const auto t = Vex::makePtr<TransmitWatcher>();
  t->notifierIs(transmit);
  t->isRegisteredNotifieeIs(true);
  transmit->rateLimitIs(1000);
  transmit->rateLimitIs(0);
  transmit->rateLimitIs(0xFFFFFFFF);
  EXPECT_EQ(t->count, 2);
  EXPECT_EQ(transmit->rateLimit(), 0xFFFFFFFFU);
  t->isRegisteredNotifieeIs(false);

  const auto intf = Ringward::Config::globalIntfConfigFactory("g");
  const auto i = Vex::makePtr<IntfWatcher>();
  i->notifierIs(intf);
  i->isRegisteredNotifieeIs(true);
  intf->transmitIntervalIs(5);
  intf->disabledTimeIs(604800);
  intf->transmitIntervalIs(0);  // accepted
  intf->disabledTimeIs(0);
  EXPECT_EQ(i->seen, (Strings{"interval", "time"}));
  EXPECT_EQ(intf->transmitInterval(), 0);
  i->isRegisteredNotifieeIs(false);
}

TEST_F(Config, AttributesHaveTheirNumbersAndNames) {
  const Strings names{"globalEnabled",    "vlanEnabled",   "intfExclude", "transmitConfig",
                      "globalIntfConfig", "clearCounters", "unknown"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(sut->attributeString(static_cast<Vex::AttributeId>(258 + i)), names[i]);
  }
  EXPECT_EQ(sut->attributeString(6), "isNondestructing");
  EXPECT_EQ(sut->attributeString(257), "unknown");
  EXPECT_EQ(sut->attributeString(0xFFFFFFFF), "unknown");
  EXPECT_EQ(sut->attributes().size(), 6U);
  const auto intf = sut->globalIntfConfigIs("g");
  EXPECT_EQ(intf->attributeString(258), "transmitInterval");
  EXPECT_EQ(intf->attributeString(259), "disabledTime");
  EXPECT_EQ(intf->attributeString(260), "unknown");
  const auto transmit = sut->transmitConfigIs("t");
  EXPECT_EQ(transmit->attributeString(258), "rateLimit");
  EXPECT_EQ(transmit->attributeString(259), "unknown");
}

}  // namespace
