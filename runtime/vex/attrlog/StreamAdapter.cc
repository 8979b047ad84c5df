// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/attrlog/StreamAdapter.h"

#include <string>
#include <utility>

#include "runtime/vex/attrlog/Demuxer.h"

namespace Vex {

using NboAttrLog::Transaction;

const Ptr<NboAttrLog::Out>& StreamAdapter::nboAttrLogOut() const noexcept {
  static const Ptr<NboAttrLog::Out> none;
  return demuxer_ != nullptr ? demuxer_->out() : none;
}

void StreamAdapter::flowOutIs(std::unique_ptr<NboAttrLog::FlowOut> flowOut, bool connect) {
  flowOut_ = std::move(flowOut);
  flagIs(kFlowOutPresent, flowOut_ != nullptr);
  if (connect && demuxer_ != nullptr) demuxer_->queuedIs(*this, flowOut_ != nullptr);
}

NboAttrLog::FlowOut& StreamAdapter::makeFlowOut() {
  return flag(kFlowOutPresent) ? *flowOut_ : demuxer_->createFlowOut(*this);
}

void StreamAdapter::doSerializeOrphan() {
  const std::string_view name = entity().name().view();
  NboAttrLog::Out& out = *nboAttrLogOut();
  if (name.size() > ByteConnection::In::kMaxText) {
    throwRangeException("name of " + std::to_string(name.size()) +
                        " bytes of an entity not allowed (0 to " +
                        std::to_string(ByteConnection::In::kMaxText) + ")");
  }
  if (!out.hasSufficientBuffer(NboAttrLog::Out::kMessageRoom + typeName().size() + name.size())) {
    flagIs(kAnnounce, true);
    demuxer_->queuedIs(*this, true);
    return;
  }
  flagIs(kAnnounce, false);
  if (entityId().isNull()) demuxer_->newId(*this);
  NboAttrLog::MsgHeader header;
  header.entityId = NboAttrLog::kConnectionId;
  header.attributeId = NboAttrLog::kOrphanAttribute;
  header.keyFlag = true;
  out.nextHeaderIs(header);
  out.tokenIs(NboAttrLog::kOpenToken);
  out.currentPayloadSectionIs(1);
  out.nextString(typeName());
  out.currentPayloadSectionIs(3);
  out.nextString(name);
  out.currentPayloadSectionIs(4);
  out.nextEntityId(entityId());
  out.tokenIs(NboAttrLog::kCloseToken);
  doThis();
}

bool StreamAdapter::convertedToWritable(bool remote) const noexcept {
  return !flag(kMirror) && (!remote || demuxer_->peerMayWrite());
}

void StreamAdapter::doThrowReadOnly(std::string_view attribute) const {
  throw ReadOnlyException("attribute " + std::string(attribute) + " of " + std::string(typeName()) +
                          " " + entity().fullName() + " is read-only");
}

bool StreamAdapter::prepareImmediateTransmission(AttributeId /*id*/, bool insufficient) {
  demuxer_->queuedIs(*this, true);
  return !insufficient;
}

void StreamAdapter::askResend(std::size_t position) {
  wanted_.bitIs(position, true);
  demuxer_->queuedIs(*this, true);
}

void StreamAdapter::sendTransactionMarker(AttributeId id, Transaction type, std::uint32_t count) {
  NboAttrLog::Out& out = *nboAttrLogOut();
  NboAttrLog::MsgHeader header;
  header.entityId = entityId();
  header.attributeId = NboAttrLog::kTransactionAttribute;
  out.nextHeaderIs(header);
  out.tokenIs(NboAttrLog::kOpenToken);
  out.nextU32(id);
  out.nextU8(static_cast<std::uint8_t>(type));
  out.nextU32(count);
  out.tokenIs(NboAttrLog::kCloseToken);
}

bool StreamAdapter::sendResend(AttributeId id) {
  NboAttrLog::Out& out = *nboAttrLogOut();
  if (!out.hasSufficientBuffer()) return false;
  NboAttrLog::MsgHeader header;
  header.entityId = entityId();
  header.attributeId = NboAttrLog::kResendAttribute;
  out.nextHeaderIs(header);
  out.tokenIs(NboAttrLog::kOpenToken);
  out.nextU32(id);
  out.tokenIs(NboAttrLog::kCloseToken);
  return true;
}

void StreamAdapter::askRemount() {
  remountWanted_ = true;
  demuxer_->queuedIs(*this, true);
}

StreamAdapter::Sent StreamAdapter::sendWaiting() {
  if (flag(kAnnounce)) {
    doSerializeOrphan();
    if (flag(kAnnounce)) return Sent::noRoom;
  }
  if (remountWanted_) {
    if (!sendResend(0)) return Sent::noRoom;
    remountWanted_ = false;
  }
  for (std::size_t at = 0; wanted_.any(); ++at) {
    if (!wanted_.has(at)) continue;
    if (!sendResend(attributeAt(at))) return Sent::noRoom;
    wanted_.bitIs(at, false);
  }
  if (!flag(kFlowOutPresent)) return Sent::all;
  while (flowOut_->hasDirtyAttributes()) {
    if (!continueFlowOut()) return Sent::noRoom;
    const std::size_t position = nextDirty();
    const std::size_t before = nboAttrLogOut()->waitingBytes();
    handleAttrFlowOut(attributeAt(position));
    flowOut_->latestIs(position);
    if (flowOut_->yields()) {
      flowOut_->yieldsIs(false);
      return Sent::later;
    }
    // An attribute that is longer than what is left waits for an empty buffer.
    if (flowOut_->dirtyBits().has(position) && nboAttrLogOut()->waitingBytes() == before) {
      return Sent::noRoom;
    }
  }
  return Sent::all;
}

void StreamAdapter::handleAttrFlowOut(AttributeId id) {
  throwRangeException("attribute " + std::to_string(id) + " of " + std::string(typeName()) +
                      " unknown");
}

void StreamAdapter::handleAttrDeserialization(std::int32_t id, std::uint32_t /*options*/,
                                              std::size_t /*length*/, ByteConnection::In& in) {
  if (id == NboAttrLog::kTransactionAttribute) {
    const NboAttrLog::TransactionMarker marker = NboAttrLog::readMarker(in);
    handleAttrTransaction(marker.attribute, marker.type, marker.count);
  } else if (id == NboAttrLog::kResendAttribute) {
    const AttributeId of = in.nextU32();
    in.tokenIs(NboAttrLog::kCloseToken);
    in.endIs();
    if (of == 0) {
      doRemountSelf(*nboAttrLogOut());
    } else {
      resendAll(of);
    }
  } else {
    throwRangeException("attribute " + std::to_string(id) + " of " + std::string(typeName()) +
                        " unknown");
  }
}

// The flow in ends here, so that a marker which repeats, or comes alone, finds nothing.
void StreamAdapter::handleAttrTransaction(AttributeId /*id*/, Transaction type,
                                          std::uint32_t /*count*/) {
  if (type != Transaction::begin) flowIn_.reset();
}

}  // namespace Vex
