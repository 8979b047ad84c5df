// SPDX-License-Identifier: Apache-2.0
//
// Platform::Sim::SimDevice and SimPam: packet access to one simulated interface. Activity thread
// only. The device is counted; whoever has the wire's end withdraws it with portDel() before it
// goes, and what is sent afterwards fails like a send on a device that is gone. Pams hold their
// device.
//
// Invariants:
//  1. A Pam announces exactly the frames that its filter accepts and, with the source guard, that
//     carry the system's present source address.
//  2. At most kQueueLength frames wait in a Pam; more are dropped and counted.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "model/status/Status.h"
#include "platform/sim/Fabric.h"
#include "runtime/portus/Pam.h"

namespace Platform::Sim {

class SimPam;

class SimDevice final : public Portus::Device {
 public:
  struct Counts {
    std::uint64_t delivered = 0;   // announced to whoever watches a Pam
    std::uint64_t filtered = 0;    // rejected by a Pam's filter
    std::uint64_t foreign = 0;     // accepted by the filter, but from another source address
    std::uint64_t overflows = 0;   // the Pam's queue was full, or there was no packet buffer
    std::uint64_t sent = 0;        // frames given to the wire
    std::uint64_t sendErrors = 0;  // sent while the interface was down or gone
  };

  // `status` supplies the source address for the guard.
  SimDevice(Port& port, Vex::Ptr<Ringward::Status::Status const> status, bool sourceGuard)
      : port_(&port), status_(std::move(status)), sourceGuard_(sourceGuard) {}

  Vex::Ptr<Portus::Pam> newPam(const Portus::IntfId& intfId,
                               const Portus::PamConfig& config) override;

  // The interface has gone.
  void portDel() noexcept { port_ = nullptr; }
  void sourceGuardIs(bool on) noexcept { sourceGuard_ = on; }
  const Counts& counts() const noexcept { return counts_; }
  std::size_t pams() const noexcept { return pams_.size(); }

  // Gives a frame from the wire to all open Pams.
  void receive(const FramePtr& frame);

 private:
  friend class SimPam;

  void transmit(const Portus::Pkt& pkt);

  Port* port_;
  const Vex::Ptr<Ringward::Status::Status const> status_;
  bool sourceGuard_;
  std::vector<SimPam*> pams_;  // open ones, in the order of opening
  Counts counts_;
};

class SimPam final : public Portus::Pam {
 public:
  static constexpr std::size_t kQueueLength = 1024;

  SimPam(const Portus::IntfId& intfId, Portus::PamConfig config, Vex::Ptr<SimDevice> device);
  ~SimPam() override;

  const Portus::PamConfig& config() const noexcept { return config_; }
  Vex::Ptr<Portus::Pkt> rxPkt() override;
  void txPkt(const Vex::Ptr<Portus::Pkt>& pkt) override;

 private:
  friend class SimDevice;
  void receive(const FramePtr& frame);

  const Portus::PamConfig config_;
  const Vex::Ptr<SimDevice> device_;
  std::deque<Vex::Ptr<Portus::Pkt>> queue_;
};

}  // namespace Platform::Sim
