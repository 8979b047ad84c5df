// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinkMonitor.h"

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace Platform::Linux {
namespace {

// A dump comes in datagrams of up to 32 KiB; only a single link with very many virtual functions
// could need more, and then the buffer grows.
constexpr std::size_t kFirstBuffer = std::size_t{64} << 10;
constexpr int kStartRetries = 100;

sockaddr_nl kernelAddress() {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  return address;
}

}  // namespace

std::error_code LinkMonitor::open() {
  socket_ = Fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  if (!socket_) {
    return lastError();
  }
  if (const auto error = receiveBufferIs(socket_, config_.receiveBuffer)) {
    return error;
  }
  const sockaddr_nl address = kernelAddress();
  if (::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return lastError();
  }
  sockaddr_nl bound{};
  socklen_t length = sizeof(bound);
  if (::getsockname(socket_.get(), reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
    return lastError();
  }
  portId_ = bound.nl_pid;
  return socketOptionIs(socket_, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, RTNLGRP_LINK);
}

std::error_code LinkMonitor::start() {
  buffer_.resize(kFirstBuffer);
  begin_ = end_ = 0;
  phase_ = Phase::kIdle;
  dumpError_.clear();
  std::error_code error = open();
  resyncDue_ = true;
  for (int retries = 0; !error && !inSync();) {
    if (process(1024)) {
      continue;
    }
    if (dumpError_) {
      // What a busy or short-of-memory kernel says; the next process() asks again.
      const bool passing = dumpError_ == std::errc::device_or_resource_busy ||
                           dumpError_ == std::errc::no_buffer_space;
      if (!passing || ++retries > kStartRetries) {
        error = dumpError_;
      }
    } else if (!inSync()) {
      pollfd waiting{socket_.get(), POLLIN, 0};
      const int ready = ::poll(&waiting, 1, kStartTimeoutMs);
      if (ready == 0) {
        error = std::make_error_code(std::errc::timed_out);
      } else if (ready < 0 && errno != EINTR) {
        error = lastError();
      }
    }
  }
  if (error) {
    socket_.close();
  }
  return error;
}

void LinkMonitor::resync() { resyncDue_ = true; }

std::error_code LinkMonitor::dumpRequestIs(Phase phase) {
  const bool ports = phase == Phase::kDumpPorts;
  const std::uint8_t family = ports ? AF_BRIDGE : AF_UNSPEC;
  alignas(nlmsghdr) std::array<char, 128> request{};
  nlmsghdr* header = mnl_nlmsg_put_header(request.data());
  header->nlmsg_type = RTM_GETLINK;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  // Never 0, the number of events.
  sequence_ = sequence_ + 1 == 0 ? 1 : sequence_ + 1;
  header->nlmsg_seq = sequence_;
  auto* info = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(header, sizeof(ifinfomsg)));
  info->ifi_family = family;
  mnl_attr_put_u32(header, IFLA_EXT_MASK,
                   ports ? RTEXT_FILTER_BRVLAN_COMPRESSED : RTEXT_FILTER_SKIP_STATS);
  const sockaddr_nl address = kernelAddress();
  if (::sendto(socket_.get(), header, header->nlmsg_len, 0,
               reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
    return lastError();
  }
  interrupted_ = false;
  phase_ = phase;
  table_.dumpBegin(family);
  return {};
}

// Tried again by the next process(): a caller that calls once in a while is what paces it.
void LinkMonitor::dumpFailed(std::error_code error) {
  phase_ = Phase::kIdle;
  resyncDue_ = true;
  dumpError_ = error;
}

bool LinkMonitor::process(std::size_t maxMessages) {
  dumpError_.clear();
  for (std::size_t done = 0; done < maxMessages && !dumpError_; ++done) {
    if (phase_ == Phase::kSweepLinks || phase_ == Phase::kSweepPorts) {
      if (!sweepStep()) {
        return false;
      }
    } else if (begin_ < end_) {
      handleNext();
    } else {
      const Read read = receive();
      if (read == Read::kLost) {
        resyncDue_ = true;
      } else if (read == Read::kNothing && !idleStep()) {
        return false;
      }
    }
  }
  return !dumpError_;
}

// With the queue empty there is room for a dump, so asking for one now cannot overrun at once.
// False: there is nothing left to do.
bool LinkMonitor::idleStep() {
  if (dumpError_) {
    return false;
  }
  if (phase_ != Phase::kIdle) {
    // The kernel queues the next part of a dump before it hands out the last, so an empty queue
    // means that it ran out of memory. A new request makes it go on with, or else replace, the old
    // dump.
    dumpFailed(std::make_error_code(std::errc::no_buffer_space));
    return false;
  }
  if (!resyncDue_) {
    return false;
  }
  resyncDue_ = false;
  if (const auto error = dumpRequestIs(Phase::kDumpLinks)) {
    dumpFailed(error);
  }
  return !dumpError_;
}

// One step of the end of a dump. False: the next dump could not be asked for.
bool LinkMonitor::sweepStep() {
  const bool links = phase_ == Phase::kSweepLinks;
  if (const auto change = table_.unseenDel(links ? AF_UNSPEC : AF_BRIDGE)) {
    tell(change);
    return true;
  }
  if (links) {
    if (const auto error = dumpRequestIs(Phase::kDumpPorts)) {
      dumpFailed(error);
      return false;
    }
    return true;
  }
  phase_ = Phase::kIdle;
  if (everInSync_) {
    ++statistics_.resyncs;
  }
  everInSync_ = true;
  return true;
}

LinkMonitor::Read LinkMonitor::receive() {
  sockaddr_nl sender{};
  iovec vector{buffer_.data(), buffer_.size()};
  msghdr message{};
  message.msg_name = &sender;
  message.msg_namelen = sizeof(sender);
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  const ssize_t length = ::recvmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_TRUNC);
  if (length < 0) {
    if (errno == ENOBUFS) {
      ++statistics_.overruns;
      return Read::kLost;
    }
    if (errno == EINTR) {
      return Read::kData;
    }
    if (errno != EAGAIN) {
      dumpError_ = lastError();
    }
    return Read::kNothing;
  }
  if (sender.nl_pid != 0) {
    return Read::kData;
  }
  if ((message.msg_flags & MSG_TRUNC) != 0) {
    buffer_.resize(static_cast<std::size_t>(length));
    // The end of a dump may have been in what was cut off.
    phase_ = Phase::kIdle;
    return Read::kLost;
  }
  begin_ = 0;
  end_ = static_cast<std::size_t>(length);
  return Read::kData;
}

void LinkMonitor::handleNext() {
  const std::span<const std::uint8_t> rest(buffer_.data() + begin_, end_ - begin_);
  const auto& header = *reinterpret_cast<const nlmsghdr*>(rest.data());
  const std::size_t size = netlinkMessageSize(rest);
  if (size == 0) {
    begin_ = end_;
    ++statistics_.malformed;
    dumpFailed(std::make_error_code(std::errc::bad_message));
    return;
  }
  begin_ = std::min(end_, begin_ + netlinkAligned(size));
  const bool dumping = phase_ == Phase::kDumpLinks || phase_ == Phase::kDumpPorts;
  if (dumping && header.nlmsg_seq == sequence_ && header.nlmsg_pid == portId_) {
    handleDump(header);
  }
  if (header.nlmsg_type != RTM_NEWLINK && header.nlmsg_type != RTM_DELLINK) {
    return;
  }
  if (const auto message = parseLinkMessage(rest.first(size))) {
    ++statistics_.messages;
    tell(table_.messageIs(*message));
  } else {
    ++statistics_.malformed;
  }
}

void LinkMonitor::handleDump(const nlmsghdr& header) {
  interrupted_ = interrupted_ || (header.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
  if (header.nlmsg_type == NLMSG_ERROR || header.nlmsg_type == NLMSG_DONE) {
    // Both open with a negative errno value; an end without an error has 0 or nothing at all.
    int code = 0;
    if (mnl_nlmsg_get_payload_len(&header) >= sizeof(code)) {
      std::memcpy(&code, mnl_nlmsg_get_payload(&header), sizeof(code));
    }
    if (header.nlmsg_type == NLMSG_ERROR || code < 0) {
      dumpFailed({code < 0 ? -code : EPROTO, std::system_category()});
      return;
    }
    if (interrupted_ || resyncDue_) {
      // Links may be missing from this dump that exist: nothing may be deleted on its word.
      phase_ = Phase::kIdle;
      resyncDue_ = true;
    } else {
      phase_ = phase_ == Phase::kDumpLinks ? Phase::kSweepLinks : Phase::kSweepPorts;
    }
  }
}

void LinkMonitor::tell(const std::optional<LinkTable::Change>& change) {
  if (!change) {
    return;
  }
  if (change->now == nullptr) {
    listener_.linkDel(*change->before);
  } else {
    listener_.linkIs(*change->now, change->before ? &*change->before : nullptr);
  }
}

}  // namespace Platform::Linux
