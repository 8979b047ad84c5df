// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "runtime/vex/GenericObject.h"

namespace Vex {

namespace GenericObjectDetail {

template <class T>
inline constexpr bool isKeyed = requires(const T& a) {
  a.coll;
};
template <class T>
inline constexpr bool isFunction = requires(const T& a) {
  a.signatures;
};

// Anything that a class hands out, as generic access hands it on. What a const adapter leads to is
// const.
template <class T>
Ptr<GenericIf> handOut(const T& value, bool isConst) {
  if constexpr (ObjectPointer<T>) {
    using Pointed = std::remove_pointer_t<decltype(std::to_address(value))>;
    return genericIf(Ptr<Pointed>(std::to_address(value)), isConst || std::is_const_v<Pointed>);
  } else {
    return genericValue<T>(value);
  }
}
template <class T>
Ptr<GenericIf> handOut(const Ptr<T>& value, bool isConst) {
  return genericIf(value, isConst);
}

// The opposite, for an argument. An object that is const goes only where a const one is taken.
template <class T>
struct TakeIn {
  static T from(const Ptr<GenericIf>& given, std::string_view name) {
    return valueOf<T>(given, name);
  }
};
template <class T>
struct TakeIn<Ptr<T>> {
  static Ptr<T> from(const Ptr<GenericIf>& given, std::string_view name) {
    if (!given) return nullptr;
    const auto* adapter = dynamic_cast<const GenericIfPtrInterface*>(given.get());
    const auto* object = adapter != nullptr ? dynamic_cast<const T*>(adapter->object()) : nullptr;
    if (object == nullptr || (adapter->isConst() && !std::is_const_v<T>)) {
      GenericIf::throwTypeException(name);
    }
    return Ptr<T>(const_cast<T*>(object));
  }
};

inline GenericIf::List& listIn(const Ptr<GenericIf>& given) {
  if (!given) GenericIf::throwTypeException("List");
  auto* list = dynamic_cast<GenericIf::List*>(given.get());
  if (list == nullptr) GenericIf::throwTypeException("Vex::GenericIf::List_");
  return *list;
}

// Takes the arguments of one signature off a list, in order, and judges them.
template <class Arguments, std::size_t Count, std::size_t... I>
Arguments argumentsIn(GenericIf::List& list, std::string_view function,
                      const std::array<std::string_view, Count>& names,
                      std::index_sequence<I...> /*count*/) {
  static_assert(std::tuple_size_v<Arguments> == Count, "each argument has one name");
  // Braces: from left to right.
  Arguments taken{
      TakeIn<std::tuple_element_t<I, Arguments>>::from(list.take(names[I]), names[I])...};
  if (list.members() != 0) GenericIf::throwUnknownArgException(function);
  return taken;
}

template <class Arguments, std::size_t Count>
Arguments argumentsIn(GenericIf::List& list, std::string_view function,
                      const std::array<std::string_view, Count>& names) {
  return argumentsIn<Arguments>(list, function, names, std::make_index_sequence<Count>());
}

// Calls `use` with the signature that takes `given` arguments, or else with the nearest one, so
// that its own check tells what is wrong.
template <class... Signatures, class Use>
void withSignature(const Function<Signatures...>& function, std::size_t given, Use use) {
  bool used = false;
  std::size_t left = sizeof...(Signatures);
  const auto consider = [&](const auto& signature) {
    --left;
    if (used || (signature.arguments.size() < given && left != 0)) return;
    used = true;
    use(signature);
  };
  std::apply([&](const auto&... signature) { (consider(signature), ...); }, function.signatures);
}

template <class T>
Ptr<GenericIf> argumentFromText(std::string_view text, std::string_view name) {
  if constexpr (ObjectPointer<T>) {
    throwRangeException("argument '" + std::string(name) + "' is a " +
                        std::string(fwkTypeName<T>()) + " and cannot be given as text");
  } else {
    return genericValue<T>(keyFromText<T>(text));
  }
}

template <class T>
Ptr<GenericIf> attributeFromText(std::string_view text, std::string_view name) {
  const String8 whole(text);
  TextPlace at = whole.begin();
  const T value = sequenceToAttribute<T>(at, whole.end(), name);
  needEnd(at, whole);
  return genericValue<T>(value);
}

}  // namespace GenericObjectDetail

template <class Class>
Ptr<GenericIf> GenericTypeDetail::construct(const Ptr<GenericIf>& arguments) {
  const auto& maker = Description<Class>::kConstructor;
  using Traits = MakerTraits<std::remove_const_t<decltype(maker.callee)>>;
  const auto taken = GenericObjectDetail::argumentsIn<typename Traits::Arguments>(
      GenericObjectDetail::listIn(arguments), shortTypeName(Description<Class>::kTypeName),
      maker.arguments);
  return genericIf(std::apply(maker.callee, taken));
}

template <class Class>
Ptr<GenericIf> GenericObject<Class>::attributeOp(AttributeOp op, const Generic& key,
                                                 const Generic& value) {
  if (op.isWrite() && this->isConst()) GenericIf::throwConstException(GenericIf::kConstText);
  if constexpr (DescribedObject<Class>) {
    Generic result;
    const bool known = withAttribute<Class>(
        op.attributeId, [&](const auto& a) { result = operate(a, op, key, value); });
    if (known) return result;
  }
  return Base::attributeOp(op, key, value);
}

template <class Class>
template <class Get, class Set>
Ptr<GenericIf> GenericObject<Class>::operate(const Scalar<Get, Set>& a, AttributeOp op,
                                             const Generic& key, const Generic& value) {
  using T = ScalarValue<Scalar<Get, Set>, Class>;
  if (key) GenericIf::throwBadIndexAttrException(a.name);
  if (op.opId == GenericIf::kRead) return genericValue<T>(std::invoke(a.get, object_));
  if (op.opId != GenericIf::kSet) GenericIf::throwOpNotSupportedException(a.name, op, false);
  if constexpr (isOperation<Set>) {
    std::invoke(a.set, writable(), valueOf<T>(value, a.name));
    return nullptr;
  } else {
    GenericIf::throwConstException(GenericIf::kConstText);
  }
}

template <class Class>
template <class Get>
Ptr<GenericIf> GenericObject<Class>::operate(const Pointer<Get>& a, AttributeOp op,
                                             const Generic& key, const Generic& /*value*/) {
  if (key) GenericIf::throwBadIndexAttrException(a.name);
  if (op.opId != GenericIf::kRead) GenericIf::throwOpNotSupportedException(a.name, op, false);
  using Pointed = std::remove_cvref_t<decltype(*std::invoke(a.get, object_))>;
  constexpr bool kIsEntity = std::derived_from<Pointed, Entity>;
  return GenericObjectDetail::handOut(std::invoke(a.get, object_), this->isConst() || kIsEntity);
}

template <class Class>
template <class Get>
Ptr<GenericIf> GenericObject<Class>::operate(const Control<Get>& a, AttributeOp op,
                                             const Generic& key, const Generic& /*value*/) {
  if (key) GenericIf::throwBadIndexAttrException(a.name);
  if (op.opId != GenericIf::kRead) GenericIf::throwOpNotSupportedException(a.name, op, false);
  return GenericObjectDetail::handOut(std::invoke(a.get, object_), this->isConst());
}

template <class Class>
template <class Get, class Make, class Del>
Ptr<GenericIf> GenericObject<Class>::operate(const Child<Get, Make, Del>& a, AttributeOp op,
                                             const Generic& key, const Generic& value) {
  if (key) GenericIf::throwBadIndexAttrException(a.name);
  switch (op.opId) {
    case GenericIf::kRead:
      return GenericObjectDetail::handOut(std::invoke(a.get, object_), this->isConst());
    case GenericIf::kSet:
      return GenericObjectDetail::handOut(
          std::invoke(a.make, writable(), valueOf<Name>(value, a.name)), false);
    case GenericIf::kDel:
      std::invoke(a.del, writable());
      return nullptr;
    default:
      GenericIf::throwOpNotSupportedException(a.name, op, false);
  }
}

template <class Class>
template <class... Signatures>
Ptr<GenericIf> GenericObject<Class>::operate(const Function<Signatures...>& a, AttributeOp op,
                                             const Generic& key, const Generic& value) {
  if (key) GenericIf::throwBadIndexAttrException(a.name);
  auto& list = GenericObjectDetail::listIn(value);
  Generic result;
  GenericObjectDetail::withSignature(a, list.members(), [&](const auto& signature) {
    using Traits = CalleeTraits<std::remove_const_t<decltype(signature.callee)>>;
    if (!Traits::kConst && this->isConst()) GenericIf::throwConstException(GenericIf::kConstText);
    result = call(signature, a.name, list);
  });
  static_cast<void>(op);  // whatever its code, a function is called
  return result;
}

template <class Class>
template <class Signature>
Ptr<GenericIf> GenericObject<Class>::call(const Signature& signature, std::string_view name,
                                          GenericIf::List& arguments) {
  using Traits = CalleeTraits<decltype(signature.callee)>;
  using Result = std::remove_cvref_t<typename Traits::Result>;
  const auto taken = GenericObjectDetail::argumentsIn<typename Traits::Arguments>(
      arguments, name, signature.arguments);
  const auto run = [&](const auto&... argument) -> decltype(auto) {
    return std::invoke(signature.callee, writable(), argument...);
  };
  // The object may lose its last other reference by what it does.
  const Ptr<PtrInterface const> hold(this->object());
  if constexpr (std::is_void_v<Result>) {
    std::apply(run, taken);
    return nullptr;
  } else {
    return GenericObjectDetail::handOut<Result>(std::apply(run, taken), this->isConst());
  }
}

template <class Class>
template <class Attribute>
Ptr<GenericIf> GenericObject<Class>::element(const Attribute& a, const Key<Attribute>& key,
                                             bool isConst) const {
  const auto& coll = std::invoke(a.coll, object_);
  const auto found = Access<Attribute>::find(coll, key);
  if (!found) return nullptr;
  if constexpr (ObjectPointer<Value<Attribute>*>) {
    return genericIf(Ptr<Value<Attribute>>(&*found), isConst);
  } else {
    return genericValue<Value<Attribute>>(*found);
  }
}

template <class Class>
template <class Attribute>
Ptr<GenericIf> GenericObject<Class>::operate(const Attribute& a, AttributeOp op, const Generic& key,
                                             const Generic& value) {
  const auto& coll = std::invoke(a.coll, object_);
  const auto needKey = [&](bool needed) {
    if (static_cast<bool>(key) != needed) GenericIf::throwBadIndexAttrException(a.name);
  };
  const auto theKey = [&] {
    needKey(true);
    const auto* index = dynamic_cast<const GenericValue<Key<Attribute>>*>(key.get());
    if (index == nullptr) GenericIf::throwBadIndexAttrException(a.name);
    return index->value();
  };
  switch (op.opId) {
    case GenericIf::kRead:
      return element(a, theKey(), this->isConst());
    case GenericIf::kHas:
      if constexpr (requires { coll.isMemberOf(std::declval<const Key<Attribute>&>()); }) {
        // One that knows its members itself, or refuses to say.
        return genericValue<bool>(coll.isMemberOf(theKey()));
      } else {
        return genericValue<bool>(static_cast<bool>(Access<Attribute>::find(coll, theKey())));
      }
    case GenericIf::kMembers:
      needKey(false);
      return genericValue<std::uint32_t>(Access<Attribute>::members(coll));
    case GenericIf::kSet:
      return elementIs(a, op, key, value);
    case GenericIf::kDel:
      if constexpr (isOperation<decltype(a.del)>) {
        std::invoke(a.del, writable(), theKey());
        return nullptr;
      }
      break;
    case GenericIf::kDelAll:
      if constexpr (isOperation<decltype(a.del)>) {
        needKey(false);
        delAll(a);
        return nullptr;
      }
      break;
    case GenericIf::kEnq:
      if constexpr (requires { requires isOperation<decltype(a.enq)>; }) {
        needKey(false);
        return enqueue(a, value);
      }
      break;
    case GenericIf::kDeq:
      if constexpr (requires { requires isOperation<decltype(a.deq)>; }) {
        needKey(false);
        return genericValue<Value<Attribute>>(std::invoke(a.deq, writable()));
      }
      break;
    default:
      break;
  }
  GenericIf::throwOpNotSupportedException(a.name, op, static_cast<bool>(key));
}

template <class Class>
template <class Attribute>
Ptr<GenericIf> GenericObject<Class>::elementIs(const Attribute& a, AttributeOp op,
                                               const Generic& key, const Generic& value) {
  constexpr bool kOwnKeys = requires {
    std::invoke(a.set, writable(), std::declval<Value<Attribute>>());
  };
  const auto theKey = [&] {
    const auto* index = dynamic_cast<const GenericValue<Key<Attribute>>*>(key.get());
    if (index == nullptr) GenericIf::throwBadIndexAttrException(a.name);
    return index->value();
  };
  if constexpr (kOwnKeys) {
    // A value that holds its key; an index says the same or nothing.
    const auto index = key ? std::optional(theKey()) : std::nullopt;
    const auto element = valueOf<Value<Attribute>>(value, a.name);
    if (index && !(*index == element.key)) GenericIf::throwBadIndexAttrException(a.name);
    std::invoke(a.set, writable(), element);
    return nullptr;
  } else if constexpr (requires { a.set; }) {
    if constexpr (isOperation<decltype(a.set)>) {
      const auto index = theKey();
      std::invoke(a.set, writable(), index, valueOf<Value<Attribute>>(value, a.name));
      return nullptr;
    }
  } else if constexpr (requires { a.make; }) {
    if constexpr (isOperation<decltype(a.make)>) {
      return GenericObjectDetail::handOut(std::invoke(a.make, writable(), theKey()), false);
    }
  }
  GenericIf::throwOpNotSupportedException(a.name, op, static_cast<bool>(key));
}

// What a reaction adds while the elements go is left alone, so that it ends.
template <class Class>
template <class Attribute>
void GenericObject<Class>::delAll(const Attribute& a) {
  const auto& coll = std::invoke(a.coll, object_);
  std::uint32_t left = Access<Attribute>::members(coll);
  auto key = Access<Attribute>::keyAfter(coll, nullptr);
  for (; key && left != 0; --left) {
    std::invoke(a.del, writable(), *key);
    key = Access<Attribute>::keyAfter(coll, &*key);
  }
}

// The generic append, which refuses to run into the head.
template <class Class>
template <class Attribute>
Ptr<GenericIf> GenericObject<Class>::enqueue(const Attribute& a, const Generic& value) {
  const auto element = valueOf<Value<Attribute>>(value, a.name);
  const auto& queue = std::invoke(a.coll, object_);
  if (queue.nextIndex() + 1 == queue.headIndex()) {
    throwRangeException("linkqueue index space full");
  }
  std::invoke(a.enq, writable(), element);
  return nullptr;
}

template <class Class>
template <class Attribute>
class GenericObject<Class>::Walk final : public GenericIf::Iterator {
 public:
  using Index = Key<Attribute>;
  Walk(const Ptr<GenericObject const>& owner, const Attribute& attribute, bool isConst,
       std::optional<Index> at)
      : owner_(owner), attribute_(attribute), isConst_(isConst), at_(std::move(at)) {}

  // The first place, or that of a key or the one behind it.
  static std::optional<Index> begin(const GenericObject& owner, const Attribute& a,
                                    const Index* key) {
    const auto& coll = std::invoke(a.coll, owner.object_);
    if (key != nullptr && Access<Attribute>::find(coll, *key)) return *key;
    return Access<Attribute>::keyAfter(coll, key);
  }

  bool nonNull() const override { return at_.has_value(); }
  void inc() override {
    at_ = Access<Attribute>::keyAfter(std::invoke(attribute_.coll, owner_->object_), &*at_);
  }
  void del() override {
    const AttributeOp op{attribute_.id, GenericIf::kDel};
    if (isConst_) GenericIf::throwConstException(GenericIf::kConstText);
    if constexpr (isOperation<decltype(attribute_.del)>) {
      std::invoke(attribute_.del, owner_->writable(), Index(*at_));
    } else {
      GenericIf::throwOpNotSupportedException(attribute_.name, op, true);
    }
  }
  Generic key() const override { return genericValue<Index>(*at_); }
  Generic obj() const override { return owner_->element(attribute_, *at_, isConst_); }
  Ptr<GenericIf::Iterator> clone() const override {
    return makePtr<Walk>(owner_, attribute_, isConst_, at_);
  }

 private:
  const Ptr<GenericObject const> owner_;
  const Attribute& attribute_;  // constant, of the class
  const bool isConst_;
  std::optional<Index> at_;
};

template <class Class>
Ptr<GenericIf::Iterator> GenericObject<Class>::walk(AttributeId id, const Generic& key, bool keyed,
                                                    bool isConst) const {
  Ptr<Iterator> made;
  if constexpr (DescribedObject<Class>) {
    withAttribute<Class>(id, [&](const auto& a) {
      using Attribute = std::remove_cvref_t<decltype(a)>;
      if constexpr (GenericObjectDetail::isKeyed<Attribute>) {
        using Index = Key<Attribute>;
        const auto* index = dynamic_cast<const GenericValue<Index>*>(key.get());
        if (keyed && index == nullptr) GenericIf::throwBadIndexAttrException(a.name);
        const Ptr<GenericObject const> hold(this);
        made = makePtr<Walk<Attribute>>(
            hold, a, isConst,
            Walk<Attribute>::begin(*this, a, index != nullptr ? &index->value() : nullptr));
      }
    });
  }
  if (!made) {
    GenericIf::throwOpNotSupportedException(this->attributeString(id), {id, GenericIf::kRead},
                                            keyed);
  }
  return made;
}

template <class Class>
Ptr<GenericIf::Iterator> GenericObject<Class>::attributeIterator(AttributeId id) {
  return walk(id, nullptr, false, this->isConst());
}
template <class Class>
Ptr<GenericIf::Iterator> GenericObject<Class>::attributeIteratorConst(AttributeId id) const {
  return walk(id, nullptr, false, true);
}
template <class Class>
Ptr<GenericIf::Iterator> GenericObject<Class>::attributeIteratorKey(AttributeId id,
                                                                    const Generic& key) {
  return walk(id, key, true, this->isConst());
}
template <class Class>
Ptr<GenericIf::Iterator> GenericObject<Class>::attributeIteratorKeyConst(AttributeId id,
                                                                         const Generic& key) const {
  return walk(id, key, true, true);
}

template <class Class>
String8 GenericObject<Class>::strRep() const {
  if constexpr (std::derived_from<Class, Entity>) {
    return Base::strRep();
  } else {
    return fwkTypeName<Class>();
  }
}

template <class Class>
Ptr<GenericIf> GenericObject<Class>::keyFromText(AttributeId id, std::string_view text) const {
  Generic made;
  if constexpr (DescribedObject<Class>) {
    withAttribute<Class>(id, [&](const auto& a) {
      using Attribute = std::remove_cvref_t<decltype(a)>;
      if constexpr (GenericObjectDetail::isKeyed<Attribute>) {
        made = genericValue<Key<Attribute>>(Vex::keyFromText<Key<Attribute>>(text));
      }
    });
  }
  return made ? made : Base::keyFromText(id, text);
}

template <class Class>
Ptr<GenericIf> GenericObject<Class>::valueFromText(AttributeId id, std::string_view text) const {
  Generic made;
  if constexpr (DescribedObject<Class>) {
    withAttribute<Class>(id, [&](const auto& a) {
      using Attribute = std::remove_cvref_t<decltype(a)>;
      if constexpr (GenericObjectDetail::isKeyed<Attribute>) {
        if constexpr (!ObjectPointer<Value<Attribute>*>) {
          made = GenericObjectDetail::attributeFromText<Value<Attribute>>(text, a.name);
        }
      } else if constexpr (requires { a.make; }) {
        made = genericValue<Name>(Name(text));
      } else if constexpr (requires { a.set; }) {
        made = GenericObjectDetail::attributeFromText<ScalarValue<Attribute, Class>>(text, a.name);
      }
    });
  }
  return made ? made : Base::valueFromText(id, text);
}

template <class Class>
Ptr<GenericIf> GenericObject<Class>::argumentsFromText(AttributeId id,
                                                       GenericIf::NamedTexts arguments) const {
  Ptr<GenericIf::List> made;
  if constexpr (DescribedObject<Class>) {
    withAttribute<Class>(id, [&](const auto& a) {
      using Attribute = std::remove_cvref_t<decltype(a)>;
      if constexpr (GenericObjectDetail::isFunction<Attribute>) {
        // Texts first, under their names; then each becomes what the signature says.
        GenericIf::List texts;
        for (const auto& [name, text] : arguments) texts.argumentIs(genericValue(text), name);
        GenericObjectDetail::withSignature(a, arguments.size(), [&](const auto& signature) {
          using Arguments =
              typename CalleeTraits<std::remove_const_t<decltype(signature.callee)>>::Arguments;
          made = makePtr<GenericIf::List>();
          const auto add = [&]<std::size_t... I>(std::index_sequence<I...> /*count*/) {
            (made->argumentIs(
                 GenericObjectDetail::argumentFromText<std::tuple_element_t<I, Arguments>>(
                     valueOf<std::string>(texts.take(signature.arguments[I]),
                                          signature.arguments[I]),
                     signature.arguments[I]),
                 signature.arguments[I]),
             ...);
          };
          add(std::make_index_sequence<std::tuple_size_v<Arguments>>());
          if (texts.members() != 0) GenericIf::throwUnknownArgException(a.name);
        });
      }
    });
  }
  if (made) return made;
  return Base::argumentsFromText(id, arguments);
}

}  // namespace Vex
