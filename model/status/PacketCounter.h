// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::PacketCounter: how many probes went out and came in, per interface and per
// VLAN. Written by the engine through countPacket() alone. Activity thread only.
//
// The records live in two tables of the store, so that other processes can read them: private ones
// until somebody mounts others through the control attributes. Their changes go through the tables'
// own queues and are not told to notifiees.
//
// Each operation treats damage of its table alike: it goes to the map's corruptionDetected(). For a
// table that this process writes that raises Quill::CorruptionDetectedException; where it returns,
// a read answers the zero record and a change raises Sable::RuntimeException "... in no man's
// land". With a guardian (TableHost) neither reaches the caller: the table is put right first.
#pragma once

#include "model/generic/TableControl.h"
#include "model/status/CounterIntf.h"
#include "model/status/CounterVlan.h"
#include "quill/entity/TableHost.h"
#include "quill/entity/VexQuillMap.h"
#include "runtime/bridging/VlanId.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/Description.h"
#include "runtime/vex/Entity.h"

namespace Ringward::Status {

class PacketCounter final : public Vex::EntityOf<PacketCounter>, public VexQuill::TableHost {
 public:
  using NotifieeConst = Vex::Entity::NotifieeConst;
  static constexpr Vex::AttributeId kCounterVlan = 258;
  static constexpr Vex::AttributeId kCounterIntf = 259;
  static constexpr Vex::AttributeId kCounterVlanControl = 260;
  static constexpr Vex::AttributeId kCounterIntfControl = 261;
  static const std::span<const Vex::AttributeInfo> kAttributes;
  template <class Record, class Key>
  using Table =
      VexQuill::VexQuillMap<PacketCounter, VexQuill::VexQuillMapValueWrapper<Record, Key>, Key>;
  using CounterIntfMap = Table<CounterIntf, Portus::IntfId>;
  using CounterVlanMap = Table<CounterVlan, Bridging::VlanIdOrNone>;

  explicit PacketCounter(const Vex::Name& name);
  ~PacketCounter() override;

  // The record of a key, the zero record for none.
  CounterIntf counterIntf(const Portus::IntfId& key) const { return counterIntf_.record(key); }
  CounterVlan counterVlan(const Bridging::VlanIdOrNone& key) const {
    return counterVlan_.record(key);
  }
  // Write a whole record under its own key.
  void counterIntfIs(const CounterIntf& value) { newCounterIntf(value); }
  void counterVlanIs(const CounterVlan& value) { newCounterVlan(value); }
  void newCounterIntf(const CounterIntf& value) { counterIntf_.recordIs(value); }
  void newCounterVlan(const CounterVlan& value) { counterVlan_.recordIs(value); }
  // Publish what the caller has written in place, into the slot of the map's open directWrite(),
  // which is the one that is meant.
  void counterIntfCommit(const CounterIntf* value);
  void counterVlanCommit(const CounterVlan* value);
  // Remove a record and return it, the default record if there was none.
  CounterIntf counterIntfDel(const Portus::IntfId& key) { return counterIntf_.recordDel(key); }
  CounterVlan counterVlanDel(const Bridging::VlanIdOrNone& key) {
    return counterVlan_.recordDel(key);
  }
  // The same for the record that a walk has come to; the walk goes on behind it.
  CounterIntf counterIntfDel(const CounterIntfMap::IteratorConst& at) {
    return counterIntf_.recordDel(at.key());
  }
  CounterVlan counterVlanDel(const CounterVlanMap::IteratorConst& at) {
    return counterVlan_.recordDel(at.key());
  }
  void counterIntfDelAll() { counterIntf_.recordDelAll(); }
  void counterVlanDelAll() { counterVlan_.recordDelAll(); }
  CounterIntfMap::IteratorConst counterIntfIteratorConst() const {
    return counterIntf_.iteratorConst();
  }
  CounterVlanMap::IteratorConst counterVlanIteratorConst() const {
    return counterVlan_.iteratorConst();
  }

  // Where a change is told that a shadow of the table has learnt of; nothing here follows one.
  void counterIntfNotify(const Portus::IntfId& /*key*/) {}
  void counterVlanNotify(const Bridging::VlanIdOrNone& /*key*/) {}

  VexQuill::CollectionControl counterIntfControl() {
    return VexQuill::CollectionControl(counterIntf_);
  }
  VexQuill::CollectionControl counterVlanControl() {
    return VexQuill::CollectionControl(counterVlan_);
  }

  // The collections themselves, for whoever walks them by key: members(), find(), firstKey(),
  // keyAfter().
  const CounterIntfMap& counterIntfColl() const noexcept { return counterIntf_; }
  const CounterVlanMap& counterVlanColl() const noexcept { return counterVlan_; }
  const CounterIntfMap& counterIntfMap() const noexcept { return counterIntf_; }
  const CounterVlanMap& counterVlanMap() const noexcept { return counterVlan_; }
  CounterIntfMap& counterIntfMap() noexcept { return counterIntf_; }
  CounterVlanMap& counterVlanMap() noexcept { return counterVlan_; }

 private:
  void handleParent() override { handleTablesParent(); }

  CounterIntfMap counterIntf_;
  CounterVlanMap counterVlan_;
};

// How generic access walks a table: the records without the store's wrapping.
template <class CollType, class KeyType, class Record>
struct TableAccess {
  using Coll = CollType;
  using Key = KeyType;
  using Value = Record;
  static std::uint32_t members(const Coll& coll) { return coll.members(); }
  static std::optional<Record> find(const Coll& coll, const Key& key) {
    const auto found = coll.find(key);
    return found ? std::optional<Record>(*found) : std::nullopt;
  }
  static std::optional<Key> keyAfter(const Coll& coll, const Key* key) {
    return key != nullptr ? coll.keyAfter(*key) : coll.firstKey();
  }
};

// Makes an entity that nobody owns yet.
inline Vex::Ptr<PacketCounter> packetCounterFactory(const Vex::Name& name) {
  return Vex::makePtr<PacketCounter>(name);
}

}  // namespace Ringward::Status

// The tables' code is made once, in PacketCounter.cc.
extern template class VexQuill::VexQuillMap<
    Ringward::Status::PacketCounter,
    VexQuill::VexQuillMapValueWrapper<Ringward::Status::CounterIntf, Portus::IntfId>,
    Portus::IntfId>;
extern template class VexQuill::VexQuillMap<
    Ringward::Status::PacketCounter,
    VexQuill::VexQuillMapValueWrapper<Ringward::Status::CounterVlan, Bridging::VlanIdOrNone>,
    Bridging::VlanIdOrNone>;

template <>
struct Vex::Description<Ringward::Status::PacketCounter> {
  using Class = Ringward::Status::PacketCounter;
  using TableControl = Ringward::Generic::TableControl;
  static constexpr std::string_view kTypeName = "Ringward::Status::PacketCounter";

  static void intfDel(Class& c, const Portus::IntfId& key) { c.counterIntfDel(key); }
  static void vlanDel(Class& c, const Bridging::VlanIdOrNone& key) { c.counterVlanDel(key); }
  // What is read through a const entity is const again: generic access sees to that.
  static Vex::Ptr<TableControl> intfControl(const Class& c) {
    return Vex::makePtr<TableControl>(Vex::Ptr<Vex::Entity const>(&c),
                                      const_cast<Class&>(c).counterIntfControl().control());
  }
  static Vex::Ptr<TableControl> vlanControl(const Class& c) {
    return Vex::makePtr<TableControl>(Vex::Ptr<Vex::Entity const>(&c),
                                      const_cast<Class&>(c).counterVlanControl().control());
  }

  static constexpr auto kAttributes =
      std::tuple(Vex::Table{Class::kCounterVlan, "counterVlan", &Class::counterVlanColl,
                            &Class::counterVlanIs, &vlanDel},
                 Vex::Table{Class::kCounterIntf, "counterIntf", &Class::counterIntfColl,
                            &Class::counterIntfIs, &intfDel},
                 Vex::Control{Class::kCounterVlanControl, "counterVlanControl", &vlanControl},
                 Vex::Control{Class::kCounterIntfControl, "counterIntfControl", &intfControl});
};

inline constexpr std::span<const Vex::AttributeInfo> Ringward::Status::PacketCounter::kAttributes =
    Vex::attributeInfos<Ringward::Status::PacketCounter>;

template <>
struct Vex::KeyedAccess<Ringward::Status::PacketCounter::CounterIntfMap>
    : Ringward::Status::TableAccess<Ringward::Status::PacketCounter::CounterIntfMap, Portus::IntfId,
                                    Ringward::Status::CounterIntf> {};
template <>
struct Vex::KeyedAccess<Ringward::Status::PacketCounter::CounterVlanMap>
    : Ringward::Status::TableAccess<Ringward::Status::PacketCounter::CounterVlanMap,
                                    Bridging::VlanIdOrNone, Ringward::Status::CounterVlan> {};
