// SPDX-License-Identifier: Apache-2.0
//
// The interfaces of the system and the directories in which agents find them. The platform fills
// them, everybody else reads. Activity thread only.
//
// One Interface::IntfStatus stands for one interface for as long as the interface exists, in every
// directory that lists it; an interface that goes and comes back has a new one. Directories hold
// counted references.
#pragma once

#include <string>

#include "runtime/portus/IntfId.h"
#include "runtime/portus/Pam.h"
#include "runtime/vex/Collection.h"
#include "runtime/vex/Entity.h"

namespace Interface {

// What the operator wants of an interface.
class IntfConfig : public Vex::EntityOf<IntfConfig> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onAdminEnabled() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kAdminEnabled = kFirstOwnAttribute;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kAdminEnabled, "adminEnabled", Vex::AttributeKind::plain}};

  explicit IntfConfig(const Portus::IntfId& intfId) : EntityOf(intfId.name()), intfId_(intfId) {}

  const Portus::IntfId& intfId() const noexcept { return intfId_; }
  // Whether the operator wants the interface up. What errdisable does to it does not show here.
  bool adminEnabled() const noexcept { return adminEnabled_; }
  void adminEnabledIs(bool enabled) {
    plainIs<kAdminEnabled, &NotifieeConst::onAdminEnabled>(adminEnabled_, enabled);
  }

 private:
  const Portus::IntfId intfId_;
  bool adminEnabled_ = false;
};

class IntfStatus : public Vex::EntityOf<IntfStatus> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onLinkUp() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kLinkUp = kFirstOwnAttribute;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kLinkUp, "linkUp", Vex::AttributeKind::plain}};

  IntfStatus(const Portus::IntfId& intfId, Vex::Ptr<IntfConfig> config)
      : EntityOf(intfId.name()), intfId_(intfId), intfConfig_(Vex::validPtr(std::move(config))) {}

  const Portus::IntfId& intfId() const noexcept { return intfId_; }
  const Vex::Ptr<IntfConfig>& intfConfig() const noexcept { return intfConfig_; }
  // Whether the interface has a carrier.
  bool linkUp() const noexcept { return linkUp_; }
  void linkUpIs(bool up) { plainIs<kLinkUp, &NotifieeConst::onLinkUp>(linkUp_, up); }

 private:
  const Portus::IntfId intfId_;
  bool linkUp_ = false;
  const Vex::Ptr<IntfConfig> intfConfig_;
};

// An interface whose frames this process can send and receive.
class IntfStatusLocal : public Vex::VFPtrInterface {
 public:
  explicit IntfStatusLocal(Vex::Ptr<Portus::Device> device) noexcept : device_(std::move(device)) {}
  const Vex::Ptr<Portus::Device>& device() const noexcept { return device_; }

 private:
  const Vex::Ptr<Portus::Device> device_;
};

// A collection of references by interface. Self names the attribute; see the classes below.
template <class Self, class Member>
class IntfDirectory : public Vex::EntityOf<Self> {
 public:
  using Value = Vex::Ptr<Member>;
  using Collection = Vex::ValueCollection<Portus::IntfId, Value>;
  static constexpr Vex::AttributeId kMember = Vex::Entity::kFirstOwnAttribute;

 protected:
  explicit IntfDirectory(const Vex::Name& name) : Vex::EntityOf<Self>(name) {}

  Value member(const Portus::IntfId& intfId) const { return members_.valueOr(intfId); }
  template <auto Handler>
  void memberIs(const Portus::IntfId& intfId, const Value& value) {
    if (members_.valueIs(intfId, value)) this->template notifyKey<kMember, Handler>(intfId);
  }
  template <auto Handler>
  void memberDel(const Portus::IntfId& key) {
    const Portus::IntfId intfId = key;  // the caller's key may live in the entry that goes
    if (members_.valueDel(intfId)) this->template notifyKey<kMember, Handler>(intfId);
  }
  typename Collection::IteratorConst iterator() const { return members_.iteratorConst(); }

 private:
  Collection members_;
};

// Every interface of the system.
class AllIntfStatusDir final : public IntfDirectory<AllIntfStatusDir, IntfStatus> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onIntfStatus(const Portus::IntfId& /*intfId*/) {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kMember, "intfStatus", Vex::AttributeKind::collection}};

  explicit AllIntfStatusDir(const Vex::Name& name) : IntfDirectory(name) {}
  Value intfStatus(const Portus::IntfId& intfId) const { return member(intfId); }
  void intfStatusIs(const Portus::IntfId& intfId, const Value& status) {
    memberIs<&NotifieeConst::onIntfStatus>(intfId, status);
  }
  void intfStatusDel(const Portus::IntfId& intfId) {
    memberDel<&NotifieeConst::onIntfStatus>(intfId);
  }
  Collection::IteratorConst intfStatusIteratorConst() const { return iterator(); }
};

// The interfaces of the system whose frames this process handles.
class AllIntfStatusLocalDir final : public IntfDirectory<AllIntfStatusLocalDir, IntfStatusLocal> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onIntfStatusLocal(const Portus::IntfId& /*intfId*/) {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kMember, "intfStatusLocal", Vex::AttributeKind::collection}};

  explicit AllIntfStatusLocalDir(const Vex::Name& name) : IntfDirectory(name) {}
  Value intfStatusLocal(const Portus::IntfId& intfId) const { return member(intfId); }
  void intfStatusLocalIs(const Portus::IntfId& intfId, const Value& status) {
    memberIs<&NotifieeConst::onIntfStatusLocal>(intfId, status);
  }
  void intfStatusLocalDel(const Portus::IntfId& intfId) {
    memberDel<&NotifieeConst::onIntfStatusLocal>(intfId);
  }
  Collection::IteratorConst intfStatusLocalIteratorConst() const { return iterator(); }
};

// The interfaces that speak Ethernet, port channels included.
class EthIntfStatusDir final : public IntfDirectory<EthIntfStatusDir, IntfStatus> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onEthIntfStatus(const Portus::IntfId& /*intfId*/) {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kMember, "ethIntfStatus", Vex::AttributeKind::collection}};

  explicit EthIntfStatusDir(const Vex::Name& name) : IntfDirectory(name) {}
  Value ethIntfStatus(const Portus::IntfId& intfId) const { return member(intfId); }
  void ethIntfStatusIs(const Portus::IntfId& intfId, const Value& status) {
    memberIs<&NotifieeConst::onEthIntfStatus>(intfId, status);
  }
  void ethIntfStatusDel(const Portus::IntfId& intfId) {
    memberDel<&NotifieeConst::onEthIntfStatus>(intfId);
  }
  Collection::IteratorConst ethIntfStatusIteratorConst() const { return iterator(); }
};

}  // namespace Interface
