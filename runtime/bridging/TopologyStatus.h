// SPDX-License-Identifier: Apache-2.0
//
// The inputs of the topology library: which VLANs the bridge has (Bridging::Topology::Config) and
// which of them each port carries (Bridging::Topology::Status). The platform or the agent writes
// both. Activity thread only.
#pragma once

#include "runtime/bridging/VlanBitmap.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/Collection.h"
#include "runtime/vex/Entity.h"

namespace Bridging::Topology {

class Config final : public Vex::EntityOf<Config> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onVlans() {}
    virtual void onInternalVlans() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kVlans = kFirstOwnAttribute;
  static constexpr Vex::AttributeId kInternalVlans = kFirstOwnAttribute + 1;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kVlans, "vlans", Vex::AttributeKind::plain},
      {kInternalVlans, "internalVlans", Vex::AttributeKind::plain}};

  explicit Config(const Vex::Name& name) : EntityOf(name) {}

  // The VLANs of the bridge.
  const VlanBitmap& vlans() const noexcept { return vlans_; }
  void vlansIs(const VlanBitmap& vlans) { plainIs<kVlans, &NotifieeConst::onVlans>(vlans_, vlans); }
  // Those of them that the system uses for itself, such as for routed ports.
  const VlanBitmap& internalVlans() const noexcept { return internalVlans_; }
  void internalVlansIs(const VlanBitmap& vlans) {
    plainIs<kInternalVlans, &NotifieeConst::onInternalVlans>(internalVlans_, vlans);
  }

 private:
  VlanBitmap vlans_;
  VlanBitmap internalVlans_;
};

class Status final : public Vex::EntityOf<Status> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onIntfVlans(const Portus::IntfId& /*intfId*/) {}

   protected:
    NotifieeConst() noexcept = default;
  };
  using Collection = Vex::ValueCollection<Portus::IntfId, VlanBitmap>;
  static constexpr Vex::AttributeId kIntfVlans = kFirstOwnAttribute;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kIntfVlans, "intfVlans", Vex::AttributeKind::collection}};

  explicit Status(const Vex::Name& name) : EntityOf(name) {}

  // The VLANs that a port carries, null for an interface that is no port.
  const VlanBitmap* intfVlans(const Portus::IntfId& intfId) const noexcept {
    return intfVlans_.find(intfId);
  }
  void intfVlansIs(const Portus::IntfId& intfId, const VlanBitmap& vlans) {
    if (intfVlans_.valueIs(intfId, vlans)) intfVlansNotify(intfId);
  }
  void intfVlansDel(const Portus::IntfId& key) {
    const Portus::IntfId intfId = key;  // the caller's key may live in the entry that goes
    if (intfVlans_.valueDel(intfId)) intfVlansNotify(intfId);
  }
  Collection::IteratorConst intfVlansIteratorConst() const { return intfVlans_.iteratorConst(); }

 private:
  void intfVlansNotify(const Portus::IntfId& intfId) {
    notifyKey<kIntfVlans, &NotifieeConst::onIntfVlans>(intfId);
  }
  Collection intfVlans_;
};

}  // namespace Bridging::Topology
