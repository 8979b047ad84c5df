// SPDX-License-Identifier: Apache-2.0
//
// That the entities and values of the model are, through generic access, what their classes are:
// numbers and names against the table that other processes rely on, every value that can be set
// read back both ways and told to who follows the entity by number.
#include "model/generic/ModelTypes.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "tests/runtime/ErrorOf.h"

namespace {

using Bridging::VlanId;
using Bridging::VlanIdOrNone;
using Portus::EthAddr;
using Portus::IntfId;
using RuntimeTest::errorOf;
using Vex::GenericIf;
using Vex::genericIf;
using Vex::genericValue;
using Kind = Vex::VexType::Kind;
using Names = std::vector<std::pair<Vex::AttributeId, std::string>>;
using Generic = Vex::Ptr<GenericIf>;

template <class Class>
struct Made;
template <>
struct Made<Ringward::Config::Config> {
  static auto object() { return Ringward::Config::configFactory("e"); }
  static Names names() {
    return {{258, "globalEnabled"},  {259, "vlanEnabled"},      {260, "intfExclude"},
            {261, "transmitConfig"}, {262, "globalIntfConfig"}, {263, "clearCounters"}};
  }
};
template <>
struct Made<Ringward::Config::GlobalIntfConfig> {
  static auto object() { return Ringward::Config::globalIntfConfigFactory("e"); }
  static Names names() { return {{258, "transmitInterval"}, {259, "disabledTime"}}; }
};
template <>
struct Made<Ringward::Config::TransmitConfig> {
  static auto object() { return Ringward::Config::transmitConfigFactory("e"); }
  static Names names() { return {{258, "rateLimit"}}; }
};
template <>
struct Made<Ringward::Status::Status> {
  static auto object() { return Ringward::Status::statusFactory("e"); }
  static Names names() {
    return {{258, "intfStatus"},
            {259, "srcAddr"},
            {260, "aggressiveDisable"},
            {261, "sysIntfExclude"},
            {262, "running"}};
  }
};
template <>
struct Made<Ringward::Status::IntfStatus> {
  static auto object() { return Ringward::Status::intfStatusFactory(IntfId::fromName("eth1")); }
  static Names names() {
    return {{258, "intfId"}, {259, "disabled"}, {260, "disabledAt"}, {261, "disabledUntil"}};
  }
};
template <>
struct Made<Ringward::Status::TransmitStatus> {
  static auto object() { return Ringward::Status::transmitStatusFactory("e"); }
  static Names names() {
    return {{258, "highPriorityMetadata"},
            {259, "highPriority"},
            {260, "regularPriorityMetadata"},
            {261, "regularPriority"}};
  }
};
template <>
struct Made<Ringward::Status::PacketCounter> {
  static auto object() { return Ringward::Status::packetCounterFactory("e"); }
  static Names names() {
    return {{258, "counterVlan"},
            {259, "counterIntf"},
            {260, "counterVlanControl"},
            {261, "counterIntfControl"}};
  }
};

// Two keys and two values of every type that an attribute of the model has.
const std::map<std::string, std::vector<std::string>, std::less<>> kTexts = {
    {"bool", {"true", "false"}},
    {"U8", {"7", "255"}},
    {"U32", {"7", "4294967295"}},
    {"double", {"1.5", "1e+300"}},
    {"Portus::EthAddr", {"02:00:00:00:00:01", "02:00:00:00:00:02"}},
    {"Portus::IntfId", {"eth7", "eth8"}},
    {"Bridging::VlanId", {"10", "4094"}},
    {"Bridging::VlanIdOrNone", {"0", "4094"}},
    {"Vex::LinkQueueMetadata",
     {"Value('Vex::LinkQueueMetadata', ** {'headIndex': 3, 'nextIndex': 9})",
      "Value('Vex::LinkQueueMetadata', ** {'headIndex': 9, 'nextIndex': 9})"}},
    {"Ringward::Status::IntfAndVlan",
     {"Value('Ringward::Status::IntfAndVlan', ** {'intfId': eth1, 'vlanId': 10})",
      "Value('Ringward::Status::IntfAndVlan', ** {'intfId': eth2, 'vlanId': 11})"}},
    {"Ringward::Status::CounterVlan",
     {"Value('Ringward::Status::CounterVlan', ** {'key': 0, 'tx': 1, 'rx': 2, 'rxOther': 3})",
      "Value('Ringward::Status::CounterVlan', ** {'key': 4094, 'tx': 4, 'rx': 5, 'rxOther': 6})"}},
    {"Ringward::Status::CounterIntf",
     {"Value('Ringward::Status::CounterIntf', ** {'key': eth7, 'tx': 1, 'rx': 2, 'rxOther': 3})",
      "Value('Ringward::Status::CounterIntf', ** {'key': eth8, 'tx': 4, 'rx': 5, 'rxOther': 6})"}},
};

// Writes down the number of each change.
template <class Class>
class Follower final : public Class::NotifieeConst {
 public:
  explicit Follower(const Vex::Ptr<Class>& entity) {
    this->vexTakesNumbersIs(true);
    this->notifierIs(Vex::Ptr<Vex::PtrInterface const>(entity));
    this->isRegisteredNotifieeIs(true);
  }
  void vexOnChange(Vex::AttributeId id, const void* /*key*/) override { told.push_back(id); }
  std::vector<Vex::AttributeId> told;
};

std::string textOf(const Generic& generic) { return generic ? generic->strRep().str() : "null"; }

template <class Class>
class EntityType : public testing::Test {
 protected:
  using Attribute = Vex::VexType::Attribute;
  Generic op(const Attribute& a, std::uint32_t code, const Generic& key = nullptr,
             const Generic& value = nullptr) {
    return sut->attributeOp({a.id, code}, key, value);
  }
  bool told(const Attribute& a) {
    const bool once = follower->told == std::vector<Vex::AttributeId>{a.id};
    follower->told.clear();
    return once;
  }

  Vex::Ptr<Class> object = Made<Class>::object();
  Vex::Ptr<Follower<Class>> follower = Vex::makePtr<Follower<Class>>(object);
  Generic sut = genericIf(object);
};
using Types = testing::Types<Ringward::Config::Config, Ringward::Config::GlobalIntfConfig,
                             Ringward::Config::TransmitConfig, Ringward::Status::Status,
                             Ringward::Status::IntfStatus, Ringward::Status::TransmitStatus,
                             Ringward::Status::PacketCounter>;
TYPED_TEST_SUITE(EntityType, Types);

TYPED_TEST(EntityType, HasTheNumbersAndNamesThatOtherProcessesRelyOn) {
  Names fromType;
  Names fromEntity;
  for (const auto& a : this->sut->fwkType()->attributes()) {
    fromType.emplace_back(a.id, a.name());
    EXPECT_EQ(this->sut->attributeId(a.name()), a.id);
  }
  for (Vex::AttributeId id = 0; id < 600; ++id) {
    const auto name = this->object->attributeString(id);
    EXPECT_EQ(this->sut->attributeString(id), name);
    if (id >= 258 && name != "unknown") fromEntity.emplace_back(id, name);
  }
  EXPECT_EQ(fromType, Made<TypeParam>::names());
  EXPECT_EQ(fromEntity, Made<TypeParam>::names());
  EXPECT_EQ(this->sut->attributeString(6), "isNondestructing");
  EXPECT_EQ(this->sut->attributeString(9999), "unknown");
  EXPECT_EQ(this->sut->attributeId("nothing"), 0U);
}

TYPED_TEST(EntityType, TakesEveryScalarBackAsItWasSetAndTellsOfIt) {
  for (const auto& a : this->sut->fwkType()->attributes()) {
    if (a.kind != Kind::scalar || a.flags.isReadOnly_()) continue;
    ASSERT_TRUE(kTexts.contains(a.typeName)) << a.typeName;
    for (const auto& text : kTexts.find(a.typeName)->second) {
      this->op(a, 128, nullptr, this->sut->valueFromText(a.id, text));
      EXPECT_EQ(textOf(this->op(a, 0)), text) << a.name();
      EXPECT_TRUE(this->told(a)) << a.name();
      this->op(a, 128, nullptr, this->sut->valueFromText(a.id, text));
      EXPECT_TRUE(this->follower->told.empty()) << a.name();
    }
  }
}

TYPED_TEST(EntityType, TakesEveryElementBackAsItWasSetUntilItIsDeleted) {
  for (const auto& a : this->sut->fwkType()->attributes()) {
    if (!a.flags.isCollection_()) continue;
    ASSERT_TRUE(kTexts.contains(a.keyTypeName)) << a.keyTypeName;
    const bool table = a.kind == Kind::table;  // tells nobody: its store does
    std::set<std::string> walked;
    for (std::size_t i = 0; i < 2; ++i) {
      const auto key = this->sut->keyFromText(a.id, kTexts.find(a.keyTypeName)->second[i]);
      // Tables answer it with an exception.
      if (!table) {
        EXPECT_EQ(textOf(this->op(a, 2, key)), "false");
      }
      EXPECT_FALSE(this->op(a, 0, key));
      Generic value;
      if (a.kind != Kind::members) {
        ASSERT_TRUE(kTexts.contains(a.typeName)) << a.typeName;
        value = this->sut->valueFromText(a.id, kTexts.find(a.typeName)->second[i]);
      }
      this->op(a, 128, key, value);
      EXPECT_EQ(this->told(a), !table) << a.name();
      if (!table) {
        EXPECT_EQ(textOf(this->op(a, 2, key)), "true");
      }
      if (value) {
        EXPECT_EQ(textOf(this->op(a, 0, key)), textOf(value));
      }
      EXPECT_EQ(textOf(this->op(a, 1)), std::to_string(i + 1));
      walked.insert(key->keyText());
    }
    std::set<std::string> seen;
    for (const auto at = this->sut->attributeIteratorConst(a.id); at->nonNull(); at->inc()) {
      seen.insert(at->key()->keyText());
      EXPECT_EQ(textOf(at->obj()), textOf(this->op(a, 0, at->key())));
    }
    EXPECT_EQ(seen, walked) << a.name();
    const auto first = this->sut->keyFromText(a.id, kTexts.find(a.keyTypeName)->second[0]);
    this->op(a, 129, first);
    EXPECT_EQ(this->told(a), !table) << a.name();
    EXPECT_FALSE(this->op(a, 0, first));
    this->op(a, 130);
    EXPECT_EQ(this->told(a), !table) << a.name();
    EXPECT_EQ(textOf(this->op(a, 1)), "0");
  }
}

TYPED_TEST(EntityType, MakesEveryOwnedObjectByItsNameUntilItIsDeleted) {
  for (const auto& a : this->sut->fwkType()->attributes()) {
    if (a.kind != Kind::child) continue;
    EXPECT_FALSE(this->op(a, 0));
    const auto made = this->op(a, 128, nullptr, genericValue(Vex::Name("child")));
    EXPECT_TRUE(this->told(a));
    EXPECT_EQ(textOf(made), std::string(a.typeName) + "('e/child')");
    EXPECT_EQ(textOf(this->op(a, 0)), textOf(made));
    this->op(a, 129);
    EXPECT_TRUE(this->told(a));
    EXPECT_FALSE(this->op(a, 0));
  }
}

TYPED_TEST(EntityType, RefusesEveryWriteOfAConstInstanceBeforeItLooksAtAnythingElse) {
  const auto reading = genericIf(Vex::Ptr<TypeParam const>(this->object));
  EXPECT_TRUE(reading->isConst());
  const auto index = genericValue(std::string("no index at all"));
  std::vector<Vex::AttributeId> ids = {0, 6, 9999};
  for (const auto& a : reading->fwkType()->attributes()) ids.push_back(a.id);
  for (const auto id : ids) {
    for (const std::uint32_t code : {128U, 129U, 130U, 200U, 255U}) {
      EXPECT_EQ(errorOf<GenericIf::ConstException>([&] {
                  reading->attributeOp({id, code}, index, index);
                }),
                "attempting to modify a const instance");
    }
  }
  EXPECT_TRUE(this->follower->told.empty());
}

TYPED_TEST(EntityType, RefusesAValueOfAnotherTypeAndStaysAsItWas) {
  const auto wrong = Vex::makePtr<GenericIf::List>();
  for (const auto& a : this->sut->fwkType()->attributes()) {
    if (a.kind != Kind::scalar || a.flags.isReadOnly_()) continue;
    const auto before = textOf(this->op(a, 0));
    const auto text = "wrong type for '" + std::string(a.name()) + "'";
    EXPECT_EQ(errorOf<GenericIf::TypeException>([&] { this->op(a, 128, nullptr, wrong); }), text);
    EXPECT_EQ(errorOf<GenericIf::TypeException>([&] { this->op(a, 128); }), text);
    EXPECT_EQ(textOf(this->op(a, 0)), before);
  }
  EXPECT_TRUE(this->follower->told.empty());
}

TYPED_TEST(EntityType, RefusesAnIndexOfAScalarAndTheLackOfOneOfACollection) {
  const auto index = genericValue(std::uint64_t{1});  // of no collection's type
  for (const auto& a : this->sut->fwkType()->attributes()) {
    const auto text = "bad index for '" + std::string(a.name()) + "'";
    EXPECT_EQ(errorOf<GenericIf::BadIndexAttrException>([&] { this->op(a, 0, index); }), text);
    if (a.flags.isCollection_()) {
      EXPECT_EQ(errorOf<GenericIf::BadIndexAttrException>([&] { this->op(a, 0); }), text);
      EXPECT_EQ(errorOf<GenericIf::BadIndexAttrException>([&] { this->op(a, 1, index); }), text);
    }
  }
}

TYPED_TEST(EntityType, SupportsNoOtherOperationOnAScalarThanReadAndSet) {
  for (const auto& a : this->sut->fwkType()->attributes()) {
    if (a.kind != Kind::scalar) continue;
    for (const std::uint32_t code : {1U, 2U, 7U, 127U, 129U, 130U, 131U, 132U, 255U, 256U}) {
      EXPECT_EQ(errorOf<GenericIf::OpNotSupportedException>([&] { this->op(a, code); }),
                "operation " + std::to_string(code) + " not supported on '" +
                    std::string(a.name()) + "'");
    }
  }
}

TYPED_TEST(EntityType, HasOneTypeObjectUnderItsFullName) {
  const Vex::VexType* type = TypeParam::_fwkType();
  EXPECT_EQ(this->object->fwkType(), type);
  EXPECT_EQ(this->sut->fwkType(), type);
  EXPECT_EQ(Vex::VexType::type(type->typeNode().view()), type);
  EXPECT_TRUE(type->typeNode().view().ends_with("::" + type->name().str()));
  EXPECT_TRUE(type->isEntity());
  EXPECT_FALSE(type->isValue());
  EXPECT_TRUE(type->hasGenericIfSupport());
  EXPECT_TRUE(type->isNondestructing());
}

TEST(ModelTypes, AreMadeWhenTheLibraryIsLoaded) {
  std::vector<std::string> names;
  for (const auto* type : Ringward::Generic::modelTypes()) names.push_back(type->typeNode().str());
  EXPECT_EQ(names, (std::vector<std::string>{
                       "Ringward::Config::Config", "Ringward::Config::GlobalIntfConfig",
                       "Ringward::Config::TransmitConfig", "Ringward::Status::Status",
                       "Ringward::Status::IntfStatus", "Ringward::Status::TransmitStatus",
                       "Ringward::Status::PacketCounter", "Ringward::Oui", "Ringward::Payload",
                       "Ringward::PacketEncapsulation", "Ringward::Status::CounterIntf",
                       "Ringward::Status::CounterVlan", "Ringward::Status::IntfAndVlan"}));
  EXPECT_EQ(Vex::VexType::type("Ringward::Oui")->name(), "Oui");
  EXPECT_EQ(Vex::VexType::type("Ringward::Nothing"), nullptr);
}

TEST(ModelTypes, ValuesAreValuesAndTheirFieldsCanBeRead) {
  const Vex::VexType* type = Ringward::Oui::_fwkType();
  EXPECT_TRUE(type->isValue());
  EXPECT_FALSE(type->isEntity());
  const auto oui = genericValue(Ringward::kProbeOui);
  EXPECT_EQ(textOf(oui->attributeOp({oui->attributeId("byte1"), 0})), "27");
  EXPECT_EQ(
      errorOf<GenericIf::ConstException>([&] {
        oui->attributeOp({oui->attributeId("byte1"), 128}, nullptr, genericValue(std::uint8_t{1}));
      }),
      "attempting to modify a const instance");
}

TEST(ModelTypes, AReadOnlyAttributeIsNotSet) {
  const auto entry = Ringward::Status::intfStatusFactory(IntfId::fromName("eth1"));
  const auto sut = genericIf(entry);
  EXPECT_EQ(errorOf<GenericIf::ConstException>([&] {
              sut->attributeOp({258, 128}, nullptr, genericValue(IntfId::fromName("eth2")));
            }),
            "attempting to modify a const instance");
  EXPECT_EQ(entry->intfId(), IntfId::fromName("eth1"));
}

TEST(ModelTypes, TheBaseOfEntitiesKnowsNameIsNondestructingAndVersion) {
  const auto config = Ringward::Config::configFactory("config");
  const auto sut = genericIf(config);
  EXPECT_EQ(sut->attributeOp({sut->attributeId("name"), 0})->strRep(), "'config'");
  EXPECT_EQ(errorOf<GenericIf::ConstException>([&] {
              sut->attributeOp({sut->attributeId("name"), 128});
            }),
            "attempting to modify a const instance");
  EXPECT_EQ(sut->attributeId("isNondestructing"), 6U);
  EXPECT_EQ(textOf(sut->attributeOp({6, 0})), "false");
  sut->attributeOp({6, 128}, nullptr, genericValue(true));
  EXPECT_TRUE(config->isNondestructing());
  sut->attributeOp({6, 128}, nullptr, genericValue(false));
  sut->attributeOp({sut->attributeId("version"), 128}, nullptr, genericValue(std::uint32_t{4}));
  EXPECT_EQ(config->version(), 4U);
  EXPECT_EQ(errorOf<GenericIf::OpNotSupportedException>([&] {
              sut->attributeOp({9999, 0});
            }),
            "operation 0 not supported on 'unknown'");
}

TEST(ModelTypes, AQueueIsAppendedToUntilItsIndexesAreUsedUp) {
  const auto queues = Ringward::Status::transmitStatusFactory("q");
  const auto sut = genericIf(queues);
  const Ringward::Status::IntfAndVlan pair(IntfId::fromName("eth1"), VlanId(10));
  sut->attributeOp({259, 132}, nullptr, genericValue(pair));
  sut->attributeOp({259, 132}, nullptr, genericValue(pair));
  EXPECT_EQ(queues->highPriority().members(), 2U);
  EXPECT_EQ(sut->attributeOp({259, 133})->strRep(), valueToStrep(pair));
  EXPECT_EQ(queues->highPriority().members(), 1U);
  queues->highPriorityDelAll();
  queues->highPriorityMetadataIs({0, 0xFFFFFFFFU});
  EXPECT_EQ(errorOf<Vex::RangeException>([&] {
              sut->attributeOp({259, 132}, nullptr, genericValue(pair));
            }),
            "linkqueue index space full");
  EXPECT_TRUE(queues->highPriority().empty());
}

TEST(ModelTypes, AWalkSurvivesTheDeletionOfWhereItStands) {
  const auto config = Ringward::Config::configFactory("config");
  for (int vlan = 1; vlan <= 50; ++vlan) config->vlanEnabledIs(VlanId(vlan), true);
  const auto sut = genericIf(config);
  const auto at = sut->attributeIterator(259);
  const auto kept = GenericIf::attributeIterator_iterClone(*at);
  int seen = 0;
  for (; GenericIf::attributeIterator_nonNull(*at); GenericIf::attributeIterator_iterInc(*at)) {
    GenericIf::attributeIterator_iterDel(*at);
    ++seen;
  }
  EXPECT_EQ(seen, 50);
  EXPECT_EQ(config->vlanEnabledColl().members(), 0U);
  EXPECT_TRUE(kept->nonNull());
  EXPECT_FALSE(GenericIf::attributeIterator_iterObj(*kept));
  GenericIf::attributeIterator_iterInc(*kept);
  EXPECT_FALSE(kept->nonNull());
  GenericIf::attributeIterator_iterInc(*kept);
  EXPECT_FALSE(GenericIf::attributeIterator_iterKey(*kept));
}

TEST(ModelTypes, AConstWalkDeletesNothing) {
  const auto config = Ringward::Config::configFactory("config");
  config->vlanEnabledIs(VlanId(1), true);
  const auto at = genericIf(config)->attributeIteratorConst(259);
  EXPECT_EQ(errorOf<GenericIf::ConstException>([&] { GenericIf::attributeIterator_iterDel(*at); }),
            "attempting to modify a const instance");
  EXPECT_EQ(errorOf<GenericIf::OpNotSupportedException>(
                [&] { genericIf(config)->attributeIterator(258); }),
            "operation 0 not supported on 'globalEnabled'");
}

TEST(ModelTypes, ATablesElementGoesUnderItsOwnKeyOnly) {
  const auto counters = Ringward::Status::packetCounterFactory("c");
  const auto sut = genericIf(counters);
  const auto value = genericValue(Ringward::Status::CounterIntf(IntfId::fromName("eth1"), 1, 2, 3));
  sut->attributeOp({259, 128}, nullptr, value);
  EXPECT_EQ(counters->counterIntf(IntfId::fromName("eth1")).tx, 1U);
  EXPECT_EQ(errorOf<GenericIf::BadIndexAttrException>([&] {
              sut->attributeOp({259, 128}, genericValue(IntfId::fromName("eth2")), value);
            }),
            "bad index for 'counterIntf'");
}

TEST(ModelTypes, ATablesControlIsReadAndLeadsToTheTable) {
  const auto counters = Ringward::Status::packetCounterFactory("c");
  counters->counterIntfIs(Ringward::Status::CounterIntf(IntfId::fromName("eth1"), 1, 2, 3));
  const auto sut = genericIf(counters);
  const auto control = sut->attributeOp({261, 0});
  ASSERT_TRUE(control);
  EXPECT_EQ(textOf(control), "VexQuill::CollectionControl");
  EXPECT_FALSE(control->isConst());
  EXPECT_EQ(textOf(control->attributeOp({control->attributeId("maxSize"), 0})),
            std::to_string(counters->counterIntfMap().maxSize()));
  EXPECT_TRUE(genericIf(counters, true)->attributeOp({260, 0})->isConst());
  EXPECT_EQ(errorOf<GenericIf::OpNotSupportedException>([&] {
              sut->attributeOp({261, 128});
            }),
            "operation 128 not supported on 'counterIntfControl'");
}

TEST(VexAttrFlags, HoldSixBitsAndNoMore) {
  EXPECT_EQ(Vex::VexAttrIntrospectionFlags(0x3F).value(), 0x3FU);
  EXPECT_EQ(errorOf<Vex::RangeException>([] { Vex::VexAttrIntrospectionFlags(0x40); }),
            "VexAttrIntrospectionFlags::value > 0x3f not allowed");
  EXPECT_EQ(&Vex::VexAttr::attr("tx"), &Vex::VexAttr::attr("tx"));
  const auto& tables = *Ringward::Status::PacketCounter::_fwkType()->attribute("counterIntf");
  EXPECT_TRUE(tables.flags.hasInternalIndex_());
  EXPECT_TRUE(tables.flags.isIndependentDomainAttr_());
  EXPECT_FALSE(tables.flags.isFunction_());
}

}  // namespace
