// SPDX-License-Identifier: Apache-2.0
//
// Orders that are variables: scripts/check-orders puts one in the place of each order that the
// store's code names, each with a number. The one whose number stands in the environment, in
// QUILL_WEAK, is relaxed; all others are what they were.
#pragma once

#include <cstdlib>

namespace Mem {

// Two slots of the program's records and a header; a queue's header and 20 entries.
inline constexpr unsigned kSmallPage = 296;

inline int loweredOrder() {
  static const int number = [] {
    const char* const text = std::getenv("QUILL_WEAK");
    return text == nullptr || *text == 0 ? -1 : std::atoi(text);
  }();
  return number;
}

template <int kNumber, class Full>
struct At {
  static constexpr Full full{};
  static bool lowered() { return loweredOrder() == kNumber; }
};
template <class Order>
struct IsAt {
  static constexpr bool value = false;
};
template <int kNumber, class Full>
struct IsAt<At<kNumber, Full>> {
  static constexpr bool value = true;
};

// The words of the copy that is going on.
inline bool copyLowered = false;
inline int copyOrder(int order) { return copyLowered ? __ATOMIC_RELAXED : order; }

template <int kNumber>
struct Copy {
  struct Scope {
    Scope() { copyLowered = loweredOrder() == kNumber; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope() { copyLowered = false; }
  };
};

}  // namespace Mem
