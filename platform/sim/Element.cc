// SPDX-License-Identifier: Apache-2.0
#include "platform/sim/Element.h"

#include "runtime/vex/Exception.h"

namespace Platform::Sim {

Element::Element(Fabric& fabric, const std::string& name, std::size_t ports, EgressConfig egress) {
  Receiver& receiver = *this;
  for (std::size_t number = 1; number <= ports; ++number) {
    ports_.push_back(
        std::make_unique<Port>(fabric, name + "." + std::to_string(number), receiver, egress));
  }
}

Port& Element::port(std::size_t number) {
  if (number == 0 || number > ports_.size()) {
    Vex::throwRangeException("port " + std::to_string(number) + " of an element: not from 1 to " +
                             std::to_string(ports_.size()));
  }
  return *ports_[number - 1];
}

std::uint64_t Element::dropped() const noexcept {
  std::uint64_t total = 0;
  for (const auto& port : ports_) total += port->counts().dropped;
  return total;
}

void Element::flood(const Port& from, const FramePtr& frame) {
  for (const auto& port : ports_) {
    if (port.get() != &from) port->sendQueued(frame);
  }
}

void LearningSwitch::onFrame(Port& port, const FramePtr& frame) {
  const std::uint16_t vlan = tagOf(*frame).value_or(0);
  if (const auto source = sourceOf(*frame); !source.isMulticast()) {
    stations_[{vlan, source}] = &port;
  }
  const auto destination = destinationOf(*frame);
  const auto known = stations_.find({vlan, destination});
  if (destination.isMulticast() || known == stations_.end()) {
    flood(port, frame);
  } else if (known->second != &port) {
    known->second->sendQueued(frame);
  }
}

void Reflector::onFrame(Port& port, const FramePtr& frame) {
  port.sendQueued(change_ ? newFrame(change_(*frame)) : frame);
}

Reflector::Change tagRewriter(Bridging::VlanIdOrNone vlan) {
  return [vlan](Bytes frame) { return vlan ? withTag(frame, vlan.value()) : withoutTag(frame); };
}

}  // namespace Platform::Sim
