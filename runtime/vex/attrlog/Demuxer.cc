// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/attrlog/Demuxer.h"

#include <string>
#include <utility>

namespace Vex::NboAttrLog {

namespace {
std::string textOf(const EntityId& id) {
  return "entity id " + std::to_string(id.high & ~EntityId::kReceivers) + ":" +
         std::to_string(id.low);
}

[[noreturn]] void throwForeignId(const EntityId& id) {
  throwRangeException(textOf(id) + " belongs to another entity");
}

[[noreturn]] void throwTooMany() {
  throwRangeException("more than " + std::to_string(Demuxer::kMaxEntities) +
                      " entities of one connection not allowed");
}

// Puts a flag up for the length of a block.
class Raised {
 public:
  explicit Raised(bool& flag) noexcept : flag_(flag) { flag_ = true; }
  Raised(const Raised&) = delete;
  Raised& operator=(const Raised&) = delete;
  ~Raised() { flag_ = false; }

 private:
  bool& flag_;
};
}  // namespace

Demuxer::~Demuxer() {
  while (!adapters_.empty()) adapterDel(*adapters_.begin()->second.adapter);
}

StreamAdapter* Demuxer::adapter(const Entity& entity) const noexcept {
  const auto found = adapters_.find(&entity);
  return found != adapters_.end() ? found->second.adapter : nullptr;
}

StreamAdapter* Demuxer::adapter(const EntityId& id) const noexcept {
  const auto found = byId_.find(id.bits());
  return found != byId_.end() ? found->second : nullptr;
}

void Demuxer::adapterIs(Ptr<NotifieeConst> owned, StreamAdapter& adapter) {
  if (adapters_.size() >= kMaxEntities && reading_) throwTooMany();
  adapters_.emplace(&adapter.entity(), Held{std::move(owned), &adapter});
  adapter.notifiee().isRegisteredNotifieeIs(true);
}

void Demuxer::adapterDel(StreamAdapter& adapter) {
  const auto found = adapters_.find(&adapter.entity());
  if (found == adapters_.end() || found->second.adapter != &adapter) return;
  const Ptr<NotifieeConst> kept = std::move(found->second.owned);
  adapters_.erase(found);
  adapter.childrenDel();
  queuedIs(adapter, false);
  flowInDel(adapter);
  if (!adapter.ownId_.isNull()) byId_.erase(adapter.ownId_.bits());
  if (!adapter.peerId_.isNull()) byId_.erase(adapter.peerId_.bits());
  adapter.syncModeIs(StreamAdapter::SyncMode::off);
  kept->isRegisteredNotifieeIs(false);
  adapter.demuxer_ = nullptr;
}

void Demuxer::newId(StreamAdapter& adapter) {
  adapter.ownId_ = {static_cast<std::uint32_t>(nextNumber_ >> 32),
                    static_cast<std::uint32_t>(nextNumber_)};
  adapter.latestId_ = adapter.ownId_;
  ++nextNumber_;
  byId_.emplace(adapter.ownId_.bits(), &adapter);
  adapter.syncModeIs(StreamAdapter::SyncMode::on);
}

bool Demuxer::announcedIs(const EntityId& id) {
  const std::uint64_t number = id.number();
  const bool mine = !id.isReceivers();
  if (number < kFirstEntityNumber || (mine && number >= nextNumber_)) {
    throwRangeException(textOf(id) + " not allowed");
  }
  if (mine || number <= peerNumber_) return false;
  peerNumber_ = number;
  return true;
}

bool Demuxer::isOutdated(const EntityId& id, const StreamAdapter& adapter) noexcept {
  return !id.isReceivers() && id.number() < adapter.ownId_.number();
}

void Demuxer::requireRoomFor(const EntityId& id, const Entity* present,
                             const Entity* leaving) const {
  const StreamAdapter* const own = present != nullptr ? adapter(*present) : nullptr;
  if (own != nullptr && isOutdated(id, *own)) return;
  const StreamAdapter* const of = adapter(id);
  if (of != nullptr && of != own) throwForeignId(id);
  const bool frees = leaving != nullptr && adapter(*leaving) != nullptr;
  if (own == nullptr && !frees && adapters_.size() >= kMaxEntities) throwTooMany();
}

void Demuxer::idIs(StreamAdapter& adapter, const EntityId& id) {
  announcedIs(id);
  if (isOutdated(id, adapter)) return;
  const auto [place, isNew] = byId_.try_emplace(id.bits(), &adapter);
  if (!isNew && place->second != &adapter) throwForeignId(id);
  adapter.latestId_ = id;
  if (!isNew) return;
  EntityId& held = id.isReceivers() ? adapter.peerId_ : adapter.ownId_;
  if (!held.isNull()) byId_.erase(held.bits());
  held = id;
  adapter.syncModeIs(StreamAdapter::SyncMode::on);
}

FlowOut& Demuxer::createFlowOut(StreamAdapter& adapter) {
  adapter.flowOutIs(adapter.newFlowOut(), false);
  return *adapter.flowOut();
}

FlowIn* Demuxer::flowIn(const EntityId& id) const noexcept {
  const StreamAdapter* const of = adapter(id);
  return of != nullptr ? of->flowIn() : nullptr;
}

FlowIn& Demuxer::flowInIs(StreamAdapter& adapter) {
  if (adapter.flowIn_ == nullptr) adapter.flowIn_ = std::make_unique<FlowIn>();
  return *adapter.flowIn_;
}

void Demuxer::flowInDel(StreamAdapter& adapter) noexcept {
  if (adapter.flowIn_ == nullptr) return;
  adapter.marksDel(adapter.flowIn_->aid());
  adapter.flowIn_.reset();
}

void Demuxer::queuedIs(StreamAdapter& adapter, bool queued) noexcept {
  if (queued == adapter.flag(StreamAdapter::kQueued)) return;
  adapter.flagIs(StreamAdapter::kQueued, queued);
  if (queued) {
    adapter.previous_ = last_;
    (last_ != nullptr ? last_->next_ : first_) = &adapter;
    last_ = &adapter;
  } else {
    StreamAdapter* const before = std::exchange(adapter.previous_, nullptr);
    StreamAdapter* const after = std::exchange(adapter.next_, nullptr);
    (before != nullptr ? before->next_ : first_) = after;
    (after != nullptr ? after->previous_ : last_) = before;
  }
}

void Demuxer::continueOutput() {
  if (sending_) return;
  {
    const Raised raised(sending_);
    while (first_ != nullptr && out_->hasSufficientBuffer()) {
      StreamAdapter& adapter = *first_;
      const std::size_t before = out_->waitingBytes();
      const StreamAdapter::Sent sent = adapter.sendWaiting();
      if (out_->waitingBytes() != before) ahead_ = kMostAhead;
      if (sent == StreamAdapter::Sent::noRoom) break;
      queuedIs(adapter, false);
      if (sent == StreamAdapter::Sent::later) queuedIs(adapter, true);
    }
  }
  if (!out_->empty() && !reading_) owner_.handleOutput();
}

void Demuxer::messagesIn(std::span<const std::uint8_t> body) {
  if (reading_) throwInternalException("a frame of the attribute log within another one");
  {
    const Raised raised(reading_);
    read(body);
  }
  continueOutput();
}

void Demuxer::read(std::span<const std::uint8_t> body) {
  ByteConnection::In in(body);
  const std::uint64_t received = in.nextU64();
  if (received < peerReceived_ || received > out_->frames()) {
    throwRangeException("number of frames " + std::to_string(received) + " not allowed (" +
                        std::to_string(peerReceived_) + " to " + std::to_string(out_->frames()) +
                        ")");
  }
  peerReceived_ = received;
  while (in.remaining() != 0) {
    const MsgHeader header = MsgHeader::read(in);
    ByteConnection::In payload(in.nextBytes(header.payloadLength));
    dispatch(header, payload);
  }
  out_->receivedIs(++framesIn_);
}

void Demuxer::dispatch(const MsgHeader& header, ByteConnection::In& payload) {
  payload.tokenIs(kOpenToken);
  if (header.entityId == kConnectionId) {
    readOrphan(header, payload);
    return;
  }
  const EntityId id = header.entityId.seenByPeer();
  StreamAdapter* const of = adapter(id);
  if (of == nullptr) {
    const std::uint64_t number = id.number();
    const std::uint64_t last = id.isReceivers() ? peerNumber_ : nextNumber_ - 1;
    if (number < kFirstEntityNumber || number > last) {
      throwRangeException(textOf(id) + " unknown (2 to " + std::to_string(last) + ")");
    }
    return;  // it has gone while the message was on its way
  }
  const Ptr<NotifieeConst> kept(&of->notifiee());
  of->handleAttrDeserialization(header.attributeId, header.payloadHint, header.payloadLength,
                                payload);
}

void Demuxer::readOrphan(const MsgHeader& header, ByteConnection::In& payload) {
  if (header.attributeId != kOrphanAttribute) {
    throwRangeException("attribute " + std::to_string(header.attributeId) +
                        " of the connection unknown");
  }
  payload.currentPayloadSectionIs(1);
  const std::string_view typeName = payload.nextString();
  payload.currentPayloadSectionIs(3);
  const std::string_view name = payload.nextString();
  payload.currentPayloadSectionIs(4);
  const EntityId id = payload.nextEntityId().seenByPeer();
  payload.tokenIs(kCloseToken);
  payload.endIs();
  if (!id.isReceivers()) throwRangeException(textOf(id) + " not allowed for an announcement");
  announcedIs(id);
  owner_.handleOrphan(typeName, name, id);
}

}  // namespace Vex::NboAttrLog
