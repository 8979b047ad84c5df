// SPDX-License-Identifier: Apache-2.0
//
// Portus::Pam: packet access to one interface, and Portus::Device, the seam through which one is
// opened. platform/linux/ and platform/sim/ implement both. Activity thread only.
//
// A Pam announces each received frame by one change of readableCount; whoever watches it takes the
// frame with rxPkt() from inside the notification. A frame that nobody takes waits, within the
// Pam's bound, for the next notification.
#pragma once

#include <cstdint>

#include "runtime/portus/EthAddr.h"
#include "runtime/portus/IntfId.h"
#include "runtime/portus/PacketFilter.h"
#include "runtime/portus/Pkt.h"
#include "runtime/vex/Entity.h"

namespace Portus {

class Pam : public Vex::EntityOf<Pam> {
 public:
  class NotifieeConst : public Vex::Entity::NotifieeConst {
   public:
    virtual void onReadableCount() {}

   protected:
    NotifieeConst() noexcept = default;
  };
  static constexpr Vex::AttributeId kReadableCount = kFirstOwnAttribute;
  static constexpr Vex::AttributeInfo kAttributes[] = {
      {kReadableCount, "readableCount", Vex::AttributeKind::plain}};

  const IntfId& intfId() const noexcept { return intfId_; }
  // Counts the frames received so far.
  std::uint64_t readableCount() const noexcept { return readableCount_; }

  // The oldest frame received and not yet taken, null for none.
  virtual Vex::Ptr<Pkt> rxPkt() = 0;
  // Sends one frame; a null packet does nothing. Errors of the interface are the Pam's to count:
  // sending never fails for the caller.
  virtual void txPkt(const Vex::Ptr<Pkt>& pkt) = 0;

  std::string fwkKeyText() const override { return intfId_.name(); }

 protected:
  explicit Pam(IntfId intfId) : EntityOf(Vex::Name()), intfId_(intfId) {}

  // One more frame can be taken.
  void readableCountInc() {
    plainIs<kReadableCount, &NotifieeConst::onReadableCount>(readableCount_, readableCount_ + 1);
  }

 private:
  const IntfId intfId_;
  std::uint64_t readableCount_ = 0;
};

// The program that accepts every frame whole.
inline PacketFilter acceptEverything() {
  static constexpr sock_filter kProgram[] = {{BPF_RET | BPF_K, 0, 0, 0xFFFFFFFF}};
  return PacketFilter(std::span(kProgram));
}

// How the Pams of one manager are opened.
struct PamConfig {
  PacketFilter filter = acceptEverything();  // over the frame as it is on the wire, tags included
  EthAddr destination;                       // what the frames to be received are sent to
  std::uint8_t sockPrio = 0;                 // SO_PRIORITY of sent frames, 0 to 15
  bool perIntfSocket = false;                // false: interfaces may share one socket
};

// An interface of the system as far as packets go.
class Device : public Vex::VFPtrInterface {
 public:
  // Opens packet access; null if the interface cannot be opened now. The Pam closes with its last
  // reference.
  virtual Vex::Ptr<Pam> newPam(const IntfId& intfId, const PamConfig& config) = 0;

 protected:
  Device() noexcept = default;
};

}  // namespace Portus
