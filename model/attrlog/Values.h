// SPDX-License-Identifier: Apache-2.0
//
// The forms in which values stand in the attribute log: `out << value` writes one, `in >> value`
// reads it back, in network byte order. docs/formats.md lists them. Reading raises RangeException
// for bytes that no value has, and leaves `value` as it was. No state; any thread.
//
// The operators stand in the namespaces of Out and In, where every use of them finds them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "model/status/CounterIntf.h"
#include "model/status/CounterVlan.h"
#include "model/status/IntfAndVlan.h"
#include "model/values/Oui.h"
#include "model/values/PacketEncapsulation.h"
#include "runtime/portus/EthAddr.h"
#include "runtime/vex/LinkQueue.h"
#include "runtime/vex/attrlog/Out.h"

namespace Vex::NboAttrLog {

using OutPtr = Vex::Ptr<Out>;

inline const OutPtr& operator<<(const OutPtr& out, bool value) {
  out->nextbool(value);
  return out;
}
inline const OutPtr& operator<<(const OutPtr& out, std::uint8_t value) {
  out->nextU8(value);
  return out;
}
inline const OutPtr& operator<<(const OutPtr& out, std::uint16_t value) {
  out->nextU16(value);
  return out;
}
inline const OutPtr& operator<<(const OutPtr& out, std::uint32_t value) {
  out->nextU32(value);
  return out;
}
inline const OutPtr& operator<<(const OutPtr& out, std::int32_t value) {
  out->nextint(value);
  return out;
}
inline const OutPtr& operator<<(const OutPtr& out, double value) {
  out->nextdouble(value);
  return out;
}
inline const OutPtr& operator<<(const OutPtr& out, std::string_view value) {
  out->nextString(value);
  return out;
}
inline const OutPtr& operator<<(const OutPtr& out, const EntityId& value) {
  out->nextEntityId(value);
  return out;
}
inline const OutPtr& operator<<(const OutPtr& out, const Portus::EthAddr& value) {
  out->nextBytes(value.bytes());
  return out;
}
inline const OutPtr& operator<<(const OutPtr& out, const Portus::IntfId& value) {
  out->nextBytes(value.bytes());
  return out;
}
inline const OutPtr& operator<<(const OutPtr& out, Bridging::VlanId value) {
  return out << value.value();
}
inline const OutPtr& operator<<(const OutPtr& out, Bridging::VlanIdOrNone value) {
  return out << value.value();
}
inline const OutPtr& operator<<(const OutPtr& out, const Vex::LinkQueueMetadata& value) {
  return out << value.headIndex << value.nextIndex;
}
inline const OutPtr& operator<<(const OutPtr& out, const Ringward::Oui& value) {
  return out << value.byte0 << value.byte1 << value.byte2;
}
inline const OutPtr& operator<<(const OutPtr& out, const Ringward::PacketEncapsulation& value) {
  return out << value.mac << value.vlanId << value.senderIntfId;
}
inline const OutPtr& operator<<(const OutPtr& out, const Ringward::Status::IntfAndVlan& value) {
  return out << value.intfId << value.vlanId;
}
inline const OutPtr& operator<<(const OutPtr& out, const Ringward::Status::CounterIntf& value) {
  return out << value.key << value.tx << value.rx << value.rxOther;
}
inline const OutPtr& operator<<(const OutPtr& out, const Ringward::Status::CounterVlan& value) {
  return out << value.key << value.tx << value.rx << value.rxOther;
}

}  // namespace Vex::NboAttrLog

namespace Vex::ByteConnection {

inline In& operator>>(In& in, bool& value) {
  value = in.nextbool();
  return in;
}
inline In& operator>>(In& in, std::uint8_t& value) {
  value = in.nextU8();
  return in;
}
inline In& operator>>(In& in, std::uint16_t& value) {
  value = in.nextU16();
  return in;
}
inline In& operator>>(In& in, std::uint32_t& value) {
  value = in.nextU32();
  return in;
}
inline In& operator>>(In& in, std::int32_t& value) {
  value = in.nextint();
  return in;
}
inline In& operator>>(In& in, double& value) {
  value = in.nextdouble();
  return in;
}
inline In& operator>>(In& in, std::string& value) {
  value = in.nextString();
  return in;
}
inline In& operator>>(In& in, EntityId& value) {
  value = in.nextEntityId();
  return in;
}
inline In& operator>>(In& in, Portus::EthAddr& value) {
  value = Portus::EthAddr::fromBytes(
      in.nextBytes(Portus::EthAddr::kSize).first<Portus::EthAddr::kSize>());
  return in;
}
inline In& operator>>(In& in, Portus::IntfId& value) {
  value =
      Portus::IntfId::fromBytes(in.nextBytes(Portus::IntfId::kSize).first<Portus::IntfId::kSize>());
  return in;
}
// 0 is the state "none", which a queue's member may have.
inline In& operator>>(In& in, Bridging::VlanId& value) {
  const std::uint16_t number = in.nextU16();
  value = number != 0 ? Bridging::VlanId(number) : Bridging::VlanId();
  return in;
}
inline In& operator>>(In& in, Bridging::VlanIdOrNone& value) {
  value = Bridging::VlanIdOrNone(in.nextU16());
  return in;
}
inline In& operator>>(In& in, Vex::LinkQueueMetadata& value) {
  const std::uint32_t head = in.nextU32();
  value = {head, in.nextU32()};
  return in;
}
inline In& operator>>(In& in, Ringward::Oui& value) {
  const auto bytes = in.nextBytes(3);
  value = {bytes[0], bytes[1], bytes[2]};
  return in;
}
inline In& operator>>(In& in, Ringward::PacketEncapsulation& value) {
  Ringward::PacketEncapsulation read;
  in >> read.mac >> read.vlanId >> read.senderIntfId;
  value = read;
  return in;
}
inline In& operator>>(In& in, Ringward::Status::IntfAndVlan& value) {
  Ringward::Status::IntfAndVlan read;
  in >> read.intfId >> read.vlanId;
  value = read;
  return in;
}
inline In& operator>>(In& in, Ringward::Status::CounterIntf& value) {
  Ringward::Status::CounterIntf read;
  in >> read.key >> read.tx >> read.rx >> read.rxOther;
  value = read;
  return in;
}
inline In& operator>>(In& in, Ringward::Status::CounterVlan& value) {
  Ringward::Status::CounterVlan read;
  in >> read.key >> read.tx >> read.rx >> read.rxOther;
  value = read;
  return in;
}

}  // namespace Vex::ByteConnection

namespace Ringward::AttrLog {

// Raises RangeException for what a member may hold and no key can be: the VLAN "none".
template <class Key>
void requireKey(const Key& /*key*/) {}
inline void requireKey(const Bridging::VlanId& key) {
  static_cast<void>(Bridging::VlanId(key.value()));
}

}  // namespace Ringward::AttrLog
