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

inline std::ostream& operator<<(std::ostream& out, const IntfRecord& record) {
  return out << record.key << ": " << record.tx << ", " << record.rx << ", " << record.rxOther;
}

inline std::ostream& operator<<(std::ostream& out, const VlanRecord& record) {
  return out << record.key << ": " << record.tx << ", " << record.rx << ", " << record.rxOther;
}

}  // namespace QuillTest
