// SPDX-License-Identifier: Apache-2.0
//
// Vex::GenericObject<Class>: the adapter through which generic access meets an object, driven by
// the class's Description. An object of a class without one is a name that can be handed on.
// Activity thread only.
//
// One operation goes, in this order: a write through a const adapter is refused; the number is
// looked up, and an unknown one handed to the base; then the index is judged, then the operation,
// then the value. So nothing has changed when one of these raises. What the class itself raises
// passes through.
//
// What a const adapter leads to is const. So is an entity to which a pointer of a machine leads: it
// is the machine's to know, not to hand on. Whoever may change it reaches it from its own root.
//
// Each class with a description should be instantiated in one place only: it is large.
#pragma once

#include <concepts>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "runtime/vex/GenericType.h"
#include "runtime/vex/GenericValue.h"

namespace Vex {

template <class Class>
class GenericObject final : public std::conditional_t<std::derived_from<Class, Entity>,
                                                      GenericIfEntity, GenericIfPtrInterface> {
 public:
  using Base =
      std::conditional_t<std::derived_from<Class, Entity>, GenericIfEntity, GenericIfPtrInterface>;
  using AttributeOp = GenericIf::AttributeOp;
  using Iterator = GenericIf::Iterator;
  using Generic = Ptr<GenericIf>;

  // Use genericIf().
  GenericObject(const Ptr<Class const>& object, bool isConst)
      : Base(object, isConst), object_(*object) {}

  const VexType* fwkType() const override { return fwkTypeOf<Class>(); }
  Generic attributeOp(AttributeOp op, const Generic& key, const Generic& value) override;
  Ptr<Iterator> attributeIterator(AttributeId id) override;
  Ptr<Iterator> attributeIteratorConst(AttributeId id) const override;
  Ptr<Iterator> attributeIteratorKey(AttributeId id, const Generic& key) override;
  Ptr<Iterator> attributeIteratorKeyConst(AttributeId id, const Generic& key) const override;
  String8 strRep() const override;
  Generic keyFromText(AttributeId id, std::string_view text) const override;
  Generic valueFromText(AttributeId id, std::string_view text) const override;
  Generic argumentsFromText(AttributeId id, GenericIf::NamedTexts arguments) const override;

 private:
  template <class Attribute>
  class Walk;
  template <class Attribute>
  using Access = KeyedAccess<CollectionOf<Attribute, Class>>;
  template <class Attribute>
  using Key = typename Access<Attribute>::Key;
  template <class Attribute>
  using Value = typename Access<Attribute>::Value;

  // The object for a write. An adapter that is not const was made from an object that is not, and
  // one that is const has refused the write.
  Class& writable() const { return const_cast<Class&>(object_); }

  template <class Get, class Set>
  Generic operate(const Scalar<Get, Set>& a, AttributeOp op, const Generic& key,
                  const Generic& value);
  template <class Get>
  Generic operate(const Pointer<Get>& a, AttributeOp op, const Generic& key, const Generic& value);
  template <class Get>
  Generic operate(const Control<Get>& a, AttributeOp op, const Generic& key, const Generic& value);
  template <class Get, class Make, class Del>
  Generic operate(const Child<Get, Make, Del>& a, AttributeOp op, const Generic& key,
                  const Generic& value);
  template <class... Signatures>
  Generic operate(const Function<Signatures...>& a, AttributeOp op, const Generic& key,
                  const Generic& value);
  // Collections of every kind.
  template <class Attribute>
  Generic operate(const Attribute& a, AttributeOp op, const Generic& key, const Generic& value);

  template <class Attribute>
  Generic element(const Attribute& a, const Key<Attribute>& key, bool isConst) const;
  template <class Attribute>
  Generic elementIs(const Attribute& a, AttributeOp op, const Generic& key, const Generic& value);
  template <class Attribute>
  void delAll(const Attribute& a);
  template <class Attribute>
  Generic enqueue(const Attribute& a, const Generic& value);
  template <class Signature>
  Generic call(const Signature& signature, std::string_view name, GenericIf::List& arguments);
  Ptr<Iterator> walk(AttributeId id, const Generic& key, bool keyed, bool isConst) const;

  const Class& object_;  // held by the base
};

// The adapter of an object: const for a Ptr<Class const>, or if `isConst` says so. Null for null.
template <class Class>
Ptr<GenericIf> genericIf(const Ptr<Class>& object, bool isConst = std::is_const_v<Class>) {
  using Plain = std::remove_const_t<Class>;
  if (!object) return nullptr;
  return makePtr<GenericObject<Plain>>(Ptr<Plain const>(object), isConst || std::is_const_v<Class>);
}

}  // namespace Vex

#include "runtime/vex/GenericObject-inl.h"
