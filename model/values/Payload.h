// SPDX-License-Identifier: Apache-2.0
//
// Ringward::Payload: the 14 bytes that follow the Ethernet header of a probe, written in place over
// the packet buffer. docs/formats.md shows the whole frame.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "model/values/Oui.h"
#include "runtime/portus/IntfId.h"
#include "runtime/portus/Overlay.h"

namespace Ringward {

class Payload {
 public:
  static constexpr std::size_t kSize = 14;

  // The type object; to call it, include runtime/vex/GenericType.h.
  template <class Self = Payload>
  static Vex::VexType* _fwkType() {
    return Vex::fwkTypeOf<Self>();
  }
  // REQUIRES: kSize bytes at `bytes`.
  static Payload* at(std::uint8_t* bytes) noexcept { return Portus::overlayAt<Payload>(bytes); }
  static const Payload* at(const std::uint8_t* bytes) noexcept {
    return Portus::overlayAt<Payload>(bytes);
  }

  constexpr const Oui& veltrixOui() const noexcept { return veltrixOui_; }
  constexpr void veltrixOuiIs(const Oui& oui) noexcept { veltrixOui_ = oui; }
  constexpr std::uint16_t protocolId() const noexcept {
    return Portus::loadBigEndian16(protocolId_.data());
  }
  constexpr void protocolIdIs(std::uint16_t id) noexcept {
    Portus::storeBigEndian16(protocolId_.data(), id);
  }
  constexpr std::uint8_t version() const noexcept { return version_; }
  constexpr void versionIs(std::uint8_t version) noexcept { version_ = version; }
  // The eight bytes as they lie in memory, in both directions.
  constexpr const Portus::IntfId& senderIntfId() const noexcept { return senderIntfId_; }
  constexpr void senderIntfIdIs(const Portus::IntfId& intfId) noexcept { senderIntfId_ = intfId; }

 private:
  Oui veltrixOui_;
  std::array<std::uint8_t, 2> protocolId_{};
  std::uint8_t version_ = 0;
  Portus::IntfId senderIntfId_;
};
static_assert(sizeof(Payload) == Payload::kSize && alignof(Payload) == 1);
static_assert(std::is_trivially_copyable_v<Payload> && std::is_standard_layout_v<Payload>);

}  // namespace Ringward

// The numbers as they are meant, not as they stand on the wire.
template <>
struct Vex::Description<Ringward::Payload> {
  using Class = Ringward::Payload;
  static constexpr std::string_view kTypeName = "Ringward::Payload";
  static constexpr auto kFields =
      std::tuple(Vex::Field{"veltrixOui", &Class::veltrixOui, &Class::veltrixOuiIs},
                 Vex::Field{"protocolId", &Class::protocolId, &Class::protocolIdIs},
                 Vex::Field{"version", &Class::version, &Class::versionIs},
                 Vex::Field{"senderIntfId", &Class::senderIntfId, &Class::senderIntfIdIs});
};
