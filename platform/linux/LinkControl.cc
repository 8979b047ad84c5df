// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinkControl.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace Platform::Linux {
namespace {

constexpr std::size_t kBufferBytes = std::size_t{64} << 10;
// Datagrams read for one request: late answers to earlier requests are few, one each.
constexpr int kMostDatagrams = 64;

using Request = std::array<std::uint8_t, 256>;

nlmsghdr& newRequest(Request& buffer, std::uint16_t type, std::uint16_t flags, ifinfomsg info) {
  nlmsghdr* header = mnl_nlmsg_put_header(buffer.data());
  header->nlmsg_type = type;
  header->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
  std::memcpy(mnl_nlmsg_put_extra_header(header, sizeof(info)), &info, sizeof(info));
  return *header;
}

std::error_code noSuchLink() { return {ENODEV, std::system_category()}; }

// The errno value in an NLMSG_ERROR message, 0 for an acknowledgement.
std::error_code answerError(const nlmsghdr& header) {
  int code = -EPROTO;
  if (mnl_nlmsg_get_payload_len(&header) >= sizeof(nlmsgerr)) {
    std::memcpy(&code, mnl_nlmsg_get_payload(&header), sizeof(code));
  }
  return {-code, std::system_category()};
}

}  // namespace

std::error_code LinkControl::open() {
  socket_ = Fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!socket_) {
    return lastError();
  }
  timeval timeout{};
  timeout.tv_sec = kTimeoutMs / 1000;
  timeout.tv_usec = kTimeoutMs % 1000 * 1000;
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  socklen_t length = sizeof(address);
  auto* const asAddress = reinterpret_cast<sockaddr*>(&address);
  if (::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0 ||
      ::bind(socket_.get(), asAddress, length) != 0 ||
      ::getsockname(socket_.get(), asAddress, &length) != 0) {
    const std::error_code error = lastError();
    socket_.close();
    return error;
  }
  portId_ = address.nl_pid;
  buffer_.resize(kBufferBytes);
  return {};
}

std::error_code LinkControl::adminUpIs(int ifindex, bool up) {
  if (ifindex <= 0) {
    return noSuchLink();  // the kernel would take 0 for "find it by name"
  }
  ifinfomsg info{};
  info.ifi_family = AF_UNSPEC;
  info.ifi_index = ifindex;
  info.ifi_change = IFF_UP;
  info.ifi_flags = up ? IFF_UP : 0;
  alignas(nlmsghdr) Request buffer{};
  return request(newRequest(buffer, RTM_NEWLINK, NLM_F_ACK, info), nullptr);
}

std::error_code LinkControl::bridgePortStateIs(int ifindex, std::uint8_t state) {
  if (ifindex <= 0) {
    return noSuchLink();
  }
  ifinfomsg info{};
  info.ifi_family = AF_BRIDGE;
  info.ifi_index = ifindex;
  alignas(nlmsghdr) Request buffer{};
  nlmsghdr& header = newRequest(buffer, RTM_SETLINK, NLM_F_ACK, info);
  // Marked as nested by libmnl; without the mark the kernel would read the old form, one number.
  nlattr* nest = mnl_attr_nest_start(&header, IFLA_PROTINFO);
  mnl_attr_put_u8(&header, IFLA_BRPORT_STATE, state);
  mnl_attr_nest_end(&header, nest);
  return request(header, nullptr);
}

std::error_code LinkControl::protoDownIs(int ifindex, bool down, unsigned reasonBit) {
  if (ifindex <= 0) {
    return noSuchLink();
  }
  if (reasonBit > 31) {
    return {EINVAL, std::system_category()};
  }
  const std::uint32_t bit = std::uint32_t{1} << reasonBit;
  ifinfomsg info{};
  info.ifi_family = AF_UNSPEC;
  info.ifi_index = ifindex;
  alignas(nlmsghdr) Request buffer{};
  nlmsghdr& header = newRequest(buffer, RTM_SETLINK, NLM_F_ACK, info);
  // The kernel takes the reason first, so that it goes even if others keep the link down.
  nlattr* nest = mnl_attr_nest_start(&header, IFLA_PROTO_DOWN_REASON);
  mnl_attr_put_u32(&header, IFLA_PROTO_DOWN_REASON_MASK, bit);
  mnl_attr_put_u32(&header, IFLA_PROTO_DOWN_REASON_VALUE, down ? bit : 0);
  mnl_attr_nest_end(&header, nest);
  mnl_attr_put_u8(&header, IFLA_PROTO_DOWN, down ? 1 : 0);
  return request(header, nullptr);
}

std::optional<LinkInfo> LinkControl::read(int ifindex, std::error_code* error) {
  std::optional<LinkInfo> link;
  std::error_code result = noSuchLink();
  if (ifindex > 0) {
    ifinfomsg info{};
    info.ifi_family = AF_UNSPEC;
    info.ifi_index = ifindex;
    alignas(nlmsghdr) Request buffer{};
    nlmsghdr& header = newRequest(buffer, RTM_GETLINK, NLM_F_ACK, info);
    mnl_attr_put_u32(&header, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
    result = request(header, [&](const nlmsghdr& answer) {
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(&answer);
      const auto message = parseLinkMessage({bytes, answer.nlmsg_len});
      if (message && message->type == LinkMessage::Type::kNew && message->ifindex == ifindex) {
        link = linkAfter(nullptr, *message);
      }
    });
    if (!result && !link) {
      result = {EPROTO, std::system_category()};
    }
  }
  if (error != nullptr) {
    *error = result;
  }
  return result ? std::nullopt : link;
}

// Sends and waits for the acknowledgement; `answer` gets what comes before it.
std::error_code LinkControl::request(nlmsghdr& header, const Answer& answer) {
  sequence_ = sequence_ + 1 == 0 ? 1 : sequence_ + 1;
  header.nlmsg_seq = sequence_;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(socket_.get(), &header, header.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel),
               sizeof(kernel)) < 0) {
    return lastError();
  }
  for (int datagrams = 0; datagrams < kMostDatagrams; ++datagrams) {
    sockaddr_nl sender{};
    socklen_t senderLength = sizeof(sender);
    const ssize_t length = ::recvfrom(socket_.get(), buffer_.data(), buffer_.size(), 0,
                                      reinterpret_cast<sockaddr*>(&sender), &senderLength);
    if (length < 0) {
      if (errno == EINTR) {
        continue;
      }
      return lastError();
    }
    if (sender.nl_pid != 0) {
      continue;
    }
    std::size_t begin = 0;
    const auto end = static_cast<std::size_t>(length);
    while (begin < end) {
      const auto& message = *reinterpret_cast<const nlmsghdr*>(buffer_.data() + begin);
      const std::size_t size = netlinkMessageSize({buffer_.data() + begin, end - begin});
      if (size == 0) {
        break;
      }
      begin += netlinkAligned(size);
      if (message.nlmsg_seq != sequence_ || message.nlmsg_pid != portId_) {
        continue;
      }
      if (message.nlmsg_type == NLMSG_ERROR) {
        return answerError(message);
      }
      if (answer) {
        answer(message);
      }
    }
  }
  return std::make_error_code(std::errc::timed_out);
}

}  // namespace Platform::Linux
