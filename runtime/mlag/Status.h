// SPDX-License-Identifier: Apache-2.0
//
// Mlag::Status: the state of a multi-chassis pair as seen from this system. Written by whoever runs
// the pair; a system without one leaves it as made. Activity thread only.
#pragma once

#include "runtime/interface/IntfStatus.h"
#include "runtime/portus/EthAddr.h"
#include "runtime/vex/Entity.h"

namespace Mlag {

enum class MlagState : std::uint8_t {
  disabled = 0,    // no pair is configured
  inactive = 1,    // configured, no peer link
  connecting = 2,  // the peer is not agreed with yet
  primary = 3,     // the pair stands, this system leads
  secondary = 4    // the pair stands, the peer leads
};

class Status final : public Vex::EntityOf<Status> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onMlagState() {}
    virtual void onSystemId() {}
    virtual void onPeerLinkIntf() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kMlagState = kFirstOwnAttribute;
  static constexpr Vex::AttributeId kSystemId = kFirstOwnAttribute + 1;
  static constexpr Vex::AttributeId kPeerLinkIntf = kFirstOwnAttribute + 2;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kMlagState, "mlagState", Vex::AttributeKind::plain},
      {kSystemId, "systemId", Vex::AttributeKind::plain},
      {kPeerLinkIntf, "peerLinkIntf", Vex::AttributeKind::plain}};

  explicit Status(const Vex::Name& name) : EntityOf(name) {}

  MlagState mlagState() const noexcept { return mlagState_; }
  void mlagStateIs(MlagState state) {
    plainIs<kMlagState, &NotifieeConst::onMlagState>(mlagState_, state);
  }

  // The address that both systems of the pair use as one.
  const Portus::EthAddr& systemId() const noexcept { return systemId_; }
  void systemIdIs(const Portus::EthAddr& address) {
    plainIs<kSystemId, &NotifieeConst::onSystemId>(systemId_, address);
  }

  // The interface that joins the two systems, null for none.
  const Vex::Ptr<Interface::IntfStatus const>& peerLinkIntf() const noexcept {
    return peerLinkIntf_;
  }
  void peerLinkIntfIs(const Vex::Ptr<Interface::IntfStatus const>& intf) {
    plainIs<kPeerLinkIntf, &NotifieeConst::onPeerLinkIntf>(peerLinkIntf_, intf);
  }

 private:
  MlagState mlagState_ = MlagState::disabled;
  Portus::EthAddr systemId_;
  Vex::Ptr<Interface::IntfStatus const> peerLinkIntf_;
};

}  // namespace Mlag
