// SPDX-License-Identifier: Apache-2.0
//
// How VexNboAttrLogSa sends: messages, transfers, everything once more.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "model/attrlog/VexNboAttrLogSa.h"

namespace Ringward::AttrLog {

template <class Class>
void VexNboAttrLogSa<Class>::header(Vex::AttributeId id, bool deleted, bool keyFlag) {
  Vex::NboAttrLog::MsgHeader header;
  header.entityId = entityId();
  header.attributeId = deleted ? -static_cast<std::int32_t>(id) : static_cast<std::int32_t>(id);
  header.keyFlag = keyFlag;
  header.payloadHint = keyFlag ? 0 : 4;
  nboAttrLogOut()->nextHeaderIs(header);
  nboAttrLogOut()->tokenIs(Vex::NboAttrLog::kOpenToken);
}

template <class Class>
void VexNboAttrLogSa<Class>::closeMessage(std::size_t position) {
  nboAttrLogOut()->tokenIs(Vex::NboAttrLog::kCloseToken);
  sent_[position] = nboAttrLogOut()->frames();
}

template <class Class>
void VexNboAttrLogSa<Class>::dirty(std::size_t position) {
  own().owedIs(position);
  demuxer()->queuedIs(*this, true);
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::serializeScalar() {
  const auto& a = attribute<I>();
  header(a.id, false, false);
  nboAttrLogOut() << std::invoke(a.get, std::as_const(*entity_));
  closeMessage(I + 1);
}

template <class Class>
void VexNboAttrLogSa<Class>::serializeNondestructing() {
  header(Vex::Entity::kIsNondestructing, false, false);
  nboAttrLogOut() << entity_->isNondestructing();
  closeMessage(0);
}

// With the markers of a transfer around it.
template <class Class>
template <std::size_t I>
std::size_t VexNboAttrLogSa<Class>::childRoom() const {
  const auto& child = std::invoke(attribute<I>().get, std::as_const(*entity_));
  return 3 * Vex::NboAttrLog::Out::kMessageRoom + (child ? child->name().size() : 0);
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::serializeChild() {
  const auto& a = attribute<I>();
  const auto& child = std::invoke(a.get, std::as_const(*entity_));
  // No message can carry such a name: the peer goes without the child.
  const bool absent = !child || child->name().size() > In::kMaxText;
  const Vex::EntityId id = absent ? Vex::EntityId() : childAdapter<I>(*child, nullptr).entityId();
  header(a.id, absent, false);
  if (!absent) nboAttrLogOut() << child->name().view() << id;
  closeMessage(I + 1);
  if (!absent) mentioned(child.get());
}

template <class Class>
template <std::size_t I, class Key>
void VexNboAttrLogSa<Class>::serializeSing(const Key& key) {
  const auto& a = attribute<I>();
  auto* const value = Access<I>::find(coll<I>(), key);
  Vex::EntityId id;
  if constexpr (kind<I> == Vex::AttributeKind::members) {
    if (value != nullptr) {
      childrenOf<I>()[key] = value;
      id = childAdapter<I>(*value, nullptr).entityId();
    }
  }
  header(a.id, value == nullptr, true);
  nboAttrLogOut() << key;
  if (value != nullptr) {
    if constexpr (kind<I> == Vex::AttributeKind::members) {
      nboAttrLogOut() << id;
    } else {
      nboAttrLogOut() << *value;
    }
  }
  closeMessage(I + 1);
  if constexpr (kind<I> == Vex::AttributeKind::members) mentioned(value);
  metadataDirty<I>();
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::metadataDirty() {
  if constexpr (hasMetadata<I>()) dirty(I);
}

// The indexes of a queue only grow: a transfer that went on to the present end would never reach it
// if members join faster than the peer reads.
template <class Class>
template <std::size_t I>
auto VexNboAttrLogSa<Class>::lastKey() const -> std::optional<typename Access<I>::Key> {
  if constexpr (kind<I> == Vex::AttributeKind::queue) {
    if (const auto* const tail = coll<I>().tail(); tail != nullptr) return tail->vex_index();
  }
  return std::nullopt;
}

// What has joined since the begin has gone by itself, or another transfer follows. If the last one
// has left meanwhile, only the order of the indexes tells what stood behind it, and that says
// nothing of indexes that lie too far apart: then another transfer follows in any case.
template <class Class>
template <std::size_t I, class Key>
void VexNboAttrLogSa<Class>::endAtLast(const Key& reached, Bookmark<Key>& mark) const {
  if (!mark.next || !mark.last) return;
  const bool gone = Access<I>::find(coll<I>(), *mark.last) == nullptr;
  if (reached != *mark.last && !(gone && Access<I>::isBefore(*mark.last, *mark.next))) return;
  mark.next.reset();
  mark.again = mark.again || gone;
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::serializeColl() {
  using Key = typename Access<I>::Key;
  using Vex::NboAttrLog::Transaction;
  if (syncMode() == SyncMode::off || !nboAttrLogOut()) return;
  FlowOut& flow = own();
  auto& mark = flow.template bookmark<I>();
  const Vex::AttributeId id = attribute<I>().id;
  if (!mark.underWay) {
    sendTransactionMarker(id, Transaction::begin, 0);
    sent_[I + 1] = nboAttrLogOut()->frames();
    mark = {true, false, mark.remount, Access<I>::keyAfter(coll<I>(), nullptr), lastKey<I>()};
  }
  while (mark.next) {
    if (!continueFlowOut()) return;
    const Key key = *mark.next;
    // The bookmark's own member may have gone while the buffer was full.
    if (auto* const value = Access<I>::find(coll<I>(), key); value != nullptr) {
      if constexpr (kind<I> == Vex::AttributeKind::members) {
        if (mark.remount) remountAtMention(value);
      }
      serializeSing<I>(key);
    }
    mark.next = Access<I>::keyAfter(coll<I>(), &key);
    endAtLast<I>(key, mark);
  }
  if (!continueFlowOut()) return;
  sendTransactionMarker(id, Transaction::commit, 0);
  sent_[I + 1] = nboAttrLogOut()->frames();
  flow.doneIs(I + 1);
  flow.dirtyBits().bitIs(I + 1, mark.again);
  flow.yieldsIs(mark.again);
  mark = {};
  metadataDirty<I>();
}

template <class Class>
void VexNboAttrLogSa<Class>::handleAttrFlowOut(Vex::AttributeId id) {
  using Vex::NboAttrLog::Transaction;
  FlowOut& flow = own();
  for (std::size_t at = 0; flow.pendingAborts().any(); ++at) {
    if (!flow.pendingAborts().has(at)) continue;
    if (!continueFlowOut()) return;
    sendTransactionMarker(attributeAt(at), Transaction::abort, 0);
    flow.pendingAborts().bitIs(at, false);
  }
  if (!continueFlowOut()) return;
  const bool known = withIndex(id, [&](auto index) {
    constexpr std::size_t I = index;
    if constexpr (isKeyed<I>) {
      serializeColl<I>();
    } else if constexpr (isChild<I>) {
      if (!nboAttrLogOut()->hasSufficientBuffer(childRoom<I>())) return;
      sendTransactionMarker(id, Transaction::begin, 0);
      serializeChild<I>();
      sendTransactionMarker(id, Transaction::commit, 0);
      flow.doneIs(I + 1);
    } else if constexpr (travels<I>()) {
      serializeScalar<I>();
      flow.doneIs(I + 1);
    }
  });
  if (known) return;
  if (id != Vex::Entity::kIsNondestructing) return StreamAdapter::handleAttrFlowOut(id);
  serializeNondestructing();
  flow.doneIs(0);
}

// A transfer that is under way goes on before another begins; else they take turns.
template <class Class>
std::size_t VexNboAttrLogSa<Class>::nextDirty() const noexcept {
  auto& flow = static_cast<FlowOut&>(*flowOut());
  std::size_t found = (flow.latest() + 1) % kCount;
  while (!flow.dirtyBits().has(found)) found = (found + 1) % kCount;
  forEachIndex([&](auto index) {
    if constexpr (isKeyed<index>) {
      if (flow.dirtyBits().has(index + 1) && flow.template bookmark<index>().underWay) {
        found = index + 1;
      }
    }
  });
  return found;
}

template <class Class>
void VexNboAttrLogSa<Class>::doThis() {
  dirty(0);
  forEachIndex([&](auto index) {
    if constexpr (travels<index>()) dirty(index + 1);
  });
}

template <class Class>
void VexNboAttrLogSa<Class>::doRemountSelf(Vex::NboAttrLog::Out& /*out*/) {
  dirty(0);
  forEachIndex([&](auto index) {
    if constexpr (travels<index>()) resend<index>();
  });
}

template <class Class>
void VexNboAttrLogSa<Class>::freeResyncState(Vex::NboAttrLog::FlowOut& flowOut) {
  flowOut.allDone();
  flowOut.pendingAborts().clear();
  forEachIndex([&](auto index) {
    if constexpr (isKeyed<index>) static_cast<FlowOut&>(flowOut).template bookmark<index>() = {};
  });
}

template <class Class>
void VexNboAttrLogSa<Class>::resendAll(Vex::AttributeId id) {
  if (id == Vex::Entity::kIsNondestructing) return dirty(0);
  const bool known = withIndex(id, [&](auto index) {
    if constexpr (travels<index>()) resend<index>();
  });
  if (!known)
    Vex::throwRangeException("attribute " + std::to_string(id) + " of " + std::string(typeName()) +
                             " unknown");
}

// Sends an attribute and all that is below it as it stands; begins again what is under way. Costs
// the same however many members there are: a peer may ask as often as it likes.
template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::resend() {
  dirty(I + 1);
  if constexpr (isKeyed<I>) {
    auto& mark = own().template bookmark<I>();
    if (mark.underWay) own().pendingAborts().bitIs(I + 1, true);
    mark = {};
    mark.remount = kind<I> == Vex::AttributeKind::members;
  }
  if constexpr (isChild<I>) remountAtMention(std::get<I>(children_).child);
}

template <class Class>
template <std::size_t I, class Key>
void VexNboAttrLogSa<Class>::resendKey(const Key& key) {
  if constexpr (kind<I> == Vex::AttributeKind::members) {
    const auto found = childrenOf<I>().find(key);
    if (found != childrenOf<I>().end()) remountAtMention(found->second);
  }
  if (elementMayGo<I>(key)) serializeSing<I>(key);
}

template <class Class>
void VexNboAttrLogSa<Class>::remountAtMention(const Vex::Entity* child) {
  Vex::StreamAdapter* const below = child != nullptr ? demuxer()->adapter(*child) : nullptr;
  if (below != nullptr) below->flagIs(kRemount, true);
}

template <class Class>
void VexNboAttrLogSa<Class>::mentioned(const Vex::Entity* child) {
  Vex::StreamAdapter* const below = child != nullptr ? demuxer()->adapter(*child) : nullptr;
  if (below == nullptr || !below->flag(kRemount)) return;
  below->flagIs(kRemount, false);
  below->doRemountSelf(*nboAttrLogOut());
}

}  // namespace Ringward::AttrLog
