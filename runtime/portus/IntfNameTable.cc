// SPDX-License-Identifier: Apache-2.0
#include "runtime/portus/IntfNameTable.h"

#include "runtime/portus/IntfIdCodec.h"
#include "runtime/vex/Exception.h"

namespace Portus {

void IntfNameTable::nameIs(std::uint64_t value, std::string_view name) {
  const std::lock_guard lock(mutex_);
  const auto known = names_.find(value);
  if (known != names_.end()) {
    if (known->second == name) return;
    Vex::throwRangeException("interface names \"" + known->second + "\" and \"" +
                             std::string(name) + "\" give the same identifier " +
                             intfIdEscape(value) + ": only one of them can be used");
  }
  if (names_.size() >= maxNames_) {
    Vex::throwRangeException("no room for interface name \"" + std::string(name) + "\": at most " +
                             std::to_string(maxNames_) +
                             " names too long to pack can be used in one process");
  }
  names_.emplace(value, std::string(name));
}

std::optional<std::string> IntfNameTable::name(std::uint64_t value) const {
  const std::lock_guard lock(mutex_);
  const auto known = names_.find(value);
  if (known == names_.end()) return std::nullopt;
  return known->second;
}

std::size_t IntfNameTable::size() const {
  const std::lock_guard lock(mutex_);
  return names_.size();
}

}  // namespace Portus
