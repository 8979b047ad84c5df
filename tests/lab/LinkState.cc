// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/LinkState.h"

#include <linux/if.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace RingwardLab {

namespace {

using Bytes = std::span<const std::uint8_t>;

std::size_t aligned4(std::size_t size) { return (size + 3U) & ~std::size_t{3U}; }

template <typename T>
T readAs(Bytes bytes) {
  T value{};
  std::memcpy(&value, bytes.data(), std::min(sizeof value, bytes.size()));
  return value;
}

template <typename Each>
void forEachAttribute(Bytes bytes, const Each& each) {
  while (bytes.size() >= sizeof(rtattr)) {
    const auto header = readAs<rtattr>(bytes);
    if (header.rta_len < sizeof(rtattr) || header.rta_len > bytes.size()) {
      return;
    }
    each(header.rta_type & NLA_TYPE_MASK,
         bytes.subspan(sizeof(rtattr), header.rta_len - sizeof(rtattr)));
    bytes = bytes.subspan(std::min(aligned4(header.rta_len), bytes.size()));
  }
}

std::string textOf(Bytes bytes) {
  const auto end = std::find(bytes.begin(), bytes.end(), std::uint8_t{0});
  return {bytes.begin(), end};
}

void readPortAttributes(Bytes bytes, LinkState& state) {
  forEachAttribute(bytes, [&](int type, Bytes value) {
    if (type == IFLA_BRPORT_STATE) {
      state.portState = readAs<std::uint8_t>(value);
    }
  });
}

struct Request {
  nlmsghdr header;
  ifinfomsg info;
  rtattr attribute;
  char name[IFNAMSIZ];
};

void sendRequest(int fd, Request& request, std::size_t size) {
  request.header.nlmsg_len = static_cast<std::uint32_t>(size);
  request.header.nlmsg_type = RTM_GETLINK;
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (sendto(fd, &request, size, 0, reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel) <
      0) {
    throw std::system_error(errno, std::generic_category(), "asking the kernel about links");
  }
}

}  // namespace

void LinkMessage::applyTo(LinkState& state) const {
  if (fromBridge && removed) {  // The port has left its bridge; the interface lives on.
    state.portState.reset();
    state.master = 0;
    return;
  }
  state.index = index;
  state.adminUp = adminUp;
  state.running = running;
  if (!fromBridge) {
    state.master = 0;  // The attribute is absent for a link without a master.
  }
  forEachAttribute(attributes, [&](int type, Bytes value) {
    switch (type) {
      case IFLA_IFNAME:
        state.name = textOf(value);
        break;
      case IFLA_ADDRESS:
        state.address = readAs<MacAddress>(value);
        break;
      case IFLA_MASTER:
        state.master = readAs<int>(value);
        break;
      case IFLA_STATS64: {
        const auto counters = readAs<rtnl_link_stats64>(value);
        state.rxFrames = counters.rx_packets;
        state.txFrames = counters.tx_packets;
        break;
      }
      case IFLA_LINKINFO:
        forEachAttribute(value, [&](int infoType, Bytes info) {
          if (infoType == IFLA_INFO_KIND) {
            state.isBridge = textOf(info) == "bridge";
          }
        });
        break;
      case IFLA_PROTINFO:
        if (fromBridge) {
          readPortAttributes(value, state);
        }
        break;
      default:
        break;
    }
  });
}

LinkSocket::LinkSocket(unsigned groups)
    : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {
  if (fd_ < 0) {
    throw std::system_error(errno, std::generic_category(), "opening a netlink socket");
  }
  // Room for a burst of notifications; the plain call is the fall-back where forcing is not
  // allowed.
  const int room = 8 << 20;
  if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) < 0) {
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
  }
  sockaddr_nl self{};
  self.nl_family = AF_NETLINK;
  self.nl_groups = groups;
  if (bind(fd_, reinterpret_cast<const sockaddr*>(&self), sizeof self) < 0) {
    const int error = errno;
    close(fd_);
    throw std::system_error(error, std::generic_category(), "binding a netlink socket");
  }
}

LinkSocket::~LinkSocket() { close(fd_); }

void LinkSocket::requestAll(bool fromBridge) {
  Request request{};
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.info.ifi_family = fromBridge ? AF_BRIDGE : AF_UNSPEC;
  sendRequest(fd_, request, offsetof(Request, attribute));
}

bool LinkSocket::receive(const std::function<void(const LinkMessage&)>& each, bool* dumpEnded) {
  std::array<std::uint8_t, 64 * 1024> buffer;
  ssize_t size = 0;
  do {
    size = recv(fd_, buffer.data(), buffer.size(), 0);
  } while (size < 0 && errno == EINTR);
  if (size < 0) {
    if (errno == ENOBUFS) {
      return false;
    }
    throw std::system_error(errno, std::generic_category(), "reading from a netlink socket");
  }
  Bytes rest(buffer.data(), static_cast<std::size_t>(size));
  while (rest.size() >= sizeof(nlmsghdr)) {
    const auto header = readAs<nlmsghdr>(rest);
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > rest.size()) {
      break;
    }
    const Bytes body =
        rest.subspan(sizeof(nlmsghdr), header.nlmsg_len - std::uint32_t{sizeof(nlmsghdr)});
    if ((header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR) &&
        dumpEnded != nullptr) {
      *dumpEnded = true;
    }
    if ((header.nlmsg_type == RTM_NEWLINK || header.nlmsg_type == RTM_DELLINK) &&
        body.size() >= sizeof(ifinfomsg)) {
      const auto info = readAs<ifinfomsg>(body);
      const Bytes attributes = body.subspan(sizeof(ifinfomsg));
      LinkMessage message;
      message.index = info.ifi_index;
      message.removed = header.nlmsg_type == RTM_DELLINK;
      message.fromBridge = info.ifi_family == AF_BRIDGE;
      message.adminUp = (info.ifi_flags & IFF_UP) != 0;
      message.running = (info.ifi_flags & IFF_RUNNING) != 0;
      message.attributes.assign(attributes.begin(), attributes.end());
      each(message);
    }
    rest = rest.subspan(std::min(aligned4(header.nlmsg_len), rest.size()));
  }
  return true;
}

std::optional<LinkState> LinkSocket::link(const std::string& name) {
  Request request{};
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.attribute.rta_type = IFLA_IFNAME;
  request.attribute.rta_len = static_cast<unsigned short>(sizeof(rtattr) + IFNAMSIZ);
  name.copy(request.name, IFNAMSIZ - 1);
  sendRequest(fd_, request, sizeof request);
  std::optional<LinkState> result;
  bool failed = false;
  const auto read = [&](const LinkMessage& message) {
    result.emplace();
    message.applyTo(*result);
    // A direct answer carries the port's state beside the kind of its master.
    forEachAttribute(message.attributes, [&](int type, Bytes value) {
      if (type != IFLA_LINKINFO) {
        return;
      }
      bool isPort = false;
      forEachAttribute(value, [&](int infoType, Bytes info) {
        if (infoType == IFLA_INFO_SLAVE_KIND) {
          isPort = textOf(info) == "bridge";
        } else if (infoType == IFLA_INFO_SLAVE_DATA && isPort) {
          readPortAttributes(info, *result);
        }
      });
    });
  };
  while (!result && !failed) {
    receive(read, &failed);
  }
  return result;
}

}  // namespace RingwardLab
