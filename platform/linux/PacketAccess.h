// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::PacketAccess: packet access to the interfaces of a network namespace for the
// engine. Owns the one shared packet socket, reads it in bounded batches and hands each frame to
// the Pam of its interface. Activity thread only.
//
// Counted: the devices and Pams that it makes keep it alive. The socket is open while there is a
// Pam.
//
// Invariants:
//  1. A frame counts only if its interface has a Pam. A bridge hands every frame up a second time
//  on
//     its own device; that device has no Pam.
//  2. With the source guard on, only frames from the present source address are delivered.
//  3. One turn of the loop handles at most kFramesPerTurn frames, whatever arrives.
//  4. Nothing is sent into an interface without carrier. Probes that are sent in one turn of the
//     loop leave together at its end, or as soon as there are kMostOutgoing of them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/linux/FloodMeter.h"
#include "platform/linux/PacketSocket.h"
#include "platform/linux/PacketTotals.h"
#include "runtime/portus/Pam.h"
#include "runtime/vex/ActivityManager.h"

namespace Platform::Linux {

class LinuxPam;

class PacketAccess final : public Vex::VFPtrInterface,
                           private Vex::ReadableHandler,
                           private Vex::DeferredTask {
 public:
  // A slice that takes a fraction of a millisecond: timers are late by no more than that.
  static constexpr std::size_t kFramesPerTurn = 256;

  // Whoever sees to probes that could not be sent. Must not be called back from inside a call.
  class LossListener {
   public:
    virtual ~LossListener() = default;
    // The interface had no carrier, or the kernel said that it is down.
    virtual void probeLost(const Portus::IntfId& intfId, const Portus::Pkt& probe) = 0;
    virtual void carrierUp(const Portus::IntfId& intfId) = 0;
    // The interface has no packet access any more.
    virtual void accessDel(const Portus::IntfId& intfId) = 0;
  };

  // `guardSource`: deliver only frames that carry the address given to sourceIs().
  PacketAccess(Vex::ActivityManager& manager, bool guardSource);
  ~PacketAccess() override;

  // Whether this process may open packet sockets here: the error of socket(2).
  static std::error_code permission();

  // The interface with this kernel index as a device for the engine.
  Vex::Ptr<Portus::Device> newDevice(int ifindex);

  // The system's own source address; all zero while there is none, and then every frame is foreign.
  void sourceIs(const Portus::EthAddr& address);
  void guardSourceIs(bool guard);

  // Must outlive its use; null: nobody.
  void lossListenerIs(LossListener* listener) noexcept { lossListener_ = listener; }

  // Whoever wants to know that frames flood in.
  void floodListenerIs(FloodMeter::Listener* listener) noexcept { flood_.listenerIs(listener); }

  // Who counts what is sent and received by the Pams that are opened from now on. Must outlive its
  // use; null: nobody.
  void totalsIs(PacketTotals* totals) noexcept { totals_ = totals; }

  // Whether the link can carry frames now. A link of which nothing was said is taken to.
  void carrierIs(int ifindex, bool carrier);
  void linkDel(int ifindex) { withoutCarrier_.erase(ifindex); }

  // The frame that is being delivered for an interface at this moment, null for none: lets whoever
  // reacts to a detection say what was received.
  const Portus::Pkt* inDelivery(int ifindex) const noexcept {
    return deliveringTo_ == ifindex ? delivering_ : nullptr;
  }

  PacketSocket::Statistics statistics();

 private:
  friend class LinuxPam;

  bool open(const Portus::PamConfig& config);
  void pamIs(int ifindex, LinuxPam& pam);
  void pamDel(int ifindex, const LinuxPam& pam) noexcept;
  void close() noexcept;
  void guard();
  void onReadable() override;
  void deliver(const ReceivedFrame& frame);
  void send(const LinuxPam& pam, const Vex::Ptr<Portus::Pkt>& pkt);
  void flush();
  void run() override { flush(); }
  Vex::Ptr<Portus::Pam> newPam(const Portus::IntfId& intfId, int ifindex,
                               const Portus::PamConfig& config);
  friend class LinuxDevice;

  Vex::ActivityManager& manager_;
  bool guardSource_;
  Portus::EthAddr source_;
  std::unique_ptr<PacketSocket> socket_;
  PacketSocket::Statistics closedSockets_;  // the counts of sockets that are closed by now
  std::unordered_map<int, LinuxPam*> pams_;
  // Sent with the end of the turn; the interface may have gone by then.
  struct Waiting {
    const LinuxPam* pam;  // whose it is, not for use
    Portus::IntfId intfId;
    int ifindex;
    PacketTotals::Counts* counts;  // null if nobody counts
    Vex::Ptr<Portus::Pkt> pkt;
  };
  std::vector<Waiting> waiting_;
  std::vector<OutgoingFrame> outgoing_;  // of waiting_, while it is sent
  std::unordered_set<int> withoutCarrier_;
  LossListener* lossListener_ = nullptr;
  FloodMeter flood_;
  PacketTotals* totals_ = nullptr;
  bool inBatch_ = false;  // the socket is being read and must not close
  int deliveringTo_ = 0;
  const Portus::Pkt* delivering_ = nullptr;
};

}  // namespace Platform::Linux
