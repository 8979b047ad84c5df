// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::IntfStatus: what the engine publishes of one interface under detection. Written
// by its receive machine, watched by its transmitters. Its key names it; owned by
// Ringward::Status::Status. Activity thread only.
#pragma once

#include "runtime/portus/IntfId.h"
#include "runtime/vex/Entity.h"
#include "runtime/vex/HashMap.h"

namespace Ringward::Status {

class IntfStatus final : public Vex::EntityOf<IntfStatus>, public Vex::HashMapLink {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onIntfId() {}
    virtual void onDisabled() {}
    virtual void onDisabledAt() {}
    virtual void onDisabledUntil() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kIntfId = 258;
  static constexpr Vex::AttributeId kDisabled = 259;
  static constexpr Vex::AttributeId kDisabledAt = 260;
  static constexpr Vex::AttributeId kDisabledUntil = 261;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kIntfId, "intfId", Vex::AttributeKind::plain},
      {kDisabled, "disabled", Vex::AttributeKind::plain},
      {kDisabledAt, "disabledAt", Vex::AttributeKind::plain},
      {kDisabledUntil, "disabledUntil", Vex::AttributeKind::plain}};

  explicit IntfStatus(const Portus::IntfId& intfId) : EntityOf(Vex::Name()), intfId_(intfId) {}

  const Portus::IntfId& fwkKey() const noexcept { return intfId_; }
  const Portus::IntfId& intfId() const noexcept { return intfId_; }
  std::string fwkKeyText() const override { return intfId_.name(); }

  // Whether the engine holds the interface errdisabled.
  bool disabled() const noexcept { return disabled_; }
  void disabledIs(bool disabled) {
    plainIs<kDisabled, &NotifieeConst::onDisabled>(disabled_, disabled);
  }

  // When the latest looped probe arrived, in seconds on the activity clock; 0: not disabled.
  double disabledAt() const noexcept { return disabledAt_; }
  void disabledAtIs(double when) {
    plainIs<kDisabledAt, &NotifieeConst::onDisabledAt>(disabledAt_, when);
  }

  // When the interface comes back, in seconds on the activity clock; 0: not disabled, or for good.
  double disabledUntil() const noexcept { return disabledUntil_; }
  void disabledUntilIs(double when) {
    plainIs<kDisabledUntil, &NotifieeConst::onDisabledUntil>(disabledUntil_, when);
  }

 private:
  const Portus::IntfId intfId_;
  bool disabled_ = false;
  double disabledAt_ = 0.0;
  double disabledUntil_ = 0.0;
};

// Makes an entry that nobody owns yet.
inline Vex::Ptr<IntfStatus> intfStatusFactory(const Portus::IntfId& intfId) {
  return Vex::makePtr<IntfStatus>(intfId);
}

}  // namespace Ringward::Status
