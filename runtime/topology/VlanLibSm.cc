// SPDX-License-Identifier: Apache-2.0
#include "runtime/topology/VlanLibSm.h"

namespace Topology::Library::Vlan {

using Bridging::VlanBitmap;
using Bridging::VlanId;

VlanLibSm::VlanLibSm(const Vex::Ptr<LibState const>& topoLib, Vex::Ptr<LibVlanState> libVlanState)
    : topoLib_(Vex::newReactor<VexTopoLib>(this, Vex::validPtr(topoLib))),
      libVlanState_(Vex::validPtr(std::move(libVlanState))) {
  for (auto it = topoLib->intfVlansIteratorConst(); it; ++it) handleIntfVlans(it.key());
  handleVlans();
  handleInitDone();
  hasNotificationActiveIs(true);
}

void VlanLibSm::handleIntfVlans(const Portus::IntfId& intfId) {
  const VlanBitmap* published = topoLib()->intfVlans(intfId);
  const VlanBitmap now = published != nullptr ? *published : VlanBitmap();
  const VlanBitmap before = intfVlans_.valueOr(intfId);
  if (published != nullptr) {
    intfVlans_.valueIs(intfId, now);
  } else {
    intfVlans_.valueDel(intfId);
  }
  (before - now).forEach([&](std::uint16_t number) {
    const VlanId vlanId(number);
    if (const auto vlan = libVlanState_->topoVlan(vlanId)) vlan->topoPortDel(intfId);
  });
  (now - before).forEach([&](std::uint16_t number) {
    const VlanId vlanId(number);
    if (const auto vlan = libVlanState_->topoVlan(vlanId)) vlan->topoPortIs(intfId);
  });
}

void VlanLibSm::handleVlans() {
  const VlanBitmap now = topoLib()->vlans();
  const VlanBitmap before = vlans_;
  vlans_ = now;
  (before - now).forEach([&](std::uint16_t number) {
    const VlanId vlanId(number);
    libVlanState_->topoVlanDel(vlanId);
  });
  (now - before).forEach([&](std::uint16_t number) {
    const VlanId vlanId(number);
    const auto vlan = Vex::makePtr<TopoVlan>(vlanId);
    for (auto it = intfVlans_.iteratorConst(); it; ++it) {
      if (it->value().test(vlanId)) vlan->topoPortIs(it.key());
    }
    libVlanState_->topoVlanIs(vlan);
  });
}

void VlanLibSm::handleInitDone() {
  if (topoLib()->initDone()) libVlanState_->initDoneIs(true);
}

}  // namespace Topology::Library::Vlan
