// SPDX-License-Identifier: Apache-2.0
//
// The bodies of QuillBaseDummy.h.
#pragma once

#include "quill/QuillBaseDummy.h"

namespace Quill {

template <class KEY, class VALUE>
QuillBaseDummy<KEY, VALUE>::QuillBaseDummy(Sable::Platform::DebugHandler& handler,
                                           std::string_view fullName, bool shared)
    : Base(handler), root_(handler, fullName, shared) {}

template <class KEY, class VALUE>
void QuillBaseDummy<KEY, VALUE>::cleanup() {
  if (wrapped_ != nullptr) wrapped_->cleanup();
}

template <class KEY, class VALUE>
const VALUE& QuillBaseDummy<KEY, VALUE>::lookup(const KEY&, bool& found) const {
  found = false;
  return this->emptyValue_;
}

template <class KEY, class VALUE>
bool QuillBaseDummy<KEY, VALUE>::first(VALUE& value, IterHint&) const {
  value = this->emptyValue_;
  return false;
}

template <class KEY, class VALUE>
bool QuillBaseDummy<KEY, VALUE>::next(const KEY&, VALUE& value, IterHint& hint) const {
  return first(value, hint);
}

}  // namespace Quill
