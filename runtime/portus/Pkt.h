// SPDX-License-Identifier: Apache-2.0
//
// Portus::Pkt: one packet, and Portus::Pkt::Manager, which hands packets out and takes them back.
//
// A packet is counted (Vex/Ptr.h) and belongs to its references; when the last one goes it returns
// to its manager's pool by itself. It holds a count on the manager, so packets may outlive every
// other reference to the manager. A packet is used by one thread at a time. The manager may be used
// from several threads, and packets dropped on any, if Vex::enableThreadSafePointers is on.
//
//   sharedBuffer_                begin             begin + first            end of buffer
//   | room for headReserve ......| first fragment  | second fragment ......|
//
// Invariants:
//  1. The bytes end where the buffer ends, so all room left is at the head.
//  2. The fragments are adjacent in memory: a header laid over data() reads the packet's own bytes
//     even where it crosses from the first fragment into the second.
//  3. A new packet is empty, and bytes of an earlier use of its buffer cannot be read through it.
//  4. A steady flow of packets of at most kInlineCapacity bytes, no more than kMaxIdle of them at
//     once, allocates nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>

#include "runtime/vex/Ptr.h"
#include "runtime/vex/PtrInterface.h"

namespace Portus {

class Pkt final : public Vex::VFPtrInterface {
 public:
  class Manager;

  static constexpr std::size_t kInlineCapacity = 2048;
  // What the longest frame of any Linux device needs: 65,535 bytes, an Ethernet header, two tags.
  static constexpr std::size_t kMaxLength = 65535 + 14 + 8;
  // Room left at the head of a buffer that was made for a larger frame.
  static constexpr std::size_t kHeadroom = 64;

  // The first byte of the current fragment. Good until the next operation that changes the packet.
  std::uint8_t* data() noexcept { return sharedBuffer_ + currentBegin(); }
  const std::uint8_t* data() const noexcept { return sharedBuffer_ + currentBegin(); }

  // The current fragment's length, and the sum from the current fragment to the last.
  std::size_t fragmentLength() const noexcept { return fragments_[current_]; }
  std::size_t totalLength() const noexcept { return capacity_ - currentBegin(); }

  // The current fragment's bytes.
  std::span<const std::uint8_t> bytes() const noexcept { return {data(), fragmentLength()}; }

  // The first fragment is current after every operation that changes the bytes. Index 1 is the
  // second fragment; RangeException if there is none.
  std::size_t fragments() const noexcept { return fragments_[1] == 0 ? 1 : 2; }
  void currentFragmentIs(std::size_t index);

  // Puts `n` zero bytes before the packet's first fragment, which grows by them, and returns their
  // address. Asking for more than the shared buffer has left is a programming error and ends the
  // process: an empty packet has room for kInlineCapacity bytes.
  std::uint8_t* headReserve(std::size_t n);

  // Replaces the packet's bytes by a copy; the spans may be parts of this packet. RangeException if
  // there are more than kMaxLength bytes, which leaves the packet as it was. An empty `first` with
  // bytes in `second` gives one fragment.
  void bytesIs(std::span<const std::uint8_t> bytes) { bytesIs(bytes, {}); }
  void bytesIs(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second);

  // Gathers all bytes from the current fragment to the last, as many as `target` has room for, and
  // returns their number.
  std::size_t copyTo(std::span<std::uint8_t> target) const noexcept;

 protected:
  void handleZeroRef() override;

 private:
  Pkt() noexcept;
  ~Pkt() override;

  std::size_t currentBegin() const noexcept { return begin_ + (current_ == 0 ? 0 : fragments_[0]); }
  void reset() noexcept;

  // The constructor leaves the bytes as they are: nothing can read them before they are written.
  std::array<std::uint8_t, kInlineCapacity> inlineBuffer_;
  std::unique_ptr<std::uint8_t[]> heapBuffer_;  // for more bytes; given up on return to the pool
  std::uint8_t* sharedBuffer_ = inlineBuffer_.data();  // one of the two above
  std::size_t capacity_ = kInlineCapacity;
  std::size_t begin_ = kInlineCapacity;
  std::array<std::size_t, 2> fragments_{};
  std::size_t current_ = 0;
  Vex::Ptr<Manager> manager_;  // null exactly while the packet is in the pool
  Pkt* nextIdle_ = nullptr;    // the pool's list; owned by it
};

class Pkt::Manager final : public Vex::VFPtrInterface {
 public:
  static constexpr std::size_t kDefaultMaxOutstanding = 65536;
  // Idle packets kept for the next use; more than these are freed, so that a burst's memory (2 KiB
  // for each packet) is given back.
  static constexpr std::size_t kMaxIdle = 1024;

  Manager() noexcept = default;

  // An empty packet; null when the limit of outstanding packets is reached or memory is short.
  Vex::Ptr<Pkt> newPkt();

  // The limit that newPkt checks. Below the present number it takes nothing back: no packet is
  // given out until enough have returned.
  void maxOutstandingIs(std::size_t limit);
  std::size_t maxOutstanding() const;

  // Packets given out and not yet returned; packets waiting in the pool.
  std::size_t outstanding() const;
  std::size_t idle() const;

 private:
  friend class Pkt;

  ~Manager() override;

  // Takes a packet back whose last reference is gone.
  void pktReturned(Pkt* pkt) noexcept;
  std::unique_lock<std::mutex> guard() const;

  mutable std::mutex mutex_;  // guards what follows; used only with thread-safe pointers on
  std::size_t maxOutstanding_ = kDefaultMaxOutstanding;
  std::size_t outstanding_ = 0;
  std::size_t idleCount_ = 0;
  Pkt* idle_ = nullptr;
};

// The process's own manager: one for all threads, made at the first call and never destroyed, so
// that packets of static objects can be dropped at any moment of the process's exit.
const Vex::Ptr<Pkt::Manager>& globalPktManager();

}  // namespace Portus
