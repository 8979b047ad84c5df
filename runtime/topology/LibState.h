// SPDX-License-Identifier: Apache-2.0
//
// What the topology library publishes: Topology::Library::LibState, by port, and
// Topology::Library::Vlan::LibVlanState with its TopoVlan entries, by VLAN. Written by the
// library's two machines (LibSm.h, VlanLibSm.h) alone. Activity thread only.
//
// Each notification of topoVlan and topoPort stands for exactly one change: a reader may take a
// second one for a VLAN or a port as news.
#pragma once

#include <string>

#include "runtime/bridging/VlanBitmap.h"
#include "runtime/bridging/VlanId.h"
#include "runtime/portus/IntfId.h"
#include "runtime/vex/Collection.h"
#include "runtime/vex/Entity.h"

namespace Topology::Library {

class LibState final : public Vex::EntityOf<LibState> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onVlans() {}
    virtual void onIntfVlans(const Portus::IntfId& /*intfId*/) {}
    virtual void onInitDone() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  using Collection = Vex::ValueCollection<Portus::IntfId, Bridging::VlanBitmap>;
  static constexpr Vex::AttributeId kVlans = kFirstOwnAttribute;
  static constexpr Vex::AttributeId kIntfVlans = kFirstOwnAttribute + 1;
  static constexpr Vex::AttributeId kInitDone = kFirstOwnAttribute + 2;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kVlans, "vlans", Vex::AttributeKind::plain},
      {kIntfVlans, "intfVlans", Vex::AttributeKind::collection},
      {kInitDone, "initDone", Vex::AttributeKind::plain}};

  explicit LibState(const Vex::Name& name) : EntityOf(name) {}

  const Bridging::VlanBitmap& vlans() const noexcept { return vlans_; }
  void vlansIs(const Bridging::VlanBitmap& vlans) {
    plainIs<kVlans, &NotifieeConst::onVlans>(vlans_, vlans);
  }

  // The VLANs of an admitted port, null for any other interface.
  const Bridging::VlanBitmap* intfVlans(const Portus::IntfId& intfId) const noexcept {
    return intfVlans_.find(intfId);
  }
  void intfVlansIs(const Portus::IntfId& intfId, const Bridging::VlanBitmap& vlans) {
    if (intfVlans_.valueIs(intfId, vlans)) intfVlansNotify(intfId);
  }
  void intfVlansDel(const Portus::IntfId& key) {
    const Portus::IntfId intfId = key;  // the caller's key may live in the entry that goes
    if (intfVlans_.valueDel(intfId)) intfVlansNotify(intfId);
  }
  Collection::IteratorConst intfVlansIteratorConst() const { return intfVlans_.iteratorConst(); }

  // Whether the inputs have been taken in completely once; never goes back.
  bool initDone() const noexcept { return initDone_; }
  void initDoneIs(bool done) { plainIs<kInitDone, &NotifieeConst::onInitDone>(initDone_, done); }

 private:
  void intfVlansNotify(const Portus::IntfId& intfId) {
    notifyKey<kIntfVlans, &NotifieeConst::onIntfVlans>(intfId);
  }
  Bridging::VlanBitmap vlans_;
  Collection intfVlans_;
  bool initDone_ = false;
};

}  // namespace Topology::Library

namespace Topology::Library::Vlan {

// A port of one VLAN. Only its presence says something; there may be 262,144 of them.
class TopoPort final : public Vex::VFPtrInterface, public Vex::HashMapLink {
 public:
  explicit TopoPort(const Portus::IntfId& intfId) noexcept : intfId_(intfId) {}
  const Portus::IntfId& fwkKey() const noexcept { return intfId_; }

 private:
  const Portus::IntfId intfId_;
};

class TopoVlan final : public Vex::EntityOf<TopoVlan>, public Vex::HashMapLink {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onTopoPort(const Portus::IntfId& /*intfId*/) {}

   protected:
    NotifieeConst() noexcept = default;
  };
  using Map = Vex::HashMap<TopoPort, Portus::IntfId>;
  static constexpr Vex::AttributeId kTopoPort = kFirstOwnAttribute;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kTopoPort, "topoPort", Vex::AttributeKind::collection}};

  explicit TopoVlan(Bridging::VlanId vlanId) : EntityOf(Vex::Name()), vlanId_(vlanId) {}

  const Bridging::VlanId& fwkKey() const noexcept { return vlanId_; }
  Bridging::VlanId vlanId() const noexcept { return vlanId_; }
  std::string fwkKeyText() const override { return std::to_string(vlanId_.value()); }

  // A port of the VLAN, null for none; good until the ports change.
  const TopoPort* topoPort(const Portus::IntfId& intfId) const noexcept {
    return topoPort_.member(intfId);
  }
  void topoPortIs(const Portus::IntfId& intfId) {
    if (topoPort_.has(intfId)) return;
    topoPort_.memberIs(Vex::makePtr<TopoPort>(intfId));
    notifyKey<kTopoPort, &NotifieeConst::onTopoPort>(intfId);
  }
  void topoPortDel(const Portus::IntfId& key) {
    const Portus::IntfId intfId = key;  // the caller's key may live in the entry that goes
    if (topoPort_.memberDel(intfId)) notifyKey<kTopoPort, &NotifieeConst::onTopoPort>(intfId);
  }
  Map::IteratorConst topoPortIteratorConst() const { return topoPort_.iteratorConst(); }

 private:
  const Bridging::VlanId vlanId_;
  Map topoPort_;
};

class LibVlanState final : public Vex::EntityOf<LibVlanState> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onTopoVlan(const Bridging::VlanId& /*vlanId*/) {}
    virtual void onInitDone() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  using Map = Vex::HashMap<TopoVlan, Bridging::VlanId>;
  static constexpr Vex::AttributeId kTopoVlan = kFirstOwnAttribute;
  static constexpr Vex::AttributeId kInitDone = kFirstOwnAttribute + 1;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kTopoVlan, "topoVlan", Vex::AttributeKind::collection},
      {kInitDone, "initDone", Vex::AttributeKind::plain}};

  explicit LibVlanState(const Vex::Name& name) : EntityOf(name) {}
  ~LibVlanState() override {
    for (auto it = topoVlan_.iterator(); it; ++it) it->parentIs(nullptr);
  }

  Vex::Ptr<TopoVlan> topoVlan(Bridging::VlanId vlanId) const {
    return Vex::Ptr<TopoVlan>(topoVlan_.member(vlanId));
  }
  // Adds a VLAN that has its ports already. REQUIRES: the VLAN is absent.
  void topoVlanIs(const Vex::Ptr<TopoVlan>& vlan) {
    const Bridging::VlanId vlanId = vlan->vlanId();
    vlan->parentIs(this);
    vlan->parentAttrIdIs(kTopoVlan);
    topoVlan_.memberIs(vlan);
    topoVlanNotify(vlanId);
  }
  void topoVlanDel(Bridging::VlanId vlanId) {
    const auto gone = topoVlan_.memberDel(vlanId);
    if (!gone) return;
    gone->parentIs(nullptr);
    topoVlanNotify(vlanId);
  }
  Map::IteratorConst topoVlanIteratorConst() const { return topoVlan_.iteratorConst(); }
  // Tells the notifiees of a VLAN. What changes a VLAN does this itself; public so that a test can
  // repeat a notification.
  void topoVlanNotify(Bridging::VlanId vlanId) {
    notifyKey<kTopoVlan, &NotifieeConst::onTopoVlan>(vlanId);
  }

  bool initDone() const noexcept { return initDone_; }
  void initDoneIs(bool done) { plainIs<kInitDone, &NotifieeConst::onInitDone>(initDone_, done); }

 private:
  Map topoVlan_;
  bool initDone_ = false;
};

}  // namespace Topology::Library::Vlan
