// SPDX-License-Identifier: Apache-2.0
//
// Topology::Library::RingwardIntfFilter: which interfaces can carry probes at all: Ethernet ports
// and port channels, but not a port channel that stands for the peer of a multi-chassis pair.
// Activity thread only.
#pragma once

#include "runtime/topology/LibSm.h"

namespace Topology::Library {

class RingwardIntfFilter final : public FilterIntf {
 public:
  bool isValidIntf(Portus::IntfId intfId) const override;
};

// The filter made last; written by Ringward::GlobalSm at each enable.
extern RingwardIntfFilter* topoLibIntfFilter;

}  // namespace Topology::Library
