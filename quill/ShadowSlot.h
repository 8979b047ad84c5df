// SPDX-License-Identifier: Apache-2.0
//
// The slots of a shadow store: the private image of one slot of a table, with everything it holds
// (Quill::ValueShadowSlot) or with its key alone (Quill::KeyShadowSlot).
//
// Private memory of one thread. The store owns the slots, links them and moves them.
//
// Invariants:
//  1. A slot is on a hash chain if and only if `link` is set.
//  2. `link` points at whatever points at this slot: the head of its bucket, or `next` of the slot
//     before it. So a slot leaves its chain without a walk.
#pragma once

#include "quill/QuillBase.h"

namespace Quill {

template <class KEY, class VALUE, class MAP>
struct ValueShadowSlot {
  // What is copied from the table.
  using Content = VALUE;
  static constexpr bool kHoldsValue = true;

  KEY key() const noexcept { return keyOf<KEY>(content); }

  ValueShadowSlot* next = nullptr;
  ValueShadowSlot** link = nullptr;
  VALUE content{};
};

template <class KEY, class VALUE, class MAP>
struct KeyShadowSlot {
  using Content = KEY;
  static constexpr bool kHoldsValue = false;

  KEY key() const noexcept { return content; }

  KeyShadowSlot* next = nullptr;
  KeyShadowSlot** link = nullptr;
  KEY content{};
};

}  // namespace Quill
