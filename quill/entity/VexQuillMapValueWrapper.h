// SPDX-License-Identifier: Apache-2.0
//
// VexQuill::VexQuillMapValueWrapper: a value class of the model as the VALUE of a table: the same
// bytes under the same type name, with what the store asks of a value checked here.
//
// A value: copied freely, usable from any thread.
//
// Invariants:
//  1. It begins with its key and has not one byte more than the model's class: whoever has a table
//     of the one can read it as a table of the other.
#pragma once

#include <cstddef>
#include <type_traits>

#include "quill/QuillBase.h"

namespace VexQuill {

// VALUE_TYPE has its key in `key`, in front, and names itself by kTypeName if its header is to have
// a name that does not depend on the compiler. Default-constructed: a default key, zeros elsewhere.
template <class VALUE_TYPE, class KEY>
struct VexQuillMapValueWrapper : VALUE_TYPE {
  constexpr VexQuillMapValueWrapper() noexcept : VALUE_TYPE() {}
  constexpr VexQuillMapValueWrapper(  // NOLINT(google-explicit-constructor): the same value
      const VALUE_TYPE& value) noexcept
      : VALUE_TYPE(value) {}

  static_assert(std::is_same_v<decltype(VALUE_TYPE::key), KEY>);
  static_assert(std::is_standard_layout_v<VALUE_TYPE> && offsetof(VALUE_TYPE, key) == 0);
  static_assert(Quill::TableValue<VALUE_TYPE, KEY>);
};

}  // namespace VexQuill
