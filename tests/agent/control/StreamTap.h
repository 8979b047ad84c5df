// SPDX-License-Identifier: Apache-2.0
//
// What the bytes of one direction of a control connection say, read by nothing of what moves them:
// how many messages carry a value, and which keys and values of the two collections of the
// configuration a mirror must have once it has taken in the frames that have come whole.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include "tests/model/attrlog/Link.h"

namespace ControlTest {

// A collection of a mirror that writes nothing itself, as docs/formats.md, "Transfers", has it.
class CollectionModel {
 public:
  explicit CollectionModel(std::size_t keySize) : keySize_(keySize) {}

  void put(std::span<const std::uint8_t> payload) {
    const std::string key = AttrLogTest::hex(payload.first(keySize_));
    members_[key] = AttrLogTest::hex(payload.subspan(keySize_));
    marked_.erase(key);
  }
  void del(std::span<const std::uint8_t> payload) {
    members_.erase(AttrLogTest::hex(payload));
    marked_.erase(AttrLogTest::hex(payload));
  }
  void begin() {
    for (const auto& [key, value] : members_) marked_.insert(key);
  }
  void abort() { marked_.clear(); }
  // Returns how many keys went.
  std::size_t commit() {
    for (const std::string& key : marked_) members_.erase(key);
    const std::size_t gone = marked_.size();
    marked_.clear();
    return gone;
  }
  // As textOf() writes an attribute's members.
  std::map<std::string, std::string> members() const { return members_; }
  // Keys that a commit would take away if it came now.
  std::size_t marked() const { return marked_.size(); }

 private:
  const std::size_t keySize_;
  std::map<std::string, std::string> members_;
  std::set<std::string> marked_;
};

// The same out of the text of a tree.
inline std::map<std::string, std::string> membersIn(const std::string& text,
                                                    const std::string& attribute) {
  std::map<std::string, std::string> found;
  std::istringstream lines(text);
  bool inside = false;
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("    ")) {
      inside = found.empty() && line.starts_with("  " + attribute + " ");
      continue;
    }
    std::string key;
    std::string value;
    if (inside && std::istringstream(line) >> key >> value) found[key] = value;
  }
  return found;
}

struct ConfigModel {
  CollectionModel vlanEnabled{2};
  CollectionModel intfExclude{8};
  std::size_t goneAtCommit = 0;

  CollectionModel* of(std::uint32_t attribute) {
    if (attribute == 259) return &vlanEnabled;
    return attribute == 260 ? &intfExclude : nullptr;
  }
  std::size_t marked() const { return vlanEnabled.marked() + intfExclude.marked(); }
  // The connection has ended: what had begun has no effect.
  void connectionDel() {
    vlanEnabled.abort();
    intfExclude.abort();
  }
};

class StreamTap {
 public:
  // `model`: of the mirror that receives these bytes; null for none.
  explicit StreamTap(ConfigModel* model) : model_(model) {}

  void bytesIn(std::span<const std::uint8_t> bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    while (bytes_.size() >= 4) {
      const std::size_t size = 4 + Vex::ByteConnection::In(bytes_).nextU32();
      if (bytes_.size() < size) return;
      const std::span frame = std::span(bytes_).first(size);
      for (const auto& message : AttrLogTest::messagesOf(frame)) messageIn(message);
      bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(size));
    }
  }
  // Messages that carry a value or delete one: not those by which the log asks or brackets.
  std::uint64_t values() const { return values_; }

 private:
  void messageIn(const AttrLogTest::Message& message) {
    using Vex::NboAttrLog::Transaction;
    Vex::ByteConnection::In payload(message.payload);
    switch (message.header.attributeId) {
      case Vex::NboAttrLog::kResendAttribute:
        return;
      case Vex::NboAttrLog::kOrphanAttribute:
        return orphanIn(payload);
      case Vex::NboAttrLog::kTransactionAttribute: {
        CollectionModel* const of = modelOf(message.header.entityId, payload.nextU32());
        if (of == nullptr) return;
        switch (static_cast<Transaction>(payload.nextU8())) {
          case Transaction::begin:
            return of->begin();
          case Transaction::abort:
            return of->abort();
          case Transaction::commit:
            model_->goneAtCommit += of->commit();
            return;
        }
        return;
      }
      default:
        break;
    }
    ++values_;
    const bool isDelete = message.header.attributeId < 0;
    const int id = isDelete ? -message.header.attributeId : message.header.attributeId;
    CollectionModel* const of = modelOf(message.header.entityId, static_cast<std::uint32_t>(id));
    if (of != nullptr) isDelete ? of->del(message.payload) : of->put(message.payload);
  }
  void orphanIn(Vex::ByteConnection::In& payload) {
    payload.currentPayloadSectionIs(1);
    const bool isConfig = payload.nextString() == "Ringward::Config::Config";
    payload.currentPayloadSectionIs(3);
    payload.nextString();
    payload.currentPayloadSectionIs(4);
    if (isConfig) config_ = payload.nextEntityId();
  }
  CollectionModel* modelOf(const Vex::EntityId& id, std::uint32_t attribute) {
    return model_ != nullptr && config_ == id ? model_->of(attribute) : nullptr;
  }

  ConfigModel* model_;
  std::vector<std::uint8_t> bytes_;  // the beginning of a frame
  std::optional<Vex::EntityId> config_;
  std::uint64_t values_ = 0;
};

}  // namespace ControlTest
