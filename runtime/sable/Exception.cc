// SPDX-License-Identifier: Apache-2.0
#include "runtime/sable/Exception.h"

#include <utility>

namespace Sable {

namespace {
// 1 to 3 are the runtime's own (runtime/vex/Exception.h).
constexpr std::uint32_t kIdBits = 4;
}  // namespace

Exception::Exception(std::string text, bool flag)
    : Vex::Exception(std::move(text), kIdBits, flag) {}

}  // namespace Sable
