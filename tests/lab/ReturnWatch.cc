// SPDX-License-Identifier: Apache-2.0
#include "tests/lab/ReturnWatch.h"

#include <linux/if_packet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/lab/PacketTap.h"

namespace RingwardLab {

ReturnWatch::ReturnWatch(const Lab& lab, const std::string& host,
                         const std::vector<std::string>& ports)
    : stop_(eventfd(0, EFD_CLOEXEC)) {
  std::vector<Port> opened;
  for (const std::string& port : ports) {
    const int fd = openTap(lab, host, port, Keep::kProbes, 4096);
    const int one = 1;
    setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
    opened.push_back({port, fd});
  }
  thread_ = std::thread([this, opened = std::move(opened)]() mutable { run(std::move(opened)); });
}

ReturnWatch::~ReturnWatch() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(stop_, &one, sizeof one);
  thread_.join();
  close(stop_);
}

void ReturnWatch::run(std::vector<Port> ports) {
  runFirst();
  TapReader reader;
  std::vector<pollfd> pollers;
  for (bool stopped = false; !stopped;) {
    pollers.assign(1, {stop_, POLLIN, 0});
    for (const Port& port : ports) {
      pollers.push_back({port.fd, POLLIN, 0});
    }
    poll(pollers.data(), pollers.size(), -1);
    stopped = (pollers[0].revents & POLLIN) != 0;
    std::erase_if(ports, [&](const Port& port) {
      if (!reader.read(port.fd) || reader.outgoing()) {
        return false;
      }
      const std::lock_guard lock(mutex_);
      auto& times = seen_[port.name];
      times.push_back(reader.at());
      changed_.notify_all();
      if (times.size() < kMostFrames) {
        return false;
      }
      close(port.fd);
      return true;
    });
  }
  for (const Port& port : ports) {
    close(port.fd);
  }
}

std::optional<Clock::time_point> ReturnWatch::first(const std::set<std::string>& ports,
                                                    Milliseconds limit,
                                                    Clock::time_point after) const {
  std::unique_lock lock(mutex_);
  std::optional<Clock::time_point> earliest;
  changed_.wait_until(lock, Clock::now() + limit, [&] {
    for (const auto& [port, times] : seen_) {
      for (const auto at : times) {
        if (ports.contains(port) && at > after && (!earliest || at < *earliest)) {
          earliest = at;
        }
      }
    }
    return earliest.has_value();
  });
  return earliest;
}

}  // namespace RingwardLab
