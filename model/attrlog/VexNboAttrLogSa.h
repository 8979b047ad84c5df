// SPDX-License-Identifier: Apache-2.0
//
// Ringward::AttrLog::VexNboAttrLogSa<Class>: the stream adapter of an entity class. It watches one
// entity for one connection, sends each change and applies what comes in. One template serves all
// classes: it is driven by their descriptions. Activity thread only; owned by the Demuxer of its
// connection; holds a counted reference to its entity.
//
// What goes: isNondestructing, every scalar that can be set, collections and queues member by
// member, entities as key or name and id with their own stream behind them. What does not: keys
// that a constructor takes, and tables, which travel in the store.
//
// A queue's published position changes with its members, in silence. So the attribute that holds
// it, which stands one number below the queue, is sent behind every change of the queue.
//
// What a reaction does to a change that came in: another attribute, or another key, is sent as any
// change is; the same one is not (it would go back to where it came from).
//
// Invariants, beside those of StreamAdapter:
//  1. A transfer's begin marker goes ahead of its first member, its commit marker behind its last.
//  2. A change during a transfer of a key behind the place reached goes at once; without room for
//     it, or when too many have gone ahead of it, the transfer is followed by another one, behind
//     whatever else waits. A deletion, and any change of a queue, does the same wherever it stands.
//     So every transfer comes to its end, and everything has its turn, however often a collection
//     changes and however slowly the peer reads.
//  3. A member is deleted by a transfer only at the commit marker, and only if it was there at the
//     begin marker and has been neither sent nor changed here since.
#pragma once

#include <array>
#include <optional>
#include <tuple>
#include <type_traits>
#include <unordered_map>

#include "model/attrlog/Values.h"
#include "runtime/vex/Description.h"
#include "runtime/vex/attrlog/Demuxer.h"

namespace Ringward::AttrLog {

// What the log knows a class by.
template <class Class>
struct Logged {
  static constexpr std::string_view kTypeName = Vex::Description<Class>::kTypeName;
  static constexpr auto kAttributes = Vex::Description<Class>::kAttributes;
};

// Collections, queues and members have keys; a child is one entity.
template <class A>
inline constexpr bool isKeyedAttribute =
    A::kind == Vex::AttributeKind::collection || A::kind == Vex::AttributeKind::queue ||
    A::kind == Vex::AttributeKind::members;

template <class Class>
class VexNboAttrLogSa final : public Class::NotifieeConst, public Vex::StreamAdapter {
 public:
  static constexpr auto kAttributes = Logged<Class>::kAttributes;
  using Attributes = std::remove_const_t<decltype(kAttributes)>;
  // The class's attributes and isNondestructing.
  static constexpr std::size_t kCount = std::tuple_size_v<Attributes> + 1;
  static_assert(kCount <= Vex::NboAttrLog::VexDirtyBitSet0::kBits);
  static_assert(kCount <= Vex::Entity::kTransfers);
  template <std::size_t I>
  using Attribute = std::tuple_element_t<I, Attributes>;

  // Where the transfer of a collection stands.
  template <class Key>
  struct Bookmark {
    bool underWay = false;    // begun and not ended
    bool again = false;       // something behind the place has changed and could not be sent
    bool remount = false;     // all that is below the members goes with them
    std::optional<Key> next;  // what goes next; none: the commit marker
    std::optional<Key> last;  // of a queue, the last one at the begin
  };
  struct NoBookmark {};
  template <class A, class = void>
  struct BookmarkOf {
    using Type = NoBookmark;
  };
  template <class A>
  struct BookmarkOf<A, std::enable_if_t<isKeyedAttribute<A>>> {
    using Type = Bookmark<typename Vex::KeyedAccess<Vex::CollectionOf<A, Class>>::Key>;
  };
  template <class Tuple>
  struct BookmarksOf;
  template <class... As>
  struct BookmarksOf<std::tuple<As...>> {
    using Type = std::tuple<typename BookmarkOf<As>::Type...>;
  };

  class FlowOut final : public Vex::NboAttrLog::FlowOut {
   public:
    template <Vex::AttributeId Id>
    bool dirty() noexcept {
      return dirtyBits().has(positionOf(Id));
    }
    template <Vex::AttributeId Id>
    void dirtyIs(bool flag) noexcept {
      dirtyBits().bitIs(positionOf(Id), flag);
    }
    template <std::size_t I>
    auto& bookmark() noexcept {
      return std::get<I>(bookmarks_);
    }

   private:
    typename BookmarksOf<Attributes>::Type bookmarks_;
  };

  VexNboAttrLogSa(Vex::NboAttrLog::Demuxer& demuxer, Class& entity, std::uint32_t flags);

  // The entity.
  Class& self() const noexcept { return *entity_; }
  Vex::Entity& entity() const noexcept override { return *entity_; }
  Vex::NotifieeConst& notifiee() noexcept override { return *this; }
  std::string_view typeName() const noexcept override { return Logged<Class>::kTypeName; }
  bool isStreamAdapter() const override { return true; }
  void vexOnChange(Vex::AttributeId id, const void* key) override;
  void onIsNondestructing() override;
  using Class::NotifieeConst::onNotificationException;
  void onNotificationException(Vex::AttributeId id) override;

  // Sends one element, or the whole collection from its bookmark on, from the entity's state.
  template <Vex::AttributeId Id, class Key>
  void vexHandleSerializeSing(const Key& key) {
    serializeSing<indexOf(Id)>(key);
  }
  template <Vex::AttributeId Id>
  void vexHandleSerializeColl() {
    serializeColl<indexOf(Id)>();
  }
  void handleAttrFlowOut(Vex::AttributeId id) override;
  void handleAttrDeserialization(std::int32_t id, std::uint32_t options, std::size_t length,
                                 Vex::ByteConnection::In& in) override;
  void handleAttrTransaction(Vex::AttributeId id, Vex::NboAttrLog::Transaction type,
                             std::uint32_t count) override;
  void doThis() override;
  void doRemountSelf(Vex::NboAttrLog::Out& out) override;
  void freeResyncState(Vex::NboAttrLog::FlowOut& flowOut) override;
  void childrenDel() override;
  std::unique_ptr<Vex::NboAttrLog::FlowOut> newFlowOut() const override {
    return std::make_unique<FlowOut>();
  }

  // The position of an attribute in the class, from 1 on; 0 for isNondestructing and unknown ids.
  static constexpr std::size_t positionOf(Vex::AttributeId id) noexcept;
  static constexpr std::size_t indexOf(Vex::AttributeId id) noexcept { return positionOf(id) - 1; }

 protected:
  Vex::AttributeId attributeAt(std::size_t position) const noexcept override;
  std::size_t attributeCount() const noexcept override { return kCount; }
  std::size_t nextDirty() const noexcept override;
  void resendAll(Vex::AttributeId id) override;
  void marksDel(Vex::AttributeId id) noexcept override;

 private:
  using Vex::StreamAdapter::flag;
  using Vex::StreamAdapter::flagIs;
  using In = Vex::ByteConnection::In;
  template <std::size_t I>
  static constexpr const auto& attribute() noexcept {
    return std::get<I>(kAttributes);
  }
  template <std::size_t I>
  static constexpr Vex::AttributeKind kind = Attribute<I>::kind;
  template <std::size_t I>
  static constexpr bool isKeyed = isKeyedAttribute<Attribute<I>>;
  template <std::size_t I>
  static constexpr bool isChild = kind<I> == Vex::AttributeKind::ownedChild;
  template <std::size_t I>
  static constexpr bool travels();
  // A queue whose published position is the attribute ahead of it.
  template <std::size_t I>
  static constexpr bool hasMetadata();
  template <std::size_t I>
  using Access = Vex::KeyedAccess<Vex::CollectionOf<Attribute<I>, Class>>;
  template <std::size_t I>
  using ValueOf = typename Access<I>::Value;
  template <std::size_t I>
  auto& childrenOf() noexcept {
    return std::get<I>(children_);
  }
  template <std::size_t I>
  const auto& coll() const {
    return std::invoke(attribute<I>().coll, std::as_const(*entity_));
  }
  // Calls `call` with the index of the attribute as a constant; false for an id of nobody.
  template <class Call>
  static bool withIndex(Vex::AttributeId id, Call&& call);
  template <class Call>
  static void forEachIndex(Call&& call);

  // Sending.
  // The guards that stand ahead of everything that follows a change, in their order, then `send`.
  // `handled` says whether the change is the one that is coming in.
  template <class Send>
  void follow(std::size_t position, std::string_view name, bool handled, Send&& send);
  // Makes a call and lets what waits be sent, also if the call raises: it may ask the peer for
  // something.
  template <class Call>
  void continuing(Call&& call);
  template <std::size_t I>
  void onScalar();
  template <std::size_t I>
  void onChild();
  template <std::size_t I>
  void onKey(const void* key);
  template <std::size_t I, class Key>
  bool isHandled(const Key& key) const;
  bool scalarMayGo(std::size_t position, std::size_t room);
  template <std::size_t I, class Key>
  bool elementMayGo(const Key& key);
  template <std::size_t I, class Key>
  void serializeSing(const Key& key);
  template <std::size_t I>
  void serializeColl();
  template <std::size_t I>
  std::optional<typename Access<I>::Key> lastKey() const;
  template <std::size_t I, class Key>
  void endAtLast(const Key& reached, Bookmark<Key>& mark) const;
  template <std::size_t I>
  void serializeScalar();
  template <std::size_t I>
  void serializeChild();
  template <std::size_t I>
  std::size_t childRoom() const;
  void serializeNondestructing();
  template <std::size_t I>
  void metadataDirty();
  void header(Vex::AttributeId id, bool deleted, bool keyFlag);
  void closeMessage(std::size_t position);
  void dirty(std::size_t position);
  template <std::size_t I>
  void resend();
  template <std::size_t I, class Key>
  void resendKey(const Key& key);
  bool crossedAt(std::size_t position) const noexcept;
  bool crossedSinceBegin(std::size_t position) const noexcept;
  void arrived(std::size_t position) noexcept;

  // Reading.
  template <std::size_t I>
  void readScalar(In& in, bool refused);
  template <std::size_t I>
  void readChild(bool deleted, In& in, bool refused);
  void readRefusedMarker(In& in);
  template <std::size_t I>
  void readKey(bool deleted, In& in, bool refused);
  template <std::size_t I>
  void transferUnderWayIs(bool underWay) noexcept;
  template <std::size_t I>
  void begin();
  template <std::size_t I>
  void commit();
  template <std::size_t I>
  void unmark();
  template <std::size_t I, class Key>
  void markIs(const Key& key, bool marked) const noexcept;

  struct Arrival;
  // The entities below, by attribute and key.
  template <std::size_t I, class Child>
  Vex::StreamAdapter& childAdapter(Child& child, const Arrival* arrival);
  // Ahead of the next mention of an entity below the peer may not know the id in use.
  void remountAtMention(const Vex::Entity* child);
  void mentioned(const Vex::Entity* child);
  template <std::size_t I>
  void childKept();
  template <std::size_t I, class Key>
  void memberKept(const Key& key);

  // The id that came with an entity that may have to be made, and whether it is new.
  struct Arrival {
    Vex::EntityId id;
    bool isNew;
  };
  // Holds it while the entity is being made, for its adapter.
  class Arriving {
   public:
    Arriving(VexNboAttrLogSa& adapter, const Arrival& arrival) noexcept : adapter_(adapter) {
      adapter_.arriving_ = &arrival;
    }
    Arriving(const Arriving&) = delete;
    Arriving& operator=(const Arriving&) = delete;
    ~Arriving() { adapter_.arriving_ = nullptr; }

   private:
    VexNboAttrLogSa& adapter_;
  };

  struct NoChildren {};
  struct OneChild {
    const Vex::Entity* child = nullptr;
  };
  template <class A, class = void>
  struct ChildrenOf {
    using Type =
        std::conditional_t<A::kind == Vex::AttributeKind::ownedChild, OneChild, NoChildren>;
  };
  template <class A>
  struct ChildrenOf<A, std::enable_if_t<A::kind == Vex::AttributeKind::members>> {
    using Type = std::unordered_map<typename Vex::KeyedAccess<Vex::CollectionOf<A, Class>>::Key,
                                    const Vex::Entity*>;
  };
  template <class Tuple>
  struct AllChildrenOf;
  template <class... As>
  struct AllChildrenOf<std::tuple<As...>> {
    using Type = std::tuple<typename ChildrenOf<As>::Type...>;
  };
  FlowOut& own() { return static_cast<FlowOut&>(makeFlowOut()); }

  Class* const entity_;  // counted by the notifier
  typename AllChildrenOf<Attributes>::Type children_;
  // The frame that carried each attribute latest.
  std::array<std::uint64_t, kCount> sent_{};
  const Arrival* arriving_ = nullptr;
};

}  // namespace Ringward::AttrLog

#include "model/attrlog/VexNboAttrLogSa-inl.h"
#include "model/attrlog/VexNboAttrLogSaRead-inl.h"
#include "model/attrlog/VexNboAttrLogSaSend-inl.h"
