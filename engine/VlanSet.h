// SPDX-License-Identifier: Apache-2.0
//
// Ringward::VlanSet: the VLANs for which one interface is wanted. Owned by
// Ringward::VlanIntfSmManager; an interface is under detection exactly as long as it has one.
// Activity thread only.
#pragma once

#include <cstdint>

#include "runtime/portus/IntfId.h"
#include "runtime/vex/Collection.h"
#include "runtime/vex/Entity.h"

namespace Ringward {

class VlanSet final : public Vex::EntityOf<VlanSet>, public Vex::HashMapLink {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onVlan(std::uint32_t /*id*/) {}
    virtual void onVlanvexImmediate() {}
    virtual void onVlan() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  // The number that no VLAN has: the interface stands under the engine's errdisable cause, which
  // keeps it, its receive machine and its way back alive when all VLANs have gone.
  static constexpr std::uint32_t kErrdisabled = 4095;
  static constexpr Vex::AttributeId kVlan = kFirstOwnAttribute;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kVlan, "vlan", Vex::AttributeKind::collection}};
  using Vlans = Vex::ValueCollection<std::uint32_t, bool>;

  explicit VlanSet(const Portus::IntfId& intfId) : EntityOf(Vex::Name()), intfId_(intfId) {}

  const Portus::IntfId& fwkKey() const noexcept { return intfId_; }
  const Portus::IntfId& intfId() const noexcept { return intfId_; }
  std::string fwkKeyText() const override { return intfId_.name(); }

  // False for an absent key.
  bool vlan(std::uint32_t id) const { return vlan_.valueOr(id); }
  std::uint32_t members() const noexcept { return vlan_.members(); }
  // Inserts or updates and notifies; an equal value is silent.
  void vlanIs(std::uint32_t id, bool value) {
    if (vlan_.valueIs(id, value)) vlanNotify(id);
  }
  void vlanDel(std::uint32_t id) {
    if (vlan_.valueDel(id)) vlanNotify(id);
  }
  Vlans::IteratorConst vlanIteratorConst() const { return vlan_.iteratorConst(); }

 private:
  void vlanNotify(std::uint32_t id) {
    notify(kVlan, [id](NotifieeConst& notifiee) { notifiee.onVlan(id); });
  }

  const Portus::IntfId intfId_;
  Vlans vlan_;
};

// Makes a set that nobody owns yet.
inline Vex::Ptr<VlanSet> vlanSetFactory(const Portus::IntfId& intfId) {
  return Vex::makePtr<VlanSet>(intfId);
}

}  // namespace Ringward
