// SPDX-License-Identifier: Apache-2.0
//
// Generic access to the entities and values of the model: include this to call Vex::genericIf() or
// fwkTypeOf() for one of them. The adapters are instantiated once, in ModelTypes.cc.
#pragma once

#include <span>

#include "model/config/Config.h"
#include "model/generic/TableControl.h"
#include "model/status/PacketCounter.h"
#include "model/status/Status.h"
#include "model/status/TransmitStatus.h"
#include "model/values/PacketEncapsulation.h"
#include "model/values/Payload.h"
#include "runtime/vex/GenericObject.h"

extern template class Vex::GenericObject<Ringward::Config::Config>;
extern template class Vex::GenericObject<Ringward::Config::GlobalIntfConfig>;
extern template class Vex::GenericObject<Ringward::Config::TransmitConfig>;
extern template class Vex::GenericObject<Ringward::Status::Status>;
extern template class Vex::GenericObject<Ringward::Status::IntfStatus>;
extern template class Vex::GenericObject<Ringward::Status::TransmitStatus>;
extern template class Vex::GenericObject<Ringward::Status::PacketCounter>;
extern template class Vex::GenericObject<Ringward::Generic::TableControl>;

namespace Ringward::Generic {

// The types of the model's entities and values, made when the library is loaded.
std::span<Vex::VexType* const> modelTypes();

}  // namespace Ringward::Generic
