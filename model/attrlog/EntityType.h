// SPDX-License-Identifier: Apache-2.0
//
// Ringward::AttrLog::EntityType: how the log makes the adapter of an entity whose class is known
// only when the program runs. Constant; any thread.
#pragma once

#include <string_view>

#include "runtime/vex/attrlog/Demuxer.h"

namespace Ringward::AttrLog {

struct EntityType {
  std::string_view typeName;
  bool (*is)(const Vex::Entity& entity);
  // Makes the adapter and gives it to the demuxer, with these of Vex::StreamAdapter's flags.
  // REQUIRES: is(entity).
  Vex::StreamAdapter& (*newAdapter)(Vex::NboAttrLog::Demuxer& demuxer, Vex::Entity& entity,
                                    std::uint32_t flags);
};

// The type of an entity of the model; null for an entity of another class.
const EntityType* modelEntityType(const Vex::Entity& entity) noexcept;

}  // namespace Ringward::AttrLog
