// SPDX-License-Identifier: Apache-2.0
//
// The three directories between a feature that wants packet access and the manager that gives it:
// what is there (DeviceIntfStatusDir), what is wanted (PamDesiredIntfDir), what is open
// (EthDevPamCollection). Activity thread only; each has one writer: IntfStatusManager, the feature,
// EthDevPamManager.
#pragma once

#include "runtime/portus/Pam.h"
#include "runtime/vex/Collection.h"
#include "runtime/vex/Entity.h"

namespace Interface {

// An interface through which frames could go now: its device, and whether the operator wants it up.
struct DeviceIntfStatus {
  Vex::Ptr<Portus::Device> device;
  bool enabled = false;
  bool operator==(const DeviceIntfStatus&) const = default;
};

class DeviceIntfStatusDir final : public Vex::EntityOf<DeviceIntfStatusDir> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onDeviceIntfStatus(const Portus::IntfId& /*intfId*/) {}

   protected:
    NotifieeConst() noexcept = default;
  };
  using Collection = Vex::ValueCollection<Portus::IntfId, DeviceIntfStatus>;
  static constexpr Vex::AttributeId kDeviceIntfStatus = kFirstOwnAttribute;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kDeviceIntfStatus, "deviceIntfStatus", Vex::AttributeKind::collection}};

  explicit DeviceIntfStatusDir(const Vex::Name& name) : EntityOf(name) {}

  // The entry of an interface, an empty one for none.
  DeviceIntfStatus deviceIntfStatus(const Portus::IntfId& intfId) const {
    return entries_.valueOr(intfId);
  }
  void deviceIntfStatusIs(const Portus::IntfId& intfId, const DeviceIntfStatus& status) {
    if (entries_.valueIs(intfId, status)) deviceIntfStatusNotify(intfId);
  }
  void deviceIntfStatusDel(const Portus::IntfId& key) {
    const Portus::IntfId intfId = key;  // the caller's key may live in the entry that goes
    if (entries_.valueDel(intfId)) deviceIntfStatusNotify(intfId);
  }
  Collection::IteratorConst deviceIntfStatusIteratorConst() const {
    return entries_.iteratorConst();
  }

 private:
  void deviceIntfStatusNotify(const Portus::IntfId& intfId) {
    notifyKey<kDeviceIntfStatus, &NotifieeConst::onDeviceIntfStatus>(intfId);
  }
  Collection entries_;
};

class PamDesiredIntfDir final : public Vex::EntityOf<PamDesiredIntfDir> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onIntfDesired(const Portus::IntfId& /*intfId*/) {}

   protected:
    NotifieeConst() noexcept = default;
  };
  using Collection = Vex::ValueCollection<Portus::IntfId, bool>;
  static constexpr Vex::AttributeId kIntfDesired = kFirstOwnAttribute;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kIntfDesired, "intfDesired", Vex::AttributeKind::collection}};

  explicit PamDesiredIntfDir(const Vex::Name& name) : EntityOf(name) {}

  // Whether packet access to the interface is wanted; false for an absent entry.
  bool intfDesired(const Portus::IntfId& intfId) const { return entries_.valueOr(intfId); }
  void intfDesiredIs(const Portus::IntfId& intfId, bool desired) {
    if (entries_.valueIs(intfId, desired)) intfDesiredNotify(intfId);
  }
  void intfDesiredDel(const Portus::IntfId& key) {
    const Portus::IntfId intfId = key;  // the caller's key may live in the entry that goes
    if (entries_.valueDel(intfId)) intfDesiredNotify(intfId);
  }
  Collection::IteratorConst intfDesiredIteratorConst() const { return entries_.iteratorConst(); }

 private:
  void intfDesiredNotify(const Portus::IntfId& intfId) {
    notifyKey<kIntfDesired, &NotifieeConst::onIntfDesired>(intfId);
  }
  Collection entries_;
};

class EthDevPamCollection final : public Vex::EntityOf<EthDevPamCollection> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onIntfPam(const Portus::IntfId& /*intfId*/) {}

   protected:
    NotifieeConst() noexcept = default;
  };
  using Collection = Vex::ValueCollection<Portus::IntfId, Vex::Ptr<Portus::Pam>>;
  static constexpr Vex::AttributeId kIntfPam = kFirstOwnAttribute;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kIntfPam, "intfPam", Vex::AttributeKind::collection}};

  explicit EthDevPamCollection(const Vex::Name& name) : EntityOf(name) {}

  // The open packet access of an interface, null for none.
  Vex::Ptr<Portus::Pam> intfPam(const Portus::IntfId& intfId) const {
    return entries_.valueOr(intfId);
  }
  void intfPamIs(const Portus::IntfId& intfId, const Vex::Ptr<Portus::Pam>& pam) {
    if (entries_.valueIs(intfId, pam)) intfPamNotify(intfId);
  }
  void intfPamDel(const Portus::IntfId& key) {
    const Portus::IntfId intfId = key;  // the caller's key may live in the entry that goes
    if (entries_.valueDel(intfId)) intfPamNotify(intfId);
  }
  Collection::IteratorConst intfPamIteratorConst() const { return entries_.iteratorConst(); }

 private:
  void intfPamNotify(const Portus::IntfId& intfId) {
    notifyKey<kIntfPam, &NotifieeConst::onIntfPam>(intfId);
  }
  Collection entries_;
};

}  // namespace Interface
