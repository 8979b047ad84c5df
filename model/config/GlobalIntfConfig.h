// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Config::GlobalIntfConfig: the tuning that all interfaces share. Written by the agent
// that holds the configuration, read by the transmitters and the receive machines when they need
// it: nothing watches it. Activity thread only.
#pragma once

#include <cstdint>

#include "runtime/vex/Description.h"

namespace Ringward::Config {

class GlobalIntfConfig final : public Vex::EntityOf<GlobalIntfConfig> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onTransmitInterval() {}
    virtual void onDisabledTime() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kTransmitInterval = 258;
  static constexpr Vex::AttributeId kDisabledTime = 259;
  static const std::span<const Vex::AttributeInfo> kAttributes;

  explicit GlobalIntfConfig(const Vex::Name& name) : EntityOf(name) {}

  // Seconds between two probes of one pair of interface and VLAN; 0: one at each tick of the wheel.
  std::uint8_t transmitInterval() const noexcept { return transmitInterval_; }
  void transmitIntervalIs(std::uint8_t seconds) {
    plainIs<kTransmitInterval, &NotifieeConst::onTransmitInterval>(transmitInterval_, seconds);
  }

  // Seconds for which an interface stays errdisabled; 0: until something else brings it back.
  std::uint32_t disabledTime() const noexcept { return disabledTime_; }
  void disabledTimeIs(std::uint32_t seconds) {
    plainIs<kDisabledTime, &NotifieeConst::onDisabledTime>(disabledTime_, seconds);
  }

 private:
  std::uint8_t transmitInterval_ = 5;
  std::uint32_t disabledTime_ = 604800;  // seven days
};

// Makes an entity that nobody owns yet.
inline Vex::Ptr<GlobalIntfConfig> globalIntfConfigFactory(const Vex::Name& name) {
  return Vex::makePtr<GlobalIntfConfig>(name);
}

}  // namespace Ringward::Config

template <>
struct Vex::Description<Ringward::Config::GlobalIntfConfig> {
  using Class = Ringward::Config::GlobalIntfConfig;
  static constexpr std::string_view kTypeName = "Ringward::Config::GlobalIntfConfig";
  static constexpr auto kAttributes =
      std::tuple(Vex::Scalar{Class::kTransmitInterval, "transmitInterval", &Class::transmitInterval,
                             &Class::transmitIntervalIs},
                 Vex::Scalar{Class::kDisabledTime, "disabledTime", &Class::disabledTime,
                             &Class::disabledTimeIs});
};

inline constexpr std::span<const Vex::AttributeInfo>
    Ringward::Config::GlobalIntfConfig::kAttributes =
        Vex::attributeInfos<Ringward::Config::GlobalIntfConfig>;
