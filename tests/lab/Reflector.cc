// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/Reflector.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/lab/PacketTap.h"

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
  TapReader reader;
  for (;;) {
    pollfd pollers[2] = {{stop_, POLLIN, 0}, {fd_, POLLIN, 0}};
    poll(pollers, 2, -1);
    if ((pollers[0].revents & POLLIN) != 0) {
      return;
    }
    if (!reader.read(fd_) || reader.outgoing()) {
      continue;
    }
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = reader.ifindex();
    sendto(fd_, reader.bytes().data(), reader.bytes().size(), MSG_DONTWAIT,
           reinterpret_cast<const sockaddr*>(&to), sizeof to);
  }
}

}  // namespace RingwardLab
