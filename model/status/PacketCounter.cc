// SPDX-License-Identifier: Apache-2.0
#include "model/status/PacketCounter.h"

template class VexQuill::VexQuillMap<
    Ringward::Status::PacketCounter,
    VexQuill::VexQuillMapValueWrapper<Ringward::Status::CounterIntf, Portus::IntfId>,
    Portus::IntfId>;
template class VexQuill::VexQuillMap<
    Ringward::Status::PacketCounter,
    VexQuill::VexQuillMapValueWrapper<Ringward::Status::CounterVlan, Bridging::VlanIdOrNone>,
    Bridging::VlanIdOrNone>;

namespace Ringward::Status {

PacketCounter::PacketCounter(const Vex::Name& name) : EntityOf(name) {
  counterIntf_.entity("counterIntf", this, &PacketCounter::counterIntfNotify);
  counterVlan_.entity("counterVlan", this, &PacketCounter::counterVlanNotify);
  tableIs(counterIntf_);
  tableIs(counterVlan_);
}

PacketCounter::~PacketCounter() = default;

void PacketCounter::counterIntfCommit(const CounterIntf* /*value*/) { counterIntf_.recordCommit(); }

void PacketCounter::counterVlanCommit(const CounterVlan* /*value*/) { counterVlan_.recordCommit(); }

}  // namespace Ringward::Status
