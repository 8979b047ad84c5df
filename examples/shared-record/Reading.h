// SPDX-License-Identifier: Apache-2.0
//
// The record that the two programs share: what a sensor said last.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

// The key: hash(), an order and a text form, the same in every process. 0 is no sensor.
struct Sensor {
  std::uint32_t number = 0;

  std::uint32_t hash() const { return number * 2654435761U; }
  friend auto operator<=>(const Sensor&, const Sensor&) = default;
  friend std::ostream& operator<<(std::ostream& out, Sensor sensor) {
    return out << "sensor " << sensor.number;
  }
};

// The value: plain bytes that begin with the key and have no padding. The name stands in the
// table's file, and whoever mounts the table with another record is refused.
struct Reading {
  static constexpr std::string_view kTypeName = "example::Reading/1";

  Sensor sensor;
  std::int32_t milliDegrees = 0;

  friend bool operator==(const Reading&, const Reading&) = default;
};

inline std::ostream& operator<<(std::ostream& out, const Reading& reading) {
  return out << reading.sensor << ": " << reading.milliDegrees;
}

// What happens to a sensor whose reading changes; only a watcher has something to do then.
struct Nothing {
  void notify(const Sensor&) {}
};
