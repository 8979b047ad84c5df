// SPDX-License-Identifier: Apache-2.0
//
// The bridge's configuration as the engine reads it. The platform or the agent writes it.
// Activity thread only.
#pragma once

#include <utility>

#include "runtime/bridging/VlanId.h"
#include "runtime/portus/EthAddr.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/Entity.h"
#include "runtime/vex/HashMap.h"

namespace Bridging {

// One interface as a switch port.
class SwitchIntfConfig final : public Vex::EntityOf<SwitchIntfConfig>, public Vex::HashMapLink {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onNativeVlan() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kNativeVlan = kFirstOwnAttribute;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kNativeVlan, "nativeVlan", Vex::AttributeKind::plain}};

  explicit SwitchIntfConfig(const Portus::IntfId& intfId)
      : EntityOf(Vex::Name()), intfId_(intfId) {}

  const Portus::IntfId& fwkKey() const noexcept { return intfId_; }
  const Portus::IntfId& intfId() const noexcept { return intfId_; }
  std::string fwkKeyText() const override { return intfId_.name(); }

  // The VLAN of untagged frames; none on a port that has no such VLAN.
  VlanIdOrNone nativeVlan() const noexcept { return nativeVlan_; }
  void nativeVlanIs(VlanIdOrNone vlan) {
    plainIs<kNativeVlan, &NotifieeConst::onNativeVlan>(nativeVlan_, vlan);
  }

 private:
  const Portus::IntfId intfId_;
  VlanIdOrNone nativeVlan_{1};  // the default of IEEE 802.1Q, table 9-2
};

class Config final : public Vex::EntityOf<Config> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onBridgeMacAddr() {}
    virtual void onSwitchIntfConfig(const Portus::IntfId& /*intfId*/) {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kBridgeMacAddr = kFirstOwnAttribute;
  static constexpr Vex::AttributeId kSwitchIntfConfig = kFirstOwnAttribute + 1;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kBridgeMacAddr, "bridgeMacAddr", Vex::AttributeKind::plain},
      {kSwitchIntfConfig, "switchIntfConfig", Vex::AttributeKind::collection}};

  explicit Config(const Vex::Name& name) : EntityOf(name) {}
  ~Config() override {
    for (auto it = switchIntfConfig_.iterator(); it; ++it) it->parentIs(nullptr);
  }

  const Portus::EthAddr& bridgeMacAddr() const noexcept { return bridgeMacAddr_; }
  void bridgeMacAddrIs(const Portus::EthAddr& address) {
    plainIs<kBridgeMacAddr, &NotifieeConst::onBridgeMacAddr>(bridgeMacAddr_, address);
  }

  // The configuration of a port, null for none.
  Vex::Ptr<SwitchIntfConfig> switchIntfConfig(const Portus::IntfId& intfId) const {
    return Vex::Ptr<SwitchIntfConfig>(switchIntfConfig_.member(intfId));
  }
  // As above, making it if it is absent.
  Vex::Ptr<SwitchIntfConfig> switchIntfConfigIs(const Portus::IntfId& intfId) {
    if (auto present = switchIntfConfig(intfId)) return present;
    auto made = Vex::makePtr<SwitchIntfConfig>(intfId);
    made->parentIs(this);
    made->parentAttrIdIs(kSwitchIntfConfig);
    switchIntfConfig_.memberIs(made);
    notifyKey<kSwitchIntfConfig, &NotifieeConst::onSwitchIntfConfig>(intfId);
    return made;
  }
  void switchIntfConfigDel(const Portus::IntfId& intfId) {
    const auto gone = switchIntfConfig_.memberDel(intfId);
    if (!gone) return;
    gone->parentIs(nullptr);
    notifyKey<kSwitchIntfConfig, &NotifieeConst::onSwitchIntfConfig>(intfId);
  }
  auto switchIntfConfigIteratorConst() const { return switchIntfConfig_.iteratorConst(); }

 private:
  Portus::EthAddr bridgeMacAddr_;
  Vex::HashMap<SwitchIntfConfig, Portus::IntfId> switchIntfConfig_;
};

}  // namespace Bridging
