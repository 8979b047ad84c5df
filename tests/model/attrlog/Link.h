// SPDX-License-Identifier: Apache-2.0
//
// Two sessions in one process, and what stands in the bytes between them.
#pragma once

#include <string>
#include <vector>

#include "tests/model/attrlog/Trees.h"

namespace AttrLogTest {

using Ringward::AttrLog::Session;

struct Message {
  Vex::NboAttrLog::MsgHeader header;
  std::vector<std::uint8_t> payload;  // between the tokens
};

inline std::string hex(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    std::array<char, 3> digits{};
    std::snprintf(digits.data(), digits.size(), "%02x", byte);
    text += digits.data();
  }
  return text;
}

// "260 20800000000000d201", or "144 104 begin" for a marker.
inline std::string textOf(const Message& message) {
  Vex::ByteConnection::In in(message.payload);
  if (message.header.attributeId == Vex::NboAttrLog::kTransactionAttribute) {
    const std::string id = std::to_string(in.nextU32());
    constexpr std::array kTypes{"begin ", "abort ", "commit "};
    return kTypes.at(in.nextU8()) + id;
  }
  return std::to_string(message.header.attributeId) + " " + hex(message.payload);
}

// The messages in a run of whole frames; frames of other types are passed over.
inline std::vector<Message> messagesOf(std::span<const std::uint8_t> bytes) {
  std::vector<Message> found;
  Vex::ByteConnection::In stream(bytes);
  while (stream.remaining() != 0) {
    const std::uint32_t length = stream.nextU32();
    const std::uint8_t type = stream.nextU8();
    Vex::ByteConnection::In body(stream.nextBytes(length - 1));
    if (type != 1) continue;
    body.nextU64();
    while (body.remaining() != 0) {
      Message message;
      message.header = Vex::NboAttrLog::MsgHeader::read(body);
      const auto payload = body.nextBytes(message.header.payloadLength);
      message.payload.assign(payload.begin() + 1, payload.end() - 1);
      found.push_back(message);
    }
  }
  return found;
}

inline std::vector<std::string> textsOf(std::span<const std::uint8_t> bytes) {
  std::vector<std::string> texts;
  for (const Message& message : messagesOf(bytes)) texts.push_back(textOf(message));
  return texts;
}

// Everything that waits, as texts; it is gone afterwards.
inline std::vector<std::string> taken(Session& session) {
  std::vector<std::string> texts;
  while (!session.output().empty()) {
    for (auto& text : textsOf(session.output())) texts.push_back(std::move(text));
    session.outputDel(session.output().size());
  }
  return texts;
}

// A frame with one message in it.
inline std::vector<std::uint8_t> frameOf(const Vex::NboAttrLog::MsgHeader& header,
                                         std::span<const std::uint8_t> payload) {
  Vex::NboAttrLog::Out out(65536);
  out.nextHeaderIs(header);
  out.tokenIs(1);
  out.nextBytes(payload);
  out.tokenIs(3);
  const auto bytes = out.output();
  return {bytes.begin(), bytes.end()};
}

// An owner for a demuxer without a session: takes everything and does nothing.
struct Silent final : Vex::NboAttrLog::Demuxer::Owner {
  void handleOrphan(std::string_view, std::string_view, Vex::EntityId) override {}
  void handleRefused(const Vex::StreamAdapter&, Vex::AttributeId) override {}
  void handleNotificationException(const Vex::StreamAdapter&, Vex::AttributeId) override {}
  void handleOutput() override {}
};

struct Link {
  Trees original;
  Trees mirror;
  std::vector<std::string> refused;
  std::vector<std::string> trouble;
  std::vector<std::string> mounted;
  Session server;
  Session client;

  explicit Link(Session::Access access = Session::Access::readWrite, std::size_t buffer = 65536)
      : server({buffer, access}), client({buffer, Session::Access::readOnly}, callbacks()) {}
  Session::Callbacks callbacks() {
    Session::Callbacks made;
    made.mounted = [this](std::string_view name, Vex::Entity&) { mounted.emplace_back(name); };
    made.refused = [this](std::string_view entity, std::string_view reason) {
      refused.push_back(std::string(entity) + ": " + std::string(reason));
    };
    made.trouble = [this](std::string_view text) { trouble.emplace_back(text); };
    return made;
  }
  // Everything mirrored and quiet.
  void up() {
    mirror.mirrorsOf(client);
    original.rootsOf(server);
    settle();
  }
  bool settle() { return AttrLogTest::settle(server, client); }
  bool isEqual() const { return mirror.text() == original.text(); }
};

}  // namespace AttrLogTest
