// SPDX-License-Identifier: Apache-2.0
//
// Generic access to the machines: include this to call Vex::genericIf() or fwkTypeOf() for one of
// them. The adapters are instantiated once, in EngineTypes.cc.
#pragma once

#include <span>

#include "engine/GlobalSmDescription.h"
#include "engine/IntfRxSmDescription.h"
#include "engine/TransmitSmDescription.h"
#include "engine/VlanIntfSmManagerDescription.h"
#include "engine/VlanIntfTxSmDescription.h"
#include "engine/VlanSet.h"
#include "engine/VlanSmDescription.h"
#include "model/generic/ModelTypes.h"
#include "runtime/vex/GenericObject.h"

extern template class Vex::GenericObject<Ringward::GlobalSm>;
extern template class Vex::GenericObject<Ringward::VlanIntfSmManager>;
extern template class Vex::GenericObject<Ringward::VlanSm>;
extern template class Vex::GenericObject<Ringward::VlanIntfTxSm>;
extern template class Vex::GenericObject<Ringward::IntfRxSm>;
extern template class Vex::GenericObject<Ringward::TransmitSm>;
extern template class Vex::GenericObject<Ringward::VlanSet>;

namespace Ringward::Generic {

// The types of the machines, made when the library is loaded.
std::span<Vex::VexType* const> engineTypes();

}  // namespace Ringward::Generic
