// SPDX-License-Identifier: Apache-2.0
//
// Names, parents and setters of an entity. How changes are told is in NotifieeTest.cc.
#include "runtime/vex/Entity.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "tests/runtime/TestEntity.h"

namespace {

using namespace RuntimeTest;
using Vex::makePtr;
using Vex::Ptr;

class Family final : public Vex::EntityOf<Family> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {};
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {258, "eldest", Vex::AttributeKind::ownedChild},
      {259, "member", Vex::AttributeKind::collection}};
  explicit Family(const Vex::Name& name, std::string key = "")
      : EntityOf(name), key_(std::move(key)) {}
  std::string fwkKeyText() const override { return key_; }

 private:
  const std::string key_;
};

// Writes down what the base of all entities tells.
class BaseWatcher final : public Lamp::NotifieeConst {
 public:
  void onParent() override { log += "parent "; }
  void onVersion() override { log += "version "; }
  void onIsNondestructing() override { log += "nondestructing "; }
  void onZeroReferences() override { log += "zero "; }
  std::string log;
};

// Two places of a tree, of which one writes down what it hears of its own.
class Place : public Vex::EntityOf<Place> {
 public:
  using NotifieeConst = Vex::Entity::NotifieeConst;
  static constexpr std::span<const Vex::AttributeInfo> kAttributes{};
  explicit Place(const Vex::Name& name) : EntityOf(name) {}
};

class Placed final : public Place {
 public:
  using Place::Place;
  std::string log;
  bool refuses = false;

 private:
  void handleParent() override {
    log += parent() != nullptr ? "placed " : "out ";
    if (refuses) Vex::throwRangeException("refused");
  }
};

class ParentWatcher final : public Vex::Entity::NotifieeConst {
 public:
  explicit ParentWatcher(std::string& to) : log(to) {}
  void onParent() override { log += "told "; }
  std::string& log;
};

TEST(Entity, StartsWithItsNameAndNothingElse) {
  const auto sut = makePtr<Lamp>("hall");
  EXPECT_EQ(sut->name(), "hall");
  EXPECT_EQ(sut->parent(), nullptr);
  EXPECT_EQ(sut->parentAttrId(), 0U);
  EXPECT_EQ(sut->parentAttr(), "");
  EXPECT_EQ(sut->version(), 0U);
  EXPECT_FALSE(sut->isNondestructing());
  EXPECT_FALSE(sut->vexHasAttrLogInterface());
  EXPECT_EQ(sut->notifieeCount(), 0U);
}

TEST(Entity, FullNameGoesFromTheRootDown) {
  const auto root = makePtr<Family>("root");
  const auto child = makePtr<Family>("child");
  const auto leaf = makePtr<Lamp>("leaf");
  child->parentIs(root.get());
  leaf->parentIs(child.get());
  EXPECT_EQ(root->fullName(), "root");
  EXPECT_EQ(leaf->fullName(), "root/child/leaf");
  EXPECT_EQ(leaf->uriPath(), "/root/child/leaf");
}

TEST(Entity, AMemberWithoutANameAppearsUnderItsAttributeAndKey) {
  const auto root = makePtr<Family>("root");
  const auto member = makePtr<Family>("", "eth7");
  member->parentIs(root.get());
  member->parentAttrIdIs(259);
  EXPECT_EQ(member->parentAttr(), "member");
  EXPECT_EQ(member->fullName(), "root/member[eth7]");
  EXPECT_EQ(member->uriPath(), "/root/member[eth7]");
}

TEST(Entity, AChildThatItsParentLetsGoHasNoParentAttributeAnyMore) {
  const auto root = makePtr<Family>("root");
  const auto member = makePtr<Family>("", "eth7");
  member->parentIs(root.get());
  member->parentAttrIdIs(259);
  member->parentIs(nullptr);
  EXPECT_EQ(member->parentAttrId(), 0U);
  EXPECT_EQ(member->parentAttr(), "");
  EXPECT_EQ(member->fullName(), "[eth7]");
}

TEST(Entity, HearsOfItsNewParentBeforeItsWatchersDo) {
  const auto root = Vex::makePtr<Place>("root");
  const auto sut = Vex::makePtr<Placed>("child");
  const auto watcher = Vex::makePtr<ParentWatcher>(sut->log);
  watcher->notifierIs(sut);
  watcher->isRegisteredNotifieeIs(true);
  sut->parentIs(root.get());
  EXPECT_EQ(sut->log, "placed told ");
  sut->parentIs(root.get());
  EXPECT_EQ(sut->log, "placed told ");
  sut->parentIs(nullptr);
  EXPECT_EQ(sut->log, "placed told out told ");
}

TEST(Entity, WhatItRaisesAboutItsParentReachesTheCallerAfterEverybodyHasBeenTold) {
  const auto root = Vex::makePtr<Place>("root");
  const auto sut = Vex::makePtr<Placed>("child");
  const auto watcher = Vex::makePtr<ParentWatcher>(sut->log);
  watcher->notifierIs(sut);
  watcher->isRegisteredNotifieeIs(true);
  sut->refuses = true;
  EXPECT_THROW(sut->parentIs(root.get()), Vex::RangeException);
  EXPECT_EQ(sut->log, "placed told ");
  EXPECT_EQ(sut->parent(), root.get());
  sut->refuses = false;
  sut->parentIs(nullptr);
}

TEST(Entity, NamesItsAttributesAndCallsOthersUnknown) {
  const auto sut = makePtr<Lamp>();
  EXPECT_EQ(sut->attributeString(258), "colour");
  EXPECT_EQ(sut->attributeString(259), "socket");
  EXPECT_EQ(sut->attributeString(6), "isNondestructing");
  EXPECT_EQ(sut->attributeString(260), "unknown");
  EXPECT_EQ(sut->attributeString(0), "unknown");
}

TEST(Entity, TellsOfParentVersionAndNondestructingOncePerChange) {
  const auto root = makePtr<Family>("root");
  auto sut = makePtr<Lamp>();
  const auto watcher = makePtr<BaseWatcher>();
  watcher->notifierIs(sut);
  watcher->isRegisteredNotifieeIs(true);
  sut->parentIs(root.get());
  sut->parentIs(root.get());
  EXPECT_EQ(watcher->log, "parent ");
  sut->versionIs(5);
  sut->versionIs(5);
  EXPECT_EQ(sut->version(), 5U);
  EXPECT_EQ(watcher->log, "parent version ");
  sut->isNondestructingIs(true);
  sut->isNondestructingIs(true);
  sut->isNondestructingIs(false);
  EXPECT_EQ(watcher->log, "parent version nondestructing nondestructing ");
  sut->zeroReferencesIs();
  EXPECT_EQ(watcher->log, "parent version nondestructing nondestructing zero ");
  sut->parentIs(nullptr);
}

TEST(Entity, GoesWithItsLastReference) {
  Log log;
  auto sut = makePtr<Lamp>("x", &log);
  sut.reset();
  EXPECT_EQ(log, Log{"~x"});
}

TEST(Entity, ANondestructingEntityStaysWhenNobodyRefersToIt) {
  Log log;
  auto sut = makePtr<Lamp>("x", &log);
  Lamp* const object = sut.get();
  sut->isNondestructingIs(true);
  sut.reset();
  EXPECT_EQ(log, Log{});
  EXPECT_EQ(object->name(), "x");
  Ptr<Lamp> again(object);  // can be referred to once more, and go once the flag is off
  again->isNondestructingIs(false);
  again.reset();
  EXPECT_EQ(log, Log{"~x"});
}

TEST(Entity, ARegisteredWatcherKeepsItsEntityAlive) {
  Log log;
  auto lamp = makePtr<Lamp>("x", &log);
  auto watcher = newWatcher(lamp, "w", &log);
  lamp.reset();
  EXPECT_EQ(log, Log{});
  watcher.reset();
  EXPECT_EQ(log, (Log{"~w", "~x"}));
}

TEST(Entity, ASetterStoresThenTellsAndIsSilentForAnEqualValue) {
  Log log;
  const auto lamp = makePtr<Lamp>();
  int seen = 0;
  const auto w = newWatcher(lamp, "w", &log, [&] { seen = lamp->colour(); });
  lamp->colourIs(3);
  EXPECT_EQ(seen, 3);
  EXPECT_EQ(log, Log{"w"});
  lamp->colourIs(3);
  EXPECT_EQ(log, Log{"w"});
}

TEST(Entity, ACollectionTellsTheKeyOfEachChange) {
  Log log;
  const auto lamp = makePtr<Lamp>();
  const auto w = newWatcher(lamp, "w", &log);
  lamp->socketIs(7, false);  // new, although the value is the default one
  lamp->socketIs(7, false);
  lamp->socketIs(7, true);
  lamp->socketDel(7);
  lamp->socketDel(7);
  EXPECT_EQ(log, (Log{"w:7", "w:7", "w:7"}));
}

TEST(Entity, AKeyThatGoesWhileItIsToldIsToldToAll) {
  Log log;
  const auto lamp = makePtr<Lamp>();
  auto key = std::make_unique<std::uint32_t>(7);
  const auto a = newWatcher(lamp, "a", &log, [&] {
    if (key) *key = 0xDEAD;
    key.reset();
  });
  const auto b = newWatcher(lamp, "b", &log);
  lamp->socketNotify(*key);
  EXPECT_EQ(log, (Log{"a:7", "b:7"}));
}

}  // namespace
