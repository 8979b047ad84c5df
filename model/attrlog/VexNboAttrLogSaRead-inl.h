// SPDX-License-Identifier: Apache-2.0
//
// What VexNboAttrLogSa does with what comes in.
#pragma once

#include <functional>
#include <string>
#include <type_traits>
#include <utility>

#include "model/attrlog/VexNboAttrLogSa.h"

namespace Ringward::AttrLog {

// Whether the peer wrote an attribute without knowing what this end had sent of it. Only the end
// with the original sends again: one of two must give way.
template <class Class>
bool VexNboAttrLogSa<Class>::crossedAt(std::size_t position) const noexcept {
  return demuxer() != nullptr && !flag(kMirror) && sent_[position] > demuxer()->peerReceived();
}

// The same of a transfer that has come to its end: what was sent since the peer began it may stand
// there behind the place that it had reached.
template <class Class>
bool VexNboAttrLogSa<Class>::crossedSinceBegin(std::size_t position) const noexcept {
  if (flag(kMirror)) return false;
  const bool waits = flowOut() != nullptr && flowOut()->dirtyBits().has(position);
  return waits || sent_[position] > flowIn()->peerReceived();
}

// What has come in takes the place of a change of ours that waits to be sent. Sent all the same it
// would be the peer's own value, and would undo what the peer has made of it since. What the peer
// is owed goes nevertheless: it may have another object by now, which knows nothing of the value.
template <class Class>
void VexNboAttrLogSa<Class>::arrived(std::size_t position) noexcept {
  if (flowOut() != nullptr && !flowOut()->isOwed(position)) flowOut()->doneIs(position);
}

template <class Class>
void VexNboAttrLogSa<Class>::handleAttrDeserialization(std::int32_t id, std::uint32_t options,
                                                       std::size_t length, In& in) {
  if (flag(kHandlerActive) || handlingId() != 0) {
    Vex::throwInternalException("entity reactor is already active");
  }
  const Anchor anchor(*this);
  const auto of = static_cast<Vex::AttributeId>(id < 0 ? -std::int64_t{id} : id);
  const bool refused = flag(kReadOnly) && !(readOnlyRemoteOk(of) || convertedToWritable(true));
  try {
    const bool known = withIndex(of, [&](auto index) {
      constexpr std::size_t I = index;
      if constexpr (isKeyed<I>) {
        readKey<I>(id < 0, in, refused);
      } else if constexpr (isChild<I>) {
        readChild<I>(id < 0, in, refused);
      } else if constexpr (travels<I>()) {
        if (id < 0) Vex::throwRangeException("deletion of a scalar not allowed");
        readScalar<I>(in, refused);
      } else {
        Vex::throwRangeException("attribute " + std::to_string(id) + " does not travel");
      }
    });
    if (known) return;
    if (id != static_cast<std::int32_t>(Vex::Entity::kIsNondestructing)) {
      if (refused && id == Vex::NboAttrLog::kTransactionAttribute) return readRefusedMarker(in);
      return StreamAdapter::handleAttrDeserialization(id, options, length, in);
    }
    const bool value = in.nextbool();
    in.tokenIs(Vex::NboAttrLog::kCloseToken);
    in.endIs();
    if (refused) {
      demuxer()->owner().handleRefused(*this, of);
      dirty(0);
    } else {
      {
        const Handling handling(*this, of, nullptr);
        entity_->isNondestructingIs(value);
      }
      arrived(0);
      if (crossedAt(0)) dirty(0);
    }
  } catch (const Vex::RangeException& error) {
    Vex::rethrowFromDeserializeAttr(error, entity_->attributeString(of));
  }
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::readScalar(In& in, bool refused) {
  const auto& a = attribute<I>();
  Vex::ScalarValue<Attribute<I>, Class> value{};
  in >> value;
  in.tokenIs(Vex::NboAttrLog::kCloseToken);
  in.endIs();
  if (refused) {
    demuxer()->owner().handleRefused(*this, a.id);
    return resend<I>();
  }
  {
    const Handling handling(*this, a.id, nullptr);
    std::invoke(a.set, *entity_, value);
  }
  arrived(I + 1);
  if (crossedAt(I + 1)) resend<I>();
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::readChild(bool deleted, In& in, bool refused) {
  const auto& a = attribute<I>();
  std::string name;
  Vex::EntityId id;
  if (!deleted) {
    in >> name >> id;
    id = id.seenByPeer();
  }
  in.tokenIs(Vex::NboAttrLog::kCloseToken);
  in.endIs();
  const Arrival arrival{id, !deleted && demuxer()->announcedIs(id)};
  const auto present = [&] { return std::invoke(a.get, std::as_const(*entity_)); };
  const bool isPresent = !deleted && present() && present()->name().view() == name;
  // Who holds the children has handed them to others, who would not hear of another object.
  const bool kept = !flag(kMirror) && demuxer()->childrenKept() && present() && !isPresent;
  if (refused || kept) {
    demuxer()->owner().handleRefused(*this, a.id);
    return resend<I>();
  }
  if (!deleted) {
    demuxer()->requireRoomFor(arrival.id, isPresent ? present().get() : nullptr,
                              isPresent ? nullptr : present().get());
  }
  if (deleted) {
    const Handling handling(*this, a.id, nullptr);
    std::invoke(a.del, *entity_);
  } else {
    const Handling handling(*this, a.id, nullptr);
    const Vex::Name childName(name);
    const auto child = [&]() -> std::remove_cvref_t<decltype(present())> {
      const Arriving arriving(*this, arrival);
      try {
        return std::invoke(a.make, *entity_, childName);
      } catch (const Vex::RangeException& error) {
        // A reaction has taken the child away again: nothing that the peer could be blamed for.
        if (error.text() != "null ValidPtr") throw;
        return nullptr;
      }
    }();
    if (demuxer() != nullptr && child && child == present()) {
      childAdapter<I>(*child, &arrival);
    }
  }
  if (demuxer() == nullptr) return;
  arrived(I + 1);
  // A reaction may have put something else in its place, which is no echo.
  const bool asArrived = deleted ? !present() : present() && present()->name().view() == name;
  if (crossedAt(I + 1) || (!flag(kMirror) && !asArrived)) resend<I>();
}

// The elements between the markers are refused and put back one by one; what the transfer did not
// mention, and the peer therefore no longer has, is not among them. A transfer that began while the
// peer had the right comes to nothing.
template <class Class>
void VexNboAttrLogSa<Class>::readRefusedMarker(In& in) {
  const Vex::NboAttrLog::TransactionMarker marker = Vex::NboAttrLog::readMarker(in);
  demuxer()->flowInDel(*this);
  if (marker.type == Vex::NboAttrLog::Transaction::commit) resendAll(marker.attribute);
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::readKey(bool deleted, In& in, bool refused) {
  constexpr bool kMembers = kind<I> == Vex::AttributeKind::members;
  const auto& a = attribute<I>();
  typename Access<I>::Key key{};
  std::conditional_t<kMembers, Vex::EntityId, ValueOf<I>> value{};
  in >> key;
  requireKey(key);
  if (!deleted) in >> value;
  in.tokenIs(Vex::NboAttrLog::kCloseToken);
  in.endIs();
  Arrival arrival{};
  if constexpr (kMembers) {
    if (!deleted) arrival = {value.seenByPeer(), demuxer()->announcedIs(value.seenByPeer())};
  }
  if (refused) {
    demuxer()->owner().handleRefused(*this, a.id);
    return resendKey<I>(key);
  }
  if (!deleted && Access<I>::find(coll<I>(), key) == nullptr &&
      Access<I>::members(coll<I>()) >= Vex::NboAttrLog::Demuxer::kMaxMembers) {
    Vex::throwRangeException("more than " + std::to_string(Vex::NboAttrLog::Demuxer::kMaxMembers) +
                             " members not allowed");
  }
  if constexpr (kMembers) {
    if (!deleted) demuxer()->requireRoomFor(arrival.id, Access<I>::find(coll<I>(), key), nullptr);
  }
  markIs<I>(key, false);
  const Handling handling(*this, a.id, &key);
  if (deleted) {
    std::invoke(a.del, *entity_, key);
  } else if constexpr (kMembers) {
    const auto member = [&] {
      const Arriving arriving(*this, arrival);
      return std::invoke(a.make, *entity_, key);
    }();
    if (demuxer() != nullptr && member && Access<I>::find(coll<I>(), key) == member.get()) {
      childrenOf<I>()[key] = member.get();
      childAdapter<I>(*member, &arrival);
    }
  } else {
    std::invoke(a.set, *entity_, key, value);
  }
  if (crossedAt(I + 1)) resendKey<I>(key);
}

template <class Class>
void VexNboAttrLogSa<Class>::handleAttrTransaction(Vex::AttributeId id,
                                                   Vex::NboAttrLog::Transaction type,
                                                   std::uint32_t count) {
  using Vex::NboAttrLog::FlowIn;
  using Vex::NboAttrLog::Transaction;
  if (type == Transaction::begin) {
    // Another attribute's transfer that was never ended has come to nothing.
    if (flowIn() != nullptr) demuxer()->flowInDel(*this);
    demuxer()->flowInIs(*this).aidIs(id);
  } else if (flowIn() == nullptr || flowIn()->aid() != id) {
    // Its begin marker was refused, perhaps: what the transfer left out still stands here.
    if (type == Transaction::commit && !flag(kMirror)) resendAll(id);
    return;
  } else if (type == Transaction::commit) {
    flowIn()->handlingTransactionIs(true);
  }
  const bool known = withIndex(id, [&](auto index) {
    constexpr std::size_t I = index;
    if constexpr (isKeyed<I>) {
      if (type == Transaction::begin) {
        begin<I>();
      } else if (type == Transaction::commit && flowIn()->ownsMarks() &&
                 !crossedSinceBegin(I + 1)) {
        commit<I>();
      } else {
        unmark<I>();
        if (type == Transaction::commit) resend<I>();
      }
    } else if constexpr (isChild<I>) {
      transferUnderWayIs<I>(type == Transaction::begin);
    }
  });
  if (!known) {
    demuxer()->flowInDel(*this);
    Vex::throwRangeException("attribute " + std::to_string(id) + " of " + std::string(typeName()) +
                             " unknown");
  }
  StreamAdapter::handleAttrTransaction(id, type, count);
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::transferUnderWayIs(bool underWay) noexcept {
  const Vex::Entity* const child = std::get<I>(children_).child;
  Vex::StreamAdapter* const below = child != nullptr ? demuxer()->adapter(*child) : nullptr;
  if (below != nullptr) below->flagIs(kTransferUnderWay, underWay);
}

template <class Class>
template <std::size_t I, class Key>
void VexNboAttrLogSa<Class>::markIs(const Key& key, bool marked) const noexcept {
  const Vex::PtrInterface* const member = Access<I>::member(coll<I>(), key);
  // A member's mark belongs to the transfer and not to what readers of the collection see.
  if (member != nullptr) const_cast<Vex::PtrInterface*>(member)->vexMarkedForDeletionIs(marked);
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::begin() {
  flowIn()->peerReceivedIs(demuxer()->peerReceived());
  // The members' marks belong to one transfer at a time. What another one, by another connection,
  // leaves out cannot be told: its sender is sent what stands here.
  if (!flag(kMirror) && entity_->vexTransferUnderWay(I + 1)) return;
  flowIn()->ownsMarksIs(true);
  entity_->vexTransferUnderWayIs(I + 1, true);
  for (auto key = Access<I>::keyAfter(coll<I>(), nullptr); key;
       key = Access<I>::keyAfter(coll<I>(), &*key)) {
    markIs<I>(*key, true);
  }
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::unmark() {
  if (flowIn() == nullptr || !flowIn()->ownsMarks()) return;
  flowIn()->ownsMarksIs(false);
  entity_->vexTransferUnderWayIs(I + 1, false);
  for (auto key = Access<I>::keyAfter(coll<I>(), nullptr); key;
       key = Access<I>::keyAfter(coll<I>(), &*key)) {
    markIs<I>(*key, false);
  }
}

// What follows a key is asked for before the key goes: the step is then one lookup.
template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::commit() {
  for (auto key = Access<I>::keyAfter(coll<I>(), nullptr); key && demuxer() != nullptr;) {
    const auto next = Access<I>::keyAfter(coll<I>(), &*key);
    const Vex::PtrInterface* const member = Access<I>::member(coll<I>(), *key);
    if (member != nullptr && member->isZombie()) {
      const Anchor anchor(*this);
      const Handling handling(*this, attribute<I>().id, &*key);
      std::invoke(attribute<I>().del, *entity_, *key);
    }
    key = next;
  }
  if (flowIn() == nullptr) return;  // the connection has ended meanwhile, and the marks with it
  flowIn()->ownsMarksIs(false);
  entity_->vexTransferUnderWayIs(I + 1, false);
}

template <class Class>
void VexNboAttrLogSa<Class>::marksDel(Vex::AttributeId id) noexcept {
  withIndex(id, [&](auto index) {
    if constexpr (isKeyed<index>) {
      unmark<index>();
    } else if constexpr (isChild<index>) {
      transferUnderWayIs<index>(false);
    }
  });
}

}  // namespace Ringward::AttrLog
