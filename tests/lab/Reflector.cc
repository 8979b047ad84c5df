// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/Reflector.h"

#include <linux/if_packet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "tests/lab/PacketTap.h"
#include "tests/lab/Sniffer.h"

namespace RingwardLab {

Reflector::Reflector(const Lab& lab, const std::string& host, const std::string& port)
    : fd_(openTap(lab, host, port, Keep::kAll, 1 << 20)), stop_(eventfd(0, EFD_CLOEXEC)) {
  thread_ = std::thread([this] { run(); });
}

Reflector::~Reflector() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(stop_, &one, sizeof one);
  thread_.join();
  close(stop_);
  close(fd_);
}

void Reflector::run() const {
  runFirst();
  std::array<std::uint8_t, 2048> data;
  for (;;) {
    pollfd pollers[2] = {{stop_, POLLIN, 0}, {fd_, POLLIN, 0}};
    poll(pollers, 2, -1);
    if ((pollers[0].revents & POLLIN) != 0) {
      return;
    }
    sockaddr_ll from{};
    iovec vector{data.data(), data.size()};
    alignas(cmsghdr) std::array<char, 256> control;
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &vector;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t size = recvmsg(fd_, &message, MSG_DONTWAIT);
    if (size < 0 || from.sll_pkttype == PACKET_OUTGOING) {
      continue;
    }
    Bytes frame(data.begin(), data.begin() + size);
    putTagBack(frame, message);
    sendto(fd_, frame.data(), frame.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&from),
           sizeof from);
  }
}

}  // namespace RingwardLab
