// SPDX-License-Identifier: Apache-2.0
#include "runtime/vex/String8.h"

namespace Vex {

std::uint32_t String8::hash() const noexcept {
  std::uint32_t hash = 2166136261U;
  for (const char c : view()) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
  return hash;
}

}  // namespace Vex
