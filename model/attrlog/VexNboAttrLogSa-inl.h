// SPDX-License-Identifier: Apache-2.0
//
// What VexNboAttrLogSa does with changes of its entity: the guards, and what may go at once. Here
// too are the adapters of the entities below.
#pragma once

#include <exception>
#include <functional>
#include <string>
#include <utility>

#include "model/attrlog/VexNboAttrLogSa.h"

namespace Ringward::AttrLog {

template <class Class>
VexNboAttrLogSa<Class>::VexNboAttrLogSa(Vex::NboAttrLog::Demuxer& demuxer, Class& entity,
                                        std::uint32_t flags)
    : StreamAdapter(demuxer, flags), entity_(&entity) {
  this->vexTakesNumbersIs(true);
  this->notifierIs(Vex::Ptr<Vex::PtrInterface const>(&entity));
}

template <class Class>
constexpr std::size_t VexNboAttrLogSa<Class>::positionOf(Vex::AttributeId id) noexcept {
  std::size_t at = 0;
  std::size_t found = 0;
  std::apply([&](const auto&... a) { ((++at, found = a.id == id ? at : found), ...); },
             kAttributes);
  return found;
}

template <class Class>
Vex::AttributeId VexNboAttrLogSa<Class>::attributeAt(std::size_t position) const noexcept {
  Vex::AttributeId found = Vex::Entity::kIsNondestructing;
  std::size_t at = 0;
  std::apply([&](const auto&... a) { ((found = ++at == position ? a.id : found), ...); },
             kAttributes);
  return found;
}

template <class Class>
template <std::size_t I>
constexpr bool VexNboAttrLogSa<Class>::travels() {
  if constexpr (kind<I> == Vex::AttributeKind::plain) {
    return Vex::isOperation<decltype(Attribute<I>::set)>;
  } else {
    return isKeyed<I> || isChild<I>;
  }
}

template <class Class>
template <std::size_t I>
constexpr bool VexNboAttrLogSa<Class>::hasMetadata() {
  if constexpr (kind<I> == Vex::AttributeKind::queue && I > 0) {
    if constexpr (kind<I - 1> == Vex::AttributeKind::plain) {
      return std::is_same_v<Vex::ScalarValue<Attribute<I - 1>, Class>, Vex::LinkQueueMetadata>;
    }
  }
  return false;
}

template <class Class>
template <class Call>
bool VexNboAttrLogSa<Class>::withIndex(Vex::AttributeId id, Call&& call) {
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    return ((attribute<I>().id == id ? (call(std::integral_constant<std::size_t, I>{}), true)
                                     : false) ||
            ...);
  }
  (std::make_index_sequence<kCount - 1>{});
}

template <class Class>
template <class Call>
void VexNboAttrLogSa<Class>::forEachIndex(Call&& call) {
  [&]<std::size_t... I>(std::index_sequence<I...>) {
    (call(std::integral_constant<std::size_t, I>{}), ...);
  }
  (std::make_index_sequence<kCount - 1>{});
}

template <class Class>
void VexNboAttrLogSa<Class>::vexOnChange(Vex::AttributeId id, const void* key) {
  if (demuxer() == nullptr) return;
  continuing([&] {
    withIndex(id, [&](auto index) {
      constexpr std::size_t I = index;
      if constexpr (isKeyed<I>) {
        onKey<I>(key);
      } else if constexpr (isChild<I>) {
        onChild<I>();
      } else if constexpr (travels<I>()) {
        onScalar<I>();
      }
    });
  });
}

template <class Class>
template <class Call>
void VexNboAttrLogSa<Class>::continuing(Call&& call) {
  try {
    call();
  } catch (...) {
    demuxer()->continueOutput();
    throw;
  }
  demuxer()->continueOutput();
}

template <class Class>
void VexNboAttrLogSa<Class>::onNotificationException(Vex::AttributeId id) {
  if (demuxer() != nullptr) demuxer()->owner().handleNotificationException(*this, id);
}

template <class Class>
template <class Send>
void VexNboAttrLogSa<Class>::follow(std::size_t position, std::string_view name, bool handled,
                                    Send&& send) {
  // A reaction to what has just come in is not sent back.
  if (!flag(kHandlerActive) && handled) return;
  const bool arriving = flag(kHandlerActive) && handled;
  // From here on the flag goes down on every way out.
  const Anchor anchor(*this);
  if (arriving || syncMode() == SyncMode::off || !nboAttrLogOut()) return;
  if (flag(kReadOnly) && !convertedToWritable(false)) {
    askResend(position);
    doThrowReadOnly(name);
  }
  send();
}

// Whether a scalar may be sent at once; if not it has become dirty.
template <class Class>
bool VexNboAttrLogSa<Class>::scalarMayGo(std::size_t position, std::size_t room) {
  const bool sufficient = nboAttrLogOut()->hasSufficientBuffer(room) && demuxer()->goesAhead();
  if (sufficient && (flowOut() == nullptr || !flowOut()->hasDirtyAttributes())) return true;
  FlowOut& flow = own();
  flow.dirtyBits().bitIs(position, true);
  if (!prepareImmediateTransmission(attributeAt(position), !sufficient)) return false;
  flow.doneIs(position);
  return true;
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::onScalar() {
  const auto& a = attribute<I>();
  follow(I + 1, a.name, handlingFlowInFor(a.id), [&] {
    if (scalarMayGo(I + 1, Vex::NboAttrLog::Out::kMessageRoom)) serializeScalar<I>();
  });
}

template <class Class>
void VexNboAttrLogSa<Class>::onIsNondestructing() {
  if (demuxer() == nullptr) return;
  constexpr Vex::AttributeId kId = Vex::Entity::kIsNondestructing;
  continuing([&] {
    follow(0, "isNondestructing", handlingFlowInFor(kId), [&] {
      if (scalarMayGo(0, Vex::NboAttrLog::Out::kMessageRoom)) serializeNondestructing();
    });
  });
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::onChild() {
  const auto& a = attribute<I>();
  childKept<I>();
  const auto& child = std::invoke(a.get, std::as_const(*entity_));
  if (child && arriving_ != nullptr && handlingId() == a.id) childAdapter<I>(*child, arriving_);
  follow(I + 1, a.name, handlingFlowInFor(a.id), [&] {
    if (scalarMayGo(I + 1, childRoom<I>())) serializeChild<I>();
  });
}

template <class Class>
template <std::size_t I, class Key>
bool VexNboAttrLogSa<Class>::isHandled(const Key& key) const {
  if (!handlingFlowInFor(attribute<I>().id)) return false;
  return handlingKey() == nullptr || *static_cast<const Key*>(handlingKey()) == key;
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::onKey(const void* at) {
  using Key = typename Access<I>::Key;
  const auto& a = attribute<I>();
  const Key& key = *static_cast<const Key*>(at);
  if constexpr (kind<I> == Vex::AttributeKind::members) {
    memberKept<I>(key);
    auto* const member = Access<I>::find(coll<I>(), key);
    if (member != nullptr && arriving_ != nullptr && isHandled<I>(key)) {
      childrenOf<I>()[key] = member;
      childAdapter<I>(*member, arriving_);
    }
  }
  const bool handled = isHandled<I>(key);
  // What changes here during a transfer is not among what the sender does not have.
  if (!handled && flowIn() != nullptr) markIs<I>(key, false);
  follow(I + 1, a.name, handled, [&] {
    if (elementMayGo<I>(key)) serializeSing<I>(key);
  });
}

// Whether an element may be sent at once; if not, the collection's transfer will bring it.
template <class Class>
template <std::size_t I, class Key>
bool VexNboAttrLogSa<Class>::elementMayGo(const Key& key) {
  const bool sufficient = nboAttrLogOut()->hasSufficientBuffer() && demuxer()->goesAhead();
  if (sufficient && (flowOut() == nullptr || !flowOut()->hasDirtyAttributes())) return true;
  FlowOut& flow = own();
  auto& mark = flow.template bookmark<I>();
  const bool waited = flow.dirtyBits().has(I + 1);
  flow.dirtyBits().bitIs(I + 1, true);
  const bool leave = prepareImmediateTransmission(attribute<I>().id, !sufficient);
  if (mark.underWay) {
    // What is set ahead of the bookmark comes with the transfer. A deletion goes by itself, there
    // too: the peer may have touched the element since the begin marker, and would keep it. One
    // that may not go, because too many have, is told by what the next transfer leaves out.
    const bool deleted = Access<I>::find(coll<I>(), key) == nullptr;
    const bool ahead =
        kind<I> != Vex::AttributeKind::queue && mark.next && !Access<I>::isBefore(key, *mark.next);
    if (ahead && !deleted) return false;
    if (!leave) mark.again = true;
    return leave;
  }
  if (waited) return false;
  if (leave) flow.dirtyBits().bitIs(I + 1, false);
  return leave;
}

// The adapter of an entity below: made at its first mention. With `id` it is the peer that mentions
// it, without the peer hears of it from us, and everything of it.
template <class Class>
template <std::size_t I, class Child>
Vex::StreamAdapter& VexNboAttrLogSa<Class>::childAdapter(Child& child, const Arrival* arrival) {
  Vex::StreamAdapter* adapter = demuxer()->adapter(child);
  const bool isNew = adapter == nullptr;
  if (isNew) {
    auto made = Vex::makePtr<VexNboAttrLogSa<Child>>(*demuxer(), child, inheritedFlags());
    adapter = made.get();
    demuxer()->adapterIs(std::move(made), *adapter);
    if constexpr (isChild<I>) std::get<I>(children_).child = &child;
  }
  if (arrival != nullptr) {
    demuxer()->idIs(*adapter, arrival->id);
    if (isNew && !arrival->isNew) adapter->askRemount();
  } else if (isNew) {
    demuxer()->newId(*adapter);
    adapter->doThis();
  }
  return *adapter;
}

template <class Class>
template <std::size_t I>
void VexNboAttrLogSa<Class>::childKept() {
  const Vex::Entity*& held = std::get<I>(children_).child;
  const Vex::Entity* const present = std::invoke(attribute<I>().get, std::as_const(*entity_)).get();
  if (held == nullptr || held == present) return;
  Vex::StreamAdapter* const gone = demuxer()->adapter(*std::exchange(held, nullptr));
  if (gone != nullptr) demuxer()->adapterDel(*gone);
}

template <class Class>
template <std::size_t I, class Key>
void VexNboAttrLogSa<Class>::memberKept(const Key& key) {
  auto& held = childrenOf<I>();
  const auto found = held.find(key);
  if (found == held.end() || found->second == Access<I>::find(coll<I>(), key)) return;
  Vex::StreamAdapter* const gone = demuxer()->adapter(*found->second);
  held.erase(found);
  if (gone != nullptr) demuxer()->adapterDel(*gone);
}

template <class Class>
void VexNboAttrLogSa<Class>::childrenDel() {
  const auto drop = [&](const Vex::Entity* child) {
    Vex::StreamAdapter* const gone = child != nullptr ? demuxer()->adapter(*child) : nullptr;
    if (gone != nullptr) demuxer()->adapterDel(*gone);
  };
  forEachIndex([&](auto index) {
    if constexpr (isChild<index>) {
      drop(std::exchange(std::get<index>(children_).child, nullptr));
    } else if constexpr (kind<index> == Vex::AttributeKind::members) {
      const auto all = std::exchange(childrenOf<index>(), {});
      for (const auto& [key, child] : all) drop(child);
    }
  });
}

}  // namespace Ringward::AttrLog
