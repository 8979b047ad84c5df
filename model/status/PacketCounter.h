// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::PacketCounter: how many probes went out and came in, per interface and per
// VLAN. Written by the engine through countPacket() alone. Activity thread only.
//
// The records live in the memory of this process. The operations are those that a table shared with
// other processes offers as well, so that the place of the records can change without the engine.
// Changes are not told to notifiees: whoever follows counters follows the place where they live.
#pragma once

#include "model/status/CounterIntf.h"
#include "model/status/CounterVlan.h"
#include "runtime/bridging/VlanId.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/Collection.h"
#include "runtime/vex/Entity.h"

namespace Ringward::Status {

class PacketCounter final : public Vex::EntityOf<PacketCounter> {
 public:
  using NotifieeConst = Vex::Entity::NotifieeConst;
  static constexpr Vex::AttributeId kCounterVlan = 258;
  static constexpr Vex::AttributeId kCounterIntf = 259;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kCounterVlan, "counterVlan", Vex::AttributeKind::collection},
      {kCounterIntf, "counterIntf", Vex::AttributeKind::collection}};
  using CounterIntfMap = Vex::ValueCollection<Portus::IntfId, CounterIntf>;
  using CounterVlanMap = Vex::ValueCollection<Bridging::VlanIdOrNone, CounterVlan>;

  explicit PacketCounter(const Vex::Name& name) : EntityOf(name) {}

  // The record of a key, the zero record for none.
  CounterIntf counterIntf(const Portus::IntfId& key) const { return counterIntf_.valueOr(key); }
  CounterVlan counterVlan(const Bridging::VlanIdOrNone& key) const {
    return counterVlan_.valueOr(key);
  }
  // Writes a whole record under its own key.
  void counterIntfIs(const CounterIntf& value) { counterIntf_.valueIs(value.key, value); }
  void counterVlanIs(const CounterVlan& value) { counterVlan_.valueIs(value.key, value); }
  // Removes a record and returns it, the default record if there was none.
  CounterIntf counterIntfDel(const Portus::IntfId& key);
  CounterVlan counterVlanDel(const Bridging::VlanIdOrNone& key);
  void counterIntfDelAll();
  void counterVlanDelAll();
  CounterIntfMap::IteratorConst counterIntfIteratorConst() const {
    return counterIntf_.iteratorConst();
  }
  CounterVlanMap::IteratorConst counterVlanIteratorConst() const {
    return counterVlan_.iteratorConst();
  }

 private:
  CounterIntfMap counterIntf_;
  CounterVlanMap counterVlan_;
};

// Makes an entity that nobody owns yet.
inline Vex::Ptr<PacketCounter> packetCounterFactory(const Vex::Name& name) {
  return Vex::makePtr<PacketCounter>(name);
}

}  // namespace Ringward::Status
