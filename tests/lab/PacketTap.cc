// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/PacketTap.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sched.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <iterator>
#include <system_error>

namespace RingwardLab {

namespace {

constexpr std::uint16_t kProbeType = 0x88B7;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Accepts the probes' ether type at the place where it stands without and with a tag in the data.
void filterProbes(int fd) {
  sock_filter program[] = {
      {BPF_LD | BPF_H | BPF_ABS, 0, 0, 12}, {BPF_JMP | BPF_JEQ | BPF_K, 2, 0, kProbeType},
      {BPF_LD | BPF_H | BPF_ABS, 0, 0, 16}, {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, kProbeType},
      {BPF_RET | BPF_K, 0, 0, 0xFFFF},      {BPF_RET | BPF_K, 0, 0, 0},
  };
  const sock_fprog filter{static_cast<unsigned short>(std::size(program)), program};
  if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) < 0) {
    fail("attaching a filter");
  }
}

std::chrono::nanoseconds span(const timespec& time) {
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// The kernel stamps frames with the wall clock; the lab reckons with the steady one.
Clock::time_point steady(const timespec& stamp) {
  timespec wall{};
  clock_gettime(CLOCK_REALTIME, &wall);
  return Clock::now() - (span(wall) - span(stamp));
}

void putTagBack(std::vector<std::uint8_t>& frame, const tpacket_auxdata& aux) {
  constexpr std::size_t kAddresses = 12;
  if ((aux.tp_status & TP_STATUS_VLAN_VALID) == 0 || frame.size() < kAddresses) {
    return;
  }
  const std::uint16_t type =
      (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0 ? aux.tp_vlan_tpid : ETH_P_8021Q;
  std::array<std::uint8_t, 4> tag{};
  for (std::size_t i = 0; i < 2; ++i) {
    tag[i] = static_cast<std::uint8_t>(type >> (8 - 8 * i));
    tag[2 + i] = static_cast<std::uint8_t>(aux.tp_vlan_tci >> (8 - 8 * i));
  }
  frame.insert(frame.begin() + kAddresses, tag.begin(), tag.end());
}

}  // namespace

int openTap(const Lab& lab, const std::string& host, const std::string& port, Keep keep,
            int receiveBuffer) {
  const int index = port.empty() ? 0 : lab.link(host, port).index;
  int fd = -1;
  lab.inHost(host, [&] {
    // Protocol 0 hears nothing: the filter is in place before the first frame can come.
    fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      fail("opening a packet socket");
    }
    const int one = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer) < 0) {
      setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    if (setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &one, sizeof one) < 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &one, sizeof one) < 0) {
      fail("preparing a packet socket");
    }
    if (keep == Keep::kProbes) {
      filterProbes(fd);
    }
    sockaddr_ll where{};
    where.sll_family = AF_PACKET;
    where.sll_protocol = htons(ETH_P_ALL);
    where.sll_ifindex = index;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&where), sizeof where) < 0) {
      fail("listening on " + (port.empty() ? std::string("all ports") : port));
    }
  });
  return fd;
}

bool TapReader::read(int fd) {
  std::array<std::uint8_t, 4096> data;
  alignas(cmsghdr) std::array<char, 256> control;
  iovec vector{data.data(), data.size()};
  msghdr message{};
  message.msg_name = &from_;
  message.msg_namelen = sizeof from_;
  message.msg_iov = &vector;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  const ssize_t size = recvmsg(fd, &message, MSG_DONTWAIT);
  if (size < 0) {
    return false;
  }
  at_ = Clock::now();
  bytes_.assign(data.begin(), data.begin() + size);
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level == SOL_PACKET && part->cmsg_type == PACKET_AUXDATA) {
      tpacket_auxdata aux{};
      std::memcpy(&aux, CMSG_DATA(part), sizeof aux);
      putTagBack(bytes_, aux);
    } else if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SCM_TIMESTAMPNS) {
      timespec stamp{};
      std::memcpy(&stamp, CMSG_DATA(part), sizeof stamp);
      at_ = steady(stamp);
    }
  }
  return true;
}

void runFirst() {
  sched_param parameters{};
  parameters.sched_priority = 50;
  sched_setscheduler(0, SCHED_FIFO, &parameters);
}

}  // namespace RingwardLab
