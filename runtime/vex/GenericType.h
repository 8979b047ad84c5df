// SPDX-License-Identifier: Apache-2.0
//
// fwkTypeOf<Class>(): the type object of a class, made from its Description on first use; and the
// names under which types are known. Built on the thread that loads the library or the activity
// thread.
#pragma once

#include <concepts>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "runtime/vex/DescribedValue.h"
#include "runtime/vex/GenericIf.h"

namespace Vex {

// A class whose objects have attributes, and one of which everything but its name is unknown.
template <class Class>
concept DescribedObject = requires {
  Description<Class>::kTypeName;
  Description<Class>::kAttributes;
};

namespace GenericTypeDetail {
template <class T>
constexpr std::string_view languageName() {
  // "... [with T = Name; ...]" or "... [T = Name]".
  std::string_view text = __PRETTY_FUNCTION__;
  text.remove_prefix(text.find("T = ") + 4);
  return text.substr(0, text.find_first_of(";]"));
}
template <class T>
struct PointedTo {};
template <class T>
struct PointedTo<T*> {
  using Type = std::remove_const_t<T>;
};
template <class T>
struct PointedTo<Ptr<T>> {
  using Type = std::remove_const_t<T>;
};
}  // namespace GenericTypeDetail

// A type that refers to a counted object.
template <class T>
concept ObjectPointer = requires {
  typename GenericTypeDetail::PointedTo<T>::Type;
  requires std::derived_from<typename GenericTypeDetail::PointedTo<T>::Type, PtrInterface>;
};
template <ObjectPointer T>
using PointedTo = typename GenericTypeDetail::PointedTo<T>::Type;

// The name of a type as tools see it; that of the object for a pointer.
template <class T>
constexpr std::string_view fwkTypeName() {
  if constexpr (ObjectPointer<T>) {
    return fwkTypeName<PointedTo<T>>();
  } else if constexpr (std::same_as<T, bool>) {
    return "bool";
  } else if constexpr (std::integral<T>) {
    constexpr std::string_view kUnsigned[] = {"U8", "U16", "U32", "U64"};
    constexpr std::string_view kSigned[] = {"S8", "S16", "S32", "S64"};
    constexpr std::size_t kWidth = sizeof(T) == 8 ? 3 : sizeof(T) / 2;
    return std::is_unsigned_v<T> ? kUnsigned[kWidth] : kSigned[kWidth];
  } else if constexpr (std::same_as<T, double>) {
    return "double";
  } else if constexpr (std::derived_from<T, String8> || std::same_as<T, std::string>) {
    return "Vex::String8";
  } else if constexpr (requires { std::string_view(Description<T>::kTypeName); }) {
    return Description<T>::kTypeName;
  } else if constexpr (requires { std::string_view(T::kTypeName); }) {
    return T::kTypeName;
  } else {
    return GenericTypeDetail::languageName<T>();
  }
}

// What can be called, seen from outside: its arguments as it keeps them, its result, and whether it
// leaves the object as it is.
template <class Callee>
struct CalleeTraits;
template <class R, class C, class... A>
struct CalleeTraits<R (C::*)(A...)> {
  using Result = R;
  using Arguments = std::tuple<std::remove_cvref_t<A>...>;
  static constexpr bool kConst = false;
};
template <class R, class C, class... A>
struct CalleeTraits<R (C::*)(A...) noexcept> : CalleeTraits<R (C::*)(A...)> {};
template <class R, class C, class... A>
struct CalleeTraits<R (C::*)(A...) const> : CalleeTraits<R (C::*)(A...)> {
  static constexpr bool kConst = true;
};
template <class R, class C, class... A>
struct CalleeTraits<R (C::*)(A...) const noexcept> : CalleeTraits<R (C::*)(A...) const> {};
template <class R, class C, class... A>
struct CalleeTraits<R (*)(C&, A...)> : CalleeTraits<R (C::*)(A...)> {
  static constexpr bool kConst = std::is_const_v<C>;
};
// A function that makes an object: every argument counts.
template <class Callee>
struct MakerTraits;
template <class R, class... A>
struct MakerTraits<R (*)(A...)> {
  using Arguments = std::tuple<std::remove_cvref_t<A>...>;
};

template <class Class>
VexType* fwkTypeOf();

namespace GenericTypeDetail {

template <class Tuple, std::size_t Count, std::size_t... I>
std::vector<VexType::Argument> arguments(const std::array<std::string_view, Count>& names,
                                         std::index_sequence<I...> /*count*/) {
  static_assert(std::tuple_size_v<Tuple> == Count, "each argument has one name");
  return {VexType::Argument{names[I], fwkTypeName<std::tuple_element_t<I, Tuple>>()}...};
}

using Flags = VexAttrIntrospectionFlags;

inline VexType::Attribute plain(AttributeId id, std::string_view name, VexType::Kind kind,
                                std::string_view typeName, std::uint32_t flags) {
  return {id, &VexAttr::attr(name), kind, typeName, {}, Flags(flags), {}};
}

template <class Class, class Attribute>
VexType::Attribute keyed(const Attribute& a, VexType::Kind kind, bool writable,
                         std::uint32_t flags) {
  using Access = KeyedAccess<CollectionOf<Attribute, Class>>;
  VexType::Attribute entry = plain(a.id, a.name, kind, fwkTypeName<typename Access::Value>(),
                                   flags | Flags::kCollection | (writable ? 0 : Flags::kReadOnly));
  entry.keyTypeName = fwkTypeName<typename Access::Key>();
  return entry;
}

template <class Class, class Get, class Set>
VexType::Attribute entry(const Scalar<Get, Set>& a) {
  return plain(a.id, a.name, VexType::Kind::scalar,
               fwkTypeName<ScalarValue<Scalar<Get, Set>, Class>>(),
               isOperation<Set> ? 0 : Flags::kReadOnly);
}
template <class Class, class Coll, class Set, class Del>
VexType::Attribute entry(const Collection<Coll, Set, Del>& a) {
  return keyed<Class>(a, VexType::Kind::collection, isOperation<Set>, 0);
}
template <class Class, class Coll, class Set, class Del, class Enq, class Deq>
VexType::Attribute entry(const Queue<Coll, Set, Del, Enq, Deq>& a) {
  return keyed<Class>(a, VexType::Kind::queue, isOperation<Set>, 0);
}
template <class Class, class Coll, class Set, class Del>
VexType::Attribute entry(const Table<Coll, Set, Del>& a) {
  return keyed<Class>(a, VexType::Kind::table, isOperation<Set>,
                      Flags::kInternalIndex | Flags::kIndependentDomain);
}
template <class Class, class Coll, class Make, class Del>
VexType::Attribute entry(const Members<Coll, Make, Del>& a) {
  return keyed<Class>(a, VexType::Kind::members, isOperation<Make>,
                      Flags::kInternalIndex | Flags::kReference);
}
template <class Class, class Coll, class Del>
VexType::Attribute entry(const Machines<Coll, Del>& a) {
  return keyed<Class>(a, VexType::Kind::members, isOperation<Del>,
                      Flags::kInternalIndex | Flags::kReference);
}
template <class Class, class Get, class Make, class Del>
VexType::Attribute entry(const Child<Get, Make, Del>& a) {
  return plain(a.id, a.name, VexType::Kind::child,
               fwkTypeName<ScalarValue<Child<Get, Make, Del>, Class>>(), Flags::kReference);
}
template <class Class, class Get>
VexType::Attribute entry(const Pointer<Get>& a) {
  return plain(a.id, a.name, VexType::Kind::pointer,
               fwkTypeName<ScalarValue<Pointer<Get>, Class>>(),
               Flags::kReference | Flags::kReadOnly);
}
template <class Class, class Get>
VexType::Attribute entry(const Control<Get>& a) {
  return plain(a.id, a.name, VexType::Kind::control,
               fwkTypeName<ScalarValue<Control<Get>, Class>>(),
               Flags::kReference | Flags::kReadOnly | Flags::kIndependentDomain);
}
template <class Class, class... Signatures>
VexType::Attribute entry(const Function<Signatures...>& a) {
  VexType::Attribute made = plain(a.id, a.name, VexType::Kind::function, "void", Flags::kFunction);
  std::apply(
      [&](const auto&... signature) {
        const auto add = [&](const auto& one) {
          using Traits = CalleeTraits<std::remove_const_t<decltype(one.callee)>>;
          using Result = std::remove_cvref_t<typename Traits::Result>;
          if constexpr (!std::is_void_v<Result>) made.typeName = fwkTypeName<Result>();
          made.signatures.push_back(arguments<typename Traits::Arguments>(
              one.arguments,
              std::make_index_sequence<std::tuple_size_v<typename Traits::Arguments>>()));
        };
        (add(signature), ...);
      },
      a.signatures);
  return made;
}

// Makes an object of a class whose Description has kConstructor, a Signature (GenericObject.h).
template <class Class>
Ptr<GenericIf> construct(const Ptr<GenericIf>& arguments);

// Fills a fresh type with what the class says of itself.
template <class Class>
void describe(VexType& type) {
  std::vector<VexType::Attribute> attributes;
  if constexpr (DescribedObject<Class>) {
    forEachAttribute<Class>([&](const auto& a) { attributes.push_back(entry<Class>(a)); });
    type.hasGenericIfSupportIs(true);
  } else if constexpr (DescribedValue<Class>) {
    AttributeId id = kFirstMachineAttribute;
    forEachField<Class>([&](const auto& field) {
      using Value = FieldValue<std::remove_cvref_t<decltype(field)>, Class>;
      attributes.push_back(
          plain(id++, field.name, VexType::Kind::field, fwkTypeName<Value>(), Flags::kReadOnly));
    });
    type.hasGenericIfSupportIs(true);
  }
  if constexpr (requires { Description<Class>::kConstructor; }) {
    type.constructorIs(&construct<Class>);
  }
  type.attributesIs(std::move(attributes));
  type.isValueIs(!std::derived_from<Class, PtrInterface>);
  type.isEntityIs(std::derived_from<Class, Entity>);
}

template <class Class>
inline VexType* theType = nullptr;

}  // namespace GenericTypeDetail

template <class Class>
VexType* fwkTypeOf() {
  VexType*& only = GenericTypeDetail::theType<Class>;
  if (only != nullptr) return only;
  constexpr std::string_view kName = fwkTypeName<Class>();
  // Two languages' names of one type, Name and String8, share one object.
  if (VexType* const made = VexType::type(kName)) return only = made;
  only = makePtr<VexType>(shortTypeName(kName)).release();
  only->isNondestructingIs(true);
  only->typeNodeIs(kName);
  GenericTypeDetail::describe<Class>(*only);
  return only;
}

}  // namespace Vex
