// SPDX-License-Identifier: Apache-2.0
//
// What stands at the other end of a wire besides whole systems: equipment of third parties, which
// knows nothing of probes, and the tools of a test. Activity thread only; the Fabric outlives them.
//
// Each element has ports of its own, named "<element>.<number>" from 1. What an element forwards
// goes through the egress of the port that it leaves by.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/sim/Fabric.h"

namespace Platform::Sim {

class Element : protected Receiver {
 public:
  Element(const Element&) = delete;
  Element& operator=(const Element&) = delete;
  virtual ~Element() = default;

  // Ports count from 1. Raises a range exception for a number that the element does not have.
  Port& port(std::size_t number);
  std::size_t ports() const noexcept { return ports_.size(); }
  // Frames that full egress queues have dropped.
  std::uint64_t dropped() const noexcept;

 protected:
  Element(Fabric& fabric, const std::string& name, std::size_t ports, EgressConfig egress);

  void flood(const Port& from, const FramePtr& frame);

 private:
  std::vector<std::unique_ptr<Port>> ports_;
};

// Repeats each frame on all other ports.
class Hub final : public Element {
 public:
  Hub(Fabric& fabric, const std::string& name, std::size_t ports, EgressConfig egress = {})
      : Element(fabric, name, ports, egress) {}

 private:
  void onFrame(Port& port, const FramePtr& frame) override { flood(port, frame); }
};

// Learns where an address was seen last, per VLAN tag; floods what is for all or for nobody known.
// Has no ageing and no spanning tree.
class LearningSwitch final : public Element {
 public:
  LearningSwitch(Fabric& fabric, const std::string& name, std::size_t ports,
                 EgressConfig egress = {})
      : Element(fabric, name, ports, egress) {}

 private:
  void onFrame(Port& port, const FramePtr& frame) override;

  std::map<std::pair<std::uint16_t, Portus::EthAddr>, Port*> stations_;
};

// Sends each frame back on the port that it came from, changed by `change` if there is one.
class Reflector final : public Element {
 public:
  using Change = std::function<Frame(Bytes)>;
  Reflector(Fabric& fabric, const std::string& name, Change change = {}, EgressConfig egress = {})
      : Element(fabric, name, 1, egress), change_(std::move(change)) {}

 private:
  void onFrame(Port& port, const FramePtr& frame) override;

  const Change change_;
};

// The change of a Reflector that leads two VLANs together: every frame comes back with the tag of
// `vlan`, or without a tag for none.
Reflector::Change tagRewriter(Bridging::VlanIdOrNone vlan);

// A station: sends what it is told to, keeps count of what it hears.
class Injector final : public Element {
 public:
  Injector(Fabric& fabric, const std::string& name) : Element(fabric, name, 1, {}) {}

  void send(Frame frame) { port(1).send(newFrame(std::move(frame))); }
  std::uint64_t heard() const noexcept { return heard_; }

 private:
  void onFrame(Port& /*port*/, const FramePtr& /*frame*/) override { ++heard_; }

  std::uint64_t heard_ = 0;
};

}  // namespace Platform::Sim
