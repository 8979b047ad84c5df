// SPDX-License-Identifier: Apache-2.0
#include "engine/RingwardIntfFilter.h"

namespace Topology::Library {

RingwardIntfFilter* topoLibIntfFilter = nullptr;

bool RingwardIntfFilter::isValidIntf(Portus::IntfId intfId) const {
  if (!Portus::EthIntfId::isEthIntfId(intfId) &&
      !Portus::PortChannelIntfId::isPortChannelIntfId(intfId)) {
    return false;
  }
  return !Portus::PeerPortChannelIntfId::isPeerPortChannelIntfId(intfId);
}

}  // namespace Topology::Library
