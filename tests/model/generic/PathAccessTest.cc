// SPDX-License-Identifier: Apache-2.0
#include "model/generic/PathAccess.h"

#include <gtest/gtest.h>

#include "model/generic/ModelTypes.h"
#include "tests/runtime/ErrorOf.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Portus::IntfId;
using Ringward::Generic::PathAccess;
using Ringward::Generic::PathError;
using Ringward::Status::CounterIntf;
using RuntimeTest::errorOf;
using Vex::GenericIf;

class PathAccessTest : public testing::Test {
 protected:
  PathAccessTest() {
    config->transmitConfigIs("transmitConfig");
    status->intfStatusIs(eth1)->disabledUntilIs(12.5);
    counters->counterIntfIs(CounterIntf(eth1, 1, 2, 3));
  }
  static IntfId intf(std::string_view name) { return IntfId::fromName(name); }
  std::vector<std::string> names(std::string_view path, std::size_t limit = 100,
                                 std::string_view after = {}) const {
    std::vector<std::string> found;
    for (const auto& node : sut.ls(path, limit, after)) found.push_back(node.name);
    return found;
  }
  PathAccess::Node nodeOf(std::string_view path, std::string_view name) const {
    for (auto& node : sut.ls(path, 100)) {
      if (node.name == name) return node;
    }
    return {};
  }

  template <class Key>
  std::string membershipError(Vex::AttributeId table, const Key& key) const {
    return errorOf<Sable::UnimplementedException>([&] {
      Vex::genericIf(counters)->attributeOp({table, GenericIf::kHas}, Vex::genericValue(key));
    });
  }

  const IntfId eth1 = intf("eth1");
  Vex::Ptr<Ringward::Config::Config> config = Ringward::Config::configFactory("config");
  Vex::Ptr<Ringward::Status::Status> status = Ringward::Status::statusFactory("status");
  Vex::Ptr<Ringward::Status::TransmitStatus> queues =
      Ringward::Status::transmitStatusFactory("transmitStatus");
  Vex::Ptr<Ringward::Status::PacketCounter> counters =
      Ringward::Status::packetCounterFactory("packetCounter");
  bool there = true;
  PathAccess sut{{
      {"config", [this] { return Vex::genericIf(config); }},
      {"status",
       [this] { return Vex::genericIf(Vex::Ptr<Ringward::Status::Status const>(status)); }},
      {"transmitStatus", [this] { return Vex::genericIf(queues); }},
      {"packetCounter", [this] { return Vex::genericIf(counters); }},
      {"sometimes", [this] { return there ? Vex::genericIf(config) : nullptr; }},
  }};
};

TEST_F(PathAccessTest, AScalarIsReadAndSet) {
  EXPECT_EQ(sut.get("config/globalEnabled"), "false");
  sut.set("config/globalEnabled", "true");
  EXPECT_TRUE(config->globalEnabled());
  EXPECT_EQ(sut.get("/config/globalEnabled"), "true");
  sut.set("config/transmitConfig/rateLimit", "77");
  EXPECT_EQ(config->transmitConfig()->rateLimit(), 77U);
  EXPECT_EQ(sut.get("config/transmitConfig/rateLimit"), "77");
}

TEST_F(PathAccessTest, AnElementIsSetReadAndDeletedByItsKey) {
  sut.set("config/vlanEnabled[10]", "true");
  EXPECT_TRUE(config->vlanEnabled(VlanId(10)));
  EXPECT_EQ(sut.get("config/vlanEnabled[10]"), "true");
  sut.set("config/intfExclude[eth1]", "true");
  EXPECT_TRUE(config->intfExclude(eth1));
  sut.del("config/vlanEnabled[10]");
  EXPECT_FALSE(config->vlanEnabledHas(VlanId(10)));
  sut.del("config/vlanEnabled[10]");
}

TEST_F(PathAccessTest, AnAttributeOfAnElementAndAFieldOfAValueAreRead) {
  EXPECT_EQ(sut.get("status/intfStatus[eth1]/disabledUntil"), "12.5");
  EXPECT_EQ(sut.get("packetCounter/counterIntf[eth1]"),
            "Value('Ringward::Status::CounterIntf', ** {'key': eth1, 'tx': 1, 'rx': 2, "
            "'rxOther': 3})");
  EXPECT_EQ(sut.get("packetCounter/counterIntf[eth1]/rx"), "2");
}

TEST_F(PathAccessTest, AQueueIsReadAndSetByIndex) {
  queues->regularPriorityEnq({eth1, VlanId(10)});
  EXPECT_EQ(sut.get("transmitStatus/regularPriority[0]"),
            "Value('Ringward::Status::IntfAndVlan', ** {'intfId': eth1, 'vlanId': 10})");
  EXPECT_EQ(sut.get("transmitStatus/regularPriorityMetadata/nextIndex"), "0");
  sut.set("transmitStatus/highPriority[7]",
          "Value('Ringward::Status::IntfAndVlan', ** {'vlanId': 3, 'intfId': 'eth2'})");
  EXPECT_EQ(queues->highPriority().member(7)->value().vlanId, VlanId(3));
  sut.del("transmitStatus/highPriority[7]");
  EXPECT_TRUE(queues->highPriority().empty());
}

TEST_F(PathAccessTest, AnObjectReadsAsItsTypeAndItsNameAndAMissingOneAsNull) {
  EXPECT_EQ(sut.get("config"), "Ringward::Config::Config('config')");
  EXPECT_EQ(sut.get("config/transmitConfig"),
            "Ringward::Config::TransmitConfig('config/transmitConfig')");
  EXPECT_EQ(sut.get("config/globalIntfConfig"), "null");
  EXPECT_EQ(sut.get("status/intfStatus[eth1]"),
            "Ringward::Status::IntfStatus('status/intfStatus[eth1]')");
}

TEST_F(PathAccessTest, SettingAnOwnedObjectMakesItAndDeletingItDropsIt) {
  sut.set("config/globalIntfConfig", "globalIntfConfig");
  ASSERT_TRUE(config->globalIntfConfig());
  EXPECT_EQ(config->globalIntfConfig()->name(), "globalIntfConfig");
  sut.del("config/globalIntfConfig");
  EXPECT_FALSE(config->globalIntfConfig());
}

TEST_F(PathAccessTest, AnUnknownNameIsAnsweredWithTheNearestKnownOne) {
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("config/globalEnabeld"); }),
            "no attribute 'globalEnabeld' in config; did you mean 'globalEnabled'?");
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("status/intfStatus[eth1]/disabeld"); }),
            "no attribute 'disabeld' in status/intfStatus[eth1]; did you mean 'disabled'?");
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("confg/globalEnabled"); }),
            "no root 'confg'; did you mean 'config'?");
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("config/zebra"); }), "no attribute 'zebra' in config");
}

TEST_F(PathAccessTest, AnErrorNamesThePathAndThePlaceInIt) {
  try {
    sut.get("/config/globalEnabeld");
    FAIL();
  } catch (const PathError& e) {
    EXPECT_EQ(e.path(), "/config/globalEnabeld");
    EXPECT_EQ(e.position(), 8U);
  }
}

TEST_F(PathAccessTest, WhatIsNotThereIsSaidToBeMissing) {
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("status/intfStatus[eth9]/disabled"); }),
            "status/intfStatus[eth9] is not there");
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("config/globalIntfConfig/disabledTime"); }),
            "config/globalIntfConfig is not there");
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("config/vlanEnabled"); }),
            "config/vlanEnabled is a collection: name one of its elements as "
            "config/vlanEnabled[key]");
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("config/globalEnabled[1]"); }),
            "attribute 'globalEnabled' in config takes no key");
  EXPECT_EQ(errorOf<PathError>([&] { sut.get(""); }), "the path names nothing");
}

TEST_F(PathAccessTest, APathThatIsNoneIsRefusedAtItsPlace) {
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("config//x"); }),
            "no name at position 7 of path 'config//x'");
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("config/vlanEnabled[10"); }),
            "'[' at position 18 of path 'config/vlanEnabled[10' is not closed");
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("config/vlanEnabled[10]x"); }),
            "expected '/' at position 22 of path 'config/vlanEnabled[10]x'");
  EXPECT_EQ(errorOf<PathError>([&] { sut.get(std::string(5000, 'a')); }),
            "path of 5000 bytes: at most 4096 allowed");
  std::string deep = "config";
  for (int i = 0; i < 40; ++i) deep += "/a";
  EXPECT_EQ(errorOf<PathError>([&] { sut.get(deep); }).substr(0, 26), "path of more than 32 names");
}

TEST_F(PathAccessTest, AValueOutOfItsRangePassesThroughAndChangesNothing) {
  config->globalIntfConfigIs("g");
  EXPECT_EQ(errorOf<Vex::RangeException>(
                [&] { sut.set("config/globalIntfConfig/transmitInterval", "300"); }),
            "attribute 'transmitInterval': value 300 is out of range: 0 to 255 allowed");
  EXPECT_EQ(config->globalIntfConfig()->transmitInterval(), 5);
  EXPECT_EQ(errorOf<Vex::RangeException>([&] { sut.set("config/vlanEnabled[4095]", "true"); }),
            "VlanId::value < 1 or > 4094 not allowed");
  EXPECT_EQ(errorOf<Vex::RangeException>([&] { sut.set("config/globalEnabled", "true x"); }),
            "junk at column 4 deserializing true x");
}

TEST_F(PathAccessTest, BelowAConstRootNothingCanBeChanged) {
  const std::string text = "attempting to modify a const instance";
  EXPECT_EQ(errorOf<GenericIf::ConstException>([&] { sut.set("status/running", "true"); }), text);
  EXPECT_EQ(errorOf<GenericIf::ConstException>(
                [&] { sut.set("status/intfStatus[eth1]/disabled", "true"); }),
            text);
  EXPECT_EQ(errorOf<GenericIf::ConstException>([&] { sut.del("status/intfStatus[eth1]"); }), text);
  EXPECT_TRUE(status->intfStatus(eth1));
  EXPECT_EQ(sut.get("status/running"), "false");
}

TEST_F(PathAccessTest, AFieldOfAValueIsNotSetAlone) {
  EXPECT_EQ(errorOf<PathError>([&] { sut.set("packetCounter/counterIntf[eth1]/rx", "9"); }),
            "packetCounter/counterIntf[eth1]/rx is a part of a value: set the whole value");
  sut.set("packetCounter/counterIntf[eth1]",
          "Value('Ringward::Status::CounterIntf', ** {'key': eth1, 'rx': 9})");
  EXPECT_EQ(counters->counterIntf(eth1), CounterIntf(eth1, 0, 9, 0));
}

TEST_F(PathAccessTest, AKeyMayHoldAnyByteBehindABackslash) {
  config->intfExcludeIs(intf("a]b/c\\d"), true);
  EXPECT_EQ(names("config/intfExclude"), (std::vector<std::string>{"a\\]b\\/c\\\\d"}));
  EXPECT_EQ(sut.get("config/intfExclude[a\\]b\\/c\\\\d]"), "true");
  EXPECT_EQ(sut.get("config/intfExclude[a\\]b/c\\\\d]"), "true");
}

TEST_F(PathAccessTest, TheEmptyInterfaceHasAKeyThatIsNotEmpty) {
  config->intfExcludeIs(IntfId(), true);
  EXPECT_EQ(names("config/intfExclude"), (std::vector<std::string>{"intf#0000000000000000"}));
  EXPECT_EQ(sut.get("config/intfExclude[intf#0000000000000000]"), "true");
  EXPECT_EQ(names("config/intfExclude", 10, "intf#0000000000000000"), std::vector<std::string>());
}

TEST_F(PathAccessTest, TheEmptyPathListsTheRootsThatAreThere) {
  EXPECT_EQ(names(""), (std::vector<std::string>{"config", "status", "transmitStatus",
                                                 "packetCounter", "sometimes"}));
  there = false;
  EXPECT_EQ(names("/", 100, "transmitStatus"), (std::vector<std::string>{"packetCounter"}));
  EXPECT_EQ(errorOf<PathError>([&] { sut.get("sometimes"); }), "root 'sometimes' is not there now");
}

TEST_F(PathAccessTest, AnObjectListsItsAttributesAsATableOfThemWould) {
  EXPECT_EQ(names("config"),
            (std::vector<std::string>{"globalEnabled", "vlanEnabled", "intfExclude",
                                      "transmitConfig", "globalIntfConfig", "clearCounters"}));
  config->vlanEnabledIs(VlanId(1), true);
  const auto vlans = nodeOf("config", "vlanEnabled");
  EXPECT_EQ(vlans.kind, "collection");
  EXPECT_EQ(vlans.type, "bool");
  EXPECT_EQ(vlans.members, 1U);
  EXPECT_TRUE(vlans.writable);
  const auto running = nodeOf("status", "running");
  EXPECT_EQ(running.kind, "scalar");
  EXPECT_EQ(running.text, "false");
  EXPECT_FALSE(running.writable);
  EXPECT_EQ(nodeOf("config", "globalIntfConfig").text, "null");
  EXPECT_EQ(nodeOf("packetCounter/counterIntf[eth1]", "rxOther").text, "3");
  EXPECT_EQ(names("config/globalEnabled"), (std::vector<std::string>{"globalEnabled"}));
  const auto vlan = nodeOf("config/vlanEnabled[1]", "1");
  EXPECT_EQ(vlan.kind, "element");
  EXPECT_EQ(vlan.text, "true");
  EXPECT_TRUE(vlan.writable);
  EXPECT_EQ(sut.get("config/name"), "'config'");
}

TEST_F(PathAccessTest, AListOfElementsIsBoundedAndGoesOnBehindAKeyThatMayHaveGone) {
  for (int vlan = 1; vlan <= 100; ++vlan) config->vlanEnabledIs(VlanId(vlan), true);
  std::vector<std::string> all;
  for (;;) {
    const auto part = names("config/vlanEnabled", 7, all.empty() ? "" : all.back());
    EXPECT_LE(part.size(), 7U);
    if (part.empty()) break;
    all.insert(all.end(), part.begin(), part.end());
    config->vlanEnabledDel(VlanId::parse(all.back()));
  }
  EXPECT_EQ(all.size(), 100U);
}

TEST_F(PathAccessTest, AnElementThatIsNotThereSuggestsTheNearestKey) {
  config->intfExcludeIs(intf("Ethernet1/1"), true);
  const auto error = [this](const std::string& path) {
    return errorOf<PathError>([&] { sut.get(path); });
  };
  EXPECT_EQ(error("status/intfStatus[eht1]/disabled"),
            "status/intfStatus[eht1] is not there; did you mean 'eth1'?");
  EXPECT_EQ(error("config/intfExclude[Ehternet1/1]"),
            "config/intfExclude[Ehternet1/1] is not there; did you mean 'Ethernet1\\/1'?");
  EXPECT_EQ(errorOf<PathError>([&] { sut.ls("status/intfStatus[eht1]", 1); }),
            "status/intfStatus[eht1] is not there; did you mean 'eth1'?");
  // Another number is another port, and no slip of the pen.
  EXPECT_EQ(error("config/intfExclude[Ethernet1/2]"),
            "config/intfExclude[Ethernet1/2] is not there");
}

TEST_F(PathAccessTest, AFunctionThatIsNotThereIsNamed) {
  EXPECT_EQ(errorOf<PathError>([&] { sut.call("config", "handleThings", {}); }),
            "no function 'handleThings' in config");
}

TEST_F(PathAccessTest, TablesDoNotAnswerWhetherAKeyIsThere) {
  using Ringward::Status::PacketCounter;
  const std::string text = "VexQuillMap::isMemberOf() not implemented";
  EXPECT_EQ(membershipError(PacketCounter::kCounterIntf, eth1), text);
  EXPECT_EQ(membershipError(PacketCounter::kCounterIntf, intf("eth2")), text);
  EXPECT_EQ(membershipError(PacketCounter::kCounterVlan, VlanIdOrNone(10)), text);
}

TEST_F(PathAccessTest, AKeyIsTheSameAfterQuotingAndUnquoting) {
  for (const std::string key : {"", "eth1", "Ethernet1/1", "a]b", "a\\b", "\\", "\\]/"}) {
    EXPECT_EQ(Ringward::Generic::unquotedKey(Ringward::Generic::quotedKey(key)), key);
  }
  EXPECT_EQ(Ringward::Generic::quotedKey("Ethernet1/1"), "Ethernet1\\/1");
  EXPECT_EQ(Ringward::Generic::unquotedKey("a\\"), "a\\") << "nothing stands behind it";
}

}  // namespace
