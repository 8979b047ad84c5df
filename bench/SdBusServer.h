// SPDX-License-Identifier: Apache-2.0
//
// The peer of the attribute log's benchmarks: an sd-bus connection that serves others without a bus
// daemon between.
#pragma once

#include <systemd/sd-bus.h>

#include <stdexcept>
#include <string>

// Raises std::runtime_error for a negative result of sd-bus or of the system.
inline int required(int result) {
  if (result < 0) throw std::runtime_error("error " + std::to_string(result));
  return result;
}

// Started on one end of a pair of stream sockets, which it takes over. The caller unrefs it.
inline sd_bus* newSdBusServer(int fd) {
  sd_bus* bus = nullptr;
  sd_id128_t id{};
  required(sd_id128_randomize(&id));
  required(sd_bus_new(&bus));
  required(sd_bus_set_fd(bus, fd, fd));
  required(sd_bus_set_server(bus, 1, id));
  required(sd_bus_set_anonymous(bus, 1));
  required(sd_bus_start(bus));
  return bus;
}
