// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/PacketSocket.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/linux/FrameRebuild.h"
#include "platform/linux/SourceGuard.h"

namespace Platform::Linux {
namespace {

constexpr std::size_t kSliceFrames = 32;
constexpr std::size_t kSourceOffset = 6;
constexpr std::size_t kSendBuffer = std::size_t{1} << 20;
// Reads that may fail in a row before the rest is left to the next call.
constexpr int kReadAttempts = 8;

std::error_code filterIs(const Fd& fd, std::span<const sock_filter> program) {
  // The kernel copies the program and does not write to it; its length field has 16 bits.
  if (program.size() > BPF_MAXINSNS) {
    return {EINVAL, std::system_category()};
  }
  sock_fprog argument{};
  argument.len = static_cast<unsigned short>(program.size());
  argument.filter = const_cast<sock_filter*>(program.data());
  if (::setsockopt(fd.get(), SOL_SOCKET, SO_ATTACH_FILTER, &argument, sizeof(argument)) != 0) {
    return lastError();
  }
  return {};
}

// Protocol 0 receives nothing until it is bound.
Fd newPacketSocket() { return Fd(::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)); }

std::error_code bindToAll(const Fd& fd) {
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_ALL);
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return lastError();
  }
  return {};
}

std::error_code ignoreOutgoing(const Fd& fd) {
  const std::error_code error = socketOptionIs(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, 1);
  // Kernels before 4.20 have no such option; outgoing frames are then dropped one by one.
  return error == std::errc::no_protocol_option ? std::error_code() : error;
}

// Frames since the last call, dropped ones included, and dropped ones alone.
tpacket_stats takeStatistics(const Fd& fd) {
  tpacket_stats counts{};
  socklen_t length = sizeof(counts);
  if (!fd || ::getsockopt(fd.get(), SOL_PACKET, PACKET_STATISTICS, &counts, &length) != 0) {
    return {};
  }
  return counts;
}

tpacket_auxdata auxdataOf(msghdr& message) {
  tpacket_auxdata auxdata{};
  for (cmsghdr* control = CMSG_FIRSTHDR(&message); control != nullptr;
       control = CMSG_NXTHDR(&message, control)) {
    if (control->cmsg_level == SOL_PACKET && control->cmsg_type == PACKET_AUXDATA &&
        control->cmsg_len >= CMSG_LEN(sizeof(auxdata))) {
      std::memcpy(&auxdata, CMSG_DATA(control), sizeof(auxdata));
    }
  }
  return auxdata;
}

sockaddr_ll addressOf(const OutgoingFrame& frame) {
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_ifindex = frame.ifindex;
  address.sll_halen = ETH_ALEN;
  std::copy_n(frame.bytes.begin(), std::min<std::size_t>(frame.bytes.size(), ETH_ALEN),
              address.sll_addr);
  return address;
}

bool comesFrom(std::span<const std::uint8_t> frame, const Portus::EthAddr& source) {
  return frame.size() >= kSourceOffset + ETH_ALEN &&
         std::equal(source.bytes().begin(), source.bytes().end(), frame.begin() + kSourceOffset);
}

}  // namespace

// The buffers of one system call, and which of its frames are still to be handled.
struct PacketSocket::Slice {
  struct Entry {
    sockaddr_ll address;
    iovec vector;
    alignas(cmsghdr) std::array<std::uint8_t, CMSG_SPACE(sizeof(tpacket_auxdata))> control;
    std::array<std::uint8_t, kFrameHeadroom + kLargestFrame> bytes;
  };

  std::array<Entry, kSliceFrames> entries;
  std::array<mmsghdr, kSliceFrames> headers;
  std::size_t next = 0;
  std::size_t count = 0;
};

// What one system call needs to send a batch.
struct PacketSocket::Outgoing {
  std::array<sockaddr_ll, kMostOutgoing> addresses{};
  std::array<iovec, kMostOutgoing> vectors{};
  std::array<mmsghdr, kMostOutgoing> headers{};
};

PacketSocket::PacketSocket(const PacketSocketConfig& config)
    : config_(config),
      source_(config.source),
      slice_(std::make_unique<Slice>()),
      outgoing_(std::make_unique<Outgoing>()) {}

PacketSocket::~PacketSocket() = default;

std::error_code PacketSocket::open() {
  close();
  std::error_code error = openReceive();
  if (!error) {
    error = openSend();
  }
  if (!error && source_) {
    error = countForeign();
  }
  if (error) {
    close();
  }
  return error;
}

void PacketSocket::close() {
  readKernelCounters();
  receive_.close();
  foreign_.close();
  send_.close();
  slice_->next = slice_->count = 0;
}

std::error_code PacketSocket::openReceive() {
  receive_ = newPacketSocket();
  if (!receive_) {
    return lastError();
  }
  if (const auto error = attachSourceFilter()) {
    return error;
  }
  if (const auto error = ignoreOutgoing(receive_)) {
    return error;
  }
  if (const auto error = socketOptionIs(receive_, SOL_PACKET, PACKET_AUXDATA, 1)) {
    return error;
  }
  if (const auto error = receiveBufferIs(receive_, config_.receiveBuffer)) {
    return error;
  }
  return bindToAll(receive_);
}

std::error_code PacketSocket::openSend() {
  send_ = newPacketSocket();
  if (!send_) {
    return lastError();
  }
  if (const auto error = sendBufferIs(send_, kSendBuffer)) {
    return error;
  }
  return socketOptionIs(send_, SOL_SOCKET, SO_PRIORITY, config_.priority);
}

std::error_code PacketSocket::attachSourceFilter() {
  const auto program = config_.filter.instructions();
  return source_ ? filterIs(receive_, onlyFrom(*source_, program)) : filterIs(receive_, program);
}

// REQUIRES: a source. The kernel counts each frame that passes the filter of a socket, queued or
// not, so the smallest queue that there is will do and fills up once.
std::error_code PacketSocket::countForeign() {
  const auto program = exceptFrom(*source_, config_.filter.instructions());
  if (foreign_) {
    return filterIs(foreign_, program);
  }
  Fd fd = newPacketSocket();
  if (!fd) {
    return lastError();
  }
  if (const auto error = filterIs(fd, program)) {
    return error;
  }
  if (const auto error = ignoreOutgoing(fd)) {
    return error;
  }
  // The kernel raises 0 to its minimum.
  if (const auto error = socketOptionIs(fd, SOL_SOCKET, SO_RCVBUF, 0)) {
    return error;
  }
  if (const auto error = bindToAll(fd)) {
    return error;
  }
  foreign_ = std::move(fd);
  return {};
}

std::error_code PacketSocket::sourceIs(const std::optional<Portus::EthAddr>& source) {
  if (source == source_) {
    return {};
  }
  source_ = source;
  if (!receive_) {
    return {};
  }
  // The new filter first: a frame between the two steps is then missed by the count at worst, while
  // the other order would count it twice.
  const std::error_code attached = attachSourceFilter();
  if (!source_) {
    readKernelCounters();
    foreign_.close();
    return attached;
  }
  const std::error_code counted = countForeign();
  return attached ? attached : counted;
}

std::size_t PacketSocket::receiveBatch(const Sink& sink, std::size_t maxFrames) {
  std::size_t handled = 0;
  while (handled < maxFrames) {
    if (slice_->next == slice_->count && fillSlice(maxFrames - handled) == 0) {
      break;
    }
    ++handled;
    handleFrame(slice_->next++, sink);
  }
  return handled;
}

// Returns how many frames there are now; 0: none is waiting.
std::size_t PacketSocket::fillSlice(std::size_t most) {
  slice_->next = slice_->count = 0;
  if (!receive_) {
    return 0;
  }
  const std::size_t wanted = std::min(most, kSliceFrames);
  for (std::size_t i = 0; i < wanted; ++i) {
    Slice::Entry& entry = slice_->entries[i];
    entry.vector = {entry.bytes.data() + kFrameHeadroom, kLargestFrame};
    msghdr& message = slice_->headers[i].msg_hdr;
    message = msghdr{};
    message.msg_name = &entry.address;
    message.msg_namelen = sizeof(entry.address);
    message.msg_iov = &entry.vector;
    message.msg_iovlen = 1;
    message.msg_control = entry.control.data();
    message.msg_controllen = entry.control.size();
  }
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    const int count = ::recvmmsg(receive_.get(), slice_->headers.data(),
                                 static_cast<unsigned>(wanted), MSG_DONTWAIT, nullptr);
    if (count >= 0) {
      slice_->count = static_cast<std::size_t>(count);
      return slice_->count;
    }
    if (errno == EAGAIN) {
      return 0;
    }
    // ENETDOWN and ENOBUFS are told once and say nothing of the frames behind them.
    if (errno != EINTR) {
      ++statistics_.receiveErrors;
    }
  }
  return 0;
}

void PacketSocket::handleFrame(std::size_t index, const Sink& sink) {
  Slice::Entry& entry = slice_->entries[index];
  msghdr& message = slice_->headers[index].msg_hdr;
  if (entry.address.sll_pkttype == PACKET_OUTGOING) {
    return;
  }
  const std::size_t length = std::min<std::size_t>(slice_->headers[index].msg_len, kLargestFrame);
  const std::span<const std::uint8_t> frame =
      rebuildFrame(std::span(entry.bytes).first(kFrameHeadroom + length), auxdataOf(message));
  const std::uint32_t accepted = config_.filter.accept(frame);
  if (accepted == 0) {
    ++statistics_.rejectedByRule;
    return;
  }
  if (source_ && !comesFrom(frame, *source_)) {
    ++statistics_.foreign;  // queued before the guard was set
    return;
  }
  ReceivedFrame received;
  received.ifindex = entry.address.sll_ifindex;
  received.bytes = frame.first(std::min<std::size_t>(accepted, frame.size()));
  received.truncated = (message.msg_flags & MSG_TRUNC) != 0;
  ++statistics_.received;
  statistics_.truncated += received.truncated ? 1U : 0U;
  sink(received);
}

std::error_code PacketSocket::send(int ifindex, std::span<const std::uint8_t> frame) {
  const sockaddr_ll address = addressOf({ifindex, frame});
  ssize_t sent = 0;
  do {
    sent = ::sendto(send_.get(), frame.data(), frame.size(), MSG_DONTWAIT,
                    reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) {
    const std::error_code error = lastError();
    countSendError(error.value());
    return error;
  }
  ++statistics_.sent;
  return {};
}

void PacketSocket::send(std::span<const OutgoingFrame> frames, const Failed& failed) {
  for (std::size_t i = 0; i < frames.size(); ++i) {
    outgoing_->addresses[i] = addressOf(frames[i]);
    // The kernel only reads what is sent.
    outgoing_->vectors[i] = {const_cast<std::uint8_t*>(frames[i].bytes.data()),
                             frames[i].bytes.size()};
    msghdr& message = outgoing_->headers[i].msg_hdr;
    message.msg_name = &outgoing_->addresses[i];
    message.msg_namelen = sizeof(sockaddr_ll);
    message.msg_iov = &outgoing_->vectors[i];
    message.msg_iovlen = 1;
  }
  for (std::size_t next = 0; next < frames.size();) {
    const int sent = ::sendmmsg(send_.get(), &outgoing_->headers[next],
                                static_cast<unsigned>(frames.size() - next), MSG_DONTWAIT);
    if (sent > 0) {
      statistics_.sent += static_cast<std::uint64_t>(sent);
      next += static_cast<std::size_t>(sent);
    } else if (errno != EINTR) {
      // An error is that of the first frame; one further on ends the call before it.
      const std::error_code error = lastError();
      countSendError(error.value());
      failed(next, error);
      ++next;
    }
  }
}

void PacketSocket::countSendError(int error) {
  SendErrors& errors = statistics_.sendErrors;
  switch (error) {
    case ENETDOWN:
      ++errors.netDown;
      break;
    case ENOBUFS:
      ++errors.noBuffers;
      break;
    case ENXIO:
    case ENODEV:
      ++errors.noDevice;
      break;
    case EAGAIN:
      ++errors.wouldBlock;
      break;
    case EMSGSIZE:
      ++errors.messageSize;
      break;
    case EINVAL:
      ++errors.invalid;
      break;
    default:
      ++errors.other;
      break;
  }
}

void PacketSocket::readKernelCounters() {
  statistics_.kernelDrops += takeStatistics(receive_).tp_drops;
  statistics_.foreign += takeStatistics(foreign_).tp_packets;
}

const PacketSocket::Statistics& PacketSocket::statistics() {
  readKernelCounters();
  return statistics_;
}

}  // namespace Platform::Linux
