// SPDX-License-Identifier: Apache-2.0
//
// Vex::GenericValue<T>: a value as generic access hands it in and out. Immutable. The fields of a
// described class are its attributes, numbered from 130, and can be read. Activity thread only.
#pragma once

#include <string>
#include <utility>

#include "runtime/vex/GenericType.h"

namespace Vex {

template <class T>
class GenericValue;

// Every text is one type to tools, whatever class keeps it.
template <class T>
using GenericStorage =
    std::conditional_t<std::derived_from<T, String8> || std::same_as<T, std::string>, String8, T>;

template <class T>
Ptr<GenericIf> genericValue(const T& value) {
  return makePtr<GenericValue<GenericStorage<T>>>(GenericStorage<T>(value));
}

template <class T>
class GenericValue final : public GenericIf {
 public:
  explicit GenericValue(T value) : value_(std::move(value)) {}
  const T& value() const noexcept { return value_; }

  const VexType* fwkType() const override { return fwkTypeOf<T>(); }
  bool isConst() const noexcept override { return true; }
  String8 strRep() const override { return valueToStrep(value_); }
  std::string keyText() const override { return keyToText(value_); }

  Ptr<GenericIf> attributeOp(AttributeOp op, const Ptr<GenericIf>& key,
                             const Ptr<GenericIf>& value) override {
    if (op.isWrite()) throwConstException(kConstText);
    if constexpr (DescribedValue<T>) {
      Ptr<GenericIf> result;
      AttributeId id = kFirstMachineAttribute;
      forEachField<T>([&](const auto& field) {
        if (id++ != op.attributeId) return;
        if (key) throwBadIndexAttrException(field.name);
        if (op.opId != kRead) throwOpNotSupportedException(field.name, op, false);
        using Value = FieldValue<std::remove_cvref_t<decltype(field)>, T>;
        result = genericValue<Value>(std::invoke(field.get, value_));
      });
      if (result) return result;
    }
    return GenericIf::attributeOp(op, key, value);
  }

 private:
  const T value_;
};

// The value in `generic`; raises throwTypeException(name) for anything else and for null.
template <class T>
T valueOf(const Ptr<GenericIf>& generic, std::string_view name) {
  using Stored = GenericStorage<T>;
  const auto* value = dynamic_cast<const GenericValue<Stored>*>(generic.get());
  if (value == nullptr) GenericIf::throwTypeException(name);
  if constexpr (std::same_as<T, std::string>) {
    return value->value().str();
  } else {
    return T(value->value());
  }
}

}  // namespace Vex
