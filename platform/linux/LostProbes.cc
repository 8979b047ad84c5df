// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LostProbes.h"

#include <utility>

#include "engine/ProbeFrame.h"

namespace Platform::Linux {

LostProbes::LostProbes(Vex::Ptr<Bridging::Config const> brConfig, Resend resend)
    : brConfig_(std::move(brConfig)), resend_(std::move(resend)) {}

void LostProbes::probeLost(const Portus::IntfId& intfId, const Portus::Pkt& probe) {
  ++count_;
  const auto port = brConfig_->switchIntfConfig(intfId);
  const auto vlanId =
      Ringward::readProbe(probe, port ? port->nativeVlan() : Bridging::VlanIdOrNone()).vlanId;
  if (vlanId.value() != 0) lost_[intfId].set(vlanId.value());
}

void LostProbes::carrierUp(const Portus::IntfId& intfId) {
  const auto at = lost_.find(intfId);
  if (at == lost_.end()) return;
  const Bridging::VlanBitmap vlans = at->second;
  const Portus::IntfId id = intfId;
  lost_.erase(at);
  vlans.forEach([&](std::uint16_t vlan) { resend_(id, Bridging::VlanId(vlan)); });
}

std::size_t LostProbes::waiting() const {
  std::size_t pairs = 0;
  for (const auto& [intfId, vlans] : lost_) pairs += vlans.count();
  return pairs;
}

}  // namespace Platform::Linux
