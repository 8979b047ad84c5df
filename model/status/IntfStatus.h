// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Status::IntfStatus: what the engine publishes of one interface under detection. Written
// by its receive machine, watched by its transmitters. Its key names it; owned by
// Ringward::Status::Status. Activity thread only.
#pragma once

#include "runtime/portus/IntfId.h"
#include "runtime/vex/Description.h"

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
  static const std::span<const Vex::AttributeInfo> kAttributes;

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

template <>
struct Vex::Description<Ringward::Status::IntfStatus> {
  using Class = Ringward::Status::IntfStatus;
  static constexpr std::string_view kTypeName = "Ringward::Status::IntfStatus";
  static constexpr auto kAttributes = std::tuple(
      Vex::Scalar{Class::kIntfId, "intfId", &Class::intfId},
      Vex::Scalar{Class::kDisabled, "disabled", &Class::disabled, &Class::disabledIs},
      Vex::Scalar{Class::kDisabledAt, "disabledAt", &Class::disabledAt, &Class::disabledAtIs},
      Vex::Scalar{Class::kDisabledUntil, "disabledUntil", &Class::disabledUntil,
                  &Class::disabledUntilIs});
};

inline constexpr std::span<const Vex::AttributeInfo> Ringward::Status::IntfStatus::kAttributes =
    Vex::attributeInfos<Ringward::Status::IntfStatus>;
