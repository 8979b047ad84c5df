// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Config::TransmitConfig: the tuning of the transmit scheduler. Written by the agent that
// holds the configuration, watched by Ringward::TransmitSm. Activity thread only.
#pragma once

#include <cstdint>

#include "runtime/vex/Description.h"

namespace Ringward::Config {

class TransmitConfig final : public Vex::EntityOf<TransmitConfig> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onRateLimit() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kRateLimit = 258;
  static const std::span<const Vex::AttributeInfo> kAttributes;

  explicit TransmitConfig(const Vex::Name& name) : EntityOf(name) {}

  // Probes that the whole system may send in one second; 0: no limit.
  std::uint32_t rateLimit() const noexcept { return rateLimit_; }
  void rateLimitIs(std::uint32_t probesPerSecond) {
    plainIs<kRateLimit, &NotifieeConst::onRateLimit>(rateLimit_, probesPerSecond);
  }

 private:
  std::uint32_t rateLimit_ = 1000;
};

// Makes an entity that nobody owns yet.
inline Vex::Ptr<TransmitConfig> transmitConfigFactory(const Vex::Name& name) {
  return Vex::makePtr<TransmitConfig>(name);
}

}  // namespace Ringward::Config

template <>
struct Vex::Description<Ringward::Config::TransmitConfig> {
  using Class = Ringward::Config::TransmitConfig;
  static constexpr std::string_view kTypeName = "Ringward::Config::TransmitConfig";
  static constexpr auto kAttributes = std::tuple(
      Vex::Scalar{Class::kRateLimit, "rateLimit", &Class::rateLimit, &Class::rateLimitIs});
};

inline constexpr std::span<const Vex::AttributeInfo> Ringward::Config::TransmitConfig::kAttributes =
    Vex::attributeInfos<Ringward::Config::TransmitConfig>;
