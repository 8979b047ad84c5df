// SPDX-License-Identifier: Apache-2.0
//
// The one description that a class has of itself: the numbers, names, kinds and accessors of its
// attributes, stated once, next to the class:
//
//   template <>
//   struct Vex::Description<Ringward::Config::TransmitConfig> {
//     using Class = Ringward::Config::TransmitConfig;
//     static constexpr std::string_view kTypeName = "Ringward::Config::TransmitConfig";
//     static constexpr auto kAttributes = std::tuple(
//         Vex::Scalar{Class::kRateLimit, "rateLimit", &Class::rateLimit, &Class::rateLimitIs});
//   };
//
// attributeString(), generic access, the attribute log and the text form of values are driven by
// it; none of them lists attributes again. Everything here is constant: usable from any thread.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "runtime/vex/Collection.h"
#include "runtime/vex/Entity.h"
#include "runtime/vex/LinkQueue.h"

namespace Vex {

// Specialised next to each class that is described.
template <class Class>
struct Description;

// How each kind of collection is met by who knows only its keys: `find(c, key)` answers a pointer
// to the value (good until the collection changes) or something that tests like one; `keyAfter(c,
// key)` the key that follows `key` in the collection's order, whether `key` is there or not, and
// the first one for null. A walk from key to key survives any change in between. `isBefore(a, b)`
// is that order between two keys, and `member(c, key)` the counted object that holds the value.
template <class Coll>
struct KeyedAccess;

template <class KeyType, class ValueType>
struct KeyedAccess<ValueCollection<KeyType, ValueType>> {
  using Coll = ValueCollection<KeyType, ValueType>;
  using Key = KeyType;
  using Value = ValueType;
  static std::uint32_t members(const Coll& coll) noexcept { return coll.members(); }
  static const Value* find(const Coll& coll, const Key& key) noexcept { return coll.find(key); }
  static const PtrInterface* member(const Coll& coll, const Key& key) noexcept {
    return coll.member(key);
  }
  static bool isBefore(const Key& a, const Key& b) noexcept { return Coll::Map::isBefore(a, b); }
  static std::optional<Key> keyAfter(const Coll& coll, const Key* key) {
    const auto* member = coll.memberAfter(key);
    return member != nullptr ? std::optional<Key>(member->fwkKey()) : std::nullopt;
  }
};

// A map whose members are objects of their own.
template <class Member, class KeyType>
struct KeyedAccess<HashMap<Member, KeyType>> {
  using Coll = HashMap<Member, KeyType>;
  using Key = KeyType;
  using Value = Member;
  static std::uint32_t members(const Coll& coll) noexcept { return coll.members(); }
  static Value* find(const Coll& coll, const Key& key) noexcept { return coll.member(key); }
  static const PtrInterface* member(const Coll& coll, const Key& key) noexcept {
    return coll.member(key);
  }
  static bool isBefore(const Key& a, const Key& b) noexcept { return Coll::isBefore(a, b); }
  static std::optional<Key> keyAfter(const Coll& coll, const Key* key) {
    const Value* member = coll.memberAfter(key);
    return member != nullptr ? std::optional<Key>(member->fwkKey()) : std::nullopt;
  }
};

// A queue; its keys are indexes.
template <class ValueType>
struct KeyedAccess<LinkQueue<ValueType>> {
  using Coll = LinkQueue<ValueType>;
  using Key = std::uint32_t;
  using Value = ValueType;
  static std::uint32_t members(const Coll& coll) noexcept { return coll.members(); }
  static const Value* find(const Coll& coll, Key key) noexcept {
    const auto* member = coll.member(key);
    return member != nullptr ? &member->value() : nullptr;
  }
  static const PtrInterface* member(const Coll& coll, Key key) noexcept { return coll.member(key); }
  static bool isBefore(Key a, Key b) noexcept { return Coll::isBefore(a, b); }
  static std::optional<Key> keyAfter(const Coll& coll, const Key* key) noexcept {
    const auto* member = key != nullptr ? coll.memberAfter(*key) : coll.head();
    return member != nullptr ? std::optional<Key>(member->vex_index()) : std::nullopt;
  }
};

// A collection in the store of tables, and whatever else is walked in the same way: `Key` and
// `Value`, members(), find(key), which answers a value or none, firstKey() and keyAfter(key).
template <class Coll>
concept KeyedTable = requires(const Coll& coll, const typename Coll::Key& key) {
  typename Coll::Value;
  coll.members();
  coll.find(key);
  coll.firstKey();
  coll.keyAfter(key);
};
template <KeyedTable CollType>
struct KeyedAccess<CollType> {
  using Coll = CollType;
  using Key = typename Coll::Key;
  using Value = typename Coll::Value;
  static std::uint32_t members(const Coll& coll) { return coll.members(); }
  static auto find(const Coll& coll, const Key& key) { return coll.find(key); }
  static std::optional<Key> keyAfter(const Coll& coll, const Key* key) {
    return key != nullptr ? coll.keyAfter(*key) : coll.firstKey();
  }
};

// The kinds of attributes. `Get` and the like are pointers to members or function objects that take
// the object first; `set` and `del` are nullptr for what nobody may change from outside.

// A value that is read and set as one.
template <class Get, class Set = std::nullptr_t>
struct Scalar {
  static constexpr AttributeKind kind = AttributeKind::plain;
  AttributeId id;
  std::string_view name;
  Get get;
  Set set{};
};
template <class Get>
Scalar(AttributeId, std::string_view, Get) -> Scalar<Get>;
template <class Get, class Set>
Scalar(AttributeId, std::string_view, Get, Set) -> Scalar<Get, Set>;

// Values under keys; `coll` gives the storage, for KeyedAccess. set(object, key, value),
// del(object, key).
template <class GetColl, class Set, class Del>
struct Collection {
  static constexpr AttributeKind kind = AttributeKind::collection;
  AttributeId id;
  std::string_view name;
  GetColl coll;
  Set set;
  Del del;
};
template <class GetColl, class Set, class Del>
Collection(AttributeId, std::string_view, GetColl, Set, Del) -> Collection<GetColl, Set, Del>;

// Values under indexes, in the order of a queue. set(object, index, value), del(object, index);
// enq(object, value) appends, deq(object) takes the head and answers its value.
template <class GetColl, class Set, class Del, class Enq = std::nullptr_t,
          class Deq = std::nullptr_t>
struct Queue {
  static constexpr AttributeKind kind = AttributeKind::queue;
  AttributeId id;
  std::string_view name;
  GetColl coll;
  Set set;
  Del del;
  Enq enq{};
  Deq deq{};
};
template <class GetColl, class Set, class Del>
Queue(AttributeId, std::string_view, GetColl, Set, Del) -> Queue<GetColl, Set, Del>;
template <class GetColl, class Set, class Del, class Enq, class Deq>
Queue(AttributeId, std::string_view, GetColl, Set, Del, Enq, Deq)
    -> Queue<GetColl, Set, Del, Enq, Deq>;

// Entities under keys, owned. make(object, key) answers the member under the key, the present one
// or a new one.
template <class GetColl, class Make, class Del>
struct Members {
  static constexpr AttributeKind kind = AttributeKind::members;
  AttributeId id;
  std::string_view name;
  GetColl coll;
  Make make;
  Del del;
};
template <class GetColl, class Make, class Del>
Members(AttributeId, std::string_view, GetColl, Make, Del) -> Members<GetColl, Make, Del>;

// One entity, owned. make(object, name) answers the child of this name, the present one or a new
// one in its place.
template <class Get, class Make, class Del>
struct Child {
  static constexpr AttributeKind kind = AttributeKind::ownedChild;
  AttributeId id;
  std::string_view name;
  Get get;
  Make make;
  Del del;
};
template <class Get, class Make, class Del>
Child(AttributeId, std::string_view, Get, Make, Del) -> Child<Get, Make, Del>;

// Values that hold their own key, in the store of tables. set(object, value), del(object, key).
template <class GetColl, class Set, class Del>
struct Table {
  static constexpr AttributeKind kind = AttributeKind::table;
  AttributeId id;
  std::string_view name;
  GetColl coll;
  Set set;
  Del del;
};
template <class GetColl, class Set, class Del>
Table(AttributeId, std::string_view, GetColl, Set, Del) -> Table<GetColl, Set, Del>;

// The handle by which a table is mounted; `get` answers a pointer to a counted object.
template <class Get>
struct Control {
  static constexpr AttributeKind kind = AttributeKind::control;
  AttributeId id;
  std::string_view name;
  Get get;
};
template <class Get>
Control(AttributeId, std::string_view, Get) -> Control<Get>;

// What machines have beside it. The description of a machine is for generic access alone: nothing
// follows a machine's attributes.

// The number that the first attribute of a machine has; they count up from there.
inline constexpr AttributeId kFirstMachineAttribute = 130;

// Another counted object, which the machine watches or owns; null allowed. Generic access hands an
// entity out const, whatever the machine's adapter is.
template <class Get>
struct Pointer {
  AttributeId id;
  std::string_view name;
  Get get;
};
template <class Get>
Pointer(AttributeId, std::string_view, Get) -> Pointer<Get>;

// Machines or entities under keys, owned; del(object, key) if they may be taken away from outside.
template <class GetColl, class Del = std::nullptr_t>
struct Machines {
  AttributeId id;
  std::string_view name;
  GetColl coll;
  Del del{};
};
template <class GetColl>
Machines(AttributeId, std::string_view, GetColl) -> Machines<GetColl>;
template <class GetColl, class Del>
Machines(AttributeId, std::string_view, GetColl, Del) -> Machines<GetColl, Del>;

// One way to call something: a pointer to a member function, or to a function that takes the object
// first, and the names of its arguments in order.
template <class Callee, std::size_t Count>
struct Signature {
  Callee callee;
  std::array<std::string_view, Count> arguments;
};
template <class Callee, class... Names>
constexpr Signature<Callee, sizeof...(Names)> signature(Callee callee, Names... names) {
  return {callee, {std::string_view(names)...}};
}

// A function that can be called by its name. With more than one signature the number of arguments
// chooses; the signatures stand in the order of that number.
template <class... Signatures>
struct Function {
  AttributeId id;
  std::string_view name;
  std::tuple<Signatures...> signatures;
  constexpr Function(AttributeId i, std::string_view n, Signatures... s)
      : id(i), name(n), signatures(s...) {}
};

namespace DescriptionDetail {
template <class Class>
constexpr auto infos() {
  return std::apply(
      [](const auto&... a) {
        return std::array<AttributeInfo, sizeof...(a)>{AttributeInfo{a.id, a.name, a.kind}...};
      },
      Description<Class>::kAttributes);
}
}  // namespace DescriptionDetail

// The numbers, names and kinds of a described class as a table.
template <class Class>
inline constexpr auto attributeInfos = DescriptionDetail::infos<Class>();

// What stands behind a kind of attribute of `Class`, without const and references.
template <class Attribute, class Class>
using ScalarValue =
    std::remove_cvref_t<std::invoke_result_t<decltype(Attribute::get), const Class&>>;
template <class Attribute, class Class>
using CollectionOf =
    std::remove_cvref_t<std::invoke_result_t<decltype(Attribute::coll), const Class&>>;

// Whether something outside may change an attribute.
template <class Operation>
inline constexpr bool isOperation = !std::is_same_v<std::remove_cv_t<Operation>, std::nullptr_t>;

// Calls `call` with the description of the attribute `id` of `Class`; false if it has none.
template <class Class, class Call>
constexpr bool withAttribute(AttributeId id, Call&& call) {
  return std::apply(
      [&](const auto&... a) { return ((a.id == id ? (call(a), true) : false) || ...); },
      Description<Class>::kAttributes);
}

// Calls `call` with the description of each attribute of `Class`, in order.
template <class Class, class Call>
constexpr void forEachAttribute(Call&& call) {
  std::apply([&](const auto&... a) { (call(a), ...); }, Description<Class>::kAttributes);
}

// One field of a value class, in declaration order. Get and Set are pointers to a data member (Set
// absent), or to a reader and a setter.
template <class Get, class Set = std::nullptr_t>
struct Field {
  std::string_view name;
  Get get;
  Set set{};
};
template <class Get>
Field(std::string_view, Get) -> Field<Get>;
template <class Get, class Set>
Field(std::string_view, Get, Set) -> Field<Get, Set>;

// A description of a value class has kTypeName and kFields, a tuple of Fields.
template <class Class>
concept DescribedValue = requires {
  Description<Class>::kTypeName;
  Description<Class>::kFields;
};

template <class FieldType, class Class>
using FieldValue =
    std::remove_cvref_t<std::invoke_result_t<decltype(FieldType::get), const Class&>>;

template <class FieldType, class Class>
constexpr void fieldIs(const FieldType& field, Class& object,
                       const FieldValue<FieldType, Class>& value) {
  if constexpr (isOperation<decltype(field.set)>) {
    std::invoke(field.set, object, value);
  } else {
    std::invoke(field.get, object) = value;
  }
}

// Calls `call` with the description of each field of `Class`, in order.
template <class Class, class Call>
constexpr void forEachField(Call&& call) {
  std::apply([&](const auto&... f) { (call(f), ...); }, Description<Class>::kFields);
}

template <>
struct Description<LinkQueueMetadata> {
  static constexpr std::string_view kTypeName = "Vex::LinkQueueMetadata";
  static constexpr auto kFields = std::tuple(Field{"headIndex", &LinkQueueMetadata::headIndex},
                                             Field{"nextIndex", &LinkQueueMetadata::nextIndex});
};

}  // namespace Vex
