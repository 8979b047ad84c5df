// SPDX-License-Identifier: Apache-2.0
//
// The two shapes of record with which the store is tested: 20 bytes under an interface, 16 bytes
// under a VLAN.
#pragma once

#include <cstdint>
#include <ostream>
#include <string_view>

#include "runtime/bridging/VlanId.h"
#include "runtime/portus/IntfId.h"

namespace QuillTest {

struct IntfRecord {
  static constexpr std::string_view kTypeName = "Ringward::Status::CounterIntf";

  Portus::IntfId key;
  std::uint32_t tx = 0;
  std::uint32_t rx = 0;
  std::uint32_t rxOther = 0;

  friend bool operator==(const IntfRecord&, const IntfRecord&) = default;
};
static_assert(sizeof(IntfRecord) == 20);

struct VlanRecord {
  static constexpr std::string_view kTypeName = "Ringward::Status::CounterVlan";

  Bridging::VlanIdOrNone key;
  std::uint16_t padding = 0;
  std::uint32_t tx = 0;
  std::uint32_t rx = 0;
  std::uint32_t rxOther = 0;

  friend bool operator==(const VlanRecord&, const VlanRecord&) = default;
};
static_assert(sizeof(VlanRecord) == 16);

// Keys whose place is easy to choose: all numbers of one thousand share a bucket, in their order.
struct Number {
  std::uint32_t value = 0;

  std::uint32_t hash() const noexcept { return value / 1000; }
  friend bool operator==(const Number&, const Number&) = default;
  friend auto operator<=>(const Number&, const Number&) = default;
  friend std::ostream& operator<<(std::ostream& out, const Number& number) {
    return out << number.value;
  }
};

struct NumberRecord {
  static constexpr std::string_view kTypeName = "QuillTest::NumberRecord";

  Number key;
  std::uint32_t data = 0;

  friend bool operator==(const NumberRecord&, const NumberRecord&) = default;
};
static_assert(sizeof(NumberRecord) == 8);

inline std::ostream& operator<<(std::ostream& out, const NumberRecord& record) {
  return out << record.key << ": " << record.data;
}

inline IntfRecord intfRecord(std::string_view name, std::uint32_t tx, std::uint32_t rx = 0,
                             std::uint32_t rxOther = 0) {
  return {Portus::IntfId::fromName(name), tx, rx, rxOther};
}

inline std::ostream& operator<<(std::ostream& out, const IntfRecord& record) {
  return out << record.key << ": " << record.tx << ", " << record.rx << ", " << record.rxOther;
}

inline std::ostream& operator<<(std::ostream& out, const VlanRecord& record) {
  return out << record.key << ": " << record.tx << ", " << record.rx << ", " << record.rxOther;
}

}  // namespace QuillTest
