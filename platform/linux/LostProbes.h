// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::LostProbes: remembers which probes an interface without carrier could not send,
// and has each sent again as soon as the carrier comes. A port that errdisable has just raised
// needs some milliseconds, a cable that is plugged in makes its loop at that moment: neither should
// wait for the next interval. Activity thread only.
//
// Invariants:
//  1. A probe is remembered by its pair of interface and VLAN, once, however often it was lost;
//  what
//     a network without carrier costs is 512 bytes for each interface.
//  2. A pair is forgotten before it is sent again, so that what is lost anew is remembered anew.
#pragma once

#include <functional>
#include <unordered_map>

#include "platform/linux/PacketAccess.h"
#include "runtime/bridging/Config.h"
#include "runtime/bridging/VlanBitmap.h"

namespace Platform::Linux {

class LostProbes final : public PacketAccess::LossListener {
 public:
  // Has the pair's probe sent again: not on the spot, but by whoever limits the rate of probes.
  using Resend = std::function<void(const Portus::IntfId& intfId, Bridging::VlanId vlanId)>;

  // `brConfig` tells the VLAN of probes without a tag.
  LostProbes(Vex::Ptr<Bridging::Config const> brConfig, Resend resend);
  ~LostProbes() override = default;

  void probeLost(const Portus::IntfId& intfId, const Portus::Pkt& probe) override;
  // Calls `resend` for each VLAN in ascending order.
  void carrierUp(const Portus::IntfId& intfId) override;
  void accessDel(const Portus::IntfId& intfId) override { lost_.erase(intfId); }

  // Pairs that wait for a carrier.
  std::size_t waiting() const;
  // Probes that were lost since the beginning.
  std::uint64_t count() const noexcept { return count_; }

 private:
  const Vex::Ptr<Bridging::Config const> brConfig_;
  const Resend resend_;
  std::unordered_map<Portus::IntfId, Bridging::VlanBitmap> lost_;
  std::uint64_t count_ = 0;
};

}  // namespace Platform::Linux
