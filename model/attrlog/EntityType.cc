// SPDX-License-Identifier: Apache-2.0
#include "model/attrlog/EntityType.h"

#include "model/attrlog/EntityTypeOf.h"
#include "model/config/Config.h"
#include "model/status/PacketCounter.h"
#include "model/status/Status.h"
#include "model/status/TransmitStatus.h"

namespace Ringward::AttrLog {

const EntityType* modelEntityType(const Vex::Entity& entity) noexcept {
  static constexpr const EntityType* kTypes[] = {
      &entityTypeOf<Config::Config>,         &entityTypeOf<Config::GlobalIntfConfig>,
      &entityTypeOf<Config::TransmitConfig>, &entityTypeOf<Status::Status>,
      &entityTypeOf<Status::IntfStatus>,     &entityTypeOf<Status::TransmitStatus>,
      &entityTypeOf<Status::PacketCounter>};
  for (const EntityType* const type : kTypes) {
    if (type->is(entity)) return type;
  }
  return nullptr;
}

}  // namespace Ringward::AttrLog
