// SPDX-License-Identifier: Apache-2.0
//
// Ringward::VlanSet: the VLANs for which one interface is wanted. Owned by
// Ringward::VlanIntfSmManager; an interface is under detection exactly as long as it has one.
// Activity thread only.
#pragma once

#include <cstdint>

#include "runtime/portus/IntfId.h"
#include "runtime/vex/Description.h"

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
  static constexpr Vex::AttributeId kIntfId = 258;
  static constexpr Vex::AttributeId kVlan = 259;
  static const std::span<const Vex::AttributeInfo> kAttributes;
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
  const Vlans& vlanColl() const noexcept { return vlan_; }
  Vlans::IteratorConst vlanIteratorConst() const { return vlan_.iteratorConst(); }

 private:
  void vlanNotify(std::uint32_t id) {
    constexpr void (NotifieeConst::*kOnVlan)(std::uint32_t) = &NotifieeConst::onVlan;
    notifyKey<kVlan, kOnVlan>(id);
  }

  const Portus::IntfId intfId_;
  Vlans vlan_;
};

// Makes a set that nobody owns yet.
inline Vex::Ptr<VlanSet> vlanSetFactory(const Portus::IntfId& intfId) {
  return Vex::makePtr<VlanSet>(intfId);
}

}  // namespace Ringward

template <>
struct Vex::Description<Ringward::VlanSet> {
  using Class = Ringward::VlanSet;
  static constexpr std::string_view kTypeName = "Ringward::VlanSet";
  static constexpr auto kAttributes = std::tuple(
      Vex::Scalar{Class::kIntfId, "intfId", &Class::intfId},
      Vex::Collection{Class::kVlan, "vlan", &Class::vlanColl, &Class::vlanIs, &Class::vlanDel});
};

inline constexpr std::span<const Vex::AttributeInfo> Ringward::VlanSet::kAttributes =
    Vex::attributeInfos<Ringward::VlanSet>;
