// SPDX-License-Identifier: Apache-2.0
//
// Platform::Linux::PacketSocket: receives and sends whole Ethernet frames on all interfaces of a
// network namespace through one shared packet(7) socket.
//
// Belongs to the thread of its loop: wait until fd() is readable, then call receiveBatch(). The
// namespace is that of the thread that calls open(). Needs CAP_NET_RAW, and CAP_NET_ADMIN for the
// full receive buffer. The bytes given to a sink are good during the call only; the sink may send
// and may change the source, but must neither call receiveBatch() nor end the object. Invariants:
//   1. Not one frame is queued that the filter has not seen: the socket is bound only after the
//   filter
//      is attached.
//   2. A delivered frame is byte for byte what was on the wire (FrameRebuild.h), and in that form
//   it
//      passes the filter and the source guard; the kernel runs the filter on frames without their
//      outer tag and so lets through more than it should.
//   3. Frames that this host sends are never delivered.
//   4. No state of an interface ends reception: interfaces may go down, vanish and come at any
//   time.
//   5. No failed send is fatal; each is returned and counted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <system_error>

#include "platform/linux/Fd.h"
#include "runtime/portus/EthAddr.h"
#include "runtime/portus/PacketFilter.h"

namespace Platform::Linux {

struct PacketSocketConfig {
  Portus::PacketFilter filter;
  int priority = 0;  // of sent frames, 0..15 (SO_PRIORITY); above 6 needs CAP_NET_ADMIN

  // Bytes of kernel memory for frames not yet read; 16 MiB hold 20,000 small frames. Less,
  // silently, without CAP_NET_ADMIN (net.core.rmem_max).
  std::size_t receiveBuffer = std::size_t{16} << 20;

  // With a value, frames from any other source address are dropped in the kernel and counted.
  std::optional<Portus::EthAddr> source;
};

struct OutgoingFrame {
  int ifindex = 0;
  std::span<const std::uint8_t> bytes;
};

struct ReceivedFrame {
  int ifindex = 0;
  std::span<const std::uint8_t> bytes;
  bool truncated = false;  // was longer than kLargestFrame; the rest is lost
};

class PacketSocket {
 public:
  using Sink = std::function<void(const ReceivedFrame&)>;

  // Bytes of a frame as read, that is without an outer tag that the kernel took off.
  static constexpr std::size_t kLargestFrame = 2048;

  // Failed sends by cause: ENETDOWN, ENOBUFS (a full or dropping queue), ENXIO or ENODEV, EAGAIN
  // (the send buffer is full), EMSGSIZE (above the MTU), EINVAL (below 14 bytes), all else.
  struct SendErrors {
    std::uint64_t netDown = 0;
    std::uint64_t noBuffers = 0;
    std::uint64_t noDevice = 0;
    std::uint64_t wouldBlock = 0;
    std::uint64_t messageSize = 0;
    std::uint64_t invalid = 0;
    std::uint64_t other = 0;

    bool operator==(const SendErrors&) const = default;
  };

  // Counts since construction, kept over a reopening.
  struct Statistics {
    std::uint64_t received = 0;  // given to a sink
    std::uint64_t rejectedByRule =
        0;  // passed the kernel's filter, but not in the form of the wire
    // Passed the filter but not the source guard. Frames with two tags or a service tag, which only
    // the form of the wire would have rejected, are counted here if their source is foreign.
    std::uint64_t foreign = 0;
    std::uint64_t kernelDrops = 0;    // the receive buffer was full
    std::uint64_t truncated = 0;      // of `received`
    std::uint64_t receiveErrors = 0;  // failed reads, without EAGAIN and EINTR
    std::uint64_t sent = 0;
    SendErrors sendErrors;
  };

  explicit PacketSocket(const PacketSocketConfig& config);
  ~PacketSocket();
  PacketSocket(const PacketSocket&) = delete;
  PacketSocket& operator=(const PacketSocket&) = delete;

  // Errors: those of socket(2), of setsockopt(2) for the filter and the priority, and of bind(2);
  // everything is closed then. Open already: opens anew, which loses queued frames.
  std::error_code open();
  void close();

  int fd() const { return receive_.get(); }  // -1 while closed

  // Reads at most `maxFrames` frames without waiting and gives each that passes to `sink`. Returns
  // the number of frames read, passed or not: fewer than `maxFrames` means that the queue was
  // empty. An exception of the sink passes through; the next call goes on with the frame behind.
  std::size_t receiveBatch(const Sink& sink, std::size_t maxFrames);

  // From now on deliver only frames from this address; none: from all. Frames already queued are
  // held to it too. On an error the guard still holds, but dropped frames may not be counted, or
  // not be dropped before they reach this process. An equal value does nothing.
  std::error_code sourceIs(const std::optional<Portus::EthAddr>& source);
  const std::optional<Portus::EthAddr>& source() const { return source_; }

  // One attempt without waiting; no error: the frame is with the interface's queue.
  std::error_code send(int ifindex, std::span<const std::uint8_t> frame);

  // The frames of a batch that is sent at once.
  static constexpr std::size_t kMostOutgoing = 64;

  // As send() for each frame in order, with one system call for all that follow each other without
  // an error: in a row they cost little more than half. `failed` is called with the position and
  // the error of each frame that was not sent. REQUIRES: at most kMostOutgoing frames.
  using Failed = std::function<void(std::size_t position, std::error_code error)>;
  void send(std::span<const OutgoingFrame> frames, const Failed& failed);

  // Not const: reading the kernel's counters resets them. They have 32 bits, so at 1,000,000
  // foreign frames a second this is to be called at least once an hour.
  const Statistics& statistics();

 private:
  struct Slice;
  struct Outgoing;

  std::error_code openReceive();
  std::error_code openSend();
  std::error_code countForeign();
  std::error_code attachSourceFilter();
  std::size_t fillSlice(std::size_t most);
  void handleFrame(std::size_t index, const Sink& sink);
  void readKernelCounters();
  void countSendError(int error);

  const PacketSocketConfig config_;
  std::optional<Portus::EthAddr> source_;
  Fd receive_;
  Fd foreign_;  // never read: its kernel counter counts what the guard drops; open while there is
                // one
  Fd send_;
  std::unique_ptr<Slice> slice_;
  std::unique_ptr<Outgoing> outgoing_;
  Statistics statistics_;
};

}  // namespace Platform::Linux
