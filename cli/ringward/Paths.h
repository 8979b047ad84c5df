// SPDX-License-Identifier: Apache-2.0
//
// The paths of the agent's tree that the commands know, and how an element of a collection is
// named in one. Any thread.
#pragma once

#include <string>
#include <string_view>

#include "model/generic/PathAccess.h"

namespace RingwardCli {

inline constexpr const char* kEnabledPath = "config/globalEnabled";
inline constexpr const char* kVlansPath = "config/vlanEnabled";
inline constexpr const char* kExcludePath = "config/intfExclude";
inline constexpr const char* kClearPath = "config/clearCounters";
inline constexpr const char* kIntfStatusPath = "status/intfStatus";

// "config/vlanEnabled[10]" of a key as people write it.
inline std::string elementPath(std::string_view collection, std::string_view key) {
  return std::string(collection) + '[' + Ringward::Generic::quotedKey(key) + ']';
}

// The same of a key as a list names it, which has its backslashes already. What is shown of such a
// key is its unquotedKey().
inline std::string listedPath(std::string_view collection, const std::string& name) {
  return std::string(collection) + '[' + name + ']';
}

}  // namespace RingwardCli
