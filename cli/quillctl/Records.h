// SPDX-License-Identifier: Apache-2.0
//
// The record types that quillctl can read and write, and what tells one from the other: the name on
// the command line, how a key is read and which keys stand near it.
//
// Any thread, except that reading an interface's name makes it known to the process.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "cli/quillctl/Failure.h"
#include "cli/quillctl/Texts.h"
#include "model/status/CounterIntf.h"
#include "model/status/CounterVlan.h"
#include "runtime/vex/Exception.h"

namespace Quillctl {

// Keys keep the order in which they are written, so that outputs can be compared.
using Json = nlohmann::ordered_json;

using Ringward::Status::CounterIntf;
using Ringward::Status::CounterVlan;

// The type that owns the tables which quillctl makes, in their header.
inline constexpr const char* kClassType = "Ringward::Status::PacketCounter";

// The largest table that quillctl makes: beyond what any switch needs, and 16 MiB of chain heads.
inline constexpr std::uint32_t kMaxSize = 1'048'576;

template <class Value>
struct RecordTraits;

template <>
struct RecordTraits<CounterIntf> {
  using Key = Portus::IntfId;
  static constexpr std::string_view kOption = "counterIntf";
  static constexpr std::uint32_t kMaxFill = kMaxSize;

  static Key parse(std::string_view text) { return Portus::IntfId::fromName(text); }
  static std::string text(const Key& key) { return key.name(); }
  static Json json(const Key& key) { return printable(key.name()); }
  static Key fillKey(std::uint32_t i) { return parse("eth" + std::to_string(i + 1)); }
  static constexpr std::string_view kFillKeys = "interfaces eth1, eth2 and so on";
};

template <>
struct RecordTraits<CounterVlan> {
  using Key = Bridging::VlanIdOrNone;
  static constexpr std::string_view kOption = "counterVlan";
  static constexpr std::uint32_t kMaxFill = Bridging::kMaxVlanId;

  static Key parse(std::string_view text) { return Bridging::VlanIdOrNone::parse(text); }
  static std::string text(const Key& key) { return std::to_string(key.value()); }
  static Json json(const Key& key) { return key.value(); }
  static Key fillKey(std::uint32_t i) { return Key(i + 1); }
  static constexpr std::string_view kFillKeys = "VLANs 1 to 4094";
};

template <class Value>
using KeyOf = typename RecordTraits<Value>::Key;

// Raises Failure(usage) that names the text and what a key may be.
template <class Value>
KeyOf<Value> keyOf(std::string_view text) {
  if (text.empty()) throw Failure(ExitStatus::usage, "key \"\": is empty");
  try {
    return RecordTraits<Value>::parse(text);
  } catch (const Vex::Exception& exception) {
    throw Failure(ExitStatus::usage, "key " + inQuotes(text) + ": " + printable(exception.what()));
  }
}

template <class Value>
std::string keyText(const KeyOf<Value>& key) {
  return printable(RecordTraits<Value>::text(key));
}

// The record with the counts that the texts name.
template <class Value>
Value recordOf(std::string_view key, std::string_view tx, std::string_view rx,
               std::string_view rxOther) {
  constexpr std::uint32_t most = 0xFFFFFFFFU;
  return Value{keyOf<Value>(key), numberOf(tx, "TX", 0, most), numberOf(rx, "RX", 0, most),
               numberOf(rxOther, "RXOTHER", 0, most)};
}

template <class Value>
std::string recordText(const Value& value) {
  return keyText<Value>(value.key) + ": tx " + std::to_string(value.tx) + ", rx " +
         std::to_string(value.rx) + ", rxOther " + std::to_string(value.rxOther);
}

template <class Value>
Json recordJson(const Value& value) {
  return {{"key", RecordTraits<Value>::json(value.key)},
          {"tx", value.tx},
          {"rx", value.rx},
          {"rxOther", value.rxOther}};
}

// JSON on one line; a byte that is not UTF-8 becomes the replacement character.
inline std::string lineOf(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

// Calls `visit.template operator()<Value>()` for the record type of that name in a table's header.
// False if there is none.
template <class Visit>
bool visitType(std::string_view typeName, Visit&& visit) {
  if (typeName == CounterIntf::kTypeName) {
    visit.template operator()<CounterIntf>();
  } else if (typeName == CounterVlan::kTypeName) {
    visit.template operator()<CounterVlan>();
  } else {
    return false;
  }
  return true;
}

}  // namespace Quillctl
